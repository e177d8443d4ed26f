#pragma once
// Report datagrams as an agent sends them, for the collector's tests: the type byte, the drop timestamp, four
// reason words, the sample's size and the sample (every number big-endian), the sample being the first bytes
// of a dropped frame built by the drop frame builder.

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/common/DropFrameBuilder.h"

namespace Calyx::Test {

using Bytes = std::vector<uint8_t>;

inline Bytes reportDatagram(uint8_t type, uint64_t ts, std::array<uint32_t, 4> reason, Bytes const& sample) {
  Bytes b{type};
  for (int i = 7; i >= 0; --i) b.push_back(uint8_t(ts >> (8 * i)));
  for (uint32_t w : reason) {
    for (int i = 3; i >= 0; --i) b.push_back(uint8_t(w >> (8 * i)));
  }
  b.push_back(static_cast<uint8_t>(sample.size()));
  b.insert(b.end(), sample.begin(), sample.end());
  return b;
}

// The first size bytes of a dropped frame of the flow (TCP 6 or UDP 17; IPv4 or IPv6 by the addresses).
inline Bytes droppedSample(std::string const& src, std::string const& dst, uint8_t proto, uint16_t sport,
                           uint16_t dport, size_t size = 64) {
  Calyx::DropFlow flow{*Calyx::EthAddr::parse("02:00:00:00:00:01"),
                       *Calyx::EthAddr::parse("02:00:00:00:00:02"),
                       {},
                       *Calyx::IpGenAddr::parse(src),
                       *Calyx::IpGenAddr::parse(dst),
                       proto,
                       sport,
                       dport};
  return Calyx::DropFrameBuilder::droppedFrame(flow, size);
}

}  // namespace Calyx::Test
