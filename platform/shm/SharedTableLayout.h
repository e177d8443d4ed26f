#pragma once
// The bytes of a shared-table segment file, as the writer and every reader map them.
//
//   offset 0    SegmentHeader (128 bytes: a line the writer rarely touches, then the line it touches per
//   change) offset 128  capacity slots of slotSize bytes each: SlotHeader (16 bytes), the key, the value,
//   each padded to 8
//
// Integers are in the machine's own byte order: the segment is shared between processes of one host, never
// shipped. The file is only ever replaced whole (written under a temporary name, then renamed over the old
// one), so a reader that opens the path sees a complete segment. Fields a reader may read while the writer
// changes them are accessed through std::atomic_ref (Seqlock.h).

#include <cstddef>
#include <cstdint>
#include <string>

namespace Calyx {

inline constexpr uint64_t kSharedTableMagic = 0x3142'4154'5348'4c43ull;  // "CLSHTAB1" read little-endian
inline constexpr uint32_t kSharedTableLayoutVersion = 2;  // 2: a slot's tag is its key's own hash

enum class SlotState : uint32_t { free = 0, used = 1, deleted = 2 };
inline constexpr uint32_t kSlotStateLimit = 3;  // states at or above it are damage

struct SegmentHeader {
  // Written once when the segment is made, except retired.
  uint64_t magic;
  uint32_t layoutVersion;
  uint32_t headerSize;
  uint32_t keySize;
  uint32_t valueSize;
  uint32_t slotSize;
  uint32_t retired;     // 1 once the writer has moved to a newer segment under the same path
  uint64_t capacity;    // slots; a power of two
  uint64_t generation;  // one more than the segment it replaced
  uint8_t pad0[16];
  // Written by the writer on every change, on a cache line of their own so readers checking the line above do
  // not bounce it.
  uint64_t count;           // used slots
  uint64_t deleted;         // slots in state deleted (probe chains run through them)
  uint64_t commitSequence;  // bumped after every published change
  uint8_t pad1[40];
};
static_assert(sizeof(SegmentHeader) == 128);

struct SlotHeader {
  uint64_t version;  // sequence lock: odd while the writer changes the slot
  uint32_t state;    // a SlotState
  uint32_t tag;      // the key's 32-bit hash: rejects most wrong keys before comparing them, and places the
                     // key again in a growth without hashing it
};
static_assert(sizeof(SlotHeader) == 16);

// The sizes that follow from a record layout and a capacity.
struct SegmentGeometry {
  uint32_t keySize = 0;
  uint32_t valueSize = 0;
  uint64_t capacity = 0;

  static constexpr uint32_t pad8(uint32_t n) { return (n + 7u) & ~7u; }
  uint32_t keyOffset() const { return sizeof(SlotHeader); }
  uint32_t valueOffset() const { return keyOffset() + pad8(keySize); }
  uint32_t slotSize() const { return valueOffset() + pad8(valueSize); }
  // Where slot i starts in the file.
  size_t slotOffset(uint64_t i) const { return sizeof(SegmentHeader) + i * slotSize(); }
  size_t bytes() const { return slotOffset(capacity); }
};

// Fills in a new segment's header (the slots stay zero: free, version 0).
void segmentHeaderInit(SegmentHeader& h, SegmentGeometry const& g, uint64_t generation);

enum class HeaderCheck { ok, damaged, incompatible };

// Checks a mapped header against the record sizes the caller expects and the file's length. Incompatible: a
// sound segment of another layout (another version or other record sizes). Damaged: anything that no writer
// produces. problem is set to a sentence naming what is wrong.
HeaderCheck checkSegmentHeader(SegmentHeader const& h, size_t fileBytes, uint32_t keySize, uint32_t valueSize,
                               std::string& problem);

// A key's hash as its slot keeps it: std::hash folded to 32 bits (the feature's keys hash to 32 bits anyway).
inline uint32_t sharedTableKeyHash(uint64_t h) {
  return static_cast<uint32_t>(h ^ (h >> 32));
}

// Spreads a key's 32-bit hash over all 64 bits (std::hash of an integer is often the integer itself, which
// would cluster in a power-of-two table). The low bits choose the home slot.
inline uint64_t sharedTableMixHash(uint64_t h) {
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccdull;
  h ^= h >> 33;
  h *= 0xc4ceb9fe1a85ec53ull;
  h ^= h >> 33;
  return h;
}

}  // namespace Calyx
