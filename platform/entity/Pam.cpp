#include "platform/entity/Pam.h"

#include <algorithm>
#include <limits>

#include "platform/types/PktManager.h"

namespace Calyx {

Ptr<Pkt> Pam::rxPkt() const {
  if (rxQueue_.empty()) return nullptr;
  Ptr<Pkt> pkt = std::move(rxQueue_.front());
  rxQueue_.pop_front();
  return pkt;
}

uint16_t Pam::curRxPkts() const {
  return static_cast<uint16_t>(std::min<size_t>(rxQueue_.size(), std::numeric_limits<uint16_t>::max()));
}

void Pam::rxPktEnqueue(Ptr<Pkt> pkt) {
  if (!pkt) return;
  rxQueue_.push_back(std::move(pkt));
  ++rxPktsTotal_;
}

void Pam::rxPktEnqueue(uint8_t const* bytes, size_t n, double rxTimestamp) {
  // Sized to the frame: mirrored frames are small, and a reader only strips headers from them.
  Ptr<Pkt> pkt = PktManager::global().newPkt(n + Pkt::kDefaultHeadroom);
  pkt->assign(bytes, n);
  pkt->rxTimestampIs(rxTimestamp);
  rxPktEnqueue(std::move(pkt));
}

}  // namespace Calyx
