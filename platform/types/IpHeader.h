#pragma once
// Read-only views of IPv4 and IPv6 headers in raw packet bytes, for parsers that have already checked the
// length.
//
// A view holds only the pointer: the bytes must outlive it and must hold the fixed header (20 bytes for IPv4,
// 40 for IPv6); checksumComputed() reads headerLength() bytes, so the caller checks that many are present
// first. Multi-byte fields are big-endian on the wire; the accessors return host-order values. Nothing is
// validated here.

#include <cstddef>
#include <cstdint>

#include "platform/types/ByteOrder.h"
#include "platform/types/IpGenAddr.h"

namespace Calyx {

class Ip4HeaderView {
 public:
  static constexpr size_t kMinLength = 20;

  explicit Ip4HeaderView(uint8_t const* header) : p_(header) {}

  uint8_t version() const { return p_[0] >> 4; }
  // IHL times 4: 0 to 60 bytes. A value below 20 is a malformed header.
  size_t headerLength() const { return size_t(p_[0] & 0x0f) * 4; }
  uint16_t totalLength() const { return read16(2); }
  bool moreFragments() const { return (p_[6] & 0x20) != 0; }
  // In units of 8 bytes; 0 for an unfragmented packet and for the head fragment.
  uint16_t fragmentOffset() const { return read16(6) & 0x1fff; }
  uint8_t ttl() const { return p_[8]; }
  uint8_t protocol() const { return p_[9]; }
  uint16_t checksum() const { return read16(10); }
  // The one's-complement sum over the whole header, checksum field included, complemented: 0 for a correct
  // header. Summed a 32-bit word at a time and folded at the end, which gives the same 16-bit sum (a header
  // is a whole number of 32-bit words); inline, as every IPv4 frame is checked.
  uint16_t checksumComputed() const {
    uint64_t sum = 0;
    size_t const length = headerLength();
    for (size_t i = 0; i < length; i += 4) sum += loadBe32(p_ + i);
    sum = (sum & 0xffffffff) + (sum >> 32);
    sum = (sum & 0xffffffff) + (sum >> 32);
    sum = (sum & 0xffff) + (sum >> 16);
    sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
  }
  Ip4Addr src() const { return Ip4Addr::fromBytes(p_ + 12); }
  Ip4Addr dst() const { return Ip4Addr::fromBytes(p_ + 16); }

 private:
  uint16_t read16(size_t at) const { return uint16_t(p_[at] << 8 | p_[at + 1]); }

  uint8_t const* p_;
};

class Ip6HeaderView {
 public:
  static constexpr size_t kLength = 40;

  explicit Ip6HeaderView(uint8_t const* header) : p_(header) {}

  uint8_t version() const { return p_[0] >> 4; }
  uint16_t payloadLength() const { return uint16_t(p_[4] << 8 | p_[5]); }
  uint8_t nextHeader() const { return p_[6]; }
  uint8_t hopLimit() const { return p_[7]; }
  Ip6Addr src() const { return Ip6Addr::fromBytes(p_ + 8); }
  Ip6Addr dst() const { return Ip6Addr::fromBytes(p_ + 24); }

 private:
  uint8_t const* p_;
};

// Writes the correct checksum into an IPv4 header whose IHL is already set (for tools that craft frames).
void ip4ChecksumFill(uint8_t* header);

}  // namespace Calyx
