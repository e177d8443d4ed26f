#pragma once
// SharedTable<K, V>: an entity with one keyed collection, entry, whose every change is also published into a
// shared-memory segment that other processes read with SharedTableReader<K, V>.
//
// The segment file (<state directory>/<name>, laid out as SharedTableLayout.h says) is an open-addressing
// hash table kept by SlotTable, which owns everything that does not depend on K and V (probing, growth,
// loading, damage); this class adds the types, the notifications and the ordered walk. The writer's own
// lookups go straight to the segment: there is no second copy in process.
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
//   segment (a lookup, an in-place update, the load of an earlier run's file) is checked with it before use,
//   because an earlier run or another process may have left it broken. A broken record goes to the
//   corruption handler and reads as absent.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <new>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/core/Entity.h"
#include "platform/core/Object.h"
#include "platform/core/Ptr.h"
#include "platform/shm/SharedTableOptions.h"
#include "platform/shm/SlotRecordTraits.h"
#include "platform/shm/SlotTable.h"

namespace Calyx {

template <class K, class V>
class SharedTable : public Object, public Notifier<SharedTable<K, V>> {
  static_assert(std::is_convertible_v<decltype(std::declval<V const&>().key()), K>,
                "V::key() must give the key");

 public:
  class Reactor : public ReactorBase<SharedTable> {
   public:
    using ReactorBase<SharedTable>::ReactorBase;
    virtual void handleEntry(K const&) {}
  };

  SharedTable(std::string name, SharedTableOptions options = {})
      : slots_(std::move(name), std::move(options), slotRecordTraits<K, V>()) {}

  // Inserts or replaces v under its key. An equal value already stored changes nothing: false, no
  // notification.
  bool entryIs(V const& v) { return store(v, true); }

  // Publishes v under its key whether or not it changed (counters updated in place), and notifies. False when
  // it could not be stored.
  bool entryCommit(V const& v) { return store(v, false); }

  // In-place update of an existing entry, for counters: change(V&) edits a copy of the stored value, which is
  // then published and notified like entryCommit, with one look-up instead of a look-up and a commit. False,
  // and change not called, when key has no entry. change must leave the key as it is.
  template <class F>
  bool entryUpdate(K const& key, F&& change) {
    SlotTable::Probe p;
    if (!find(key, p)) return false;
    V v = valueAt(p.index);
    change(v);
    slots_.writeValue(p.index, &v);
    slots_.publishCounts();
    this->notify(&Reactor::handleEntry, key);
    return true;
  }

  // The same for a counter that may not exist yet: when key has no entry, change edits the value make()
  // gives, which is then inserted. False when the table is damaged or has no room for the new entry.
  template <class F, class M>
  bool entryUpdate(K const& key, F&& change, M&& make) {
    if (entryUpdate(key, change)) return true;
    if (!slots_.headerSound()) return false;
    V v = make();
    change(v);
    return entryCommit(v);
  }

  // Publishes the entry of key as it stands and notifies; nothing when key has no entry.
  void entryCommit(K const& key) {
    SlotTable::Probe p;
    if (!find(key, p)) return;
    slots_.writeValue(p.index, slots_.valueAt(p.index));
    slots_.publishCounts();
    this->notify(&Reactor::handleEntry, key);
  }

  // Removes key's entry; false (and no notification) when there is none.
  bool entryDel(K const& key) {
    SlotTable::Probe p;
    if (!slots_.headerSound() || !slots_.probe(&key, sharedTableKeyTag(key), p) || !p.found) return false;
    slots_.removeAt(p.index);
    this->notify(&Reactor::handleEntry, key);
    return true;
  }

  // Removes every entry one key at a time, notifying each. A handler may change or release the table
  // meanwhile.
  void entryDelAll() {
    if (slots_.used() == 0) return;
    Ptr<SharedTable> const keepAlive(this);
    size_t cursor = 0;
    while (slots_.used() > 0) {
      if (!slots_.headerSound()) return;
      size_t const i = slots_.nextUsed(cursor);
      if (i == SlotTable::kNone) return;
      K const key = keyAt(i);
      slots_.removeAt(i);
      cursor = i + 1;
      this->notify(&Reactor::handleEntry, key);
    }
  }

  // Makes sure that n more keys can be added without growing the segment, growing it now if need be. False
  // when the table cannot grow (no memory for a larger segment, e.g. a full tmpfs): the table stays as it is,
  // and the next attempt to grow waits a second, so that a full tmpfs costs one failed attempt a second
  // rather than one per new key.
  bool entryReserve(size_t n) { return slots_.headerSound() && slots_.roomFor(n); }

  V const* entry(K const& key) const {
    if (!slots_.headerSound()) return nullptr;
    uint32_t const tag = sharedTableKeyTag(key);
    SlotTable::Probe p;
    if (!slots_.probe(&key, tag, p)) return nullptr;
    if (!p.found) {
      slots_.rememberMiss(&key, tag, p);
      return nullptr;
    }
    return slots_.slotSound(p.index) ? &valueAt(p.index) : nullptr;
  }
  size_t entryCount() const { return slots_.used(); }

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
    for (size_t i = 0; i < slots_.capacity(); ++i) {
      if (slots_.stateAt(i) == SlotTable::kUsed) f(valueAt(i));
    }
  }

  std::string const& name() const { return slots_.name(); }
  std::string const& path() const { return slots_.path(); }
  // False once the table could not publish and carries on in private memory.
  bool isPublished() const { return slots_.isPublished(); }
  uint64_t generation() const { return slots_.generation(); }
  size_t capacity() const { return slots_.capacity(); }

 protected:
  ~SharedTable() override = default;

 private:
  K const& keyAt(size_t i) const { return *std::launder(reinterpret_cast<K const*>(slots_.keyAt(i))); }
  V const& valueAt(size_t i) const { return *std::launder(reinterpret_cast<V const*>(slots_.valueAt(i))); }

  // Where key's sound entry is; false when it has none or the table is damaged.
  bool find(K const& key, SlotTable::Probe& p) const {
    return slots_.headerSound() && slots_.probe(&key, sharedTableKeyTag(key), p) && p.found &&
           slots_.slotSound(p.index);
  }

  // entryIs (onlyChange) and entryCommit: a writer records what it has not seen by looking the key up and
  // then adding it, so the add goes through locate(), which reuses that look-up.
  bool store(V const& v, bool onlyChange) {
    K const key = v.key();
    uint32_t tag = 0;
    SlotTable::Probe p;
    if (!slots_.headerSound() || !slots_.locate(&key, tag, p)) return false;
    if (p.found) {
      if (onlyChange && valueAt(p.index) == v) return false;
      slots_.writeValue(p.index, &v);
    } else {
      if (!slots_.insert(&key, tag, &v, p)) return false;
      orderValid_ = false;
    }
    slots_.publishCounts();
    this->notify(&Reactor::handleEntry, key);
    return true;
  }

  // The sorted keys behind the ordered walk: rebuilt after a new key was added or when mostly stale.
  void refreshOrder() const {
    if (orderValid_ && order_.size() - orderStart_ <= 2 * slots_.used() + 16) return;
    order_.clear();
    orderStart_ = 0;
    for (size_t i = 0; i < slots_.capacity(); ++i) {
      if (slots_.stateAt(i) == SlotTable::kUsed) order_.push_back(keyAt(i));
    }
    std::sort(order_.begin(), order_.end());
    orderValid_ = true;
  }

  SlotTable slots_;
  mutable std::vector<K> order_;
  mutable size_t orderStart_ = 0;
  mutable bool orderValid_ = false;
};

}  // namespace Calyx
