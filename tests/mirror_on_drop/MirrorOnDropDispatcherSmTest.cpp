// The dispatcher on the whole in-process road: crafted frames into an in-memory module, the real receiver,
// sender and loopback collectors, the shared tables, all on the simulated clock (t = 1000 at start; the
// tracker's active interval is 1 s and its inactive timeout 5 s unless a test says otherwise).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "platform/core/TimerWheel.h"
#include "tests/support/FeaturePipeline.h"
#include "tests/support/TraceCapture.h"

using namespace MirrorOnDrop;
using namespace Calyx;
using MirrorOnDrop::Test::FeaturePipeline;

namespace {

// Counts the Exchanger pulses the manager and the sender react to.
class Pulses : public Exchanger::Reactor {
 public:
  explicit Pulses(Ptr<Exchanger> e) : Reactor(std::move(e)) {}
  void handleIsStopReport() override { ++stopReport; }
  void handleIsToggleFeatureOffReady() override { ++offReady; }
  int stopReport = 0;
  int offReady = 0;
};

class DispatcherSmTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(p.collector4.bound() && p.collector6.bound()); }

  void start() {
    p.dispatcherStart();
    pulses = std::make_unique<Pulses>(p.holder->exchanger());
  }
  Exchanger& x() { return *p.holder->exchanger(); }
  double timer() { return p.dispatcher->timerAgeout()->timeMin(); }
  size_t count(Report::ReportType type) {
    auto const& r = p.received();
    return size_t(std::count_if(r.begin(), r.end(), [&](auto const& e) { return e.type == type; }));
  }
  uint16_t intfCount(IntfId const& intf) {
    auto const* e = p.reportStatus->entryIntf(Report::Interface::Key(intf));
    return e ? e->countReport() : 0;
  }

  FeaturePipeline p;
  std::unique_ptr<Pulses> pulses;
};

TEST_F(DispatcherSmTest, LifeOfOneFlowFromFirstDropToStopAndBack) {
  start();
  p.loop->runFor(0.5);
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 111)});  // t0 = 1000.5
  Report::EntryStatus const* stored = p.reportStatus->entry(FeaturePipeline::flow(1));
  ASSERT_NE(stored, nullptr);
  EXPECT_EQ(stored->type(), Report::ReportType::START);
  Report::Report const report = stored->report();
  EXPECT_EQ(intfCount(FeaturePipeline::kIntfA), 1);
  EXPECT_EQ(p.emtConfig->entryCount(), 1u);
  EXPECT_DOUBLE_EQ(timer(), 1010.5);
  EXPECT_TRUE(p.dispatcher->reportStartEntryOutboxActive()->entry(FeaturePipeline::flow(1)));
  EXPECT_TRUE(p.dispatcher->reportStopEntryOutboxActive()->entry(FeaturePipeline::flow(1)));

  p.loop->runFor(0.6);  // the first report boundary: one active interval after the sender started
  ASSERT_EQ(p.received().size(), 1u);
  auto const start = p.received()[0];
  EXPECT_EQ(start.type, Report::ReportType::START);
  ASSERT_EQ(start.payload.size(), 25u + report.dataSize());
  EXPECT_EQ(std::memcmp(start.payload.data(), report.bytes(), start.payload.size()), 0);
  EXPECT_EQ(p.received6().size(), 1u);
  EXPECT_TRUE(p.dispatcher->reportStartOutbox()->empty());

  p.loop->runFor(9.3);  // t = 1010.4: not yet
  EXPECT_EQ(count(Report::ReportType::STOP), 0u);
  p.loop->runFor(0.2);  // the age-out at t0 + 2 x inactive
  ASSERT_EQ(count(Report::ReportType::STOP), 1u);
  EXPECT_EQ(std::memcmp(p.received()[1].payload.data(), report.bytes(), start.payload.size()), 0);
  EXPECT_EQ(p.reportStatus->entryCount(), 0u);
  EXPECT_EQ(p.reportStatus->entryIntfCount(), 0u);
  EXPECT_EQ(p.emtConfig->entryCount(), 0u);
  EXPECT_FALSE(x().isStopReport());
  EXPECT_FALSE(p.dispatcher->timerAgeout()->isArmed());

  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 222)});  // the same flow is new again
  p.loop->runFor(1.0);
  EXPECT_EQ(count(Report::ReportType::START), 2u);
}

TEST_F(DispatcherSmTest, KnownPairsChangeNothingAndOtherInterfacesOnlyAddTheirEntry) {
  start();
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 1)});
  p.loop->runFor(3.0);
  double const due = timer();
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 2)});  // a second drop: nothing at all
  EXPECT_DOUBLE_EQ(timer(), due);
  EXPECT_EQ(p.reportStatus->entry(FeaturePipeline::flow(1))->report().timestamp().value(), 1u);
  EXPECT_EQ(p.emtConfig->entryCount(), 1u);

  p.drop(FeaturePipeline::kIntfB,
         {FeaturePipeline::frame(1, 3)});  // the flow on B: only its exact-match entry
  EXPECT_EQ(p.emtConfig->entryCount(), 2u);
  EXPECT_EQ(p.reportStatus->entryCount(), 1u);
  EXPECT_EQ(intfCount(FeaturePipeline::kIntfA), 1);
  EXPECT_EQ(intfCount(FeaturePipeline::kIntfB), 0);
  EXPECT_TRUE(p.dispatcher->reportStartEntryOutboxActive()->empty());
  EXPECT_EQ(p.dispatcher->reportStopEntryOutboxActive()->count(), 1u);
}

// The two asymmetries of the STOP bookkeeping are required behaviour: an exact-match entry on an interface
// without a counter stays, and every interface on which the flow had an entry is counted down although only
// the interface of its first drop was counted up.
TEST_F(DispatcherSmTest, StopLeavesEntriesOnInterfacesWithoutACounter) {
  start();
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 1)});
  p.drop(FeaturePipeline::kIntfB, {FeaturePipeline::frame(1, 2)});
  p.loop->runFor(10.1);
  EXPECT_EQ(count(Report::ReportType::STOP), 1u);
  EXPECT_EQ(p.reportStatus->entryCount(), 0u);
  EXPECT_EQ(p.reportStatus->entryIntfCount(), 0u);
  ASSERT_EQ(p.emtConfig->entryCount(), 1u);
  EXPECT_TRUE(p.emtConfig->entry(Emt::Key(FeaturePipeline::flow(1), FeaturePipeline::kIntfB)));
}

TEST_F(DispatcherSmTest, StopCountsDownEveryInterfaceTheFlowWasSeenOn) {
  start();
  p.drop(FeaturePipeline::kIntfB, {FeaturePipeline::frame(2, 1)});  // B counts flow 2
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 2)});  // A counts flow 1 ...
  p.drop(FeaturePipeline::kIntfB, {FeaturePipeline::frame(1, 3)});  // ... which B sees too
  EXPECT_EQ(intfCount(FeaturePipeline::kIntfA), 1);
  EXPECT_EQ(intfCount(FeaturePipeline::kIntfB), 1);
  p.dispatcher->reportStopEntryOutboxActive()->entryDel(FeaturePipeline::flow(2));  // only flow 1 stops
  p.loop->runFor(10.1);
  EXPECT_EQ(count(Report::ReportType::STOP), 1u);
  EXPECT_EQ(p.reportStatus->entryIntfCount(), 0u);  // B went to 0 with flow 1, not with its own flow 2
  EXPECT_TRUE(p.reportStatus->entry(FeaturePipeline::flow(2)));
  ASSERT_EQ(p.emtConfig->entryCount(), 1u);
  EXPECT_TRUE(p.emtConfig->entry(Emt::Key(FeaturePipeline::flow(2), FeaturePipeline::kIntfB)));
}

TEST_F(DispatcherSmTest, BatchesQueueOnlyWhenTheyHoldKeysAndLeaveWhenTheirLastKeyIsSent) {
  start();
  p.loop->runFor(1.1);  // an empty boundary queues nothing
  EXPECT_TRUE(p.dispatcher->reportStartOutbox()->empty());
  EXPECT_EQ(p.dispatcher->reportStartOutbox()->dequeued(), 0u);
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 1), FeaturePipeline::frame(2, 2)});
  p.loop->runFor(1.0);
  EXPECT_EQ(count(Report::ReportType::START), 2u);
  EXPECT_EQ(p.dispatcher->reportStartOutbox()->dequeued(), 1u);  // one batch per period, however many flows
  EXPECT_TRUE(p.dispatcher->reportStartOutbox()->empty());
}

TEST_F(DispatcherSmTest, AgeoutWithNothingToStopStillTellsTheSender) {
  start();
  p.dispatcher->ageout();
  EXPECT_EQ(pulses->stopReport, 1);
  EXPECT_TRUE(p.dispatcher->reportStopOutbox()->empty());
  EXPECT_FALSE(p.dispatcher->timerAgeout()->isArmed());
  p.dispatcher->ageout();  // the flag already stands: still heard
  EXPECT_EQ(pulses->stopReport, 2);
}

TEST_F(DispatcherSmTest, LastStopLowersTheStopFlagWithoutNotification) {
  start();
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 1)});
  p.loop->runFor(10.1);
  EXPECT_EQ(count(Report::ReportType::STOP), 1u);
  EXPECT_FALSE(x().isStopReport());
  EXPECT_EQ(pulses->stopReport, 1);  // the age-out's pulse only
}

TEST_F(DispatcherSmTest, InactiveTimeoutChangesBringTheAgeoutForwardButNeverDelayIt) {
  Calyx::Test::TraceCapture trace("MOD-Dispatcher", uint16_t(1u << 5));
  start();
  auto status = p.hwStatus->hwFtStatus(FeaturePipeline::kTracker);
  status->inactiveTimeoutIs(FlowTracking::InactiveTimeout(8000));
  x().isInactiveIntervalUpdatedPulse();  // no flow: the timer is idle
  EXPECT_EQ(trace.lines(5).back(), " Postponing inactive interval application: flow count = 0.");
  EXPECT_FALSE(p.dispatcher->timerAgeout()->isArmed());

  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 1)});
  EXPECT_DOUBLE_EQ(timer(), 1016.0);  // the new value is used when the timer is armed
  status->inactiveTimeoutIs(FlowTracking::InactiveTimeout(20000));
  x().isInactiveIntervalUpdatedPulse();
  EXPECT_DOUBLE_EQ(timer(), 1016.0);
  EXPECT_EQ(trace.lines(5).back(), " Applying inactive interval: next aging out is in 16s.");
  p.loop->runFor(2.0);
  status->inactiveTimeoutIs(FlowTracking::InactiveTimeout(3000));
  x().isInactiveIntervalUpdatedPulse();
  EXPECT_DOUBLE_EQ(timer(), 1008.0);
  EXPECT_EQ(trace.lines(5).back(), " Applying inactive interval: next aging out is in 6s.");
}

TEST_F(DispatcherSmTest, FlowsLeftByAnEarlierRunAreStoppedOneTimeoutLaterWithoutStart) {
  for (uint16_t n = 1; n <= 3; ++n) {
    p.reportStatus->entryIs(Report::EntryStatus(FeaturePipeline::flow(n), Report::ReportType::START, {}));
    p.emtConfig->entryIs(Emt::EntryConfig(Emt::Key(FeaturePipeline::flow(n), FeaturePipeline::kIntfA)));
  }
  p.reportStatus->entryIntfIs(Report::Interface::Entry(Report::Interface::Key(FeaturePipeline::kIntfA), 3));
  start();
  EXPECT_EQ(p.dispatcher->reportStopEntryOutboxActive()->count(), 3u);
  EXPECT_DOUBLE_EQ(timer(), 1005.0);
  p.loop->runFor(5.1);
  EXPECT_EQ(count(Report::ReportType::STOP), 3u);
  EXPECT_EQ(count(Report::ReportType::START), 0u);
  EXPECT_EQ(p.reportStatus->entryCount(), 0u);
  EXPECT_EQ(p.emtConfig->entryCount(), 0u);
}

TEST_F(DispatcherSmTest, TurnOffIsReadyOnlyAfterTheLastStop) {
  start();
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 1), FeaturePipeline::frame(2, 2)});
  x().isTogglingFeatureOffIs(true);
  EXPECT_EQ(p.dispatcher->receiverSm(), nullptr);
  EXPECT_EQ(pulses->offReady, 0);
  p.loop->runUntilIdle();  // the sender's task: the START batch, then both STOPs
  EXPECT_EQ(count(Report::ReportType::START), 2u);
  EXPECT_EQ(count(Report::ReportType::STOP), 2u);
  EXPECT_EQ(pulses->offReady, 1);
  EXPECT_EQ(p.emtConfig->entryCount(), 0u);
}

TEST_F(DispatcherSmTest, TurnOffWithoutFlowsIsReadyAtOnce) {
  start();
  x().isTogglingFeatureOffIs(true);
  EXPECT_EQ(pulses->offReady, 1);
  EXPECT_EQ(pulses->stopReport, 0);
}

TEST_F(DispatcherSmTest, LastStopWithAReceiverStillThereIsTheNamedAssertion) {
  start();
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 1)});
  x().isTogglingFeatureOffStore(true);  // a turn-off the dispatcher never heard of: its receiver lives on
  EXPECT_DEATH(p.loop->runFor(10.1), "Unexpected existence of ReceiverSm.");
}

TEST_F(DispatcherSmTest, TrackerChangeReplacesTheSenderAndKeepsTheFlows) {
  start();
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 1)});
  Ptr<SenderSm> const before = p.dispatcher->senderSm();
  Ptr<ReceiverSm> const receiver = p.dispatcher->receiverSm();
  x().isTrackerChangedPulse();
  EXPECT_NE(p.dispatcher->senderSm(), before);
  EXPECT_EQ(p.dispatcher->senderSm()->taskReport()->name(), "MOD-Task:report");
  EXPECT_EQ(p.dispatcher->receiverSm(), receiver);
  EXPECT_EQ(p.reportStatus->entryCount(), 1u);
  p.loop->runFor(10.1);
  EXPECT_EQ(count(Report::ReportType::START), 1u);
  EXPECT_EQ(count(Report::ReportType::STOP), 1u);
}

TEST_F(DispatcherSmTest, TraceEntryLinesNameTheHandlerAndTheTableCounts) {
  Calyx::Test::TraceCapture trace("MOD-Dispatcher", uint16_t(1u << 8));
  start();
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 1)});
  auto const lines = trace.lines(8);
  EXPECT_NE(std::find(lines.begin(), lines.end(), "DispatcherSm::initialize() [0,0]"), lines.end());
  // Nested in the receiver's readable and parsing handlers.
  EXPECT_EQ(lines.back(), "  DispatcherSm::handleProcessedPacket() [0,0]");
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 2)});
  EXPECT_EQ(trace.lines(8).back(), "  DispatcherSm::handleProcessedPacket() [1,0]");
}

TEST_F(DispatcherSmTest, DestroyedDispatcherLeavesNoReportStateAndNoQueues) {
  start();
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 1)});
  p.dispatcherStop();
  EXPECT_EQ(p.reportStatus->entryCount(), 0u);
  EXPECT_EQ(p.reportStatus->entryIntfCount(), 0u);
  EXPECT_EQ(p.emtConfig->entryCount(), 0u);
  EXPECT_EQ(x().reportStartOutbox(), nullptr);
  EXPECT_EQ(x().reportStopOutbox(), nullptr);
  EXPECT_EQ(x().counterProcessedPacket(), 1u);  // the counters count on
}

// Records every report the sender announces, by type.
class Announced : public Exchanger::Reactor {
 public:
  explicit Announced(Ptr<Exchanger> e) : Reactor(e), exchanger_(std::move(e)) {}
  void handleCounterSentStartReport() override { starts.push_back(exchanger_->reportKey()); }
  void handleCounterSentStopReport() override { stops.push_back(exchanger_->reportKey()); }
  std::vector<Report::Key> starts, stops;

 private:
  Ptr<Exchanger> exchanger_;
};

// Every flow of a storm in one readable event gets exactly one START and one STOP; the report task yields
// between keys when the scheduler asks and declares exactly the keys left. (No collectors here: ten thousand
// datagrams would overflow a test socket's buffer; what is sent is what the sender announces.)
TEST_F(DispatcherSmTest, DropStormOfTenThousandFlows) {
  p.exporter->collectorIpAndPortDelAll();
  p.exporter->collectorIp6AndPortDelAll();
  start();
  Announced announced(p.holder->exchanger());
  int calls = 0;
  p.loop->scheduler().shouldYieldIs([&] { return ++calls % 1000 == 0; });
  std::vector<std::vector<uint8_t>> frames;
  for (uint32_t n = 0; n < 10000; ++n) frames.push_back(FeaturePipeline::frame(uint16_t(n + 1), n));
  p.drop(FeaturePipeline::kIntfA, frames);
  EXPECT_EQ(p.reportStatus->entryCount(), 10000u);
  EXPECT_EQ(intfCount(FeaturePipeline::kIntfA), 10000);
  p.loop->runFor(1.0);
  Ptr<Calyx::Task> const task = p.dispatcher->senderSm()->taskReport();
  EXPECT_EQ(task->workCount(), 9000u);  // yielded after every thousand keys but the last
  EXPECT_EQ(announced.starts.size(), 10000u);
  p.loop->runFor(10.1);
  std::set<Report::Key> const starts(announced.starts.begin(), announced.starts.end());
  std::set<Report::Key> const stops(announced.stops.begin(), announced.stops.end());
  EXPECT_EQ(starts.size(), 10000u);
  EXPECT_EQ(announced.stops.size(), 10000u);
  EXPECT_EQ(stops, starts);
  EXPECT_EQ(p.reportStatus->entryCount(), 0u);
  EXPECT_EQ(p.reportStatus->entryIntfCount(), 0u);
  EXPECT_EQ(p.emtConfig->entryCount(), 0u);
}

// The agent's overload guard: past maxFlows a drop of a new flow is counted and leaves nothing behind, known
// flows go on (also on another interface), and room comes back as flows are stopped.
TEST_F(DispatcherSmTest, PastTheFlowCapNewFlowsAreRefusedAndCountedUntilFlowsAreStopped) {
  Calyx::Test::TraceCapture trace("MOD-Dispatcher", 1u << 1);
  p.fcsd->maxFlowsIs(2);
  start();
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(1, 1), FeaturePipeline::frame(2, 2),
                                   FeaturePipeline::frame(3, 3), FeaturePipeline::frame(4, 4)});
  EXPECT_EQ(x().counterRefusedFlow(), 2u);
  EXPECT_EQ(p.reportStatus->entryCount(), 2u);
  EXPECT_EQ(p.reportStatus->entry(FeaturePipeline::flow(3)), nullptr);
  EXPECT_EQ(p.emtConfig->entryCount(), 2u);
  EXPECT_EQ(intfCount(FeaturePipeline::kIntfA), 2);
  EXPECT_EQ(p.dispatcher->reportStartEntryOutboxActive()->count(), 2u);
  // A known flow on another interface is not a new flow: its pair is recorded.
  p.drop(FeaturePipeline::kIntfB, {FeaturePipeline::frame(1, 5)});
  EXPECT_EQ(p.emtConfig->entryCount(), 3u);
  EXPECT_EQ(x().counterRefusedFlow(), 2u);
  // Refusals within a second make one line.
  auto const refusals = trace.lines(1);
  ASSERT_EQ(refusals.size(), 1u);
  EXPECT_NE(refusals[0].find("[ERROR]: refusing new flows: the limit of 2 live flows is reached; 1 drops"),
            std::string::npos)
      << refusals[0];

  p.loop->runFor(10.1);  // both accepted flows get their START and STOP; the refused ones get nothing
  EXPECT_EQ(count(Report::ReportType::START), 2u);
  EXPECT_EQ(count(Report::ReportType::STOP), 2u);
  EXPECT_EQ(p.reportStatus->entryCount(), 0u);
  p.drop(FeaturePipeline::kIntfA, {FeaturePipeline::frame(3, 6)});  // room again
  EXPECT_NE(p.reportStatus->entry(FeaturePipeline::flow(3)), nullptr);
  EXPECT_EQ(x().counterRefusedFlow(), 2u);
}

TEST(MountHolderTest, TheFeatureTimerNeedsTheActivityManager) {
  EXPECT_DEATH(
      mountHolderFactory(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                         nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, PktManager::global()),
      "No activity manager");
}

}  // namespace
