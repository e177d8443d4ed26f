#pragma once
// SlotTable: the writer's side of a shared-table segment, with keys and values as bytes of fixed sizes.
// SharedTable<K, V> is the typed entity over it; this class owns everything that does not depend on the
// record types: the segment's geometry, probing, insertion and removal under the sequence lock, the load
// limit, growth and shrinking by rehash (paced after a failure), publishing by rename, loading the file an
// earlier run left, and reporting damage.
//
// The segment is an open-addressing hash table with linear probing; a slot keeps its key's 32-bit hash as a
// tag, which rejects most wrong keys before they are compared and places every key again in a rehash without
// hashing it. A key never moves within a segment; deleting leaves a "deleted" slot that keeps probe chains
// intact (turned back to free when nothing lies beyond it). When live and deleted slots pass three quarters
// of the capacity the table rehashes into a segment twice as large; when deleted slots pass half, or live
// ones fall below an eighth, into a smaller one. The new segment is renamed over the old file and the old one
// marked retired, so that readers re-map; the generation counts these replacements.
//
// Limits: one writer, one thread. Key and value pointers handed in are the caller's records (alignment at
// most 8); pointers handed out point into the mapping and are valid until the next change.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/shm/MappedFile.h"
#include "platform/shm/SharedTableLayout.h"
#include "platform/shm/SharedTableOptions.h"
#include "platform/shm/SlotRecordTraits.h"

namespace Calyx {

class SlotTable {
 public:
  static constexpr size_t kNone = SIZE_MAX;
  static constexpr uint32_t kFree = static_cast<uint32_t>(SlotState::free);
  static constexpr uint32_t kUsed = static_cast<uint32_t>(SlotState::used);
  static constexpr uint32_t kDeleted = static_cast<uint32_t>(SlotState::deleted);

  // Where a key is, or where it would go: the first deleted slot on its chain, else the free slot ending it.
  struct Probe {
    size_t index = kNone;
    bool found = false;
  };

  // Opens the table: loads the file an earlier run left at <stateDir>/<name> into a fresh segment, or starts
  // empty. Throws std::bad_alloc when not even private memory can be had.
  SlotTable(std::string name, SharedTableOptions options, SlotRecordTraits const& traits);
  SlotTable(SlotTable const&) = delete;
  SlotTable& operator=(SlotTable const&) = delete;

  // The fields this writer fixed must still hold; false after reporting anything else (someone scribbling).
  bool headerSound() const {
    SegmentHeader const& h = header();
    return (h.magic == kSharedTableMagic && h.keySize == traits_.keySize &&
            h.valueSize == traits_.valueSize && h.capacity == capacity_ && h.count <= capacity_ &&
            h.retired == 0) ||
           reportHeader();
  }
  // Where key (whose tag is given) is or would go; false after reporting a damaged slot.
  bool probe(void const* key, uint32_t tag, Probe& out) const;
  // The same, reusing the last miss when nothing changed since (a writer looks a key up, then adds it).
  bool locate(void const* key, uint32_t& tag, Probe& out);
  // Keeps a look-up that found nothing for locate().
  void rememberMiss(void const* key, uint32_t tag, Probe const& p) const;
  // False after reporting a used slot whose record breaks its own invariants.
  bool slotSound(size_t i) const { return !traits_.valueSound || checkSlot(i); }

  // Adds key and value at p (from probe or locate), growing first when the load limit needs it; false when
  // there is no room.
  bool insert(void const* key, uint32_t tag, void const* value, Probe p);
  void writeValue(size_t i, void const* value);
  void removeAt(size_t i);
  // Publishes the counts and a new commit sequence, after every change.
  void publishCounts();
  // True when n more keys fit below the load limit, after growing the segment if need be.
  bool roomFor(size_t n) {
    return (used_ + deleted_ + n) * 4 <= capacity_ * 3 || rehashPaced(capacityFor(used_ + n));
  }
  // The first used slot at or after from, wrapping around; kNone after reporting damage or when empty.
  size_t nextUsed(size_t from) const;

  std::byte* slotAt(size_t i) const { return slots_ + i * slotSize_; }
  uint32_t stateAt(size_t i) const { return reinterpret_cast<SlotHeader const*>(slotAt(i))->state; }
  std::byte* keyAt(size_t i) const { return slotAt(i) + sizeof(SlotHeader); }
  std::byte* valueAt(size_t i) const { return slotAt(i) + valueOffset_; }

  std::string const& name() const { return name_; }
  std::string const& path() const { return path_; }
  bool isPublished() const { return published_; }
  uint64_t generation() const { return generation_; }
  size_t capacity() const { return capacity_; }
  size_t used() const { return used_; }

 private:
  SegmentHeader& header() const { return *reinterpret_cast<SegmentHeader*>(seg_.base()); }
  SegmentGeometry geometry(uint64_t capacity) const { return {traits_.keySize, traits_.valueSize, capacity}; }
  size_t capacityFor(size_t n) const;

  bool reportHeader() const;
  bool checkSlot(size_t i) const;
  void corrupt(std::string problem, bool atOpen = false) const;
  void trace(std::string const& line) const;

  void writeSlot(size_t i, uint32_t tag, void const* key, void const* value);
  void writeState(size_t i, uint32_t state);

  bool canPublish() const;
  MappedFile makeSegment(uint64_t capacity, uint64_t generation);
  bool rehashPaced(size_t capacity);
  bool rehash(size_t capacity);
  MappedFile adopt(MappedFile fresh);
  void publish(MappedFile previous);

  void open();
  void loadPrevious(MappedFile& previous, std::vector<uint64_t>& loaded, uint64_t& generation);
  bool loadSlots(MappedFile const& previous, std::vector<uint64_t>& loaded, std::string& problem) const;
  bool loadSlotsFrom(MappedFile const& previous, std::vector<uint64_t>& loaded, std::string& problem,
                     size_t& i) const;

  std::string const name_;
  SharedTableOptions const options_;
  SlotRecordTraits const traits_;
  std::string const path_;
  std::string const tmpPath_;
  size_t const initialCapacity_;
  uint32_t const valueOffset_;
  uint32_t const slotSize_;
  bool published_ = false;
  std::optional<std::chrono::steady_clock::time_point> rehashFailedAt_;  // the last rehash that failed

  MappedFile seg_;
  std::byte* slots_ = nullptr;
  size_t capacity_ = 0;
  uint64_t generation_ = 0;
  size_t used_ = 0;
  size_t deleted_ = 0;
  uint64_t commitSequence_ = 0;

  // The last look-up that found nothing; any change to the table (a new commit sequence or segment) voids it.
  struct Miss {
    std::vector<std::byte> key;
    uint32_t tag = 0;
    Probe probe;
    uint64_t commit = 0;
    uint64_t generation = 0;
    bool valid = false;
  };
  mutable Miss lastMiss_;
};

}  // namespace Calyx
