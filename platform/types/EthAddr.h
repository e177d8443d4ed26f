#pragma once
// EthAddr: a 6-byte Ethernet MAC address, bytes in wire order, as a fixed-size value.
// Text form: six lower-case two-digit hexadecimal groups separated by colons ("aa:bb:cc:dd:ee:ff"); parse()
// also accepts upper-case digits and nothing else.

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string_view>

#include "platform/types/String.h"

namespace Calyx {

struct EthAddr {
  std::array<uint8_t, 6> bytes{};  // wire order

  // Reads 6 bytes as they appear in a frame.
  static EthAddr fromBytes(uint8_t const* p) { return EthAddr{{p[0], p[1], p[2], p[3], p[4], p[5]}}; }
  bool isZero() const { return *this == EthAddr(); }
  // The group bit: the lowest bit of the first byte.
  bool isMulticast() const { return (bytes[0] & 0x01) != 0; }

  friend constexpr auto operator<=>(EthAddr const&, EthAddr const&) = default;
  uint32_t hash(uint32_t seed = 0) const;
  String stringValue() const;
  static std::optional<EthAddr> parse(std::string_view text, String* error = nullptr);
};

static_assert(sizeof(EthAddr) == 6);

std::ostream& operator<<(std::ostream& os, EthAddr const& a);

}  // namespace Calyx

template <>
struct std::hash<Calyx::EthAddr> {
  size_t operator()(Calyx::EthAddr const& a) const noexcept { return a.hash(); }
};
