// The receiver and its parser, fed through an in-memory packet access module. A test reactor plays the
// dispatcher: it copies each frame's emtKey and report out of the Exchanger inside the processed-packet
// notification.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "mirror_on_drop/MirrorOnDropReceiverSm.h"
#include "platform/io/InMemoryPam.h"
#include "platform/types/IpHeader.h"
#include "platform/types/PktManager.h"
#include "tests/support/TraceCapture.h"
#include "tools/common/DropFrameBuilder.h"

using namespace MirrorOnDrop;
using namespace Calyx;

namespace {

using Bytes = std::vector<uint8_t>;

class Dispatcher : public Exchanger::Reactor {
 public:
  explicit Dispatcher(Ptr<Exchanger> e) : Reactor(e), exchanger_(std::move(e)) {}
  void handleCounterProcessedPacket() override {
    keys.push_back(exchanger_->emtKey());
    reports.push_back(exchanger_->report());
  }
  std::vector<Emt::Key> keys;
  std::vector<Report::Report> reports;

 private:
  Ptr<Exchanger> exchanger_;
};

// Mirrored frames built byte by byte, for the edge cases of every check.
Bytes mirrored(uint16_t typeOrLen, Bytes const& rest, uint16_t outerType = 0x1042) {
  Bytes f = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, uint8_t(outerType >> 8), uint8_t(outerType)};
  Bytes const header = {0xdc, 0x05, 1, 0, 0, 0, 0, 0, 0, 0, uint8_t(typeOrLen >> 8), uint8_t(typeOrLen)};
  f.insert(f.end(), header.begin(), header.end());
  f.insert(f.end(), rest.begin(), rest.end());
  return f;
}

Bytes ip4Header(uint8_t versionIhl, size_t length, uint8_t proto = 6, uint16_t fragment = 0) {
  Bytes h(length, 0);
  h[0] = versionIhl;
  h[6] = uint8_t(fragment >> 8);
  h[7] = uint8_t(fragment);
  h[8] = 64;
  h[9] = proto;
  h[12] = 10, h[15] = 1, h[16] = 10, h[19] = 2;
  if (length >= 20 && (versionIhl & 0x0f) * 4u <= length) ip4ChecksumFill(h.data());
  return h;
}

Bytes cat(Bytes a, Bytes const& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

class ReceiverSmTest : public ::testing::Test {
 protected:
  void SetUp() override {
    receiver = make<ReceiverSm>(fcsd, desired, collection, exchanger);
    collection->intfPamIs(IntfId("et1"), pam);
  }

  void feed(std::vector<Bytes> const& frames) {
    std::vector<Ptr<Pkt>> pkts;
    for (auto const& f : frames) {
      auto pkt = PktManager::global().newPkt();
      pkt->assign(f.data(), f.size());
      pkts.push_back(pkt);
    }
    pam->enqueue(std::move(pkts));
  }
  // The level 3 lines written while frames are fed.
  std::vector<std::string> rejections(std::vector<Bytes> const& frames) {
    trace.clear();
    feed(frames);
    return trace.lines(3);
  }
  std::string rejection(Bytes const& frame) {
    auto lines = rejections({frame});
    return lines.size() == 1 ? lines[0] : "lines: " + std::to_string(lines.size());
  }

  Calyx::Test::TraceCapture trace{"MOD-Receiver", kTraceLevelsAll};
  Ptr<CalyxCentral::FeatureAgentCommonSmData> fcsd = make<CalyxCentral::FeatureAgentCommonSmData>();
  Ptr<Interface::PamDesiredIntfDir> desired = make<Interface::PamDesiredIntfDir>();
  Ptr<Interface::EthDevPamCollection> collection = make<Interface::EthDevPamCollection>();
  Ptr<Exchanger> exchanger = make<Exchanger>();
  Dispatcher dispatcher{exchanger};
  Ptr<InMemoryPam> pam = make<InMemoryPam>(IntfId("et1"));
  Ptr<ReceiverSm> receiver;
};

TEST_F(ReceiverSmTest, EthernetAndTagRejections) {
  Bytes const shortFrame(25, 0);
  EXPECT_EQ(rejection(shortFrame), "  Dropping Ethernet packet: undersized, size = 25.");
  EXPECT_EQ(rejection(mirrored(0x0800, {}, 0x0800)),
            "  Dropping Ethernet packet: non-Mirror-On-Drop EtherType = 0x800.");
  EXPECT_EQ(rejection(mirrored(0x8100, {0, 1, 0x81})),
            "  Dropping Ethernet packet: truncated 802.1Q header, size = 3.");
  EXPECT_EQ(rejection(mirrored(0x8100, cat({0, 1, 0x81, 0x00, 0, 2, 0x81, 0x00}, ip4Header(0x45, 20)))),
            "  Dropping Ethernet packet: non IPv4/v6 EtherType = 8100.");
  EXPECT_EQ(rejection(mirrored(0x0806, Bytes(28, 0))),
            "  Dropping Ethernet packet: non IPv4/v6 EtherType = 806.");
}

TEST_F(ReceiverSmTest, IpRejectionsInTheParsersOrder) {
  EXPECT_EQ(rejection(mirrored(0x0800, {})), "  Dropping IPv4 packet: undersized, size = 0.");
  EXPECT_EQ(rejection(mirrored(0x0800, Bytes(19, 0x45))), "  Dropping IPv4 packet: undersized, size = 19.");
  EXPECT_EQ(rejection(mirrored(0x0800, ip4Header(0x44, 24))),
            "  Dropping IPv4 packet: undersized header, size = 16.");
  EXPECT_EQ(rejection(mirrored(0x0800, ip4Header(0x4f, 40))),
            "  Dropping IPv4 packet: oversized header, size = 60.");
  Bytes both = ip4Header(0x65, 24);  // wrong version, and the checksum (filled for version 6) then broken
  both[10] ^= 0x01;
  EXPECT_EQ(rejection(mirrored(0x0800, both)).rfind("  Dropping IPv4 packet: invalid checksum = ", 0), 0u);
  EXPECT_EQ(rejection(mirrored(0x0800, ip4Header(0x65, 24))), "  Dropping IPv4 packet: invalid version = 6.");
  EXPECT_EQ(rejection(mirrored(0x0800, ip4Header(0x45, 24, 6, 0x0001))),
            "  Dropping IPv4 packet: not a head fragment.");
  EXPECT_EQ(rejection(mirrored(0x0800, ip4Header(0x45, 24, 1))),
            "  Dropping IPv4 packet: not a TCP/UDP protocol = 1.");
  EXPECT_EQ(rejection(mirrored(0x0800, ip4Header(0x45, 23, 17))),
            "  Dropping UDP packet: undersized header, size = 3.");
  Bytes ip6(44, 0);
  ip6[0] = 0x60;
  EXPECT_EQ(rejection(mirrored(0x86DD, Bytes(39, 0x60))), "  Dropping IPv6 packet: undersized, size = 39.");
  ip6[6] = 0;  // hop-by-hop options
  EXPECT_EQ(rejection(mirrored(0x86DD, ip6)),
            "  Dropping IPv6 packet: not a TCP/UDP next header's protocol = 0.");
  ip6[0] = 0x40;
  EXPECT_EQ(rejection(mirrored(0x86DD, ip6)), "  Dropping IPv6 packet: invalid version = 4.");
  EXPECT_EQ(exchanger->counterProcessedPacket(), 0u);
  EXPECT_TRUE(dispatcher.keys.empty());
}

TEST_F(ReceiverSmTest, EveryMalformedKindIsRejectedWithoutState) {
  DropFlow flow{*EthAddr::parse("02:00:00:00:00:01"),
                *EthAddr::parse("02:00:00:00:00:02"),
                {},
                *IpGenAddr::parse("10.0.0.1"),
                *IpGenAddr::parse("10.0.0.2"),
                6,
                1,
                2};
  for (auto kind : DropFrameBuilder::kAllMalformedKinds) {
    auto const line = rejection(DropFrameBuilder::malformedFrame(kind, flow, 1));
    EXPECT_EQ(line.rfind("  Dropping ", 0), 0u) << DropFrameBuilder::name(kind) << ": " << line;
  }
  EXPECT_EQ(exchanger->counterReceivedPacket(), DropFrameBuilder::kMalformedKinds);
  EXPECT_EQ(exchanger->counterProcessedPacket(), 0u);
}

TEST_F(ReceiverSmTest, ValidFramesYieldKeyAndReportOneByOne) {
  DropFlow v4{*EthAddr::parse("02:00:00:00:00:01"),
              *EthAddr::parse("02:00:00:00:00:02"),
              {5, 6},
              *IpGenAddr::parse("10.0.0.1"),
              *IpGenAddr::parse("10.0.0.2"),
              6,
              1000,
              80};
  DropFlow v6 = v4;
  v6.vlanTags = {};
  v6.srcIp = *IpGenAddr::parse("2001:db8::1");
  v6.dstIp = *IpGenAddr::parse("2001:db8::2");
  v6.ipProto = 17;
  Bytes const fragmentHead = [&] {
    Bytes f = DropFrameBuilder::dropFrame(v4, 100, 7);
    size_t const ip = 26 + 8;  // after the outer header, the Mirror-on-Drop header and two tags
    f[ip + 6] |= 0x20;         // more fragments, offset 0: still the head
    f[ip + 10] = f[ip + 11] = 0;
    ip4ChecksumFill(f.data() + ip);
    return f;
  }();
  feed({DropFrameBuilder::dropFrame(v4, 1500, 0x0102030405060708), DropFrameBuilder::dropFrame(v6, 60, 9),
        fragmentHead});
  ASSERT_EQ(dispatcher.keys.size(), 3u);
  EXPECT_EQ(dispatcher.keys[0], Emt::Key(FlowKey(6, v4.srcIp, v4.dstIp, 1000, 80), IntfId("et1")));
  EXPECT_EQ(dispatcher.keys[1], Emt::Key(FlowKey(17, v6.srcIp, v6.dstIp, 1000, 80), IntfId("et1")));
  // Filled into the same slot after an IPv6 key: nothing of the longer addresses may remain.
  EXPECT_EQ(dispatcher.keys[2], dispatcher.keys[0]);
  EXPECT_EQ(dispatcher.reports[0].timestamp().value(), 0x0102030405060708u);
  EXPECT_EQ(dispatcher.reports[0].reason(), Drop::Reason());
  EXPECT_EQ(dispatcher.reports[2].timestamp().value(), 7u);
  EXPECT_EQ(exchanger->counterReceivedPacket(), 3u);
  EXPECT_EQ(exchanger->counterProcessedPacket(), 3u);
}

TEST_F(ReceiverSmTest, SampleIsTheRebuiltDroppedFrame) {
  DropFlow flow{*EthAddr::parse("02:00:00:00:00:01"),
                *EthAddr::parse("02:00:00:00:00:02"),
                {},
                *IpGenAddr::parse("10.0.0.1"),
                *IpGenAddr::parse("10.0.0.2"),
                6,
                1,
                2};
  Bytes const dropped = DropFrameBuilder::droppedFrame(flow, 300);
  Bytes const big = DropFrameBuilder::mirrored(dropped, 300, 1, 200);
  ASSERT_EQ(big.size(), 200u + 12);
  Bytes small = DropFrameBuilder::mirrored(dropped, 300, 1, 48);
  ASSERT_EQ(small.size(), 60u);
  feed({big, small});
  ASSERT_EQ(dispatcher.reports.size(), 2u);
  auto const& r = dispatcher.reports[0];
  EXPECT_EQ(r.dataSize(), 80);
  EXPECT_EQ(Bytes(r.payload(), r.payload() + 80), Bytes(dropped.begin(), dropped.begin() + 80));
  EXPECT_EQ(dispatcher.reports[1].dataSize(), 48);
  EXPECT_EQ(Bytes(dispatcher.reports[1].payload(), dispatcher.reports[1].payload() + 80),
            cat(Bytes(dropped.begin(), dropped.begin() + 48), Bytes(32, 0)));
}

TEST_F(ReceiverSmTest, StoringReportLinesAtLevelFive) {
  DropFlow flow{*EthAddr::parse("02:00:00:00:00:01"),
                *EthAddr::parse("02:00:00:00:00:02"),
                {},
                *IpGenAddr::parse("10.0.0.1"),
                *IpGenAddr::parse("10.0.0.2"),
                17,
                53,
                5353};
  trace.clear();
  feed({DropFrameBuilder::dropFrame(flow, 100, 42)});
  auto const lines = trace.lines(5);
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0],
            "  Storing report: packet processed, size = { original = 100, trimmed = 100 }, timestamp = 42,");
  EXPECT_EQ(lines[1], "  sMac = 02:00:00:00:00:02, dMac = 02:00:00:00:00:01,");
  EXPECT_EQ(lines[2], "  sIp = 10.0.0.1, dIp = 10.0.0.2,");
  EXPECT_EQ(lines[3], "  ipProto = UDP, sPort = 53, dPort = 5353.");
}

TEST_F(ReceiverSmTest, CountsEveryFrameReadAndOnlyParsedOnesAsProcessed) {
  DropFlow flow{*EthAddr::parse("02:00:00:00:00:01"),
                *EthAddr::parse("02:00:00:00:00:02"),
                {},
                *IpGenAddr::parse("10.0.0.1"),
                *IpGenAddr::parse("10.0.0.2"),
                6,
                1,
                2};
  pam->readableNotify();  // nothing queued: nothing counted
  EXPECT_EQ(exchanger->counterReceivedPacket(), 0u);
  Bytes const good = DropFrameBuilder::dropFrame(flow, 100, 1);
  feed({good, Bytes(10, 0), good, mirrored(0x0800, {}), good});
  EXPECT_EQ(exchanger->counterReceivedPacket(), 5u);
  EXPECT_EQ(exchanger->counterProcessedPacket(), 3u);
}

TEST_F(ReceiverSmTest, FollowsWantedInterfacesAndPublishedModules) {
  fcsd->intfIs(IntfId("et2"));
  EXPECT_TRUE(desired->intfDesired(IntfId("et2")));
  fcsd->intfDel(IntfId("et2"));
  EXPECT_FALSE(desired->intfDesiredHas(IntfId("et2")));
  // A module already published and an interface already wanted are taken up by a new receiver.
  fcsd->intfIs(IntfId("et3"));
  auto second = make<ReceiverSm>(fcsd, make<Interface::PamDesiredIntfDir>(), collection, exchanger);
  EXPECT_TRUE(second->pamDesiredIntfDir()->intfDesired(IntfId("et3")));
  EXPECT_TRUE(second->pam(IntfId("et1")));
  second.reset();
  collection->intfPamDel(IntfId("et1"));
  EXPECT_EQ(receiver->pamCount(), 0u);
  // The receiver's wishes outlive it.
  receiver.reset();
  EXPECT_TRUE(desired->intfDesired(IntfId("et3")));
}

}  // namespace
