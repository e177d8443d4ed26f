// Replay of a capture file as an interface, on the simulated loop: pace, filter, read limit, a file that
// comes late.

#include "platform/io/PcapReplayPam.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/core/TraceSink.h"
#include "platform/io/PamTrace.h"
#include "platform/io/PcapFileWriter.h"
#include "tests/support/TraceCapture.h"
#include "tools/common/DropFrameBuilder.h"

using namespace Calyx;

namespace {

// Records, at each readable notification, the loop time and the first timestamp byte of every frame taken.
class Recorder : public Pam::Reactor {
 public:
  Recorder(Ptr<PcapReplayPam> pam, EventLoop& loop) : Reactor(pam), pam_(std::move(pam)), loop_(loop) {}
  void handleReadable() override {
    batches.push_back(pam_->curRxPkts());
    while (Ptr<Pkt> pkt = pam_->rxPkt()) {
      times.push_back(loop_.now() - 1000.0);
      ids.push_back(pkt->data()[16]);
    }
  }
  std::vector<uint16_t> batches;
  std::vector<double> times;
  std::vector<int> ids;

 private:
  Ptr<PcapReplayPam> pam_;
  EventLoop& loop_;
};

class PcapReplayPamTest : public ::testing::Test {
 protected:
  PcapReplayPamTest() {
    flow.srcIp = Ip4Addr::fromHost(0x0a000001);
    flow.dstIp = Ip4Addr::fromHost(0x0a000002);
  }
  ~PcapReplayPamTest() override { unlink(path.c_str()); }

  // Frame i carries i in its header timestamp and is recorded at 50 + gaps[i] seconds.
  void writeFile(std::vector<double> const& offsets, bool withForeignFrame = false) {
    PcapFileWriter writer;
    ASSERT_TRUE(writer.open(path));
    for (size_t i = 0; i < offsets.size(); ++i) {
      ASSERT_TRUE(writer.write(DropFrameBuilder::dropFrame(flow, 90, i), 50.0 + offsets[i]));
      if (withForeignFrame) {
        ASSERT_TRUE(
            writer.write(DropFrameBuilder::malformedFrame(MalformedKind::wrongEtherType, flow, 99), 50.0));
      }
    }
    ASSERT_TRUE(writer.close());
  }

  Ptr<PcapReplayPam> replay(bool recordedPace, uint32_t readLimit = 64) {
    PcapReplayOptions options;
    options.file = path;
    options.recordedPace = recordedPace;
    options.readLimit = readLimit;
    options.filter = "ether proto 0x1042";
    return make<PcapReplayPam>(*loop, wheel, IntfId("et1"), options);
  }

  std::string path = ::testing::TempDir() + "replay-" + std::to_string(getpid()) + ".pcap";
  DropFlow flow;
  Ptr<EventLoop> loop = EventLoop::makeSimulated(1000.0);
  Ptr<TimerWheel> wheel = make<TimerWheel>(*loop, 10, 1000, false, 64);
};

TEST_F(PcapReplayPamTest, RecordedPaceKeepsTheGapsOnTheLoopClock) {
  writeFile({0.0, 0.5, 0.5, 2.25});
  auto pam = replay(true);
  Recorder rec(pam, *loop);
  loop->runFor(0.4);
  EXPECT_EQ(rec.ids, (std::vector<int>{0}));
  loop->runFor(10);
  EXPECT_EQ(rec.ids, (std::vector<int>{0, 1, 2, 3}));
  ASSERT_EQ(rec.times.size(), 4u);
  EXPECT_DOUBLE_EQ(rec.times[0], 0.0);
  EXPECT_NEAR(rec.times[1], 0.5, 1e-6);
  EXPECT_NEAR(rec.times[2], 0.5, 1e-6);
  EXPECT_NEAR(rec.times[3], 2.25, 1e-6);
  EXPECT_EQ(rec.batches, (std::vector<uint16_t>{1, 2, 1}));  // frames due together come together
  EXPECT_TRUE(pam->isDone());
}

TEST_F(PcapReplayPamTest, FastReplayTakesAtMostTheReadLimitPerTurnWithoutMovingTheClock) {
  writeFile(std::vector<double>(10, 0.0));
  auto pam = replay(false, 4);
  Recorder rec(pam, *loop);
  loop->runUntilIdle();
  EXPECT_EQ(rec.batches, (std::vector<uint16_t>{4, 4, 2}));
  EXPECT_EQ(loop->now(), 1000.0);
  EXPECT_EQ(pam->rxPktsTotal(), 10u);
}

TEST_F(PcapReplayPamTest, FramesOfAnotherEtherTypeAreFilteredOut) {
  writeFile({0, 0, 0}, /*withForeignFrame=*/true);
  auto pam = replay(false);
  Recorder rec(pam, *loop);
  loop->runUntilIdle();
  EXPECT_EQ(rec.ids, (std::vector<int>{0, 1, 2}));
}

TEST_F(PcapReplayPamTest, AMissingFileIsTracedOnceAndRetriedUntilItAppears) {
  Calyx::Test::TraceCapture trace("Calyx-Pam", 1u << 1 | 1u << 3);

  PcapReplayOptions options;
  options.file = path;
  options.retryInterval = 5.0;
  auto pam = make<PcapReplayPam>(*loop, wheel, IntfId("et1"), options);
  Recorder rec(pam, *loop);
  loop->runFor(12);  // attempts at 0, 5 and 10 s
  EXPECT_FALSE(pam->isOpen());
  EXPECT_FALSE(pam->lastError().empty());
  auto lines = trace.lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_NE(lines[0].find("[ERROR] Cannot replay " + path + " as et1"), std::string::npos) << lines[0];
  EXPECT_EQ(lines[1].find("[ERROR]"), std::string::npos) << "a repeated failure is only a retry";

  writeFile({0});
  loop->runFor(5);
  EXPECT_EQ(rec.ids, (std::vector<int>{0}));
}

}  // namespace
