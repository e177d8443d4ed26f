#pragma once
// PktManager: where packets come from. The global manager is one of the two globals the platform owns; it
// lives for the whole process and is used from the event thread only.
//
// Each newPkt() allocates a fresh buffer; a packet goes away with its last Ptr. allocated() counts the
// packets made so far, for tests and statistics.

#include <cstddef>
#include <cstdint>

#include "platform/core/Ptr.h"
#include "platform/types/Pkt.h"

namespace Calyx {

class PktManager {
 public:
  static PktManager& global();

  PktManager() = default;
  PktManager(PktManager const&) = delete;
  PktManager& operator=(PktManager const&) = delete;

  Ptr<Pkt> newPkt(size_t capacity = Pkt::kDefaultCapacity, size_t headroom = Pkt::kDefaultHeadroom);
  uint64_t allocated() const { return allocated_; }

 private:
  uint64_t allocated_ = 0;
};

}  // namespace Calyx
