#pragma once
// SlotRecordTraits: how the untyped table code (SlotTable, SlotTableReader) handles one record type: the
// sizes of key and value, and the record code it calls through pointers. slotRecordTraits<K, V>() makes them
// from the types a SharedTable<K, V> is declared with.

#include <concepts>
#include <cstdint>
#include <functional>
#include <string>
#include <type_traits>

#include "platform/shm/SharedTableLayout.h"

namespace Calyx {

struct SlotRecordTraits {
  uint32_t keySize;
  uint32_t valueSize;
  uint32_t (*keyTag)(void const* key);  // the key's 32-bit hash; the same in every process
  bool (*keyEquals)(void const* a, void const* b);
  bool (*valueHasKey)(void const* value, void const* key);
  // Null when the value type has no invariants of its own. May throw on bytes no writer produced.
  bool (*valueSound)(void const* value, std::string& problem);
};

// A key's tag: std::hash folded to 32 bits.
template <class K>
uint32_t sharedTableKeyTag(K const& key) {
  return sharedTableKeyHash(std::hash<K>{}(key));
}

// The record code of K and V for the untyped layer. A value type may declare
// `bool sound(std::string& problem) const`; V::key() gives a value's key.
template <class K, class V>
SlotRecordTraits const& slotRecordTraits() {
  static_assert(std::is_trivially_copyable_v<K> && std::is_trivially_copyable_v<V>,
                "shared-table records are copied byte for byte between processes");
  static_assert(alignof(K) <= 8 && alignof(V) <= 8, "slots align records to 8 bytes");
  static constexpr SlotRecordTraits traits{
      sizeof(K),
      sizeof(V),
      [](void const* key) { return sharedTableKeyTag(*static_cast<K const*>(key)); },
      [](void const* a, void const* b) { return *static_cast<K const*>(a) == *static_cast<K const*>(b); },
      [](void const* value, void const* key) {
        return static_cast<V const*>(value)->key() == *static_cast<K const*>(key);
      },
      [] {
        if constexpr (requires(V const& v, std::string& problem) {
                        { v.sound(problem) } -> std::convertible_to<bool>;
                      }) {
          return +[](void const* value, std::string& problem) -> bool {
            return static_cast<V const*>(value)->sound(problem);
          };
        } else {
          return static_cast<bool (*)(void const*, std::string&)>(nullptr);
        }
      }(),
  };
  return traits;
}

}  // namespace Calyx
