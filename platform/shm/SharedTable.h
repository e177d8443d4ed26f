#pragma once
// SharedTable<K, V>: an entity with one keyed collection, entry, whose every change is also published into a
// shared-memory segment that other processes read with SharedTableReader<K, V>.
//
// The segment file (<state directory>/<name>, see SharedTableLayout.h) is an open-addressing hash table with
// linear probing, and the writer's own lookups go straight to it: there is no second copy in process. A key
// never moves within a segment; deleting leaves a "deleted" slot that keeps probe chains intact (turned back
// to free when nothing lies beyond it). When live and deleted slots pass three quarters of the capacity the
// writer rehashes into a new segment twice as large; when deleted slots pass half, or live ones fall below an
// eighth, into a smaller one. The new segment is renamed over the old file and the old one marked retired, so
// that readers re-map; the generation counts these replacements.
//
// Limits:
// - One writer per segment file, on one thread. Readers in other processes never block it and never see
//   a torn record.
// - K and V are trivially copyable with alignment at most 8; V::key() gives the key; K has == and std::hash,
//   which must be the same in every process reading the table because it places keys in the segment; K's < is
//   needed only by the ordered walk.
// - entry() points into the mapping: the pointer is valid until the next change to the table.
// - The ordered walk sorts the keys once and keeps them until a new key is added; it is meant for rare walks.
// - Damage (a header or slot breaking its invariants) goes to the corruption handler and the operation under
//   way is abandoned. A table that cannot publish at all (bad name, unusable state directory, no room for
//   its first segment) is a trace line; it then carries on in private memory and readers report the file as
//   stale.
// - Growth can fail (a full tmpfs): the table then keeps its segment, refuses keys past its load limit
//   (entryIs, entryCommit and the update that creates return false; entryReserve tells beforehand), and
//   tries to grow again at most once a second.
// - Constructing a table over an existing file loads its entries (state left by an earlier run) into a fresh
//   segment of the next generation. A file of another layout (version, record sizes) is a trace line and the
//   table starts empty; a damaged file goes to the corruption handler (told atOpen, with the file still at
//   its path) and, if that returns, the table starts empty. The file is opened without following a symlink.
// - A value type may declare `bool sound(std::string& problem) const`: every record read back from the
// segment
//   (a lookup, an in-place update, the load of an earlier run's file) is checked with it before use, because
//   an earlier run or another process may have left it broken. A broken record goes to the corruption handler
//   and reads as absent.

#include <algorithm>
#include <chrono>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <functional>
#include <new>
#include <optional>
#include <string>
#include <type_traits>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/core/Entity.h"
#include "platform/core/Object.h"
#include "platform/core/Ptr.h"
#include "platform/shm/Seqlock.h"
#include "platform/shm/SharedSegment.h"
#include "platform/shm/SharedTableLayout.h"
#include "platform/shm/SharedTableOptions.h"

namespace Calyx {

template <class K, class V>
class SharedTable : public Object, public Notifier<SharedTable<K, V>> {
  static_assert(std::is_trivially_copyable_v<K> && std::is_trivially_copyable_v<V>,
                "shared-table records are copied byte for byte between processes");
  static_assert(alignof(K) <= 8 && alignof(V) <= 8, "slots align records to 8 bytes");
  static_assert(std::is_convertible_v<decltype(std::declval<V const&>().key()), K>,
                "V::key() must give the key");

 public:
  class Reactor : public ReactorBase<SharedTable> {
   public:
    using ReactorBase<SharedTable>::ReactorBase;
    virtual void handleEntry(K const&) {}
  };

  SharedTable(std::string name, SharedTableOptions options = {})
      : name_(std::move(name)),
        options_(std::move(options)),
        path_(sharedTablePath(options_.stateDir, name_)),
        tmpPath_(sharedTablePath(options_.stateDir, "." + name_ + ".new")),
        initialCapacity_(roundCapacity(options_.initialCapacity)) {
    published_ = canPublish();
    open();
  }

  // Inserts or replaces v under its key. An equal value already stored changes nothing: false, no
  // notification.
  bool entryIs(V const& v) {
    K const key = v.key();
    uint64_t h = 0;
    Probe p;
    if (!headerSound() || !locate(key, h, p)) return false;
    if (p.found) {
      if (valueAt(p.index) == v) return false;
      writeValue(p.index, v);
    } else if (!insert(key, h, v, p)) {
      return false;
    }
    publishCounts();
    this->notify(&Reactor::handleEntry, key);
    return true;
  }

  // Publishes v under its key whether or not it changed (counters updated in place), and notifies. False when
  // it could not be stored.
  bool entryCommit(V const& v) {
    K const key = v.key();
    uint64_t h = 0;
    Probe p;
    if (!headerSound() || !locate(key, h, p)) return false;
    if (p.found) {
      writeValue(p.index, v);
    } else if (!insert(key, h, v, p)) {
      return false;
    }
    publishCounts();
    this->notify(&Reactor::handleEntry, key);
    return true;
  }

  // In-place update of an existing entry, for counters: change(V&) edits a copy of the stored value, which is
  // then published and notified like entryCommit, with one look-up instead of a look-up and a commit. False,
  // and change not called, when key has no entry. change must leave the key as it is.
  template <class F>
  bool entryUpdate(K const& key, F&& change) {
    Probe p;
    if (!headerSound() || !probe(key, hashOf(key), p) || !p.found || !slotSound(p.index)) return false;
    V v = valueAt(p.index);
    change(v);
    writeValue(p.index, v);
    publishCounts();
    this->notify(&Reactor::handleEntry, key);
    return true;
  }

  // The same for a counter that may not exist yet: when key has no entry, change edits the value make()
  // gives, which is then inserted. False when the table is damaged or has no room for the new entry.
  template <class F, class M>
  bool entryUpdate(K const& key, F&& change, M&& make) {
    if (entryUpdate(key, change)) return true;
    if (!headerSound()) return false;
    V v = make();
    change(v);
    return entryCommit(v);
  }

  // Publishes the entry of key as it stands and notifies; nothing when key has no entry.
  void entryCommit(K const& key) {
    Probe p;
    if (!headerSound() || !probe(key, hashOf(key), p) || !p.found || !slotSound(p.index)) return;
    writeValue(p.index, valueAt(p.index));
    publishCounts();
    this->notify(&Reactor::handleEntry, key);
  }

  // Removes key's entry; false (and no notification) when there is none.
  bool entryDel(K const& key) {
    Probe p;
    if (!headerSound() || !probe(key, hashOf(key), p) || !p.found) return false;
    removeAt(p.index);
    this->notify(&Reactor::handleEntry, key);
    return true;
  }

  // Removes every entry one key at a time, notifying each. A handler may change or release the table
  // meanwhile.
  void entryDelAll() {
    if (used_ == 0) return;
    Ptr<SharedTable> const keepAlive(this);
    size_t cursor = 0;
    while (used_ > 0) {
      if (!headerSound()) return;
      size_t const i = nextUsed(cursor);
      if (i == kNone) return;
      K const key = keyAt(i);
      removeAt(i);
      cursor = i + 1;
      this->notify(&Reactor::handleEntry, key);
    }
  }

  // Makes sure that n more keys can be added without growing the segment, growing it now if need be. False
  // when the table cannot grow (no memory for a larger segment, e.g. a full tmpfs): the table stays as it is,
  // and the next attempt to grow waits a second, so that a full tmpfs costs one failed attempt a second
  // rather than one per new key.
  bool entryReserve(size_t n) { return headerSound() && roomFor(n); }

  V const* entry(K const& key) const {
    if (!headerSound()) return nullptr;
    uint64_t const h = hashOf(key);
    Probe p;
    if (!probe(key, h, p)) return nullptr;
    if (!p.found) {
      lastMiss_ = {key, h, p, commitSequence_, generation_, true};
      return nullptr;
    }
    return slotSound(p.index) ? &valueAt(p.index) : nullptr;
  }
  size_t entryCount() const { return used_; }

  // Walk in key order. entryNext looks its argument up again, so a walk survives changes made during it.
  std::optional<K> entryFirst() const {
    refreshOrder();
    while (orderStart_ < order_.size() && !entry(order_[orderStart_])) ++orderStart_;
    if (orderStart_ == order_.size()) return std::nullopt;
    return order_[orderStart_];
  }
  std::optional<K> entryNext(K const& after) const {
    refreshOrder();
    auto it =
        std::upper_bound(order_.begin() + static_cast<std::ptrdiff_t>(orderStart_), order_.end(), after);
    for (; it != order_.end(); ++it) {
      if (entry(*it)) return *it;
    }
    return std::nullopt;
  }
  // Calls f(V const&) for every entry in key order.
  template <class F>
  void forEachEntry(F&& f) const {
    for (auto k = entryFirst(); k; k = entryNext(*k)) {
      if (V const* v = entry(*k)) f(*v);
    }
  }

  // Calls f(V const&) for every entry in slot order: no key is compared or hashed, so a reader that only
  // counts pays one pass over the slots. The table must not change during the walk.
  template <class F>
  void forEachEntryUnordered(F&& f) const {
    for (size_t i = 0; i < capacity_; ++i) {
      if (stateAt(i) == kUsed) f(valueAt(i));
    }
  }

  std::string const& name() const { return name_; }
  std::string const& path() const { return path_; }
  // False once the table could not publish and carries on in private memory.
  bool isPublished() const { return published_; }
  uint64_t generation() const { return generation_; }
  size_t capacity() const { return capacity_; }

 protected:
  ~SharedTable() override = default;

 private:
  static constexpr size_t kNone = SIZE_MAX;
  static constexpr uint32_t kKeyOffset = sizeof(SlotHeader);
  static constexpr uint32_t kValueOffset = kKeyOffset + SegmentGeometry::pad8(sizeof(K));
  static constexpr uint32_t kSlotSize = kValueOffset + SegmentGeometry::pad8(sizeof(V));
  static constexpr uint32_t kUsed = static_cast<uint32_t>(SlotState::used);
  static constexpr uint32_t kDeleted = static_cast<uint32_t>(SlotState::deleted);
  static constexpr uint32_t kFree = static_cast<uint32_t>(SlotState::free);

  // Where key is, or where it would go: the first deleted slot on its chain, else the free slot ending the
  // chain.
  struct Probe {
    size_t index = kNone;
    bool found = false;
  };

  static SegmentGeometry geometry(uint64_t capacity) { return {sizeof(K), sizeof(V), capacity}; }
  // h is the key's 32-bit hash, which its slot keeps as the tag; the home slot comes from it mixed. A growth
  // so places every key again from its tag alone, without hashing a key.
  static uint64_t hashOf(K const& key) { return sharedTableKeyHash(std::hash<K>{}(key)); }
  static uint32_t tagOf(uint64_t h) { return static_cast<uint32_t>(h); }
  static size_t homeOf(uint64_t h, size_t mask) { return sharedTableMixHash(h) & mask; }
  static size_t roundCapacity(size_t n) {
    size_t c = 16;
    while (c < n) c *= 2;
    return c;
  }
  // The capacity a rehash holding n entries picks: at most half full afterwards.
  size_t capacityFor(size_t n) const { return std::max(initialCapacity_, roundCapacity(2 * n)); }

  std::byte* slotAt(size_t i) const { return slots_ + i * kSlotSize; }
  SlotHeader& slotHeader(size_t i) const { return *reinterpret_cast<SlotHeader*>(slotAt(i)); }
  uint32_t stateAt(size_t i) const { return slotHeader(i).state; }
  K const& keyAt(size_t i) const { return *std::launder(reinterpret_cast<K const*>(slotAt(i) + kKeyOffset)); }
  V const& valueAt(size_t i) const {
    return *std::launder(reinterpret_cast<V const*>(slotAt(i) + kValueOffset));
  }

  void corrupt(std::string problem, bool atOpen = false) const {
    SharedTableCorruption const c{name_, path_, std::move(problem), atOpen};
    if (options_.corruptionHandler) {
      options_.corruptionHandler(c);
    } else {
      sharedTableCorruptionReport(c);
    }
  }
  void trace(std::string const& line) const { sharedTableTrace(name_, line); }

  static bool recordSound(V const& v, std::string& problem) {
    if constexpr (requires {
                    { v.sound(problem) } -> std::convertible_to<bool>;
                  }) {
      return v.sound(problem);
    } else {
      return true;
    }
  }
  // False after reporting a used slot whose record breaks its own invariants.
  bool slotSound(size_t i) const {
    std::string problem;
    if (recordSound(valueAt(i), problem)) return true;
    corrupt("slot " + std::to_string(i) + " holds a broken record: " + problem);
    return false;
  }

  // The fields this writer fixed must still hold; anything else is someone scribbling on the segment.
  bool headerSound() const {
    SegmentHeader const& h = seg_.header();
    if (h.magic == kSharedTableMagic && h.keySize == sizeof(K) && h.valueSize == sizeof(V) &&
        h.capacity == capacity_ && h.count <= capacity_ && h.retired == 0)
      return true;
    std::string problem;
    if (checkSegmentHeader(h, seg_.bytes(), sizeof(K), sizeof(V), problem) != HeaderCheck::ok) {
      corrupt(problem);
    } else if (h.retired == 1 && h.capacity == capacity_) {
      corrupt("another writer opened the table's file and retired this segment (one writer per table)");
    } else {
      corrupt("header changed under its writer (capacity " + std::to_string(h.capacity) + ", retired " +
              std::to_string(h.retired) + ")");
    }
    return false;
  }

  // False after reporting a damaged slot.
  bool probe(K const& key, uint64_t h, Probe& out) const {
    size_t const mask = capacity_ - 1;
    uint32_t const tag = tagOf(h);
    size_t firstDeleted = kNone;
    size_t i = homeOf(h, mask);
    for (size_t n = 0; n < capacity_; ++n, i = (i + 1) & mask) {
      SlotHeader const& s = slotHeader(i);
      if (s.state == kUsed) {
        if (s.tag == tag && keyAt(i) == key) {
          out = {i, true};
          return true;
        }
      } else if (s.state == kFree) {
        out = {firstDeleted != kNone ? firstDeleted : i, false};
        return true;
      } else if (s.state == kDeleted) {
        if (firstDeleted == kNone) firstDeleted = i;
      } else {
        corrupt("slot " + std::to_string(i) + " has state " + std::to_string(s.state));
        return false;
      }
    }
    out = {firstDeleted, false};
    return true;
  }

  // Where key is or would go. A writer records what it has not seen by looking the key up and then adding it:
  // the add reuses what the look-up found (hash and place) as long as nothing changed in between.
  bool locate(K const& key, uint64_t& h, Probe& p) {
    Miss& m = lastMiss_;
    if (m.valid && m.commit == commitSequence_ && m.generation == generation_ && m.key == key) {
      m.valid = false;
      h = m.hash;
      p = m.probe;
      return true;
    }
    h = hashOf(key);
    return probe(key, h, p);
  }

  // The first used slot at or after from, wrapping around; kNone after reporting damage.
  size_t nextUsed(size_t from) const {
    for (size_t n = 0; n < capacity_; ++n) {
      size_t const i = (from + n) & (capacity_ - 1);
      uint32_t const state = stateAt(i);
      if (state == kUsed) return i;
      if (state >= kSlotStateLimit) {
        corrupt("slot " + std::to_string(i) + " has state " + std::to_string(state));
        return kNone;
      }
    }
    return kNone;
  }

  bool insert(K const& key, uint64_t h, V const& v, Probe p) {
    bool const intoFree = p.index == kNone || stateAt(p.index) == kFree;
    if (intoFree) {
      uint64_t const generation = generation_;
      if (!roomFor(1)) return false;
      // Growing moved every key: find this one's place again.
      if (generation_ != generation && !probe(key, h, p)) return false;
    }
    if (stateAt(p.index) == kDeleted) --deleted_;
    writeSlot(p.index, h, key, v);
    ++used_;
    orderValid_ = false;
    return true;
  }

  void writeSlot(size_t i, uint64_t h, K const& key, V const& v) {
    SlotHeader& s = slotHeader(i);
    uint64_t const odd = Seqlock::beginWrite(s.version);
    Seqlock::store(s.tag, tagOf(h), std::memory_order_relaxed);
    Seqlock::storeWords(slotAt(i) + kKeyOffset, &key, sizeof(K));
    Seqlock::storeWords(slotAt(i) + kValueOffset, &v, sizeof(V));
    Seqlock::store(s.state, kUsed, std::memory_order_relaxed);
    Seqlock::endWrite(s.version, odd);
  }
  void writeValue(size_t i, V const& v) {
    SlotHeader& s = slotHeader(i);
    uint64_t const odd = Seqlock::beginWrite(s.version);
    Seqlock::storeWords(slotAt(i) + kValueOffset, &v, sizeof(V));
    Seqlock::endWrite(s.version, odd);
  }
  void writeState(size_t i, uint32_t state) {
    SlotHeader& s = slotHeader(i);
    uint64_t const odd = Seqlock::beginWrite(s.version);
    Seqlock::store(s.state, state, std::memory_order_relaxed);
    Seqlock::endWrite(s.version, odd);
  }

  void removeAt(size_t i) {
    size_t const mask = capacity_ - 1;
    bool const endsChain = stateAt((i + 1) & mask) == kFree;
    writeState(i, endsChain ? kFree : kDeleted);
    --used_;
    if (!endsChain) {
      ++deleted_;
    } else {
      // No chain runs past a free slot, so the deleted slots just before it no longer carry one.
      size_t j = (i - 1) & mask;
      for (size_t n = 0; n < capacity_ && stateAt(j) == kDeleted; ++n, j = (j - 1) & mask) {
        writeState(j, kFree);
        --deleted_;
      }
    }
    bool const sparse = capacity_ > initialCapacity_ && used_ * 8 < capacity_;
    if (sparse || deleted_ * 2 > capacity_) rehashPaced(capacityFor(used_));
    publishCounts();
  }

  void publishCounts() {
    SegmentHeader& h = seg_.header();
    Seqlock::store(h.count, static_cast<uint64_t>(used_), std::memory_order_relaxed);
    Seqlock::store(h.deleted, static_cast<uint64_t>(deleted_), std::memory_order_relaxed);
    Seqlock::store(h.commitSequence, ++commitSequence_, std::memory_order_release);
  }

  bool canPublish() const {
    if (name_.empty() || name_.front() == '.' || name_.find('/') != std::string::npos) {
      trace("the name is not a file name; the table is kept in private memory");
      return false;
    }
    if (options_.stateDir.empty()) {
      trace("no state directory; the table is kept in private memory");
      return false;
    }
    std::string error;
    if (SharedSegment::makeDirectory(options_.stateDir, error)) return true;
    trace(error + "; the table is kept in private memory");
    return false;
  }

  // A new segment file under the temporary name, or private memory when the table is not published. Unmapped,
  // after a trace line, when neither can be had.
  SharedSegment makeSegment(uint64_t capacity, uint64_t generation) {
    std::string error;
    SharedSegment s = published_ ? SharedSegment::create(tmpPath_, geometry(capacity), generation, error)
                                 : SharedSegment::createPrivate(geometry(capacity), generation, error);
    if (!s.mapped()) trace(error);
    return s;
  }

  // True when n more keys fit below the load limit, after growing the segment if need be.
  bool roomFor(size_t n) {
    return (used_ + deleted_ + n) * 4 <= capacity_ * 3 || rehashPaced(capacityFor(used_ + n));
  }

  // A rehash, tried at most once a second after one failed for want of memory.
  bool rehashPaced(size_t capacity) {
    auto const now = std::chrono::steady_clock::now();
    if (rehashFailedAt_ && now - *rehashFailedAt_ < std::chrono::seconds(1)) return false;
    if (rehash(capacity)) {
      rehashFailedAt_.reset();
      return true;
    }
    rehashFailedAt_ = now;
    trace("cannot make a segment of " + std::to_string(capacity) + " slots; the table stays at " +
          std::to_string(capacity_) + " slots and refuses new keys past three quarters of them");
    return false;
  }

  // Makes fresh the table's segment. Its file stays under the temporary name until publish().
  SharedSegment adopt(SharedSegment fresh) {
    SharedSegment previous = std::exchange(seg_, std::move(fresh));
    slots_ = seg_.slots();
    capacity_ = seg_.header().capacity;
    generation_ = seg_.header().generation;
    return previous;
  }

  // Renames the table's segment over its path, then marks previous (when it is a sound file that readers may
  // have mapped) retired, so that a reader who sees the mark and re-opens the path finds the new segment.
  void publish(SharedSegment previous) {
    std::string error;
    if (seg_.isFile() && !SharedSegment::replaceFile(tmpPath_, path_, error)) {
      trace(error + "; the table goes on in private memory");
      published_ = false;
    }
    if (previous.mapped() && previous.isFile())
      Seqlock::store(previous.header().retired, uint32_t{1}, std::memory_order_release);
  }

  // Moves every entry into a new segment of the given capacity, dropping deleted slots; false, with the table
  // unchanged, when no segment of that size can be had.
  bool rehash(size_t capacity) {
    SharedSegment fresh = makeSegment(capacity, generation_ + 1);
    if (!fresh.mapped()) return false;
    std::byte* const to = fresh.slots();
    size_t const mask = capacity - 1;
    for (size_t i = 0; i < capacity_; ++i) {
      if (stateAt(i) != kUsed) continue;
      uint64_t const h = slotHeader(i).tag;
      size_t j = homeOf(h, mask);
      while (reinterpret_cast<SlotHeader*>(to + j * kSlotSize)->state != kFree) j = (j + 1) & mask;
      // Nobody sees the new segment yet: plain copies will do.
      std::memcpy(to + j * kSlotSize + kKeyOffset, slotAt(i) + kKeyOffset, kSlotSize - kKeyOffset);
      auto* s = reinterpret_cast<SlotHeader*>(to + j * kSlotSize);
      s->tag = tagOf(h);
      s->state = kUsed;
    }
    deleted_ = 0;
    fresh.header().count = used_;
    fresh.header().commitSequence = commitSequence_;
    publish(adopt(std::move(fresh)));
    return true;
  }

  void open() {
    SharedSegment previous;
    std::vector<V> loaded;
    uint64_t generation = 0;
    if (published_) loadPrevious(previous, loaded, generation);
    SharedSegment fresh = makeSegment(capacityFor(loaded.size()), generation + 1);
    if (!fresh.mapped() && published_) {
      // No room for the file (a full tmpfs): the table works in private memory, and readers see none.
      trace("the table goes on in private memory");
      published_ = false;
      fresh = makeSegment(capacityFor(loaded.size()), generation + 1);
    }
    if (!fresh.mapped()) throw std::bad_alloc();
    adopt(std::move(fresh));
    for (V const& v : loaded) {
      K const key = v.key();
      uint64_t const h = hashOf(key);
      Probe p;
      probe(key, h, p);
      writeSlot(p.index, h, key, v);
      ++used_;
    }
    publishCounts();
    publish(std::move(previous));
  }

  // Maps the file an earlier writer left and copies out its entries. On damage or another layout it leaves
  // previous unmapped and loaded empty, so the table starts afresh.
  void loadPrevious(SharedSegment& previous, std::vector<V>& loaded, uint64_t& generation) {
    std::string problem;
    switch (SharedSegment::open(path_, true, previous, problem)) {
      case SharedSegment::OpenResult::missing:
        return;
      case SharedSegment::OpenResult::failed:
        trace(problem + "; starting afresh");
        return;
      case SharedSegment::OpenResult::tooShort:
        corrupt(problem, true);
        trace("starting afresh");
        return;
      case SharedSegment::OpenResult::ok:
        break;
    }
    HeaderCheck const check =
        checkSegmentHeader(previous.header(), previous.bytes(), sizeof(K), sizeof(V), problem);
    if (check == HeaderCheck::incompatible)
      trace(path_ + " has another layout: " + problem + "; starting afresh");
    if (check == HeaderCheck::damaged) corrupt(problem, true);
    if (check == HeaderCheck::ok && loadSlots(previous, loaded, problem)) {
      generation = previous.header().generation;
      return;
    }
    if (check == HeaderCheck::ok) corrupt(problem, true);
    if (check != HeaderCheck::incompatible) trace("starting afresh");
    loaded.clear();
    previous.unmap();
  }

  // False with problem set when a slot is damaged. A slot left half-written by a writer that died is dropped.
  // The records' own code (comparison, hash, sound) may throw on bytes no writer produced: that is damage
  // too.
  bool loadSlots(SharedSegment const& previous, std::vector<V>& loaded, std::string& problem) const {
    size_t i = 0;
    try {
      return loadSlotsFrom(previous, loaded, problem, i);
    } catch (std::exception const& e) {
      problem = "slot " + std::to_string(i) + " holds a record that cannot be read: " + e.what();
      return false;
    }
  }
  bool loadSlotsFrom(SharedSegment const& previous, std::vector<V>& loaded, std::string& problem,
                     size_t& i) const {
    SegmentHeader const& h = previous.header();
    std::unordered_set<K> seen;
    for (i = 0; i < h.capacity; ++i) {
      std::byte const* slot = previous.slots() + i * kSlotSize;
      auto const& s = *reinterpret_cast<SlotHeader const*>(slot);
      if (s.state >= kSlotStateLimit) {
        problem = "slot " + std::to_string(i) + " has state " + std::to_string(s.state);
        return false;
      }
      if (s.state != kUsed) continue;
      if (s.version & 1) {
        trace("slot " + std::to_string(i) +
              " was being written when its writer stopped; its entry is dropped");
        continue;
      }
      K key;
      V value;
      std::memcpy(static_cast<void*>(&key), slot + kKeyOffset, sizeof(K));
      std::memcpy(static_cast<void*>(&value), slot + kValueOffset, sizeof(V));
      if (!(value.key() == key)) {
        problem = "slot " + std::to_string(i) + " holds a value of another key";
        return false;
      }
      if (std::string broken; !recordSound(value, broken)) {
        problem = "slot " + std::to_string(i) + " holds a broken record: " + broken;
        return false;
      }
      if (!seen.insert(key).second) {
        problem = "slot " + std::to_string(i) + " holds a key already seen in another slot";
        return false;
      }
      loaded.push_back(value);
    }
    return true;
  }

  // The sorted keys behind the ordered walk: rebuilt after a new key was added or when mostly stale.
  void refreshOrder() const {
    if (orderValid_ && order_.size() - orderStart_ <= 2 * used_ + 16) return;
    order_.clear();
    orderStart_ = 0;
    for (size_t i = 0; i < capacity_; ++i) {
      if (stateAt(i) == kUsed) order_.push_back(keyAt(i));
    }
    std::sort(order_.begin(), order_.end());
    orderValid_ = true;
  }

  std::string const name_;
  SharedTableOptions const options_;
  std::string const path_;
  std::string const tmpPath_;
  size_t const initialCapacity_;
  bool published_ = false;
  std::optional<std::chrono::steady_clock::time_point> rehashFailedAt_;  // the last rehash that failed

  SharedSegment seg_;
  std::byte* slots_ = nullptr;
  size_t capacity_ = 0;
  uint64_t generation_ = 0;
  size_t used_ = 0;
  size_t deleted_ = 0;
  uint64_t commitSequence_ = 0;

  // The last look-up that found nothing; any change to the table (a new commit sequence or segment) voids it.
  struct Miss {
    K key{};
    uint64_t hash = 0;
    Probe probe;
    uint64_t commit = 0;
    uint64_t generation = 0;
    bool valid = false;
  };
  mutable Miss lastMiss_;

  mutable std::vector<K> order_;
  mutable size_t orderStart_ = 0;
  mutable bool orderValid_ = false;
};

}  // namespace Calyx
