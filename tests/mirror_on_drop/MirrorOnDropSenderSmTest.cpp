// The sender over real UDP sockets on loopback and the simulated clock. A test reactor plays the dispatcher:
// it queues the START batch when the report time is published and takes each announced key out of its batch.
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "mirror_on_drop/MirrorOnDropSenderSm.h"
#include "platform/core/EventLoop.h"
#include "platform/shm/RingTrace.h"
#include "platform/types/PktManager.h"
#include "testkit/TempStateDir.h"
#include "tests/support/LoopbackReceiver.h"
#include "tests/support/TraceCapture.h"

using namespace MirrorOnDrop;
using namespace Calyx;
using Calyx::Test::LoopbackReceiver;

namespace {

class Dispatcher : public Exchanger::Reactor {
 public:
  explicit Dispatcher(Ptr<Exchanger> e) : Reactor(e), exchanger_(std::move(e)) {}
  void handleTimerReportTimeMin() override {
    reportTimes.push_back(exchanger_->timerReportTimeMin());
    if (active->empty()) return;
    exchanger_->reportStartOutbox()->entryEnq(active);
    active = make<Report::EntryOutbox>();
  }
  void handleCounterSentStartReport() override { taken(exchanger_->reportStartOutbox(), "START"); }
  void handleCounterSentStopReport() override {
    taken(exchanger_->reportStopOutbox(), "STOP");
    if (exchanger_->reportStopOutbox()->empty()) exchanger_->isStopReportStore(false);
  }
  void taken(Ptr<Report::Outbox> const& outbox, std::string const& type) {
    announced.push_back(type + ":" + std::to_string(exchanger_->reportKey().srcPort()));
    auto head = outbox->entryFront();
    head->entryDel(exchanger_->reportKey());
    if (head->empty()) outbox->entryDeq();
  }
  Ptr<Report::EntryOutbox> active = make<Report::EntryOutbox>();
  std::vector<double> reportTimes;
  std::vector<std::string> announced;

 private:
  Ptr<Exchanger> exchanger_;
};

Report::Key flow(uint16_t port) {
  return Report::Key(6, *IpGenAddr::parse("10.0.0.1"), *IpGenAddr::parse("10.0.0.2"), port, 80);
}

class SenderSmTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(rx4.bound() && rx6.bound());
    exchanger->reportStartOutboxIs(make<Report::Outbox>());
    exchanger->reportStopOutboxIs(make<Report::Outbox>());
    status->activeIntervalIs(FlowTracking::ActiveInterval(10000));
    exporter->srcIpAddrIs(Ip4Addr::fromHost(0x7f000001));
    exporter->srcIp6AddrIs(IpGenAddr::parse("::1")->v6());
    exporter->dscpIs(DscpValue(46));
    exporter->collectorIpAndPortIs("c4",
                                   HwFlowTracking::IpAndPort(*IpGenAddr::parse("127.0.0.1"), rx4.port()));
    exporter->collectorIp6AndPortIs("c6", HwFlowTracking::IpAndPort(*IpGenAddr::parse("::1"), rx6.port()));
    config->expConfigIs("exp", exporter);
  }
  void TearDown() override { sender.reset(); }

  void senderNew() {
    sender = make<SenderSm>(configReq, config, status, collectorStatus, reportStatus,
                            loop->scheduler().taskNew("MOD-Task:report", 3), wheel, exchanger, packets);
  }
  // A flow with a report whose sample holds n bytes (0x40, 0x41, ...), put in the table and the active batch.
  void flowAdd(uint16_t port, uint8_t n = 14) {
    Report::Report r(Drop::Timestamp(0x0102030405060708), Drop::Reason(1, 2, 3, 0xff), 0);
    std::vector<uint8_t> sample(n);
    for (uint8_t i = 0; i < n; ++i) sample[i] = uint8_t(0x40 + i);
    r.payloadIs(sample.data(), n);
    reportStatus->entryIs(Report::EntryStatus(flow(port), Report::ReportType::START, r));
    dispatcher.active->entryIs(flow(port));
  }
  Collector::EntryStatus counters(char const* collector, char const* exp = "exp") {
    auto const* e = collectorStatus->entry(Collector::Key(exp, collector));
    return e ? *e : Collector::EntryStatus();
  }

  Calyx::Test::TempStateDir stateDir;
  LoopbackReceiver rx4{AF_INET};
  LoopbackReceiver rx6{AF_INET6};
  Calyx::Test::TraceCapture trace{"MOD-Sender", kTraceLevelsAll};
  Ptr<EventLoop> loop = EventLoop::makeSimulated(1000.0);
  Ptr<TimerWheel> wheel = make<TimerWheel>(*loop, 200, 525600, false, 1024);
  Ptr<FlowTracking::ConfigReq> configReq = make<FlowTracking::ConfigReq>();
  Ptr<HwFlowTracking::FtConfig> config = make<HwFlowTracking::FtConfig>("t1");
  Ptr<HwFlowTracking::FtStatus> status = make<HwFlowTracking::FtStatus>("t1");
  Ptr<HwFlowTracking::ExporterConfig> exporter = make<HwFlowTracking::ExporterConfig>("exp");
  Ptr<Collector::Status> collectorStatus = Collector::statusFactory("collectorStatus");
  Ptr<Report::Status> reportStatus = Report::statusFactory("reportStatus");
  Ptr<Exchanger> exchanger = make<Exchanger>();
  Dispatcher dispatcher{exchanger};
  PktManager packets;  // the host's pool, handed to the sender
  Ptr<SenderSm> sender;
};

TEST_F(SenderSmTest, StartReportsArePacedByTheActiveInterval) {
  senderNew();
  flowAdd(1);
  EXPECT_DOUBLE_EQ(sender->timerReport()->timeMin(), 1010.0);
  loop->runFor(9.9);
  EXPECT_TRUE(dispatcher.announced.empty());
  loop->runFor(0.2);
  EXPECT_EQ(dispatcher.reportTimes, (std::vector<double>{1020.0}));  // re-armed one interval after it fired
  EXPECT_EQ(dispatcher.announced, (std::vector<std::string>{"START:1"}));
  EXPECT_TRUE(exchanger->reportStartOutbox()->empty());
  // A longer interval never postpones a due report; a shorter one brings it forward.
  status->activeIntervalIs(FlowTracking::ActiveInterval(100000));
  EXPECT_DOUBLE_EQ(sender->timerReport()->timeMin(), 1020.0);
  status->activeIntervalIs(FlowTracking::ActiveInterval(2000));
  EXPECT_NEAR(sender->timerReport()->timeMin(), 1012.1, 1e-9);
}

TEST_F(SenderSmTest, ReportPacketsComeFromThePoolTheHostHandsOver) {
  senderNew();
  flowAdd(1);
  uint64_t const fromGlobal = PktManager::global().allocated();
  loop->runFor(10.1);
  EXPECT_EQ(rx4.drain().size(), 1u);
  EXPECT_GT(packets.allocated(), 0u);
  EXPECT_EQ(PktManager::global().allocated(), fromGlobal);
}

TEST_F(SenderSmTest, PayloadIsTheTypeByteAndTheStoredReportVerbatim) {
  senderNew();
  flowAdd(1, 80);
  flowAdd(2, 0);
  loop->runFor(10.1);
  auto const got = rx4.drain();
  ASSERT_EQ(got.size(), 2u);
  Report::Report const& r80 = reportStatus->entry(flow(1))->report();
  for (auto const& d : got) {
    size_t const n = d.bytes.size() - 26;
    EXPECT_EQ(d.bytes[0], 0);  // START
    EXPECT_EQ(d.bytes[25], n);
    EXPECT_EQ(d.tos, 46);  // the DSCP value as the TOS byte, unshifted
    EXPECT_EQ(d.from, "127.0.0.1");
    if (n == 80) {
      EXPECT_EQ(std::vector<uint8_t>(d.bytes.begin() + 1, d.bytes.end()),
                std::vector<uint8_t>(r80.bytes(), r80.bytes() + 105));
    }
    EXPECT_EQ(std::vector<uint8_t>(d.bytes.begin() + 1, d.bytes.begin() + 9),
              (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8}));
  }
  EXPECT_EQ(rx6.drain().size(), 2u);
  EXPECT_EQ(counters("c4").bytes(), 25u + 80 + 25 + 0);
  EXPECT_EQ(counters("c4").start(), 2u);
  EXPECT_EQ(counters("c6").start(), 2u);
  EXPECT_EQ(counters("c6").stop(), 0u);
}

TEST_F(SenderSmTest, StopReportsWaitForTheStopFlagAndFollowStarts) {
  senderNew();
  flowAdd(1);
  auto stopBatch = make<Report::EntryOutbox>();
  stopBatch->entryIs(flow(1));
  exchanger->reportStopOutbox()->entryEnq(stopBatch);
  loop->runFor(10.1);
  EXPECT_EQ(dispatcher.announced, (std::vector<std::string>{"START:1"}));  // STOP waits: the flag is down
  exchanger->isStopReportPulse();
  loop->runUntilIdle();
  EXPECT_EQ(dispatcher.announced, (std::vector<std::string>{"START:1", "STOP:1"}));
  auto const got = rx4.drain();
  ASSERT_EQ(got.size(), 2u);
  // The two packets differ in their type byte only.
  EXPECT_EQ(got[1].bytes[0], 1);
  EXPECT_EQ(std::vector<uint8_t>(got[0].bytes.begin() + 1, got[0].bytes.end()),
            std::vector<uint8_t>(got[1].bytes.begin() + 1, got[1].bytes.end()));
  EXPECT_EQ(counters("c4").stop(), 1u);
  EXPECT_FALSE(exchanger->isStopReport());
}

TEST_F(SenderSmTest, FailedSendIsTracedAndTheNextCollectorStillGetsIt) {
  exporter->srcIpAddrIs(Ip4Addr::fromHost(0xc0000201));  // 192.0.2.1: not an address of this host
  senderNew();
  flowAdd(7);
  trace.clear();
  loop->runFor(10.1);
  EXPECT_TRUE(rx4.drain().empty());
  EXPECT_EQ(rx6.drain().size(), 1u);
  EXPECT_EQ(counters("c4"), Collector::EntryStatus(Collector::Key("exp", "c4")));
  EXPECT_EQ(counters("c6").start(), 1u);
  auto const errors = trace.lines(1);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_NE(errors[0].find("[ERROR]: sending report packet failed { errno = "), std::string::npos)
      << errors[0];
  // Counted for that collector only, where the agent's statistics are read; cleared with its counters.
  auto const& failed = exchanger->sendErrors();
  ASSERT_EQ(failed.size(), 1u);
  EXPECT_EQ(failed.begin()->first, std::make_pair(String("exp"), String("c4")));
  EXPECT_EQ(failed.begin()->second.count, 1u);
  EXPECT_NE(failed.begin()->second.lastErrno, 0);
  auto const records = RingTrace::instance().records();
  ASSERT_FALSE(records.empty());
  EXPECT_EQ(records.back().text.rfind("Failed to send report: errno = ", 0), 0u);
  EXPECT_NE(records.back().text.find("sIp = 192.0.2.1, dIp = 127.0.0.1"), std::string::npos);
  EXPECT_EQ(dispatcher.announced.size(), 1u);  // announced once all collectors were tried
}

TEST_F(SenderSmTest, YieldDeclaresExactlyTheKeysLeft) {
  senderNew();
  for (uint16_t p = 1; p <= 5; ++p) flowAdd(p);
  int sentSinceStart = 0;
  loop->scheduler().shouldYieldIs([&] { return ++sentSinceStart % 2 == 0; });
  loop->runFor(10.0);  // the activation: two keys, then a yield
  Ptr<Task> const& task = sender->taskReport();
  EXPECT_GE(task->runCount(), 1u);
  auto const yields = trace.lines(3);
  ASSERT_FALSE(yields.empty());
  EXPECT_EQ(yields[0], "  Yielding activity: sent reports count = 2.");
  loop->runUntilIdle();
  EXPECT_EQ(dispatcher.announced.size(), 5u);
  EXPECT_EQ(task->workCount(), 4u);  // 2 + 2; the last pass ends without yielding and records nothing
  EXPECT_EQ(task->workPending(), 1u);
}

TEST_F(SenderSmTest, WithoutExportersKeysStillDrain) {
  config->expConfigDel("exp");
  senderNew();
  flowAdd(1);
  flowAdd(2);
  loop->runFor(10.1);
  EXPECT_EQ(dispatcher.announced.size(), 2u);
  EXPECT_TRUE(exchanger->reportStartOutbox()->empty());
  EXPECT_EQ(collectorStatus->entryCount(), 0u);
}

TEST_F(SenderSmTest, CollectorEntriesFollowTheConfiguration) {
  collectorStatus->entryIs(Collector::EntryStatus(Collector::Key("exp", "c4"), 100, 4, 3));
  collectorStatus->entryIs(Collector::EntryStatus(Collector::Key("exp", "gone"), 1, 1, 1));
  collectorStatus->entryIs(Collector::EntryStatus(Collector::Key("old", "c4"), 1, 1, 1));
  senderNew();
  EXPECT_EQ(collectorStatus->entryCount(), 2u);  // stale ones pruned, survivors keep their counters
  EXPECT_EQ(counters("c4").bytes(), 100u);
  EXPECT_EQ(counters("c6").bytes(), 0u);
  exporter->collectorIpAndPortIs("both",
                                 HwFlowTracking::IpAndPort(*IpGenAddr::parse("127.0.0.1"), rx4.port()));
  exporter->collectorIp6AndPortIs("both", HwFlowTracking::IpAndPort(*IpGenAddr::parse("::1"), rx6.port()));
  flowAdd(1, 20);
  loop->runFor(10.1);
  EXPECT_EQ(counters("both").start(), 2u);  // sent twice, counted in one entry
  EXPECT_EQ(counters("both").bytes(), 2u * 45);
  exporter->collectorIpAndPortDel("both");
  EXPECT_TRUE(collectorStatus->entry(Collector::Key("exp", "both")));  // still an IPv6 collector
  exporter->collectorIp6AndPortDel("both");
  EXPECT_FALSE(collectorStatus->entry(Collector::Key("exp", "both")));
  config->expConfigDel("exp");
  EXPECT_EQ(collectorStatus->entryCount(), 0u);
}

TEST_F(SenderSmTest, ClearRequestsZeroTheNamedExporterOrAll) {
  auto second = make<HwFlowTracking::ExporterConfig>("other");
  second->collectorIpAndPortIs("x", HwFlowTracking::IpAndPort(*IpGenAddr::parse("127.0.0.1"), rx4.port()));
  config->expConfigIs("other", second);
  senderNew();
  flowAdd(1);
  loop->runFor(10.1);
  ASSERT_EQ(counters("x", "other").start(), 1u);
  exchanger->sendErrorInc("exp", "c4", EHOSTUNREACH);
  exchanger->sendErrorInc("other", "x", EHOSTUNREACH);
  configReq->clearCounterReqIs(FlowTracking::ClearCounterReq("t1", "exp", 5.0));
  EXPECT_EQ(counters("c4").start(), 0u);
  EXPECT_EQ(counters("x", "other").start(), 1u);
  EXPECT_EQ(exchanger->sendErrors().size(), 1u);  // the other exporter's stay
  configReq->clearCounterReqIs(FlowTracking::ClearCounterReq("t1", "", 6.0));
  EXPECT_EQ(counters("x", "other"), Collector::EntryStatus(Collector::Key("other", "x")));
  EXPECT_TRUE(exchanger->sendErrors().empty());
  EXPECT_EQ(collectorStatus->entryCount(), 3u);
  sender.reset();  // its cleanup removes every collector entry
  EXPECT_EQ(collectorStatus->entryCount(), 0u);
}

}  // namespace
