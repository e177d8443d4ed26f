#pragma once
// DropFrameBuilder: crafts the frames a forwarding chip sends to the CPU for the packets it drops, for tools
// and tests.
//
// A mirrored drop frame is the dropped frame cut short (the chip keeps about 128 bytes of it), with a 12-byte
// header put in place of the dropped frame's EtherType:
//
//   dMac(6) sMac(6) 0x1042(2, big-endian) packetSize(2, little-endian) timestamp(8, little-endian)
//   typeOrLen(2, big-endian: the dropped frame's own EtherType) then the dropped frame from behind its
//   EtherType
//
// The chip writes size and timestamp little-endian and every EtherType big-endian; this mix is deliberate
// here. The dropped frame is Ethernet, zero to two 802.1Q tags, IPv4 (correct header checksum) or IPv6, a TCP
// or UDP header, then a byte pattern. Transport checksums are those of the whole dropped frame, as its sender
// computed them before the chip cut it.
//
// Malformed frames: one kind for every reason a reader rejects a mirrored frame, each built so that exactly
// that check is the first to fail (e.g. a wrong IPv4 version comes with a correct checksum).

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "platform/types/EthAddr.h"
#include "platform/types/IpGenAddr.h"

namespace Calyx {

struct DropFlow {
  EthAddr dMac;
  EthAddr sMac;
  std::vector<uint16_t> vlanTags;  // tag control words, outermost first
  IpGenAddr srcIp;
  IpGenAddr dstIp;
  uint8_t ipProto = 6;  // 6 TCP, 17 UDP
  uint16_t srcPort = 0;
  uint16_t dstPort = 0;
};

enum class MalformedKind : uint8_t {
  undersizedEthernet,  // shorter than the outer Ethernet header and the 12-byte header
  wrongEtherType,      // not 0x1042
  truncatedVlan,       // an 802.1Q tag cut short
  nonIpEtherType,      // the dropped frame is ARP
  ip6Undersized,       // fewer than 40 bytes of IPv6 header
  ip6BadVersion,       // version 4 in an IPv6 header
  ip6BadNextHeader,    // a hop-by-hop header instead of TCP/UDP
  ip4Undersized,       // fewer than 20 bytes of IPv4 header
  ip4IhlTooSmall,      // IHL 4
  ip4HeaderTooLong,    // IHL 15 with only 40 bytes left
  ip4BadChecksum,      // header checksum off by one
  ip4BadVersion,       // version 6 in an IPv4 header, checksum correct
  ip4NonHeadFragment,  // a later fragment, checksum correct
  ip4BadProtocol,      // ICMP, checksum correct
  truncatedTransport,  // 3 bytes of TCP/UDP header
};

class DropFrameBuilder {
 public:
  static constexpr uint16_t kModEtherType = 0x1042;
  static constexpr uint16_t kWrongEtherType = 0x88b5;  // IEEE local experimental
  static constexpr size_t kModHeaderLength = 12;
  static constexpr size_t kDefaultCutLength = 128;
  static constexpr size_t kMalformedKinds = 15;
  static std::array<MalformedKind, kMalformedKinds> const kAllMalformedKinds;

  // Bytes of the dropped frame up to the end of its transport header; the smallest frame droppedFrame()
  // makes.
  static size_t headersLength(DropFlow const& flow);
  // The dropped frame as it was on the wire (no FCS), max(size, headersLength(flow)) bytes long.
  static std::vector<uint8_t> droppedFrame(DropFlow const& flow, size_t size);
  // A UDP datagram (whatever the flow's protocol) carrying payload, as an Ethernet frame with correct
  // checksums: how tools put report packets into a capture file.
  static std::vector<uint8_t> udpDatagram(DropFlow flow, std::span<uint8_t const> payload);
  // The chip's mirrored copy of a dropped frame (at least 14 bytes): its first cutLength bytes, with the
  // header.
  static std::vector<uint8_t> mirrored(std::span<uint8_t const> dropped, uint16_t packetSize,
                                       uint64_t timestamp, size_t cutLength = kDefaultCutLength);
  // Both steps: a well-formed mirrored drop frame whose packetSize is the dropped frame's full length.
  static std::vector<uint8_t> dropFrame(DropFlow const& flow, size_t size, uint64_t timestamp,
                                        size_t cutLength = kDefaultCutLength);
  // A mirrored frame broken in the given way. The flow's addresses are replaced by fixed ones when the kind
  // needs the other address family.
  static std::vector<uint8_t> malformedFrame(MalformedKind kind, DropFlow const& flow, uint64_t timestamp);

  static std::string_view name(MalformedKind kind);
  static std::optional<MalformedKind> malformedKindParse(std::string_view name);
};

}  // namespace Calyx
