#include "tools/common/DropFrameBuilder.h"

#include <algorithm>

#include "platform/types/EtherType.h"
#include "platform/types/IpHeader.h"

namespace Calyx {
namespace {

constexpr size_t kEthLength = 14;
constexpr size_t kMaxFrame = 65535;  // packetSize is 16 bits

std::array<std::string_view, DropFrameBuilder::kMalformedKinds> const kNames = {
    "undersized-ethernet",    "wrong-ethertype",      "truncated-vlan",       "non-ip-ethertype",
    "ipv6-undersized",        "ipv6-bad-version",     "ipv6-bad-next-header", "ipv4-undersized",
    "ipv4-ihl-too-small",     "ipv4-header-too-long", "ipv4-bad-checksum",    "ipv4-bad-version",
    "ipv4-non-head-fragment", "ipv4-bad-protocol",    "truncated-transport"};

void put16(uint8_t* p, uint16_t v) {
  p[0] = uint8_t(v >> 8);
  p[1] = uint8_t(v);
}
void put32(uint8_t* p, uint32_t v) {
  put16(p, uint16_t(v >> 16));
  put16(p + 2, uint16_t(v));
}

size_t ipLength(DropFlow const& flow) {
  return flow.srcIp.isV6() ? 40 : 20;
}
size_t transportLength(DropFlow const& flow) {
  return flow.ipProto == 17 ? 8 : 20;
}
size_t l2Length(DropFlow const& flow) {
  return kEthLength + 4 * flow.vlanTags.size();
}

// Writes the Ethernet header and tags; returns where the IP header goes.
uint8_t* writeL2(DropFlow const& flow, uint8_t* p) {
  std::copy(flow.dMac.bytes.begin(), flow.dMac.bytes.end(), p);
  std::copy(flow.sMac.bytes.begin(), flow.sMac.bytes.end(), p + 6);
  p += 12;
  for (uint16_t tci : flow.vlanTags) {
    put16(p, kEtherTypeVlan);
    put16(p + 2, tci);
    p += 4;
  }
  put16(p, flow.srcIp.isV6() ? kEtherTypeIp6 : kEtherTypeIp4);
  return p + 2;
}

// Identification and sequence numbers derived from the ports, so equal flows give equal frames.
uint32_t flowSalt(DropFlow const& flow) {
  return uint32_t(flow.srcPort) << 16 | flow.dstPort;
}

void writeIp4(DropFlow const& flow, uint8_t* p, size_t ipBytes) {
  p[0] = 0x45;
  p[1] = 0;
  put16(p + 2, uint16_t(ipBytes));
  put16(p + 4, uint16_t(flowSalt(flow) * 2654435761u >> 16));
  put16(p + 6, 0x4000);  // don't fragment
  p[8] = 64;
  p[9] = flow.ipProto;
  put16(p + 10, 0);
  auto src = flow.srcIp.v4().bytes;
  auto dst = flow.dstIp.v4().bytes;
  std::copy(src.begin(), src.end(), p + 12);
  std::copy(dst.begin(), dst.end(), p + 16);
  ip4ChecksumFill(p);
}

void writeIp6(DropFlow const& flow, uint8_t* p, size_t ipBytes) {
  put32(p, 0x60000000);
  put16(p + 4, uint16_t(ipBytes - 40));
  p[6] = flow.ipProto;
  p[7] = 64;
  auto src = flow.srcIp.v6().bytes;
  auto dst = flow.dstIp.v6().bytes;
  std::copy(src.begin(), src.end(), p + 8);
  std::copy(dst.begin(), dst.end(), p + 24);
}

void writeTransport(DropFlow const& flow, uint8_t* p, size_t l4Bytes) {
  put16(p, flow.srcPort);
  put16(p + 2, flow.dstPort);
  if (flow.ipProto == 17) {
    put16(p + 4, uint16_t(l4Bytes));
    put16(p + 6, 0);
    return;
  }
  put32(p + 4, flowSalt(flow) * 2246822519u);  // sequence
  put32(p + 8, 0);                             // acknowledgement
  p[12] = 5 << 4;                              // data offset: 20 bytes
  p[13] = 0x18;                                // PSH, ACK
  put16(p + 14, 8192);                         // window
  put16(p + 16, 0);
  put16(p + 18, 0);
}

// The one's-complement sum of big-endian 16-bit words, an odd last byte padded with zero.
uint32_t onesSum(uint8_t const* p, size_t n, uint32_t sum = 0) {
  for (size_t i = 0; i + 1 < n; i += 2) sum += uint32_t(p[i]) << 8 | p[i + 1];
  if (n % 2) sum += uint32_t(p[n - 1]) << 8;
  return sum;
}

// The TCP or UDP checksum over the pseudo-header and the whole segment, as the sender computed it before the
// chip cut the frame (so that a decoder that checks it finds the dropped packet as it was sent).
void transportChecksumFill(DropFlow const& flow, uint8_t* l4, size_t l4Bytes) {
  uint8_t* const field = l4 + (flow.ipProto == 17 ? 6 : 16);
  put16(field, 0);
  bool const v6 = flow.srcIp.isV6();
  uint32_t sum = 0;
  if (v6) {
    sum = onesSum(flow.srcIp.v6().bytes.data(), 16, sum);
    sum = onesSum(flow.dstIp.v6().bytes.data(), 16, sum);
  } else {
    sum = onesSum(flow.srcIp.v4().bytes.data(), 4, sum);
    sum = onesSum(flow.dstIp.v4().bytes.data(), 4, sum);
  }
  sum += uint32_t(l4Bytes >> 16) + uint32_t(l4Bytes & 0xffff) + flow.ipProto;
  sum = onesSum(l4, l4Bytes, sum);
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  uint16_t const checksum = uint16_t(~sum);
  // UDP sends a computed zero as all ones: zero means "no checksum", which IPv6 forbids.
  put16(field, checksum == 0 && flow.ipProto == 17 ? 0xffff : checksum);
}

// The same flow in the other address family, on documentation addresses.
DropFlow withFamily(DropFlow flow, bool v6) {
  if (flow.srcIp.isV6() == v6 && !flow.srcIp.isNone()) return flow;
  if (v6) {
    flow.srcIp = *IpGenAddr::parse("2001:db8::1");
    flow.dstIp = *IpGenAddr::parse("2001:db8::2");
  } else {
    flow.srcIp = Ip4Addr::fromHost(0xc0000201);  // 192.0.2.1
    flow.dstIp = Ip4Addr::fromHost(0xc6336401);  // 198.51.100.1
  }
  if (flow.ipProto != 6 && flow.ipProto != 17) flow.ipProto = 6;
  return flow;
}

// Offset of the IP header in a mirrored frame.
size_t mirroredIpOffset(DropFlow const& flow) {
  return 26 + 4 * flow.vlanTags.size();
}

// A frame of size bytes: headers, then the payload, then a byte pattern to the end; checksums last.
std::vector<uint8_t> frameBuild(DropFlow const& flow, size_t size, std::span<uint8_t const> payload) {
  std::vector<uint8_t> frame(size);
  uint8_t* ip = writeL2(flow, frame.data());
  size_t const ipBytes = size - l2Length(flow);
  if (flow.srcIp.isV6()) {
    writeIp6(flow, ip, ipBytes);
  } else {
    writeIp4(flow, ip, ipBytes);
  }
  writeTransport(flow, ip + ipLength(flow), ipBytes - ipLength(flow));
  size_t const headers = l2Length(flow) + ipLength(flow) + transportLength(flow);
  std::copy(payload.begin(), payload.end(), frame.begin() + long(headers));
  for (size_t i = headers + payload.size(); i < size; ++i) frame[i] = uint8_t(i);
  transportChecksumFill(flow, ip + ipLength(flow), ipBytes - ipLength(flow));
  return frame;
}

}  // namespace

std::array<MalformedKind, DropFrameBuilder::kMalformedKinds> const DropFrameBuilder::kAllMalformedKinds = [] {
  std::array<MalformedKind, kMalformedKinds> all{};
  for (size_t i = 0; i < kMalformedKinds; ++i) all[i] = MalformedKind(i);
  return all;
}();

size_t DropFrameBuilder::headersLength(DropFlow const& flow) {
  return l2Length(flow) + ipLength(flow) + transportLength(flow);
}

std::vector<uint8_t> DropFrameBuilder::droppedFrame(DropFlow const& flow, size_t size) {
  return frameBuild(flow, std::min(std::max(size, headersLength(flow)), kMaxFrame), {});
}

std::vector<uint8_t> DropFrameBuilder::udpDatagram(DropFlow flow, std::span<uint8_t const> payload) {
  flow.ipProto = 17;
  return frameBuild(flow, headersLength(flow) + payload.size(), payload);
}

std::vector<uint8_t> DropFrameBuilder::mirrored(std::span<uint8_t const> dropped, uint16_t packetSize,
                                                uint64_t timestamp, size_t cutLength) {
  size_t const kept = std::min(dropped.size(), std::max(cutLength, kEthLength));
  std::vector<uint8_t> frame(kept + kModHeaderLength);
  if (kept < kEthLength) return frame;
  std::copy(dropped.begin(), dropped.begin() + 12, frame.begin());
  put16(&frame[12], kModEtherType);
  frame[14] = uint8_t(packetSize);
  frame[15] = uint8_t(packetSize >> 8);
  for (size_t i = 0; i < 8; ++i) frame[16 + i] = uint8_t(timestamp >> (8 * i));
  std::copy(dropped.begin() + 12, dropped.begin() + kept, frame.begin() + 24);
  return frame;
}

std::vector<uint8_t> DropFrameBuilder::dropFrame(DropFlow const& flow, size_t size, uint64_t timestamp,
                                                 size_t cutLength) {
  std::vector<uint8_t> dropped = droppedFrame(flow, size);
  return mirrored(dropped, uint16_t(dropped.size()), timestamp, cutLength);
}

std::vector<uint8_t> DropFrameBuilder::malformedFrame(MalformedKind kind, DropFlow const& base,
                                                      uint64_t timestamp) {
  bool const v6Kind = kind == MalformedKind::ip6Undersized || kind == MalformedKind::ip6BadVersion ||
                      kind == MalformedKind::ip6BadNextHeader;
  DropFlow flow = withFamily(base, v6Kind);
  size_t const size = headersLength(flow) + 64;
  std::vector<uint8_t> frame = dropFrame(flow, size, timestamp, size);
  size_t const ip = mirroredIpOffset(flow);
  uint8_t* const hdr = &frame[ip];
  switch (kind) {
    case MalformedKind::undersizedEthernet:
      frame.resize(20);
      break;
    case MalformedKind::wrongEtherType:
      put16(&frame[12], kWrongEtherType);
      break;
    case MalformedKind::truncatedVlan:
      put16(&frame[24], kEtherTypeVlan);
      frame.resize(26 + 3);
      break;
    case MalformedKind::nonIpEtherType:
      put16(&frame[ip - 2], kEtherTypeArp);
      break;
    case MalformedKind::ip6Undersized:
      frame.resize(ip + 39);
      break;
    case MalformedKind::ip6BadVersion:
      hdr[0] = uint8_t(0x40 | (hdr[0] & 0x0f));
      break;
    case MalformedKind::ip6BadNextHeader:
      hdr[6] = 0;  // hop-by-hop options
      break;
    case MalformedKind::ip4Undersized:
      frame.resize(ip + 19);
      break;
    case MalformedKind::ip4IhlTooSmall:
      hdr[0] = 0x44;
      break;
    case MalformedKind::ip4HeaderTooLong:
      hdr[0] = 0x4f;
      frame.resize(ip + 40);
      break;
    case MalformedKind::ip4BadChecksum:
      // 0 and 0xffff are the same one's-complement value: move away from the correct one in a way that
      // counts.
      put16(hdr + 10,
            Ip4HeaderView(hdr).checksum() == 0xffff ? 0xfffe : uint16_t(Ip4HeaderView(hdr).checksum() + 1));
      break;
    case MalformedKind::ip4BadVersion:
      hdr[0] = 0x65;
      ip4ChecksumFill(hdr);
      break;
    case MalformedKind::ip4NonHeadFragment:
      put16(hdr + 6, 185);  // offset 1480 bytes
      ip4ChecksumFill(hdr);
      break;
    case MalformedKind::ip4BadProtocol:
      hdr[9] = 1;  // ICMP
      ip4ChecksumFill(hdr);
      break;
    case MalformedKind::truncatedTransport:
      frame.resize(ip + ipLength(flow) + 3);
      break;
  }
  return frame;
}

std::string_view DropFrameBuilder::name(MalformedKind kind) {
  return kNames[size_t(kind)];
}

std::optional<MalformedKind> DropFrameBuilder::malformedKindParse(std::string_view name) {
  auto it = std::find(kNames.begin(), kNames.end(), name);
  if (it == kNames.end()) return std::nullopt;
  return MalformedKind(it - kNames.begin());
}

}  // namespace Calyx
