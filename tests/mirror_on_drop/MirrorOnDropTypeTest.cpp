// Value types: byte layouts checked at the byte level, text forms round-tripped, parse failures naming the
// field.
#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>
#include <string>

#include "mirror_on_drop/MirrorOnDropEmtCommon.h"
#include "mirror_on_drop/MirrorOnDropType.h"
#include "mirror_on_drop/MirrorOnDropTypeCommon.h"

using namespace MirrorOnDrop;
using Calyx::IntfId;
using Calyx::Ip4Addr;
using Calyx::IpGenAddr;

namespace {

IpGenAddr ip(char const* text) {
  return *IpGenAddr::parse(text);
}

std::string parseError(auto&& parse) {
  try {
    parse();
  } catch (std::range_error const& e) {
    return e.what();
  }
  return "no error";
}

TEST(DropReasonTest, StoresNetworkOrderAndPrintsHostWords) {
  Drop::Reason r(1, 2, 3, 255);
  EXPECT_EQ(r.stringValue(),
            "0x0000000100000002000000030000"
            "00ff");
  uint8_t bytes[16];
  std::memcpy(bytes, &r, sizeof bytes);
  EXPECT_EQ(bytes[0], 0);
  EXPECT_EQ(bytes[3], 1);
  EXPECT_EQ(bytes[15], 0xff);
  EXPECT_EQ(r.part3(), 255u);
  EXPECT_EQ(Drop::Reason(r.valueToStrep()), r);
  EXPECT_EQ(
      r.valueToStrep(),
      "Value('MirrorOnDrop::Drop::Reason', ** {'partBE0': 1, 'partBE1': 2, 'partBE2': 3, 'partBE3': 255})");
}

TEST(DropReasonTest, ParseFailureNamesTheField) {
  auto const message = parseError([] {
    Drop::Reason(
        "Value('MirrorOnDrop::Drop::Reason', ** {'partBE0': 1, 'partBE1': 0, 'partBE2': 0, 'partBE3': x})");
  });
  EXPECT_NE(message.find("partBE3"), std::string::npos) << message;
  EXPECT_NE(parseError([] {
              Drop::Reason("Value('MirrorOnDrop::Drop::Reason', ** {'partBE0': 1})");
            }).find("partBE1"),
            std::string::npos);
  EXPECT_NE(parseError([] { Drop::Reason("Value('Other', ** {})"); }).find("partBE0"), std::string::npos);
}

TEST(HeaderTest, MixedByteOrderOfTheChip) {
  uint8_t const raw[12] = {0x34, 0x12, 8, 7, 6, 5, 4, 3, 2, 1, 0x08, 0x00};
  Header h(raw);
  EXPECT_EQ(h.packetSize().value(), 0x1234);
  EXPECT_EQ(h.timestamp().value(), 0x0102030405060708u);
  EXPECT_EQ(h.typeOrLen(), 0x0800);
  EXPECT_EQ(Header(h.valueToStrep()), h);
  EXPECT_EQ(std::memcmp(Header(h.packetSize(), h.timestamp(), 0x0800).bytes(), raw, 12), 0);
}

TEST(ReportTest, LayoutIsTheWireBody) {
  Report::Report r(Drop::Timestamp(0x0102030405060708), Drop::Reason(0xa0a1a2a3, 0, 0, 0xb0b1b2b3), 0);
  uint8_t const sample[3] = {0xde, 0xad, 0xbe};
  r.payloadIs(sample, sizeof sample);
  uint8_t const* b = r.bytes();
  for (int i = 0; i < 8; ++i) EXPECT_EQ(b[i], i + 1) << i;
  EXPECT_EQ(b[8], 0xa0);
  EXPECT_EQ(b[11], 0xa3);
  EXPECT_EQ(b[20], 0xb0);
  EXPECT_EQ(b[24], 3);
  EXPECT_EQ(b[25], 0xde);
  EXPECT_EQ(b[27], 0xbe);
  EXPECT_EQ(b[28], 0);
  EXPECT_EQ(r.timestamp().value(), 0x0102030405060708u);
  EXPECT_EQ(r.reason(), Drop::Reason(0xa0a1a2a3, 0, 0, 0xb0b1b2b3));
}

TEST(ReportTest, EqualityIgnoresTheSampleAndTextRoundTrips) {
  Report::Report a(Drop::Timestamp(42), Drop::Reason(1, 2, 3, 4), 2), b = a;
  uint8_t const one[2] = {1, 1}, two[2] = {2, 2};
  a.payloadIs(one, 2);
  b.payloadIs(two, 2);
  EXPECT_EQ(a, b);
  b.dataSizeIs(1);
  EXPECT_FALSE(a == b);
  Report::Report const parsed(a.valueToStrep());
  EXPECT_EQ(parsed, a);
  EXPECT_EQ(parsed.payload()[0], 0);
  EXPECT_EQ(
      a.valueToStrep(),
      "Value('MirrorOnDrop::Report::Report', ** {'timestamp': 42, 'reason': "
      "Value('MirrorOnDrop::Drop::Reason', ** {'partBE0': 1, 'partBE1': 2, 'partBE2': 3, 'partBE3': 4}), "
      "'dataSize': 2})");
  EXPECT_NE(parseError([] {
              Report::Report(
                  "Value('MirrorOnDrop::Report::Report', ** {'timestamp': 1, 'reason': bad, 'dataSize': 2})");
            }).find("reason"),
            std::string::npos);
  EXPECT_EQ(Report::reportTypeFromString("STOP"), Report::ReportType::STOP);
  EXPECT_EQ(Report::stringValue(Report::ReportType::START), "START");
}

TEST(FlowKeyTest, EqualityOrderingAndHash) {
  FlowKey const a(6, ip("10.0.0.1"), ip("10.0.0.2"), 1000, 80);
  FlowKey const b(6, ip("10.0.0.1"), ip("10.0.0.2"), 1000, 81);
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a < b);
  EXPECT_FALSE(b < a);
  EXPECT_NE(a.hash(), b.hash());
  EXPECT_NE(a.hash(1), a.hash(2));
  FlowKey const v6(6, ip("2001:db8::1"), ip("2001:db8::2"), 1, 1);
  EXPECT_TRUE(b < v6);  // by the address type's ordering of the families
  FlowKey const udp(17, ip("0.0.0.1"), ip("0.0.0.1"), 0, 0);
  EXPECT_TRUE(v6 < udp);  // protocol first
}

// The hashes place keys in shared-memory tables that other programs read, and the flow key's orders the
// batches reports go out in: they must not change by accident. A flow key alone, and with an interface (an
// exact-match key, hashed from the words of both).
TEST(FlowKeyTest, PinnedHashes) {
  FlowKey const v4(6, ip("10.1.2.3"), ip("192.168.0.1"), 1234, 443);
  FlowKey const v6(17, ip("2001:db8::7"), ip("2001:db8::1:2"), 53, 5353);
  EXPECT_EQ(v4.hash(), 0x0d1f6a72u);
  EXPECT_EQ(v4.hash(9), 0x604bc6ceu);
  EXPECT_EQ(v6.hash(), 0x8d3a19e5u);
  EXPECT_EQ(Emt::Key(v4, IntfId("Ethernet12")).hash(), 0x43954c25u);
  EXPECT_EQ(Emt::Key(v6, IntfId("Port-Channel3")).hash(), 0x343b6e48u);
  // Every field of an exact-match key takes part.
  auto emt = [](uint8_t proto, char const* src, char const* dst, uint16_t sport, uint16_t dport,
                char const* intf) {
    return Emt::Key(FlowKey(proto, ip(src), ip(dst), sport, dport), IntfId(intf));
  };
  Emt::Key const base = emt(6, "10.1.2.3", "192.168.0.1", 1234, 443, "Ethernet12");
  for (Emt::Key const& other : {emt(17, "10.1.2.3", "192.168.0.1", 1234, 443, "Ethernet12"),
                                emt(6, "10.1.2.4", "192.168.0.1", 1234, 443, "Ethernet12"),
                                emt(6, "10.1.2.3", "192.168.0.2", 1234, 443, "Ethernet12"),
                                emt(6, "10.1.2.3", "192.168.0.1", 1235, 443, "Ethernet12"),
                                emt(6, "10.1.2.3", "192.168.0.1", 1234, 444, "Ethernet12"),
                                emt(6, "::a01:203", "192.168.0.1", 1234, 443, "Ethernet12"),
                                emt(6, "10.1.2.3", "192.168.0.1", 1234, 443, "Ethernet13"),
                                emt(6, "10.1.2.3", "192.168.0.1", 1234, 443, "Ethernet12/1")}) {
    EXPECT_NE(other.hash(), base.hash()) << other;
  }
  EXPECT_NE(emt(6, "10.1.2.3", "192.168.0.1", 1234, 443, "Ethernet12/1/1/1/1/1/1/1/1/1/1").hash(),
            emt(6, "10.1.2.3", "192.168.0.1", 1234, 443, "Ethernet12/1/1/1/1/1/1/1/1/1/2").hash());
  EXPECT_NE(base.hash(1), base.hash());
}

TEST(FlowKeyTest, TextRoundTripAndFieldErrors) {
  FlowKey const k(17, ip("2001:db8::1"), ip("10.1.2.3"), 53, 5353);
  EXPECT_EQ(k.valueToStrep(),
            "Value('MirrorOnDrop::FlowKey', ** {'ipProto': 17, 'srcIp': 2001:db8::1, 'dstIp': 10.1.2.3, "
            "'srcPort': 53, "
            "'dstPort': 5353})");
  EXPECT_EQ(FlowKey(k.valueToStrep()), k);
  EXPECT_EQ(FlowKey().valueToStrep().find("'srcIp': none") != std::string::npos, true);
  EXPECT_EQ(FlowKey(FlowKey().valueToStrep()), FlowKey());
  auto const bad = [](char const* text) { return parseError([&] { FlowKey{std::string_view(text)}; }); };
  EXPECT_NE(
      bad("Value('MirrorOnDrop::FlowKey', ** {'ipProto': 256, 'srcIp': 1.1.1.1, 'dstIp': 1.1.1.1, 'srcPort': "
          "1, 'dstPort': 1})")
          .find("ipProto"),
      std::string::npos);
  EXPECT_NE(
      bad("Value('MirrorOnDrop::FlowKey', ** {'ipProto': 6, 'srcIp': 1.1.1, 'dstIp': 1.1.1.1, 'srcPort': 1, "
          "'dstPort': 1})")
          .find("srcIp"),
      std::string::npos);
  EXPECT_NE(bad("Value('MirrorOnDrop::FlowKey', ** {'ipProto': 6, 'srcIp': 1.1.1.1, 'dstIp': 1.1.1.1, "
                "'srcPort': 1, "
                "'dstPort': 65536})")
                .find("dstPort"),
            std::string::npos);
}

TEST(ConstantTest, ValuesAndTextForms) {
  EXPECT_EQ(Constant::vorlanModEthType(), 0x1042);
  EXPECT_EQ(Constant::packetSampleSize(), 80);
  EXPECT_EQ(Constant::tableCapacity(), 1024);
  EXPECT_EQ(Constant(Constant().valueToStrep()), Constant());
  EXPECT_EQ(Constant::Timer(Constant::Timer().valueToStrep()), Constant::Timer());
  EXPECT_EQ(Drop::PacketSize("1500").value(), 1500);
  EXPECT_THROW(Drop::PacketSize("70000"), std::range_error);
  EXPECT_EQ(Drop::Timestamp("18446744073709551615").value(), UINT64_MAX);
}

}  // namespace
