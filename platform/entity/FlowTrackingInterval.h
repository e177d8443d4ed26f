#pragma once
// FlowTracking::Interval: a tracker's time setting, held in whole milliseconds as the flow-tracking
// configuration gives it; seconds() is the form timers use. The tag keeps each setting a type of its own, so
// an active interval is never passed where an inactive timeout is meant.

#include <compare>
#include <cstdint>

namespace Calyx::FlowTracking {

template <class Tag, uint32_t DefaultMilliseconds>
class Interval {
 public:
  static constexpr uint32_t kDefaultMilliseconds = DefaultMilliseconds;

  constexpr Interval() = default;
  constexpr explicit Interval(uint32_t milliseconds) : milliseconds_(milliseconds) {}

  constexpr uint32_t milliseconds() const { return milliseconds_; }
  constexpr double seconds() const { return milliseconds_ / 1000.0; }

  friend constexpr auto operator<=>(Interval const&, Interval const&) = default;

 private:
  uint32_t milliseconds_ = kDefaultMilliseconds;
};

}  // namespace Calyx::FlowTracking
