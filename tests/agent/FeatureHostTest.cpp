// The plug-in as the agent meets it: the real libmirror_on_drop.so loaded through the platform's loader, its
// table's factories driven in the start-up order, and torn down in the reverse.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <vector>

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

// The host can reach the feature only through the entry point's table: the library defines no other dynamic
// symbol, neither the feature's classes nor the standard library's instances they use.
TEST(FeatureHostTest, ThePluginExportsItsEntryPointAndNothingElse) {
  std::string const command = "nm -D --defined-only " + buildFile(kPlugin);
  FILE* nm = popen(command.c_str(), "r");
  ASSERT_TRUE(nm);
  std::vector<std::string> names;
  char line[4096];
  while (std::fgets(line, sizeof line, nm)) {
    std::istringstream fields(line);
    std::string address, type, name;
    fields >> address >> type >> name;
    names.push_back(name);
  }
  ASSERT_EQ(pclose(nm), 0) << command;
  EXPECT_EQ(names, std::vector<std::string>{PluginTable::kEntryPoint});
}

}  // namespace
