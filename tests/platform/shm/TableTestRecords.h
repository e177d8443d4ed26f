#pragma once
// Records for the shared-table tests: a 16-byte key and a 64-byte value whose fields must agree with each
// other, so that a record mixed from two writes shows up.

#include <compare>
#include <cstdint>
#include <functional>
#include <string>

#include "testkit/TempStateDir.h"

namespace Calyx::TableTest {

struct Key {
  uint64_t hi = 0;
  uint64_t lo = 0;
  bool operator==(Key const&) const = default;
  auto operator<=>(Key const&) const = default;
};

struct Value {
  Key k;
  uint64_t seq = 0;
  uint64_t check[4] = {};
  uint64_t sum = 0;

  static Value of(Key k, uint64_t seq) {
    Value v;
    v.k = k;
    v.seq = seq;
    for (uint64_t i = 0; i < 4; ++i) v.check[i] = (seq + i) * 0x9e3779b97f4a7c15ull ^ k.lo;
    v.sum = v.expectedSum();
    return v;
  }
  Key key() const { return k; }
  bool consistent() const {
    return sum == expectedSum() && check[3] == ((seq + 3) * 0x9e3779b97f4a7c15ull ^ k.lo);
  }
  // Checked by the table on every record it reads back.
  bool sound(std::string& problem) const {
    if (consistent()) return true;
    problem = "checksum mismatch";
    return false;
  }
  bool operator==(Value const&) const = default;

 private:
  uint64_t expectedSum() const {
    return k.hi + k.lo * 3 + seq * 5 + check[0] + check[1] + check[2] + check[3];
  }
};
static_assert(sizeof(Key) == 16 && sizeof(Value) == 64);

inline Key keyOf(uint64_t n) {
  return Key{n >> 7, n};
}

using Calyx::Test::TempStateDir;

}  // namespace Calyx::TableTest

template <>
struct std::hash<Calyx::TableTest::Key> {
  size_t operator()(Calyx::TableTest::Key const& k) const noexcept { return k.lo * 31 + k.hi; }
};
