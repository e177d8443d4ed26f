#pragma once
// SharedTableReader<K, V>: another process's read-only view of a SharedTable<K, V> segment (the CLI reads
// tables this way, also while the writer is down).
//
// Every call first makes sure the mapping is current: it opens the file when nothing is mapped yet, and
// re-opens it when the writer has marked the mapped segment retired (it grew or was restarted) or the path
// names another file (a writer that stopped between the two steps of replacing it). That check is one stat()
// per call. Each record is read under its slot's sequence lock, so a record is never torn; a snapshot is
// consistent per record, not across records. Nothing here aborts: a missing file, a damaged or foreign
// header, a damaged slot, or a slot the writer kept busy too long leaves the call empty and sets error() and
// errorText(). K and V must match the writer's, std::hash<K> included (find() probes where the writer placed
// the key).

#include <sched.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/shm/Seqlock.h"
#include "platform/shm/SharedSegment.h"
#include "platform/shm/SharedTableLayout.h"
#include "platform/shm/SharedTableOptions.h"

namespace Calyx {

enum class SharedTableReadError {
  none,
  missing,       // no file at the path (yet)
  damaged,       // a header or slot breaks its invariants
  incompatible,  // a sound segment of another layout or record size
  stale,         // the file is retired and nothing replaced it: its writer stopped publishing
  busy,          // a slot stayed mid-write through every retry (a writer stopped in the middle of a change)
  failed,        // the file could not be opened or mapped
};

template <class K, class V>
class SharedTableReader {
  static_assert(std::is_trivially_copyable_v<K> && std::is_trivially_copyable_v<V>);

 public:
  explicit SharedTableReader(std::string path) : path_(std::move(path)) {}
  static SharedTableReader forTable(std::string const& name,
                                    std::string const& stateDir = sharedTableDefaultStateDir()) {
    return SharedTableReader(sharedTablePath(stateDir, name));
  }

  // Every entry, in slot order.
  std::vector<V> snapshot() {
    std::vector<V> out;
    if (!refresh()) return out;
    uint64_t const capacity = seg_.header().capacity;
    out.reserve(Seqlock::load(seg_.header().count, std::memory_order_relaxed));
    SlotCopy c;
    for (size_t i = 0; i < capacity; ++i) {
      if (!readSlot(i, c)) return {};
      if (c.state == kUsed) out.push_back(c.value);
    }
    return out;
  }

  std::optional<V> find(K const& key) {
    if (!refresh()) return std::nullopt;
    uint64_t const capacity = seg_.header().capacity;
    uint32_t const tag = sharedTableKeyHash(std::hash<K>{}(key));
    SlotCopy c;
    for (size_t n = 0, i = sharedTableMixHash(tag) & (capacity - 1); n < capacity;
         ++n, i = (i + 1) & (capacity - 1)) {
      if (!readSlot(i, c)) return std::nullopt;
      if (c.state == kFree) return std::nullopt;
      if (c.state == kUsed && c.tag == tag && c.key == key) return c.value;
    }
    return std::nullopt;
  }

  // Of the segment now mapped; 0 when none could be mapped.
  uint64_t generation() { return refresh() ? seg_.header().generation : 0; }
  // Rises with every change the writer publishes: cheap polling for "anything new?".
  uint64_t commitSequence() {
    return refresh() ? Seqlock::load(seg_.header().commitSequence, std::memory_order_acquire) : 0;
  }
  size_t count() { return refresh() ? Seqlock::load(seg_.header().count, std::memory_order_acquire) : 0; }

  // The outcome of the last call.
  SharedTableReadError error() const { return error_; }
  std::string const& errorText() const { return errorText_; }
  bool ok() const { return error_ == SharedTableReadError::none; }
  std::string const& path() const { return path_; }

 private:
  static constexpr uint32_t kKeyOffset = sizeof(SlotHeader);
  static constexpr uint32_t kValueOffset = kKeyOffset + SegmentGeometry::pad8(sizeof(K));
  static constexpr uint32_t kSlotSize = kValueOffset + SegmentGeometry::pad8(sizeof(V));
  static constexpr uint32_t kUsed = static_cast<uint32_t>(SlotState::used);
  static constexpr uint32_t kFree = static_cast<uint32_t>(SlotState::free);
  // A writer holds a slot for a few dozen nanoseconds, unless it is descheduled mid-change (which on a busy
  // machine can last milliseconds) or died mid-change. Spin, then yield, then sleep, and give up after a
  // second.
  static constexpr int kSpins = 256;
  static constexpr int kYields = 1024;
  static constexpr auto kPatience = std::chrono::seconds(1);
  static constexpr int kReopenAttempts = 1000;

  struct SlotCopy {
    uint32_t state = 0;
    uint32_t tag = 0;
    K key{};
    V value{};
  };

  bool fail(SharedTableReadError e, std::string text) {
    error_ = e;
    errorText_ = std::move(text);
    return false;
  }

  // Leaves a sound, live mapping in seg_, or fails with the reason.
  bool refresh() {
    error_ = SharedTableReadError::none;
    errorText_.clear();
    if (seg_.mapped()) {
      if (!headerSound()) return false;
      if (Seqlock::load(seg_.header().retired, std::memory_order_acquire) == 0 && seg_.isFileAt(path_))
        return true;
    }
    return reopen();
  }

  // A writer that grows quickly may retire the file just opened before we look at it: then the path already
  // names a newer one, and we open again. Retired and still at the path means the writer stopped publishing.
  bool reopen() {
    for (int attempt = 0; attempt < kReopenAttempts; ++attempt) {
      std::string text;
      switch (SharedSegment::open(path_, false, seg_, text)) {
        case SharedSegment::OpenResult::ok:
          break;
        case SharedSegment::OpenResult::missing:
          return fail(SharedTableReadError::missing, text);
        case SharedSegment::OpenResult::tooShort:
          return fail(SharedTableReadError::damaged, text);
        case SharedSegment::OpenResult::failed:
          return fail(SharedTableReadError::failed, text);
      }
      if (!headerSound()) return false;
      if (Seqlock::load(seg_.header().retired, std::memory_order_acquire) == 0) return true;
      if (seg_.isFileAt(path_))
        return fail(SharedTableReadError::stale, path_ + " is retired and nothing replaced it");
    }
    return fail(SharedTableReadError::busy, path_ + " was replaced faster than it could be opened");
  }

  bool headerSound() {
    std::string problem;
    switch (checkSegmentHeader(seg_.header(), seg_.bytes(), sizeof(K), sizeof(V), problem)) {
      case HeaderCheck::ok:
        return true;
      case HeaderCheck::incompatible:
        seg_.unmap();
        return fail(SharedTableReadError::incompatible, path_ + ": " + problem);
      case HeaderCheck::damaged:
        seg_.unmap();
        return fail(SharedTableReadError::damaged, path_ + ": " + problem);
    }
    return false;
  }

  // One consistent copy of slot i; false (with the error set) when it is damaged or stays busy.
  bool readSlot(size_t i, SlotCopy& out) {
    std::byte const* slot = seg_.slots() + i * kSlotSize;
    auto const& s = *reinterpret_cast<SlotHeader const*>(slot);
    std::chrono::steady_clock::time_point giveUp{};
    for (int attempt = 0;; ++attempt) {
      uint64_t const begin = Seqlock::readBegin(s.version);
      if ((begin & 1) == 0) {
        out.state = Seqlock::load(s.state, std::memory_order_relaxed);
        out.tag = Seqlock::load(s.tag, std::memory_order_relaxed);
        if (out.state == kUsed) {
          Seqlock::loadWords(&out.key, slot + kKeyOffset, sizeof(K));
          Seqlock::loadWords(&out.value, slot + kValueOffset, sizeof(V));
        }
        if (Seqlock::readValid(s.version, begin)) return slotSound(i, out);
      }
      if (attempt < kSpins) continue;
      if (attempt < kYields) {
        ::sched_yield();
        continue;
      }
      auto const now = std::chrono::steady_clock::now();
      if (attempt == kYields) giveUp = now + kPatience;
      if (now > giveUp) break;
      std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    return fail(SharedTableReadError::busy, path_ + ": slot " + std::to_string(i) + " stayed mid-write");
  }

  bool slotSound(size_t i, SlotCopy const& c) {
    if (c.state >= kSlotStateLimit)
      return fail(SharedTableReadError::damaged,
                  path_ + ": slot " + std::to_string(i) + " has state " + std::to_string(c.state));
    if (c.state == kUsed && !(c.value.key() == c.key))
      return fail(SharedTableReadError::damaged,
                  path_ + ": slot " + std::to_string(i) + " holds a value of another key");
    return true;
  }

  std::string path_;
  SharedSegment seg_;
  SharedTableReadError error_ = SharedTableReadError::none;
  std::string errorText_;
};

}  // namespace Calyx
