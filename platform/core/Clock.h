#pragma once
// Clock: seconds as double. MonotonicClock is CLOCK_MONOTONIC, the time base of the event loop's timerfd;
// SimulatedClock only moves when a test (or the simulated loop) moves it.

#include <limits>

#include "platform/core/Object.h"

namespace Calyx {

inline constexpr double kNever = std::numeric_limits<double>::infinity();

class Clock : public Object {
 public:
  virtual double now() const = 0;

 protected:
  ~Clock() override = default;
};

class MonotonicClock final : public Clock {
 public:
  double now() const override { return seconds(); }
  // The same reading without an object, for code that only wants to know the time.
  static double seconds();

 protected:
  ~MonotonicClock() override = default;
};

class SimulatedClock final : public Clock {
 public:
  explicit SimulatedClock(double start = 1000.0) : now_(start) {}
  double now() const override { return now_; }
  // Time never runs backwards: an earlier value is ignored.
  void nowIs(double t) {
    if (t > now_) now_ = t;
  }
  void advance(double seconds) { nowIs(now_ + seconds); }

 protected:
  ~SimulatedClock() override = default;

 private:
  double now_;
};

}  // namespace Calyx
