#pragma once
// FlowTracking::InactiveTimeout: how long a tracker waits without packets before it ends a flow. Default: 15
// s.

#include "platform/entity/FlowTrackingInterval.h"

namespace Calyx::FlowTracking {

using InactiveTimeout = Interval<struct InactiveTimeoutTag, 15000>;

}  // namespace Calyx::FlowTracking
