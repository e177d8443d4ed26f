// Crafted mirrored frames, read back by the independent test reader: well-formed frames yield their flow,
// each malformed kind fails exactly at the check it is named after.

#include "tools/common/DropFrameBuilder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/MirroredFrameReader.h"

using namespace Calyx;
using Calyx::Test::Read;
using Calyx::Test::readMirrored;

namespace {

DropFlow flowOf(bool v6, uint8_t proto, std::vector<uint16_t> tags) {
  DropFlow f;
  f.dMac = *EthAddr::parse("02:00:00:00:00:0d");
  f.sMac = *EthAddr::parse("02:00:00:00:00:05");
  f.vlanTags = std::move(tags);
  f.srcIp = *IpGenAddr::parse(v6 ? "2001:db8::a" : "10.1.2.3");
  f.dstIp = *IpGenAddr::parse(v6 ? "2001:db8::b" : "10.4.5.6");
  f.ipProto = proto;
  f.srcPort = 40000;
  f.dstPort = 443;
  return f;
}

void expectSameFlow(DropFlow const& a, DropFlow const& b) {
  EXPECT_EQ(a.dMac, b.dMac);
  EXPECT_EQ(a.sMac, b.sMac);
  EXPECT_EQ(a.vlanTags, b.vlanTags);
  EXPECT_EQ(a.srcIp, b.srcIp);
  EXPECT_EQ(a.dstIp, b.dstIp);
  EXPECT_EQ(a.ipProto, b.ipProto);
  EXPECT_EQ(a.srcPort, b.srcPort);
  EXPECT_EQ(a.dstPort, b.dstPort);
}

TEST(DropFrameBuilderTest, EveryFamilyProtocolAndTagCountReadsBackAsItsFlow) {
  for (bool v6 : {false, true}) {
    for (uint8_t proto : {uint8_t(6), uint8_t(17)}) {
      for (auto tags : {std::vector<uint16_t>{}, {100}, {200, 300}}) {
        DropFlow const flow = flowOf(v6, proto, tags);
        SCOPED_TRACE(testing::Message() << "v6 " << v6 << " proto " << int(proto) << " tags " << tags.size());
        auto const frame = DropFrameBuilder::dropFrame(flow, 1000, 0x0102030405060708ull);
        Read const r = readMirrored(frame);
        ASSERT_EQ(r.rejection, "");
        expectSameFlow(r.flow, flow);
        EXPECT_EQ(r.packetSize, 1000);
        EXPECT_EQ(r.timestamp, 0x0102030405060708ull);
        EXPECT_EQ(frame.size(), 128u + 12u) << "the chip keeps 128 bytes of the dropped frame";
      }
    }
  }
}

TEST(DropFrameBuilderTest, MirrorIsTheDroppedFrameWithTheHeaderInPlaceOfItsEtherType) {
  DropFlow const flow = flowOf(false, 6, {7});
  auto const dropped = DropFrameBuilder::droppedFrame(flow, 300);
  ASSERT_EQ(dropped.size(), 300u);
  auto const mirror = DropFrameBuilder::mirrored(dropped, 300, 0xaabb, 128);
  // Rebuilt dropped frame: bytes 0-11 of the mirror, then the mirror from offset 24 on.
  std::vector<uint8_t> rebuilt(mirror.begin(), mirror.begin() + 12);
  rebuilt.insert(rebuilt.end(), mirror.begin() + 24, mirror.end());
  EXPECT_EQ(rebuilt, std::vector<uint8_t>(dropped.begin(), dropped.begin() + 128));
  // Size and timestamp little-endian, EtherTypes big-endian.
  EXPECT_EQ(std::vector<uint8_t>(mirror.begin() + 12, mirror.begin() + 26),
            (std::vector<uint8_t>{0x10, 0x42, 0x2c, 0x01, 0xbb, 0xaa, 0, 0, 0, 0, 0, 0, 0x81, 0x00}));
}

TEST(DropFrameBuilderTest, ShortFramesAreNotCutAndTooSmallSizesGrowToTheHeaders) {
  DropFlow const v6udp = flowOf(true, 17, {1, 2});
  size_t const headers = DropFrameBuilder::headersLength(v6udp);
  EXPECT_EQ(headers, 14u + 8u + 40u + 8u);
  auto const frame = DropFrameBuilder::dropFrame(v6udp, 10, 0);
  EXPECT_EQ(frame.size(), headers + 12);
  EXPECT_EQ(readMirrored(frame).packetSize, headers);
  EXPECT_EQ(readMirrored(frame).rejection, "");
  // Length fields describe the whole dropped frame, not the cut copy.
  auto const big = DropFrameBuilder::droppedFrame(flowOf(false, 6, {}), 1500);
  EXPECT_EQ(Ip4HeaderView(&big[14]).totalLength(), 1500 - 14);
}

TEST(DropFrameBuilderTest, EachMalformedKindFailsExactlyItsOwnCheck) {
  for (MalformedKind kind : DropFrameBuilder::kAllMalformedKinds) {
    for (bool v6 : {false, true}) {
      for (auto tags : {std::vector<uint16_t>{}, {5}}) {
        std::string const name(DropFrameBuilder::name(kind));
        SCOPED_TRACE(name + (v6 ? " from ipv6" : " from ipv4") + " tags " + std::to_string(tags.size()));
        auto const frame = DropFrameBuilder::malformedFrame(kind, flowOf(v6, 17, tags), 1);
        EXPECT_EQ(readMirrored(frame).rejection, name);
        EXPECT_EQ(DropFrameBuilder::malformedKindParse(name), kind);
      }
    }
  }
  EXPECT_EQ(DropFrameBuilder::malformedKindParse("ipv4-bad"), std::nullopt);
}

}  // namespace
