#pragma once
// IP addresses as fixed-size values that can live in shared-memory table slots.
//
// Ip4Addr and Ip6Addr hold their bytes in network order, exactly as on the wire, so they are copied to and
// from headers without conversion; their ordering is the numeric order of the address. IpGenAddr holds either
// family (or none) in 17 bytes: the family code, then 16 address bytes of which an IPv4 address uses the
// first 4 and leaves the rest zero. That zero tail is an invariant of every constructor, so equality,
// ordering and hashing may look at all of the bytes.
//
// Text forms: IPv4 dotted decimal ("10.0.0.1"); IPv6 in the canonical compressed form ("2001:db8::1",
// IPv4-mapped addresses as "::ffff:10.0.0.1"); an IpGenAddr of no family is "none". parse() accepts exactly
// what these forms produce, plus uncompressed or upper-case IPv6 spellings; on failure it returns nullopt
// and, when asked, says why.

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <optional>
#include <span>
#include <string_view>

#include "platform/types/Hash.h"
#include "platform/types/String.h"

namespace Calyx {

struct Ip4Addr {
  std::array<uint8_t, 4> bytes{};  // network order

  static constexpr Ip4Addr fromHost(uint32_t v) {
    return Ip4Addr{{uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}};
  }
  // Reads 4 bytes in network order, e.g. from an IPv4 header.
  static Ip4Addr fromBytes(uint8_t const* p) { return Ip4Addr{{p[0], p[1], p[2], p[3]}}; }
  constexpr uint32_t host() const {
    return uint32_t(bytes[0]) << 24 | uint32_t(bytes[1]) << 16 | uint32_t(bytes[2]) << 8 | bytes[3];
  }
  constexpr bool isZero() const { return host() == 0; }

  friend constexpr auto operator<=>(Ip4Addr const&, Ip4Addr const&) = default;
  uint32_t hash(uint32_t seed = 0) const;
  String stringValue() const;
  static std::optional<Ip4Addr> parse(std::string_view text, String* error = nullptr);
};

struct Ip6Addr {
  std::array<uint8_t, 16> bytes{};  // network order

  // Reads 16 bytes in network order, e.g. from an IPv6 header.
  static Ip6Addr fromBytes(uint8_t const* p) {
    Ip6Addr a;
    std::memcpy(a.bytes.data(), p, a.bytes.size());
    return a;
  }
  bool isZero() const;

  friend constexpr auto operator<=>(Ip6Addr const&, Ip6Addr const&) = default;
  uint32_t hash(uint32_t seed = 0) const;
  String stringValue() const;
  static std::optional<Ip6Addr> parse(std::string_view text, String* error = nullptr);
};

class IpGenAddr {
 public:
  enum class Family : uint8_t { none = 0, ipv4 = 1, ipv6 = 2 };

  constexpr IpGenAddr() = default;
  constexpr IpGenAddr(Ip4Addr a) : af_(Family::ipv4) {
    for (size_t i = 0; i < 4; ++i) bytes_[i] = a.bytes[i];
  }
  constexpr IpGenAddr(Ip6Addr const& a) : af_(Family::ipv6), bytes_(a.bytes) {}

  // Makes this, in place, the IPv4 (IPv6) address of the 4 (16) network-order bytes at p, e.g. in a header.
  // For a parser that fills a key where it stays: a value made elsewhere and copied in would be read back
  // while its bytes are still being written, which on the hot path costs more than the parse.
  void v4Is(uint8_t const* p) {
    af_ = Family::ipv4;
    std::memcpy(bytes_.data(), p, 4);
    std::memset(bytes_.data() + 4, 0, bytes_.size() - 4);
  }
  void v6Is(uint8_t const* p) {
    af_ = Family::ipv6;
    std::memcpy(bytes_.data(), p, bytes_.size());
  }

  Family af() const { return af_; }
  bool isV4() const { return af_ == Family::ipv4; }
  bool isV6() const { return af_ == Family::ipv6; }
  bool isNone() const { return af_ == Family::none; }

  // The address in the asked-for family; the all-zero address when this one is of the other family or none.
  Ip4Addr v4() const;
  Ip6Addr v6() const;
  // The address bytes in network order: 4 for IPv4, 16 for IPv6, none for no family. The view points into
  // this object, so asking a temporary for it does not compile.
  std::span<uint8_t const> bytes() const&;
  std::span<uint8_t const> bytes() const&& = delete;

  // By family first (none < IPv4 < IPv6), then by address bytes.
  friend constexpr auto operator<=>(IpGenAddr const&, IpGenAddr const&) = default;
  friend bool operator==(IpGenAddr const& a, IpGenAddr const& b) {
    return a.af_ == b.af_ && std::memcmp(a.bytes_.data(), b.bytes_.data(), a.bytes_.size()) == 0;
  }
  // The hash of the family code followed by the address bytes (none for no family). Always inline, its blocks
  // read straight from the address: a flow look-up hashes two addresses, and a call would cost as much.
  [[gnu::always_inline]] uint32_t hash(uint32_t seed = 0) const {
    IncrementalHash h(seed);
    auto const family = static_cast<uint32_t>(af_);
    uint8_t const* const b = bytes_.data();
    switch (af_) {
      case Family::ipv4:
        h.addLe32(family | le32(b) << 8);
        h.add8(b[3]);
        break;
      case Family::ipv6:
        h.addLe32(family | le32(b) << 8);
        h.addLe32(le32(b + 3));
        h.addLe32(le32(b + 7));
        h.addLe32(le32(b + 11));
        h.add8(b[15]);
        break;
      default:  // none, or a family code from a damaged record: the code alone
        h.add8(static_cast<uint8_t>(family));
        break;
    }
    return h.value();
  }
  // Address bytes 8i to 8i + 7 (i is 0 or 1) as one word in host order, an IPv4 address's tail zero: for
  // hashes that mix words.
  uint64_t word(size_t i) const {
    uint64_t w;
    std::memcpy(&w, bytes_.data() + 8 * i, 8);
    return w;
  }
  String stringValue() const;
  static std::optional<IpGenAddr> parse(std::string_view text, String* error = nullptr);

 private:
  static uint32_t le32(uint8_t const* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
  }

  Family af_ = Family::none;
  std::array<uint8_t, 16> bytes_{};  // network order; unused bytes are zero
};

static_assert(sizeof(Ip4Addr) == 4 && sizeof(Ip6Addr) == 16 && sizeof(IpGenAddr) == 17);

std::ostream& operator<<(std::ostream& os, Ip4Addr const& a);
std::ostream& operator<<(std::ostream& os, Ip6Addr const& a);
std::ostream& operator<<(std::ostream& os, IpGenAddr const& a);

}  // namespace Calyx

template <>
struct std::hash<Calyx::Ip4Addr> {
  size_t operator()(Calyx::Ip4Addr const& a) const noexcept { return a.hash(); }
};
template <>
struct std::hash<Calyx::Ip6Addr> {
  size_t operator()(Calyx::Ip6Addr const& a) const noexcept { return a.hash(); }
};
template <>
struct std::hash<Calyx::IpGenAddr> {
  size_t operator()(Calyx::IpGenAddr const& a) const noexcept { return a.hash(); }
};
