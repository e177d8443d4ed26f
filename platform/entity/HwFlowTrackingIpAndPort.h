#pragma once
// HwFlowTracking::IpAndPort: where a collector listens: an address (IPv4 or IPv6) and a UDP port (host
// order).

#include <compare>
#include <cstdint>

#include "platform/types/IpGenAddr.h"

namespace Calyx::HwFlowTracking {

class IpAndPort {
 public:
  IpAndPort() = default;
  IpAndPort(IpGenAddr ip, uint16_t port) : ip_(ip), port_(port) {}

  IpGenAddr const& ip() const { return ip_; }
  uint16_t port() const { return port_; }

  friend auto operator<=>(IpAndPort const&, IpAndPort const&) = default;

 private:
  IpGenAddr ip_;
  uint16_t port_ = 0;
};

}  // namespace Calyx::HwFlowTracking
