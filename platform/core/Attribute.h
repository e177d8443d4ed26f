#pragma once
// The attribute helpers every entity is written with, so that an entity reads as a short declaration:
//
//   class Widget : public Object, public Notifier<Widget> {
//    public:
//     class Reactor : public ReactorBase<Widget> {
//      public:
//       using ReactorBase::ReactorBase;
//       virtual void handleSize() {}
//       virtual void handlePart(String const&) {}
//     };
//     int size() const { return size_; }
//     void sizeIs(int s) { attributeIs(size_, s, &Reactor::handleSize); }
//     std::optional<Part> part(String const& name) const { return part_.get(name); }
//     void partIs(String const& name, Part const& p) { part_.is(*this, name, p); }
//     CALYX_COLLECTION_ACCESSORS(part, String);  // partCount/First/Next/Del/DelAll
//    private:
//     int size_ = 0;
//     Collection<Widget, String, Part> part_{&Reactor::handlePart};
//   };
//
// attributeIs (in Notifier) stores a value and notifies only when it changed; counterInc adds modulo 2^64 and
// notifies only when the sum differs; Collection is a keyed collection attribute that notifies per key on
// every member added, changed or removed, walks in key order (next() survives changes made during a walk) and
// finds or creates a member.
//
// A collection's look-up and setter carry its own meaning (a copy or nullopt, a pointer or null, presence;
// a null pointer that deletes, find-or-create), so the entity writes them out. Its walk and deletes are the
// same in every entity: CALYX_COLLECTION_ACCESSORS(x, Key) declares xCount(), xFirst(), xNext(after),
// xDel(key) and xDelAll() over the member x_.

#include <cstddef>
#include <optional>
#include <utility>

#include "platform/core/Entity.h"
#include "platform/core/KeyedCollection.h"

namespace Calyx {

template <class E, class K, class V>
class Collection {
 public:
  using Handler = void (E::Reactor::*)(K const&);

  explicit Collection(Handler handler) : handler_(handler) {}
  Collection(Collection const&) = delete;
  Collection& operator=(Collection const&) = delete;

  // Stores value under key and notifies when the collection changed (a new key, or a different value).
  bool is(E const& owner, K const& key, V value) {
    if (!items_.is(key, std::move(value))) return false;
    owner.notify(handler_, key);
    return true;
  }
  // The same, except that a null pointer deletes key (for collections of pointers).
  bool isOrDel(E const& owner, K const& key, V value) {
    return value ? is(owner, key, std::move(value)) : del(owner, key);
  }
  bool del(E const& owner, K const& key) {
    if (!items_.del(key)) return false;
    owner.notify(handler_, key);
    return true;
  }
  // Removes every member, one key at a time, notifying each.
  void delAll(E const& owner) {
    items_.delAll([&](K const& key) { owner.notify(handler_, key); });
  }
  // The member of key, made with make() and notified when absent.
  template <class Make>
  V& findOrCreate(E const& owner, K const& key, Make&& make) {
    if (V* found = items_.find(key)) return *found;
    V& made = items_.findOrCreate(key, std::forward<Make>(make));
    owner.notify(handler_, key);
    return made;
  }

  V const* find(K const& key) const { return items_.find(key); }
  V* find(K const& key) { return items_.find(key); }
  // A copy of the member, or nullopt (for small values).
  std::optional<V> get(K const& key) const {
    V const* v = items_.find(key);
    return v ? std::optional<V>(*v) : std::nullopt;
  }
  // The member, or a default value (null for a Ptr).
  V value(K const& key) const {
    V const* v = items_.find(key);
    return v ? *v : V();
  }
  bool has(K const& key) const { return items_.contains(key); }
  size_t count() const { return items_.count(); }
  std::optional<K> first() const { return items_.first(); }
  std::optional<K> next(K const& after) const { return items_.next(after); }

 private:
  KeyedCollection<K, V> items_;
  Handler handler_;
};

}  // namespace Calyx

// The walk and the deletes of the collection attribute name##_ (a Collection keyed by Key), under the
// entity's accessor names. Used inside the entity's public section, followed by a semicolon.
#define CALYX_COLLECTION_ACCESSORS(name, Key)             \
  size_t name##Count() const {                            \
    return name##_.count();                               \
  }                                                       \
  std::optional<Key> name##First() const {                \
    return name##_.first();                               \
  }                                                       \
  std::optional<Key> name##Next(Key const& after) const { \
    return name##_.next(after);                           \
  }                                                       \
  void name##Del(Key const& key) {                        \
    name##_.del(*this, key);                              \
  }                                                       \
  void name##DelAll() {                                   \
    name##_.delAll(*this);                                \
  }                                                       \
  static_assert(true)
