#include "platform/core/Clock.h"

#include <ctime>

namespace Calyx {

double MonotonicClock::seconds() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

}  // namespace Calyx
