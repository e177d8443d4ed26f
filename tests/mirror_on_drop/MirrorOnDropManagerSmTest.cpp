// The manager over the user's flow-tracking configuration, the hardware capability and the whole in-process
// road (dispatcher, receiver, sender, loopback collectors), on the simulated clock.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/support/FeaturePipeline.h"
#include "tests/support/TraceCapture.h"

using namespace MirrorOnDrop;
using namespace Calyx;
using MirrorOnDrop::Test::FeaturePipeline;

namespace {

class ManagerSmTest : public ::testing::Test {
 protected:
  Exchanger& x() { return *p.holder->exchanger(); }
  bool on() { return static_cast<bool>(p.agentDir->entry("CalyxMirror")); }
  size_t count(Report::ReportType type) {
    auto const& r = p.received();
    return size_t(std::count_if(r.begin(), r.end(), [&](auto const& e) { return e.type == type; }));
  }
  bool traced(std::string const& line) {
    auto const lines = trace.lines();
    return std::any_of(lines.begin(), lines.end(),
                       [&](std::string const& l) { return l.find(line) != l.npos; });
  }
  // On with tracker t1 and support.
  void startOn() {
    p.trackerConfigure("t1");
    p.capabilities->mirrorOnDropSupportedIs(true);
    p.managerStart();
    ASSERT_TRUE(p.manager->dispatcherSm());
  }

  FeaturePipeline p;
  Calyx::Test::TraceCapture trace{"MOD-Manager", 0x1ff};
};

TEST_F(ManagerSmTest, FullCycleOnDropsOffWithFlowsPendingThenOnWithAnotherTracker) {
  startOn();
  EXPECT_TRUE(on());
  EXPECT_TRUE(traced("Turning ON Mirror-On-Drop feature: tracker = 't1', hardware support = TRUE."));
  EXPECT_EQ(p.holder->hwFtConfig()->name(), "t1");
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 1), FeaturePipeline::frame(2, 2)});
  p.loop->runFor(1.1);
  EXPECT_EQ(count(Report::ReportType::START), 2u);

  p.capabilities->mirrorOnDropSupportedIs(false);  // off, with two flows pending
  EXPECT_TRUE(traced("Turning OFF Mirror-On-Drop feature: tracker = 't1', hardware support = FALSE."));
  EXPECT_TRUE(x().isTogglingFeatureOff());
  EXPECT_TRUE(p.manager->dispatcherSm());  // not before the STOPs
  p.loop->runUntilIdle();
  EXPECT_EQ(count(Report::ReportType::STOP), 2u);
  EXPECT_FALSE(p.manager->dispatcherSm());
  EXPECT_FALSE(on());
  EXPECT_FALSE(p.holder->hwFtConfig());
  EXPECT_FALSE(p.holder->hwFtStatus());
  EXPECT_EQ(p.hwStatus->hwFtStatusCount(), 0u);
  EXPECT_FALSE(x().isTogglingFeatureOff());
  EXPECT_EQ(x().counterSentStopReport(), 2u);  // the counters count on

  p.config->trackerDel("t1");
  p.trackerConfigure("t9");
  p.capabilities->mirrorOnDropSupportedIs(true);
  EXPECT_TRUE(on());
  EXPECT_EQ(p.holder->hwFtConfig()->name(), "t9");
  EXPECT_TRUE(p.hwStatus->hwFtStatus("t9"));
  EXPECT_EQ(x().counterSentStartReport(), 2u);
}

TEST_F(ManagerSmTest, RemovingTheActiveTrackerWhileOthersRemainIsPostponedThenAdjusted) {
  p.trackerConfigure("t2");
  startOn();  // t1 sorts first: the hardware runs t1
  Ptr<DispatcherSm> const dispatcher = p.manager->dispatcherSm();
  Ptr<SenderSm> const sender = dispatcher->senderSm();
  p.config->trackerDel("t1");
  EXPECT_TRUE(traced("Postponing config transition: old tracker = 't1', config count = 1."));
  EXPECT_TRUE(traced("Adjusting config transition: old tracker = 't1', new tracker = 't2'."));
  EXPECT_TRUE(traced("Processing status transition: old tracker = 't1', new tracker = 't2'."));
  EXPECT_EQ(p.manager->dispatcherSm(), dispatcher);  // the feature stays on
  EXPECT_NE(dispatcher->senderSm(), sender);         // with a sender for the new tracker
  EXPECT_FALSE(p.hwStatus->hwFtStatus("t1"));
  EXPECT_TRUE(p.hwStatus->hwFtStatus("t2"));
  EXPECT_EQ(p.holder->hwFtConfig()->name(), "t2");
  EXPECT_TRUE(on());
}

TEST_F(ManagerSmTest, SupportWithdrawnAndRestoredBeforeTheStopsCancelsTheTurnOff) {
  startOn();
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 1)});
  p.capabilities->mirrorOnDropSupportedIs(false);
  EXPECT_FALSE(p.manager->dispatcherSm()->receiverSm());
  p.capabilities->mirrorOnDropSupportedIs(true);  // before the report task has run
  EXPECT_FALSE(x().isTogglingFeatureOff());
  EXPECT_TRUE(p.manager->dispatcherSm()->receiverSm());  // receiving again
  p.loop->runFor(12);
  EXPECT_TRUE(on());
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(7, 7)});
  EXPECT_EQ(p.reportStatus->entryCount(), 1u);
}

TEST_F(ManagerSmTest, TurnOffCancelledAfterTheReadyPulseStillEndsOff) {
  startOn();
  p.capabilities->mirrorOnDropSupportedIs(false);  // no flow: ready at once, the task is scheduled
  EXPECT_TRUE(p.manager->taskToggleFeatureOff()->isScheduled());
  p.capabilities->mirrorOnDropSupportedIs(true);
  EXPECT_FALSE(x().isTogglingFeatureOff());
  p.loop->runUntilIdle();  // the task runs whatever happened since
  EXPECT_FALSE(p.manager->dispatcherSm());
  EXPECT_FALSE(on());
}

TEST_F(ManagerSmTest, IntervalChangesReachTheActiveTrackerOnly) {
  auto t1 = p.trackerConfigure("t1");
  p.capabilities->mirrorOnDropSupportedIs(false);
  p.managerStart();  // no hardware support: the tracker is in hardware but not active
  t1->inactiveTimeoutIs(FlowTracking::InactiveTimeout(9000));
  EXPECT_TRUE(traced("Postponing intervals update: status = FALSE."));
  p.capabilities->mirrorOnDropSupportedIs(true);
  ASSERT_TRUE(on());
  t1->activeIntervalIs(FlowTracking::ActiveInterval(2500));
  EXPECT_TRUE(traced("Updating intervals: active = 2.5s, inactive = 9s."));
  EXPECT_EQ(p.hwStatus->hwFtStatus("t1")->activeInterval().milliseconds(), 2500u);
}

TEST_F(ManagerSmTest, NamedAssertions) {
  EXPECT_DEATH(
      {
        startOn();
        p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 1)});
        p.capabilities->mirrorOnDropSupportedIs(false);  // a turn-off under way (a flow pending)
        p.config->enabledIs(false);                      // and a second one
      },
      "Unexpected state.");
  EXPECT_DEATH(
      {
        startOn();
        p.hwConfig->hwFtConfigIs("t8", make<HwFlowTracking::FtConfig>("t8"));
      },
      "Unexpected number of trackers.");
}

TEST_F(ManagerSmTest, ARestartTakesTheFlowsOverWhenStillConfigured) {
  startOn();
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 1), FeaturePipeline::frame(2, 2)});
  p.loop->runFor(1.1);
  ASSERT_EQ(count(Report::ReportType::START), 2u);
  // The agent dies: nothing is torn down; the tables and the tracker status stay. A new manager starts.
  p.manager->exchanger()->isTogglingFeatureOffStore(false);
  p.holder->hwFtConfigIs(nullptr);
  Ptr<ManagerSm> first = p.manager;
  p.manager = nullptr;
  p.config->trackerDel("t1");  // the configuration is read afresh by the new run
  p.trackerConfigure("t1");
  (void)first;  // kept alive: a killed agent runs no clean-up
  p.managerStart();
  ASSERT_TRUE(p.manager->dispatcherSm());
  EXPECT_EQ(p.manager->dispatcherSm()->reportStopEntryOutboxActive()->count(), 2u);
  p.loop->runFor(6);
  EXPECT_EQ(count(Report::ReportType::STOP), 2u);
  EXPECT_EQ(count(Report::ReportType::START), 2u);  // none more
}

TEST_F(ManagerSmTest, ARestartCleansTheStaleStateWhenNoLongerConfigured) {
  p.reportStatus->entryIs(Report::EntryStatus(FeaturePipeline::flow(1), Report::ReportType::START, {}));
  p.emtConfig->entryIs(Emt::EntryConfig(Emt::Key(FeaturePipeline::flow(1), FeaturePipeline::kIntfA)));
  p.hwStatus->hwFtStatusIs("t1");
  p.managerStart();
  EXPECT_TRUE(traced("Cleaning up stale state: config = YES, status = YES, report = YES."));
  EXPECT_EQ(p.reportStatus->entryCount(), 0u);
  EXPECT_EQ(p.emtConfig->entryCount(), 0u);
  EXPECT_EQ(p.hwStatus->hwFtStatusCount(), 0u);
  EXPECT_FALSE(on());
}

}  // namespace
