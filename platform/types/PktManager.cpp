#include "platform/types/PktManager.h"

namespace Calyx {

PktManager& PktManager::global() {
  static PktManager manager;
  return manager;
}

Ptr<Pkt> PktManager::newPkt(size_t capacity, size_t headroom) {
  ++allocated_;
  return make<Pkt>(capacity, headroom);
}

}  // namespace Calyx
