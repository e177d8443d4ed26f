#pragma once
// DscpValue: a Differentiated Services code point, 0 to 63, held unshifted in one byte. Whoever writes it
// into an IP header's traffic-class or type-of-service byte shifts it there; this type never does.
//
// Values above 63 are rejected: fromValue() and parse() return nullopt, the constructor throws
// std::out_of_range (and so fails to compile when used in a constant expression). Text form: the number in
// decimal ("46").

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "platform/types/String.h"

namespace Calyx {

class DscpValue {
 public:
  static constexpr unsigned kMax = 63;

  constexpr DscpValue() = default;
  constexpr explicit DscpValue(unsigned v) : value_(checked(v)) {}
  static constexpr std::optional<DscpValue> fromValue(unsigned v) {
    if (v > kMax) return std::nullopt;
    return DscpValue(v);
  }

  constexpr uint8_t value() const { return value_; }

  friend constexpr auto operator<=>(DscpValue const&, DscpValue const&) = default;
  uint32_t hash(uint32_t seed = 0) const;
  String stringValue() const { return std::to_string(value_); }
  static std::optional<DscpValue> parse(std::string_view text, String* error = nullptr);

 private:
  static constexpr uint8_t checked(unsigned v) {
    if (v > kMax) throw std::out_of_range("DSCP value " + std::to_string(v) + " is above 63");
    return static_cast<uint8_t>(v);
  }

  uint8_t value_ = 0;
};

static_assert(sizeof(DscpValue) == 1);

std::ostream& operator<<(std::ostream& os, DscpValue const& d);

}  // namespace Calyx

template <>
struct std::hash<Calyx::DscpValue> {
  size_t operator()(Calyx::DscpValue const& d) const noexcept { return d.hash(); }
};
