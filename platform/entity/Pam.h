#pragma once
// Pam: the packet access of one interface, as the feature sees it: a receive queue and a readable
// notification.
//
// A backend (live capture, pcap replay, in-memory) takes frames in and flags the module readable: every
// reactor's handleReadable() runs, synchronously, each time new frames have been queued, even if older ones
// are still waiting, so a reactor that leaves frames behind hears about the next arrival too. rxPkt() hands
// out the next frame, oldest first, or null once the queue is empty; it never blocks.
//
// Taking a frame does not change what the module publishes (which interface, which backend), so rxPkt() and
// curRxPkts() are const: a state machine that only reads a module holds a Ptr<Pam const> and still drains it.
// The queue is unbounded here; each backend limits how much it takes in per readable event.

#include <cstddef>
#include <cstdint>
#include <deque>

#include "platform/core/Entity.h"
#include "platform/types/IntfId.h"
#include "platform/types/Pkt.h"

namespace Calyx {

class Pam : public Object, public Notifier<Pam> {
 public:
  class Reactor : public ReactorBase<Pam> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleReadable() {}
  };

  // What every backend and the manager that makes them start from: frames taken per readable event (or loop
  // turn, for a replay), and seconds between two attempts to open a module that could not be opened.
  static constexpr uint32_t kDefaultReadLimit = 64;
  static constexpr double kDefaultRetryInterval = 5.0;

  IntfId const& intfId() const { return intfId_; }

  // The next received frame, or null when none is waiting.
  Ptr<Pkt> rxPkt() const;
  // Frames held now (saturates at 65535).
  uint16_t curRxPkts() const;
  // Frames taken in since the module was made (modulo 2^64).
  uint64_t rxPktsTotal() const { return rxPktsTotal_; }

 protected:
  explicit Pam(IntfId intfId) : intfId_(intfId) {}

  void rxPktEnqueue(Ptr<Pkt> pkt);
  // Copies n bytes into a new packet from the global PktManager and queues it.
  void rxPktEnqueue(uint8_t const* bytes, size_t n, double rxTimestamp);
  // Runs every reactor's handleReadable(); backends call it once per batch of frames taken in.
  void readableNotify() const { notify(&Reactor::handleReadable); }

 private:
  IntfId intfId_;
  mutable std::deque<Ptr<Pkt>> rxQueue_;
  uint64_t rxPktsTotal_ = 0;
};

}  // namespace Calyx
