#pragma once
// FlatSet<K>: a set of small trivially copyable keys in one array (open addressing, linear probing), for sets
// that take a storm of keys and then give them all back one at a time.
//
// Why not std::unordered_set: one allocation per key, and a set drained by "take any member, remove it" must
// find a member without walking past the slots it emptied. front() here is amortised O(1) over such a drain:
// the set remembers the lowest slot that may be used, and removal keeps every slot below it empty (it moves a
// later key of the probe chain back into the hole, never forward of the hole).
//
// Limits: no order the program may rely on; insertion may move every key (a growth), so references and
// iterators are valid only until the next insertion; removal may move keys after the removed one.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>
#include <vector>

namespace Calyx {

template <class K, class Hash = std::hash<K>>
class FlatSet {
  static_assert(std::is_trivially_copyable_v<K>, "keys are moved about as plain bytes");

 public:
  FlatSet() = default;

  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  bool contains(K const& key) const { return find(key) != kNone; }

  // Adds key; false when it was there already.
  bool insert(K const& key) {
    if ((size_ + 1) * 4 > slots_.size() * 3) grow();
    size_t const h = Hash{}(key);
    for (size_t i = h & mask();; i = (i + 1) & mask()) {
      Slot& s = slots_[i];
      if (!s.used) {
        s = {key, h, true};
        ++size_;
        if (i < first_) first_ = i;
        return true;
      }
      if (s.hash == h && s.key == key) return false;
    }
  }

  // Removes key; false when it was not there.
  bool erase(K const& key) {
    size_t hole = find(key);
    if (hole == kNone) return false;
    // Backward shift: each later key of the chain whose home is not between the hole and itself moves into
    // the hole, so that no chain ever runs through an empty slot.
    for (size_t j = (hole + 1) & mask(); slots_[j].used; j = (j + 1) & mask()) {
      size_t const home = slots_[j].hash & mask();
      bool const homeInBetween = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
      if (homeInBetween) continue;
      slots_[hole] = slots_[j];
      hole = j;
    }
    slots_[hole].used = false;
    --size_;
    return true;
  }

  void clear() {
    slots_.clear();
    size_ = 0;
    first_ = 0;
  }

  // A member (the one in the lowest slot); the set must not be empty.
  K const& front() const {
    while (!slots_[first_].used) ++first_;
    return slots_[first_].key;
  }

  class const_iterator {
   public:
    using value_type = K;
    using difference_type = std::ptrdiff_t;
    const_iterator() = default;
    K const& operator*() const { return set_->slots_[at_].key; }
    K const* operator->() const { return &set_->slots_[at_].key; }
    const_iterator& operator++() {
      at_ = set_->nextUsed(at_ + 1);
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const_iterator const& o) const { return at_ == o.at_; }

   private:
    friend class FlatSet;
    const_iterator(FlatSet const* set, size_t at) : set_(set), at_(at) {}
    FlatSet const* set_ = nullptr;
    size_t at_ = 0;
  };
  const_iterator begin() const { return {this, empty() ? slots_.size() : nextUsed(first_)}; }
  const_iterator end() const { return {this, slots_.size()}; }

 private:
  static constexpr size_t kNone = SIZE_MAX;
  struct Slot {
    K key;
    size_t hash;
    bool used;
  };

  size_t mask() const { return slots_.size() - 1; }
  size_t find(K const& key) const {
    if (size_ == 0) return kNone;
    size_t const h = Hash{}(key);
    for (size_t i = h & mask(); slots_[i].used; i = (i + 1) & mask()) {
      if (slots_[i].hash == h && slots_[i].key == key) return i;
    }
    return kNone;
  }
  size_t nextUsed(size_t i) const {
    while (i < slots_.size() && !slots_[i].used) ++i;
    return i;
  }
  void grow() {
    std::vector<Slot> old(std::max<size_t>(16, slots_.size() * 2), Slot{K{}, 0, false});
    old.swap(slots_);
    size_ = 0;
    first_ = slots_.size();
    for (Slot const& s : old) {
      if (!s.used) continue;
      for (size_t i = s.hash & mask();; i = (i + 1) & mask()) {
        if (slots_[i].used) continue;
        slots_[i] = s;
        ++size_;
        if (i < first_) first_ = i;
        break;
      }
    }
  }

  std::vector<Slot> slots_;
  size_t size_ = 0;
  mutable size_t first_ = 0;  // every slot below it is empty
};

}  // namespace Calyx
