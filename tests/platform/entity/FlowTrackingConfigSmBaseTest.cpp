// The translation of the user's flow-tracking configuration into the hardware's: one tracker at most, the old
// one out before the new one in, changes through the hardware objects' own setters.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/entity/FlowTrackingConfigSmBase.h"

using namespace Calyx;
using namespace Calyx::FlowTracking;

namespace {

class Agent : public ConfigSmBase {
 public:
  using ConfigSmBase::ConfigSmBase;
  std::string agentName() const override { return "test"; }
  void handleConfigEnabled() override { handleFlowTrackerConfig(); }
  void handleCapabilitiesSupported() override { ++supportChanges; }
  int supportChanges = 0;

 protected:
  ~Agent() override = default;
};

// What a reactor on the hardware configuration sees, in order: "+name" / "-name".
class HwWatch : public HwFlowTracking::Config::Reactor {
 public:
  using Reactor::Reactor;
  void handleHwFtConfig(String const& name) override {
    seen.push_back((notifier()->hwFtConfig(name) ? "+" : "-") + name);
  }
  std::vector<std::string> seen;
};

class ConfigSmBaseTest : public ::testing::Test {
 protected:
  Ptr<TrackerConfig> tracker(std::string const& name, uint32_t activeMs = 1000) {
    auto t = make<TrackerConfig>(name);
    t->activeIntervalIs(ActiveInterval(activeMs));
    auto e = make<HwFlowTracking::ExporterConfig>("e1");
    e->collectorIpAndPortIs("c1", HwFlowTracking::IpAndPort(*IpGenAddr::parse("127.0.0.1"), 6343));
    t->exporterIs("e1", e);
    return t;
  }
  Ptr<Agent> agentNew() {
    auto a = make<Agent>(config, status, hwConfig, capabilities, nullptr, nullptr, nullptr, nullptr, nullptr,
                         nullptr, nullptr, make<TaskScheduler>());
    a->handleFlowTrackerConfig();
    return a;
  }
  Ptr<Config> config = make<Config>();
  Ptr<Status> status = make<Status>();
  Ptr<HwFlowTracking::Config> hwConfig = make<HwFlowTracking::Config>();
  Ptr<HwFlowTracking::Capabilities> capabilities = make<HwFlowTracking::Capabilities>();
  HwWatch watch{hwConfig};
};

TEST_F(ConfigSmBaseTest, OneTrackerAtATimeOldOutBeforeNewIn) {
  config->trackerIs("t2", tracker("t2"));
  config->trackerIs("t3", tracker("t3"));
  auto agent = agentNew();
  EXPECT_EQ(hwConfig->hwFtConfigCount(), 0u);  // not enabled
  config->enabledIs(true);
  EXPECT_EQ(watch.seen, (std::vector<std::string>{"+t2"}));
  EXPECT_EQ(status->trackerInHardware("t2"), true);
  EXPECT_EQ(status->trackerInHardware("t3"), false);
  config->trackerIs("t1", tracker("t1"));  // now first by name: replaces t2
  EXPECT_EQ(watch.seen, (std::vector<std::string>{"+t2", "-t2", "+t1"}));
  ASSERT_EQ(hwConfig->hwFtConfigCount(), 1u);
  EXPECT_EQ(hwConfig->hwFtConfig("t1")->expConfig("e1")->collectorIpAndPortCount(), 1u);
  config->enabledIs(false);
  EXPECT_EQ(hwConfig->hwFtConfigCount(), 0u);
}

TEST_F(ConfigSmBaseTest, ChangesGoThroughTheHardwareObjectsSetters) {
  config->enabledIs(true);
  auto t1 = tracker("t1");
  config->trackerIs("t1", t1);
  auto agent = agentNew();
  Ptr<HwFlowTracking::FtConfig> const hw = hwConfig->hwFtConfig("t1");
  Ptr<HwFlowTracking::ExporterConfig> const hwExporter = hw->expConfig("e1");
  t1->activeIntervalIs(ActiveInterval(4000));
  t1->exporter("e1")->dscpIs(DscpValue(46));
  t1->exporter("e1")->collectorIp6AndPortIs("c6", HwFlowTracking::IpAndPort(*IpGenAddr::parse("::1"), 6343));
  t1->exporter("e1")->collectorIpAndPortDel("c1");
  auto e2 = make<HwFlowTracking::ExporterConfig>("e2");
  t1->exporterIs("e2", e2);
  e2->dscpIs(DscpValue(10));                  // a new exporter is followed too
  EXPECT_EQ(hwConfig->hwFtConfig("t1"), hw);  // the same objects, changed in place
  EXPECT_EQ(hw->expConfig("e1"), hwExporter);
  EXPECT_EQ(hw->activeInterval().milliseconds(), 4000u);
  EXPECT_EQ(hwExporter->dscp(), DscpValue(46));
  EXPECT_EQ(hwExporter->collectorIpAndPortCount(), 0u);
  EXPECT_EQ(hwExporter->collectorIp6AndPortCount(), 1u);
  EXPECT_EQ(hw->expConfig("e2")->dscp(), DscpValue(10));
  t1->exporterDel("e1");
  EXPECT_FALSE(hw->expConfig("e1"));
  capabilities->mirrorOnDropSupportedIs(true);
  EXPECT_EQ(agent->supportChanges, 1);
}

// Counts what reactors on the hardware tracker and its exporter hear.
struct HwTrackerWatch : HwFlowTracking::FtConfig::Reactor {
  using Reactor::Reactor;
  void handleActiveInterval() override { ++intervals; }
  int intervals = 0;
};
struct HwExporterWatch : HwFlowTracking::ExporterConfig::Reactor {
  using Reactor::Reactor;
  void handleDscp() override { ++dscps; }
  void handleCollectorIpAndPort(String const& name) override { collectors.push_back(name); }
  int dscps = 0;
  std::vector<std::string> collectors;
};

TEST_F(ConfigSmBaseTest, ObjectsReplacedUnderTheSameNameAreFollowedAndOnlyRealChangesReachTheHardware) {
  config->enabledIs(true);
  config->trackerIs("t1", tracker("t1"));
  auto agent = agentNew();
  Ptr<HwFlowTracking::FtConfig> const hw = hwConfig->hwFtConfig("t1");
  HwTrackerWatch trackerWatch(hw);
  HwExporterWatch exporterWatch(hw->expConfig("e1"));

  auto t1 = tracker("t1", 2000);  // a new object under the same name: the same hardware tracker, updated
  config->trackerIs("t1", t1);
  EXPECT_EQ(watch.seen, (std::vector<std::string>{"+t1"}));
  EXPECT_EQ(trackerWatch.intervals, 1);
  EXPECT_TRUE(exporterWatch.collectors.empty());  // same collector, same address: nothing to hear
  t1->inactiveTimeoutIs(InactiveTimeout(30000));  // the new object is the one followed
  EXPECT_EQ(hw->inactiveTimeout(), InactiveTimeout(30000));
  EXPECT_EQ(trackerWatch.intervals, 1);

  auto e1 = make<HwFlowTracking::ExporterConfig>("e1");
  e1->collectorIpAndPortIs("c1", HwFlowTracking::IpAndPort(*IpGenAddr::parse("127.0.0.2"), 6343));
  t1->exporterIs("e1", e1);
  e1->dscpIs(DscpValue(8));
  EXPECT_EQ(exporterWatch.collectors, (std::vector<std::string>{"c1"}));  // the address changed in place
  EXPECT_EQ(exporterWatch.dscps, 1);
  EXPECT_EQ(exporterWatch.notifier(), hw->expConfig("e1").get());
}

}  // namespace
