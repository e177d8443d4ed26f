#pragma once
// An independent reader of mirrored drop frames for tests: it applies a receiver's checks in their order and
// names the first that fails (by the drop frame builder's names for the malformed kinds), or yields what the
// frame says: size, timestamp, MACs, VLAN tags and the flow. Written apart from the product's parser on
// purpose, so that the frame builder and mod-gen are checked against something they do not share code with.

#include <cstdint>
#include <string>
#include <vector>

#include "platform/types/ByteOrder.h"
#include "platform/types/IpHeader.h"
#include "tools/common/DropFrameBuilder.h"

namespace Calyx::Test {

struct Read {
  std::string rejection;  // empty: accepted
  uint16_t packetSize = 0;
  uint64_t timestamp = 0;
  DropFlow flow;
};

inline Read rejected(char const* why) {
  Read r;
  r.rejection = why;
  return r;
}

inline Read readMirrored(std::vector<uint8_t> const& f) {
  Read r;
  if (f.size() < 26) return rejected("undersized-ethernet");
  if (Calyx::loadBe16(&f[12]) != 0x1042) return rejected("wrong-ethertype");
  r.packetSize = uint16_t(f[14] | f[15] << 8);
  for (int i = 7; i >= 0; --i) r.timestamp = r.timestamp << 8 | f[16 + size_t(i)];
  r.flow.dMac = EthAddr::fromBytes(&f[0]);
  r.flow.sMac = EthAddr::fromBytes(&f[6]);
  size_t at = 26;
  uint16_t type = Calyx::loadBe16(&f[24]);
  while (type == 0x8100 && r.flow.vlanTags.size() < 2) {
    if (f.size() - at < 4) return rejected("truncated-vlan");
    r.flow.vlanTags.push_back(Calyx::loadBe16(&f[at]));
    type = Calyx::loadBe16(&f[at + 2]);
    at += 4;
  }
  size_t const left = f.size() - at;
  uint8_t const* ip = &f[at];
  if (type == 0x86dd) {
    if (left < 40) return rejected("ipv6-undersized");
    Ip6HeaderView h(ip);
    if (h.version() != 6) return rejected("ipv6-bad-version");
    if (h.nextHeader() != 6 && h.nextHeader() != 17) return rejected("ipv6-bad-next-header");
    r.flow.srcIp = h.src();
    r.flow.dstIp = h.dst();
    r.flow.ipProto = h.nextHeader();
    at += 40;
  } else if (type == 0x0800) {
    if (left < 20) return rejected("ipv4-undersized");
    Ip4HeaderView h(ip);
    if (h.headerLength() < 20) return rejected("ipv4-ihl-too-small");
    if (left < h.headerLength()) return rejected("ipv4-header-too-long");
    if (h.checksumComputed() != 0) return rejected("ipv4-bad-checksum");
    if (h.version() != 4) return rejected("ipv4-bad-version");
    if (h.fragmentOffset() != 0) return rejected("ipv4-non-head-fragment");
    if (h.protocol() != 6 && h.protocol() != 17) return rejected("ipv4-bad-protocol");
    r.flow.srcIp = h.src();
    r.flow.dstIp = h.dst();
    r.flow.ipProto = h.protocol();
    at += h.headerLength();
  } else {
    return rejected("non-ip-ethertype");
  }
  if (f.size() - at < 4) return rejected("truncated-transport");
  r.flow.srcPort = Calyx::loadBe16(&f[at]);
  r.flow.dstPort = Calyx::loadBe16(&f[at + 2]);
  return r;
}

}  // namespace Calyx::Test
