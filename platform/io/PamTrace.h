#pragma once
// The trace channel of packet access ("Calyx-Pam"), shared by every Pam backend and the manager.
//
// Levels: 1 errors (a device or file that cannot be opened, a capture that failed), 3 retries, 4 modules
// opened, published and closed, 5 per-batch detail.

#include "platform/core/Trace.h"

namespace Calyx {

inline TraceHandle const& pamTrace() {
  static TraceHandle const handle("Calyx-Pam");
  return handle;
}

}  // namespace Calyx
