#pragma once
// FlowTracking::ActiveInterval: how often a tracker reports a flow that is still active. Default: 300 s.

#include "platform/entity/FlowTrackingInterval.h"

namespace Calyx::FlowTracking {

using ActiveInterval = Interval<struct ActiveIntervalTag, 300000>;

}  // namespace Calyx::FlowTracking
