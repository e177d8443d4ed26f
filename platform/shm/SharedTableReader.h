#pragma once
// SharedTableReader<K, V>: another process's read-only view of a SharedTable<K, V> segment (the CLI reads
// tables this way, also while the writer is down). The typed face of SlotTableReader, which says how the
// mapping is kept current and what each error means. K and V must match the writer's, std::hash<K> included
// (find() probes where the writer placed the key).

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/shm/Seqlock.h"
#include "platform/shm/SharedTableOptions.h"
#include "platform/shm/SlotRecordTraits.h"
#include "platform/shm/SlotTableReader.h"

namespace Calyx {

template <class K, class V>
class SharedTableReader {
 public:
  explicit SharedTableReader(std::string path) : slots_(std::move(path), slotRecordTraits<K, V>()) {}
  static SharedTableReader forTable(std::string const& name,
                                    std::string const& stateDir = sharedTableDefaultStateDir()) {
    return SharedTableReader(sharedTablePath(stateDir, name));
  }

  // Every entry, in slot order.
  std::vector<V> snapshot() {
    std::vector<V> out;
    if (!slots_.refresh()) return out;
    uint64_t const capacity = slots_.header().capacity;
    out.reserve(Seqlock::load(slots_.header().count, std::memory_order_relaxed));
    for (size_t i = 0; i < capacity; ++i) {
      uint32_t state = 0;
      K key{};
      V value{};
      if (!slots_.readSlot(i, state, &key, &value)) return {};
      if (state == static_cast<uint32_t>(SlotState::used)) out.push_back(value);
    }
    return out;
  }

  std::optional<V> find(K const& key) {
    if (!slots_.refresh()) return std::nullopt;
    K scratch{};
    V value{};
    if (!slots_.find(&key, &scratch, &value)) return std::nullopt;
    return value;
  }

  // Of the segment now mapped; 0 when none could be mapped.
  uint64_t generation() { return slots_.refresh() ? slots_.header().generation : 0; }
  // Rises with every change the writer publishes: cheap polling for "anything new?".
  uint64_t commitSequence() {
    return slots_.refresh() ? Seqlock::load(slots_.header().commitSequence, std::memory_order_acquire) : 0;
  }
  size_t count() {
    return slots_.refresh() ? Seqlock::load(slots_.header().count, std::memory_order_acquire) : 0;
  }

  // The outcome of the last call.
  SharedTableReadError error() const { return slots_.error(); }
  std::string const& errorText() const { return slots_.errorText(); }
  bool ok() const { return error() == SharedTableReadError::none; }
  std::string const& path() const { return slots_.path(); }

 private:
  SlotTableReader slots_;
};

}  // namespace Calyx
