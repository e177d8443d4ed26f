#include "mirror_on_drop/MirrorOnDropTypeCommon.h"

#include <cstdio>
#include <cstring>
#include <ostream>
#include <tuple>

#include "mirror_on_drop/MirrorOnDropValueText.h"
#include "platform/core/Assert.h"
#include "platform/types/ByteOrder.h"
#include "platform/types/EtherType.h"
#include "platform/types/Hash.h"

namespace MirrorOnDrop {

using Detail::ValueTextReader;
using Detail::ValueTextWriter;

namespace {

IpGenAddr parseAddress(std::string_view text, std::string_view name) {
  auto addr = IpGenAddr::parse(text);
  if (!addr) ValueTextReader::fail(name);
  return *addr;
}

}  // namespace

// --- Constant ---

Constant::Timer::Timer(std::string_view text) {
  ValueTextReader r(text, "MirrorOnDrop::Constant::Timer", "granularity");
  if (r.number<uint32_t>("granularity") != granularity()) ValueTextReader::fail("granularity");
  if (r.number<uint32_t>("maxTicks") != maxTicks()) ValueTextReader::fail("maxTicks");
  r.end("maxTicks");
}

std::string Constant::Timer::valueToStrep() const {
  return ValueTextWriter("MirrorOnDrop::Constant::Timer")
      .field("granularity", granularity())
      .field("maxTicks", maxTicks())
      .str();
}

Constant::Constant(std::string_view text) {
  ValueTextReader r(text, "MirrorOnDrop::Constant", "vorlanModEthType");
  if (r.number<uint16_t>("vorlanModEthType") != vorlanModEthType()) ValueTextReader::fail("vorlanModEthType");
  if (r.number<uint8_t>("packetSampleSize") != packetSampleSize()) ValueTextReader::fail("packetSampleSize");
  if (r.number<uint16_t>("tableCapacity") != tableCapacity()) ValueTextReader::fail("tableCapacity");
  r.end("tableCapacity");
}

std::string Constant::valueToStrep() const {
  return ValueTextWriter("MirrorOnDrop::Constant")
      .field("vorlanModEthType", vorlanModEthType())
      .field("packetSampleSize", packetSampleSize())
      .field("tableCapacity", tableCapacity())
      .str();
}

// --- Drop values ---

namespace Drop {

PacketSize::PacketSize(std::string_view text)
    : value_(ValueTextReader::parseNumber<uint16_t>(text, "value")) {}

Timestamp::Timestamp(std::string_view text) : value_(ValueTextReader::parseNumber<uint64_t>(text, "value")) {}

Reason::Reason(uint32_t ctor_part0, uint32_t ctor_part1, uint32_t ctor_part2, uint32_t ctor_part3)
    : partBE_{Calyx::swapNetwork32(ctor_part0), Calyx::swapNetwork32(ctor_part1),
              Calyx::swapNetwork32(ctor_part2), Calyx::swapNetwork32(ctor_part3)} {}

Reason::Reason(std::string_view text) {
  ValueTextReader r(text, "MirrorOnDrop::Drop::Reason", "partBE0");
  static constexpr std::string_view names[] = {"partBE0", "partBE1", "partBE2", "partBE3"};
  for (size_t i = 0; i < 4; ++i) partBE_[i] = Calyx::swapNetwork32(r.number<uint32_t>(names[i]));
  r.end("partBE3");
}

uint32_t Reason::part0() const {
  return Calyx::swapNetwork32(partBE_[0]);
}
uint32_t Reason::part1() const {
  return Calyx::swapNetwork32(partBE_[1]);
}
uint32_t Reason::part2() const {
  return Calyx::swapNetwork32(partBE_[2]);
}
uint32_t Reason::part3() const {
  return Calyx::swapNetwork32(partBE_[3]);
}

std::string Reason::stringValue() const {
  char text[35];
  std::snprintf(text, sizeof text, "0x%08x%08x%08x%08x", part0(), part1(), part2(), part3());
  return text;
}

std::string Reason::valueToStrep() const {
  return ValueTextWriter("MirrorOnDrop::Drop::Reason")
      .field("partBE0", part0())
      .field("partBE1", part1())
      .field("partBE2", part2())
      .field("partBE3", part3())
      .str();
}

}  // namespace Drop

// --- Header ---

Header::Header(Drop::PacketSize packetSize, Drop::Timestamp timestamp, uint16_t typeOrLen) {
  Calyx::storeLe(bytes_, packetSize.value(), 2);
  Calyx::storeLe(bytes_ + 2, timestamp.value(), 8);
  Calyx::storeBe(bytes_ + 10, typeOrLen, 2);
}

Header::Header(std::string_view text) {
  ValueTextReader r(text, "MirrorOnDrop::Header", "packetSize");
  auto const size = r.number<uint16_t>("packetSize");
  auto const time = r.number<uint64_t>("timestamp");
  auto const type = r.number<uint16_t>("typeOrLen");
  r.end("typeOrLen");
  *this = Header(Drop::PacketSize(size), Drop::Timestamp(time), type);
}

std::string Header::valueToStrep() const {
  return ValueTextWriter("MirrorOnDrop::Header")
      .field("packetSize", packetSize().value())
      .field("timestamp", timestamp().value())
      .field("typeOrLen", typeOrLen())
      .str();
}

// --- FlowKey ---

FlowKey::FlowKey(std::string_view text) : FlowKey(text, "MirrorOnDrop::FlowKey") {}

FlowKey::FlowKey(std::string_view text, std::string_view typeName) {
  ValueTextReader r(text, typeName, "ipProto");
  *this = fieldsRead(r);
  r.end("dstPort");
}

FlowKey FlowKey::fieldsRead(ValueTextReader& r) {
  FlowKey k;
  k.ipProto_ = r.number<uint8_t>("ipProto");
  k.srcIp_ = parseAddress(r.field("srcIp"), "srcIp");
  k.dstIp_ = parseAddress(r.field("dstIp"), "dstIp");
  k.srcPort_ = r.number<uint16_t>("srcPort");
  k.dstPort_ = r.number<uint16_t>("dstPort");
  return k;
}

void FlowKey::fieldsWrite(ValueTextWriter& w) const {
  w.field("ipProto", ipProto_)
      .field("srcIp", srcIp_)
      .field("dstIp", dstIp_)
      .field("srcPort", srcPort_)
      .field("dstPort", dstPort_);
}

bool FlowKey::operator<(FlowKey const& o) const {
  return std::tie(ipProto_, srcIp_, dstIp_, srcPort_, dstPort_) <
         std::tie(o.ipProto_, o.srcIp_, o.dstIp_, o.srcPort_, o.dstPort_);
}

std::string FlowKey::strep(std::string_view typeName) const {
  ValueTextWriter w(typeName);
  fieldsWrite(w);
  return w.str();
}

Calyx::SharedTableOptions Detail::sharedTableOptions() {
  Calyx::SharedTableOptions options;
  options.initialCapacity = Constant::tableCapacity();
  return options;
}

std::string_view ipProtoName(uint8_t ipProto) {
  if (ipProto == Calyx::kIpProtoTcp) return "TCP";
  if (ipProto == Calyx::kIpProtoUdp) return "UDP";
  return "unknown";
}

std::ostream& operator<<(std::ostream& os, Constant const& v) {
  return os << v.valueToStrep();
}
std::ostream& operator<<(std::ostream& os, Constant::Timer const& v) {
  return os << v.valueToStrep();
}
std::ostream& operator<<(std::ostream& os, Drop::PacketSize const& v) {
  return os << v.valueToStrep();
}
std::ostream& operator<<(std::ostream& os, Drop::Timestamp const& v) {
  return os << v.valueToStrep();
}
std::ostream& operator<<(std::ostream& os, Drop::Reason const& v) {
  return os << v.valueToStrep();
}
std::ostream& operator<<(std::ostream& os, Header const& v) {
  return os << v.valueToStrep();
}
std::ostream& operator<<(std::ostream& os, FlowKey const& v) {
  return os << v.valueToStrep();
}

}  // namespace MirrorOnDrop
