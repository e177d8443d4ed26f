#pragma once
// InMemoryPam: a Pam fed by the program itself, for unit tests and for tools that craft their own frames.
//
// enqueue() queues frames and flags the module readable at once (the reactors run inside the call).
// readableNotify() flags it readable without queuing anything, as a spurious wake-up of a real device would.

#include <vector>

#include "platform/entity/Pam.h"

namespace Calyx {

class InMemoryPam final : public Pam {
 public:
  explicit InMemoryPam(IntfId intfId) : Pam(intfId) {}

  void enqueue(Ptr<Pkt> pkt);
  // Queues every frame first, then flags the module readable once.
  void enqueue(std::vector<Ptr<Pkt>> pkts);
  using Pam::readableNotify;

 protected:
  ~InMemoryPam() override = default;
};

}  // namespace Calyx
