#pragma once
// Sequence-lock access to a shared-table slot: one writer, any number of readers in other processes that
// never block it and retry a read the writer overlapped.
//
// Writer: beginWrite (version becomes odd), store the fields, endWrite (version even again, one step
// further). Reader: v = readBegin, load the fields, readValid(v) tells whether they are one consistent
// record. Every access to memory a reader may see while the writer changes it goes through std::atomic_ref,
// relaxed for the fields and ordered by the fences here; on x86-64 all of it compiles to plain moves. The
// record bytes are moved in 8-byte words, so a slot's key and value areas are 8-aligned and padded to a
// multiple of 8.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Calyx::Seqlock {

static_assert(std::atomic_ref<uint64_t>::is_always_lock_free &&
                  std::atomic_ref<uint32_t>::is_always_lock_free,
              "readers in other processes need lock-free atomics on the mapping");

// Readers map the segment read-only; an atomic load does not write, so casting const away for it is sound.
template <class T>
T load(T const& field, std::memory_order order) {
  return std::atomic_ref<T>(const_cast<T&>(field)).load(order);
}
template <class T>
void store(T& field, T value, std::memory_order order) {
  std::atomic_ref<T>(field).store(value, order);
}

// Returns the odd version that endWrite turns even.
inline uint64_t beginWrite(uint64_t& version) {
  uint64_t const odd = load(version, std::memory_order_relaxed) + 1;
  store(version, odd, std::memory_order_relaxed);
  // Keeps the field stores below from becoming visible before the odd version.
  std::atomic_thread_fence(std::memory_order_release);
  return odd;
}
inline void endWrite(uint64_t& version, uint64_t odd) {
  store(version, odd + 1, std::memory_order_release);
}

inline uint64_t readBegin(uint64_t const& version) {
  return load(version, std::memory_order_acquire);
}
inline bool readValid(uint64_t const& version, uint64_t begin) {
  // Keeps the field loads above from being satisfied after the version is read again.
  std::atomic_thread_fence(std::memory_order_acquire);
  return (begin & 1) == 0 && load(version, std::memory_order_relaxed) == begin;
}

// Copies bytes (not a multiple of 8 is fine) into 8-aligned slot words; the last word's tail is zeroed.
inline void storeWords(std::byte* slotWords, void const* src, size_t bytes) {
  auto* words = reinterpret_cast<uint64_t*>(slotWords);
  auto const* from = static_cast<std::byte const*>(src);
  size_t const full = bytes / 8;
  for (size_t i = 0; i < full; ++i) {
    uint64_t w;
    std::memcpy(&w, from + i * 8, 8);
    store(words[i], w, std::memory_order_relaxed);
  }
  if (size_t const tail = bytes % 8) {
    uint64_t w = 0;
    std::memcpy(&w, from + full * 8, tail);
    store(words[full], w, std::memory_order_relaxed);
  }
}

// Copies bytes out of 8-aligned slot words into dst.
inline void loadWords(void* dst, std::byte const* slotWords, size_t bytes) {
  auto const* words = reinterpret_cast<uint64_t const*>(slotWords);
  auto* to = static_cast<std::byte*>(dst);
  size_t const full = bytes / 8;
  for (size_t i = 0; i < full; ++i) {
    uint64_t const w = load(words[i], std::memory_order_relaxed);
    std::memcpy(to + i * 8, &w, 8);
  }
  if (size_t const tail = bytes % 8) {
    uint64_t const w = load(words[full], std::memory_order_relaxed);
    std::memcpy(to + full * 8, &w, tail);
  }
}

}  // namespace Calyx::Seqlock
