// The plug-in as the agent meets it: the real libmirror_on_drop.so loaded through the platform's loader, its
// table's factories driven in the start-up order, and torn down in the reverse.
#include <gtest/gtest.h>

#include <cstdlib>

#include "agent/FeatureHost.h"
#include "platform/core/EventLoop.h"
#include "platform/io/PluginLibrary.h"
#include "testkit/TempStateDir.h"

using namespace MirrorOnDrop;
using namespace Calyx;

namespace {

std::string buildFile(std::string const& rel) {
  char const* dir = std::getenv("CALYX_BUILD_DIR");
  return std::string(dir ? dir : ".") + "/" + rel;
}

std::string const kPlugin = "mirror_on_drop/libmirror_on_drop.so";

TEST(FeatureHostTest, StartUpTurnsTheFeatureOnAndTearDownLeavesItOff) {
  Calyx::Test::TempStateDir dir;
  std::string error;
  auto library =
      PluginLibrary::open(buildFile(kPlugin), PluginTable::kEntryPoint, PluginTable::kVersion, error);
  ASSERT_TRUE(library) << error;
  auto const& plugin = library->tableAs<PluginTable>();

  auto loop = EventLoop::makeSimulated();
  FeatureMounts m = featureMountsMake(loop);
  m.config->enabledIs(true);
  m.config->trackerIs("t1", make<FlowTracking::TrackerConfig>("t1"));
  m.capabilities->mirrorOnDropSupportedIs(true);
  auto host = std::make_unique<FeatureHost>(plugin, m);
  EXPECT_TRUE(host->featureOn());
  ASSERT_TRUE(host->activeTracker());
  EXPECT_EQ(host->activeTracker()->name(), "t1");
  EXPECT_TRUE(m.hwStatus->hwFtStatus("t1"));
  EXPECT_TRUE(host->adapter());
  host.reset();
  EXPECT_EQ(m.agentDir->entryCount(), 0u);
  EXPECT_EQ(m.hwStatus->hwFtStatusCount(), 0u);
}

}  // namespace
