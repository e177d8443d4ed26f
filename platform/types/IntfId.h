#pragma once
// IntfId: the name of a network interface ("Ethernet12", "Port-Channel3", "eth0") as a fixed-size value that
// can live in shared-memory table slots.
//
// Limits: at most 31 characters (a Linux interface name needs at most 15), each printable ASCII other than
// blank, so the name is its own text form and survives a round trip through traces. The empty name is the
// default and means "no interface". Two ways in:
//   - parse(text) returns nullopt for a bad name and, when asked, says what is wrong (for input from
//     outside);
//   - the constructor from text throws std::invalid_argument with the same message (for names the
//     program knows).
// Ordering is plain byte order of the names ("Ethernet10" < "Ethernet2"), consistent with equality and hash.

#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string_view>

#include "platform/types/Hash.h"
#include "platform/types/String.h"

namespace Calyx {

class IntfId {
 public:
  static constexpr size_t kMaxLength = 31;

  IntfId() = default;
  // Throws std::invalid_argument when the name breaks the limits above.
  explicit IntfId(std::string_view name);

  std::string_view name() const { return std::string_view(name_, length()); }
  // A compact form for traces: "Ethernet12" -> "Et12", "Port-Channel3" -> "Po3"; any other name unchanged.
  String shortName() const;
  bool empty() const { return name_[0] == '\0'; }
  explicit operator bool() const { return !empty(); }

  // The whole zero-filled array at once, eight bytes at a time: the same as comparing the names byte by byte,
  // as every byte of a name is printable ASCII and sorts after the zero fill. Inline: interfaces key maps
  // that are looked up per frame.
  friend bool operator==(IntfId const& a, IntfId const& b) {
    return std::memcmp(a.name_, b.name_, sizeof a.name_) == 0;
  }
  friend std::strong_ordering operator<=>(IntfId const& a, IntfId const& b) {
    for (size_t i = 0; i < sizeof a.name_; i += 8) {
      uint64_t const x = wordAt(a.name_ + i), y = wordAt(b.name_ + i);
      if (x != y) return x <=> y;
    }
    return std::strong_ordering::equal;
  }
  // The hash of the name's bytes. Inline: every look-up of a flow on its interface hashes one.
  uint32_t hash(uint32_t seed = 0) const {
    IncrementalHash h(seed);
    h.add(name_, length());
    return h.value();
  }
  // A hash of the whole zero-filled name for keys hashed as words (see wideMix): the same name gives the same
  // value in every process and run, with no length to find first.
  uint64_t wideHash(uint64_t seed) const {
    uint64_t w[4];
    std::memcpy(w, name_, sizeof w);
    return wideMix(w[0] ^ seed, w[1]) ^ wideMix(w[2], w[3] ^ seed);
  }
  String stringValue() const { return String(name()); }
  static std::optional<IntfId> parse(std::string_view text, String* error = nullptr);

 private:
  size_t length() const { return strnlen(name_, sizeof(name_)); }
  // Eight name bytes as a number whose order is theirs: the first byte most significant.
  static uint64_t wordAt(char const* p) {
    uint64_t w = 0;
    for (size_t i = 0; i < 8; ++i) w = w << 8 | static_cast<uint8_t>(p[i]);
    return w;
  }

  char name_[kMaxLength + 1] =
      {};  // zero-filled after the name, so the defaulted comparisons see only the name
};

static_assert(sizeof(IntfId) == 32);

std::ostream& operator<<(std::ostream& os, IntfId const& i);

}  // namespace Calyx

template <>
struct std::hash<Calyx::IntfId> {
  size_t operator()(Calyx::IntfId const& i) const noexcept { return i.hash(); }
};
