#pragma once
// FlowTracking::InactiveTimeout: how long a tracker waits without packets before it ends a flow. Held in
// whole milliseconds, as the flow-tracking configuration gives it; seconds() is the form timers use. Default:
// 15 s.

#include <compare>
#include <cstdint>

namespace Calyx::FlowTracking {

class InactiveTimeout {
 public:
  static constexpr uint32_t kDefaultMilliseconds = 15000;

  constexpr InactiveTimeout() = default;
  constexpr explicit InactiveTimeout(uint32_t milliseconds) : milliseconds_(milliseconds) {}

  constexpr uint32_t milliseconds() const { return milliseconds_; }
  constexpr double seconds() const { return milliseconds_ / 1000.0; }

  friend constexpr auto operator<=>(InactiveTimeout const&, InactiveTimeout const&) = default;

 private:
  uint32_t milliseconds_ = kDefaultMilliseconds;
};

}  // namespace Calyx::FlowTracking
