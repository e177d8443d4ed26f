#pragma once
// FlowTracking::ActiveInterval: how often a tracker reports a flow that is still active. Held in whole
// milliseconds, as the flow-tracking configuration gives it; seconds() is the form timers use. Default: 300
// s.

#include <compare>
#include <cstdint>

namespace Calyx::FlowTracking {

class ActiveInterval {
 public:
  static constexpr uint32_t kDefaultMilliseconds = 300000;

  constexpr ActiveInterval() = default;
  constexpr explicit ActiveInterval(uint32_t milliseconds) : milliseconds_(milliseconds) {}

  constexpr uint32_t milliseconds() const { return milliseconds_; }
  constexpr double seconds() const { return milliseconds_ / 1000.0; }

  friend constexpr auto operator<=>(ActiveInterval const&, ActiveInterval const&) = default;

 private:
  uint32_t milliseconds_ = kDefaultMilliseconds;
};

}  // namespace Calyx::FlowTracking
