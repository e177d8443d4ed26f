#include "platform/io/InMemoryPam.h"

namespace Calyx {

void InMemoryPam::enqueue(Ptr<Pkt> pkt) {
  rxPktEnqueue(std::move(pkt));
  readableNotify();
}

void InMemoryPam::enqueue(std::vector<Ptr<Pkt>> pkts) {
  for (auto& pkt : pkts) rxPktEnqueue(std::move(pkt));
  readableNotify();
}

}  // namespace Calyx
