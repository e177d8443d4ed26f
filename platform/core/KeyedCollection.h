#pragma once
// KeyedCollection<K, V>: the storage behind an entity's collection attribute.
//
// Ordered by key (first/next walks keys in order and survives changes made during the walk, because next()
// looks the key up again). The collection itself does not notify: the entity's xIs/xDel/xDelAll call it and
// then notify their reactors with the key when it reports a change.

#include <cstddef>
#include <map>
#include <optional>
#include <utility>

namespace Calyx {

template <class K, class V, class Less = std::less<K>>
class KeyedCollection {
 public:
  using Map = std::map<K, V, Less>;

  // Stores value under key; true when the collection changed (a new key, or a different value).
  bool is(K const& key, V value) {
    auto [it, inserted] = map_.try_emplace(key, std::move(value));
    if (inserted) return true;
    if constexpr (requires(V const& a, V const& b) { a == b; }) {
      if (it->second == value) return false;
    }
    it->second = std::move(value);
    return true;
  }
  // Removes key; true when it was present.
  bool del(K const& key) { return map_.erase(key) > 0; }

  // Removes every member, calling onDeleted(key) after each removal, in key order.
  template <class F>
  void delAll(F&& onDeleted) {
    while (!map_.empty()) {
      K key = map_.begin()->first;
      map_.erase(map_.begin());
      onDeleted(key);
    }
  }

  V* find(K const& key) {
    auto it = map_.find(key);
    return it == map_.end() ? nullptr : &it->second;
  }
  V const* find(K const& key) const {
    auto it = map_.find(key);
    return it == map_.end() ? nullptr : &it->second;
  }
  bool contains(K const& key) const { return map_.count(key) > 0; }

  // For in-place change: the member of key, made with make() when absent. The caller commits/notifies itself.
  template <class Make>
  V& findOrCreate(K const& key, Make&& make) {
    auto it = map_.find(key);
    if (it == map_.end()) it = map_.emplace(key, make()).first;
    return it->second;
  }

  std::optional<K> first() const {
    if (map_.empty()) return std::nullopt;
    return map_.begin()->first;
  }
  std::optional<K> next(K const& after) const {
    auto it = map_.upper_bound(after);
    if (it == map_.end()) return std::nullopt;
    return it->first;
  }

  size_t count() const { return map_.size(); }
  bool empty() const { return map_.empty(); }
  typename Map::const_iterator begin() const { return map_.begin(); }
  typename Map::const_iterator end() const { return map_.end(); }

 private:
  Map map_;
};

}  // namespace Calyx
