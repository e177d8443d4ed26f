// Live capture: on a veth pair in a throw-away network namespace (root only), frames mod-gen sends on one end
// arrive through the Pam on the other, in batches of at most the read limit, and nothing of another EtherType
// does. A device that goes away is traced and retried; one that does not exist fails for good, never fatally.

#include "platform/io/LivePam.h"

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/core/TraceSink.h"
#include "platform/io/PamTrace.h"
#include "testkit/NetNs.h"
#include "tests/support/TraceCapture.h"

using namespace Calyx;

namespace {

class Collector : public Pam::Reactor {
 public:
  explicit Collector(Ptr<Pam const> pam) : Reactor(pam), pam_(std::move(pam)) {}
  void handleReadable() override {
    batches.push_back(pam_->curRxPkts());
    while (Ptr<Pkt> pkt = pam_->rxPkt()) frames.emplace_back(pkt->data(), pkt->data() + pkt->bytes());
  }
  std::vector<uint16_t> batches;
  std::vector<std::vector<uint8_t>> frames;

 private:
  Ptr<Pam const> pam_;
};

// Runs the real loop until pred holds or the time is up.
bool runUntil(EventLoop& loop, std::function<bool()> const& pred, double seconds) {
  auto const end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!pred() && std::chrono::steady_clock::now() < end) loop.runFor(0.02);
  return pred();
}

class LivePamOnVethTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (auto why = NetNs::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
    ns = std::make_unique<NetNs>();
    ASSERT_TRUE(ns->ok()) << "could not make namespace " << ns->name();
    pam = ns->inside([&] {
      LivePamOptions options;
      options.device = ns->b();
      options.filter = "ether proto 0x1042";
      return make<LivePam>(*loop, wheel, IntfId("et1"), options);
    });
    ASSERT_TRUE(pam->isCapturing()) << pam->lastError();
    collector = std::make_unique<Collector>(pam);
  }
  void TearDown() override {
    collector.reset();
    pam = nullptr;
    ns.reset();
  }
  bool modGen(std::string const& args) {
    return ns->run("mod-gen --interface " + ns->a() + " --rate 0 " + args);
  }

  std::unique_ptr<NetNs> ns;
  Ptr<EventLoop> loop = EventLoop::makeReal();
  Ptr<TimerWheel> wheel = make<TimerWheel>(*loop, 10, 1000, false, 64);
  Ptr<LivePam> pam;
  std::unique_ptr<Collector> collector;
};

TEST_F(LivePamOnVethTest, SentDropFramesArriveAndOtherEtherTypesNever) {
  ASSERT_TRUE(
      modGen("--flows 10 --drops-per-flow 5 --malformed wrong-ethertype --malformed-count 20 --seed 1"));
  (void)ns->run("ping -c 1 -W 0.1 -I " + ns->a() + " 192.0.2.9");  // ARP and IPv6 chatter, too
  EXPECT_TRUE(runUntil(
      *loop, [&] { return collector->frames.size() >= 50; }, 5.0));
  loop->runFor(0.2);  // anything filtered wrongly would come now
  ASSERT_EQ(collector->frames.size(), 50u);
  for (auto const& f : collector->frames) {
    ASSERT_GE(f.size(), 14u);
    EXPECT_EQ(f[12] << 8 | f[13], 0x1042);
  }
}

TEST_F(LivePamOnVethTest, AFullRingIsTakenAtMostReadLimitFramesPerTurn) {
  // Everything is in the ring before the loop first looks.
  ASSERT_TRUE(modGen("--flows 200 --seed 2"));
  EXPECT_TRUE(runUntil(
      *loop, [&] { return collector->frames.size() >= 200; }, 5.0));
  EXPECT_EQ(collector->frames.size(), 200u);
  ASSERT_FALSE(collector->batches.empty());
  for (uint16_t b : collector->batches) EXPECT_LE(b, 64);
  EXPECT_EQ(collector->batches.front(), 64);
}

TEST_F(LivePamOnVethTest, AnInterfaceThatGoesAwayIsTracedAndRetried) {
  Calyx::Test::TraceCapture trace("Calyx-Pam", 1u << 1 | 1u << 3);
  ASSERT_TRUE(ns->run("ip link delete " + ns->a()));  // takes its peer with it
  EXPECT_TRUE(runUntil(
      *loop, [&] { return !pam->isCapturing(); }, 5.0));
  EXPECT_FALSE(pam->lastError().empty());
  EXPECT_EQ(pam->state(), LivePam::State::retrying);
  EXPECT_TRUE(wheel->armedCount() > 0) << "a retry is pending";
  EXPECT_FALSE(trace.lines().empty());
}

TEST(LivePamTest, AMissingDeviceFailsForGoodUntilOpenedAgain) {
  Calyx::Test::TraceCapture trace("Calyx-Pam", 1u << 1 | 1u << 3);
  auto loop = EventLoop::makeSimulated();
  auto wheel = make<TimerWheel>(*loop, 10, 1000, false, 64);
  LivePamOptions options;
  options.device = "calyxnodev0";
  options.retryInterval = 3.0;
  auto pam = make<LivePam>(*loop, wheel, IntfId("Ethernet9"), options);
  EXPECT_FALSE(pam->isCapturing());
  // No such device as root, no permission otherwise: neither passes by waiting.
  EXPECT_EQ(pam->state(), LivePam::State::failed);
  loop->runFor(7.0);
  EXPECT_EQ(pam->openAttempts(), 1u);
  EXPECT_EQ(wheel->armedCount(), 0u);
  auto const lines = trace.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("[ERROR] Cannot capture on calyxnodev0 for Ethernet9"), std::string::npos)
      << lines[0];
  EXPECT_NE(lines[0].find("not retried"), std::string::npos) << lines[0];
  EXPECT_EQ(pam->rxPkt(), nullptr);
  pam->open();  // an operator's reload tries again
  EXPECT_EQ(pam->openAttempts(), 2u);
  EXPECT_EQ(pam->state(), LivePam::State::failed);
  EXPECT_EQ(pam->kernelDrops(), 0u);
}

}  // namespace
