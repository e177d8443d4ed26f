#pragma once
// IncrementalHash: a 32-bit hash fed piece by piece, for value types that hash several fields in turn.
//
// The mixing is MurmurHash3 (x86, 32-bit): bytes are taken four at a time as little-endian blocks, the last
// partial block and the total length are folded in, and value() ends with the avalanche step. Feeding the
// same bytes in any split (one add() or many add8()) gives the same value, and the same bytes give the same
// value on every host. add16()/add32() feed the number's bytes in host memory order, so their results differ
// between little- and big-endian hosts; nothing here is meant to travel between hosts of different byte
// order.
//
// stringHash() is the platform's stable string hash: the same text gives the same value in every process and
// run, so it may be stored (for example in shared-memory tables).

#include <bit>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Calyx {

class IncrementalHash {
 public:
  explicit IncrementalHash(uint32_t seed = 0) : h_(seed) {}

  void add(void const* data, size_t n) {
    auto const* p = static_cast<uint8_t const*>(data);
    length_ += static_cast<uint32_t>(n);
    for (; n > 0 && tailBytes_ != 0; --n) addTailByte(*p++);
    for (; n >= 4; n -= 4, p += 4) mixBlock(loadLittle32(p));
    for (; n > 0; --n) addTailByte(*p++);
  }
  void add8(uint8_t v) { add(&v, 1); }
  void add16(uint16_t v) { add(&v, 2); }
  void add32(uint32_t v) { add(&v, 4); }
  // Feeds four bytes given as a little-endian word (the first byte in the low bits): the same as add() of
  // those bytes, for callers that compose their input from fields. Copying fields into a byte buffer and
  // reading it back a block at a time would read bytes still being written, which costs more than the mixing.
  void addLe32(uint32_t k) {
    if (tailBytes_ != 0) return addLe32Unaligned(k);
    mixBlock(k);
    length_ += 4;
  }
  // The little-endian word of a number's bytes in host memory order (what add32 of it feeds).
  static uint32_t hostBytesLe32(uint32_t v) {
    return std::endian::native == std::endian::little ? v : byteswap32(v);
  }
  static uint16_t hostBytesLe16(uint16_t v) {
    return std::endian::native == std::endian::little ? v : static_cast<uint16_t>(v << 8 | v >> 8);
  }

  // The hash of everything added so far; adding more afterwards is allowed.
  uint32_t value() const {
    uint32_t h = h_;
    if (tailBytes_ != 0) h ^= scramble(tail_);
    h ^= length_;
    return avalanche(h);
  }

 private:
  static constexpr uint32_t kC1 = 0xcc9e2d51;
  static constexpr uint32_t kC2 = 0x1b873593;

  static uint32_t rotl(uint32_t x, int r) { return (x << r) | (x >> (32 - r)); }
  static uint32_t byteswap32(uint32_t v) { return v << 24 | (v & 0xff00) << 8 | (v >> 8 & 0xff00) | v >> 24; }
  static uint32_t loadLittle32(uint8_t const* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
  }
  static uint32_t scramble(uint32_t k) { return rotl(k * kC1, 15) * kC2; }
  static uint32_t avalanche(uint32_t h) {
    h ^= h >> 16;
    h *= 0x85ebca6b;
    h ^= h >> 13;
    h *= 0xc2b2ae35;
    h ^= h >> 16;
    return h;
  }
  void mixBlock(uint32_t k) {
    h_ ^= scramble(k);
    h_ = rotl(h_, 13) * 5 + 0xe6546b64;
  }
  // addLe32 behind a partial block: byte by byte.
  void addLe32Unaligned(uint32_t k) {
    for (int i = 0; i < 4; ++i) addTailByte(static_cast<uint8_t>(k >> (8 * i)));
    length_ += 4;
  }
  void addTailByte(uint8_t b) {
    tail_ |= uint32_t(b) << (8 * tailBytes_);
    if (++tailBytes_ < 4) return;
    mixBlock(tail_);
    tail_ = 0;
    tailBytes_ = 0;
  }

  uint32_t h_;
  uint32_t tail_ = 0;       // the bytes of the unfinished block, little-endian
  uint32_t tailBytes_ = 0;  // 0 to 3
  uint32_t length_ = 0;     // bytes added, modulo 2^32
};

// Mixes two 64-bit words into one: the 128-bit product of the two, each first xored with a constant, its
// halves folded together. A few cycles, so that a fixed-size key hashed as a tree of these has a dependency
// chain of two or three multiplications where a byte-stream hash takes the whole key in turn. The same words
// give the same value in every process and run.
inline uint64_t wideMix(uint64_t a, uint64_t b) {
  __extension__ using Wide = unsigned __int128;
  Wide const product = Wide(a ^ 0xa0761d6478bd642full) * Wide(b ^ 0xe7037ed1a0b428dbull);
  return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

inline uint32_t stringHash(std::string_view s) {
  IncrementalHash h;
  h.add(s.data(), s.size());
  return h.value();
}

}  // namespace Calyx
