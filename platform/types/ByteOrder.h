#pragma once
// Reading and writing numbers at an explicit byte order in raw buffers (headers, frames, report packets), one
// byte at a time, so alignment never matters and the host's own byte order never leaks in.

#include <bit>
#include <cstddef>
#include <cstdint>

namespace Calyx {

inline uint16_t loadBe16(uint8_t const* p) {
  return static_cast<uint16_t>(p[0] << 8 | p[1]);
}
inline uint32_t loadBe32(uint8_t const* p) {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}
inline uint64_t loadBe64(uint8_t const* p) {
  return uint64_t(loadBe32(p)) << 32 | loadBe32(p + 4);
}
inline uint16_t loadLe16(uint8_t const* p) {
  return static_cast<uint16_t>(p[0] | p[1] << 8);
}
inline uint64_t loadLe64(uint8_t const* p) {
  return uint64_t(p[0]) | uint64_t(p[1]) << 8 | uint64_t(p[2]) << 16 | uint64_t(p[3]) << 24 |
         uint64_t(p[4]) << 32 | uint64_t(p[5]) << 40 | uint64_t(p[6]) << 48 | uint64_t(p[7]) << 56;
}
inline void storeBe64(uint8_t* p, uint64_t v) {
  for (size_t i = 0; i < 8; ++i) p[i] = static_cast<uint8_t>(v >> (56 - 8 * i));
}

// The n low bytes of v, most significant first / least significant first.
inline void storeBe(uint8_t* p, uint64_t v, size_t n) {
  for (size_t i = n; i-- > 0; v >>= 8) p[i] = static_cast<uint8_t>(v);
}
inline void storeLe(uint8_t* p, uint64_t v, size_t n) {
  for (size_t i = 0; i < n; ++i, v >>= 8) p[i] = static_cast<uint8_t>(v);
}
// A 32-bit number held in memory in network order (most significant byte first), and back: the same swap both
// ways, nothing on a big-endian host.
inline uint32_t swapNetwork32(uint32_t v) {
  if constexpr (std::endian::native == std::endian::little) return __builtin_bswap32(v);
  return v;
}

inline uint64_t loadLe(uint8_t const* p, size_t n) {
  uint64_t v = 0;
  for (size_t i = n; i-- > 0;) v = v << 8 | p[i];
  return v;
}

}  // namespace Calyx
