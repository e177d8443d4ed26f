#pragma once
// Metrics in the Prometheus text exposition format (each family with # HELP and # TYPE): the frame and report
// counters of a running agent (mod_agent_up says whether one answered), and what the shared tables hold:
// flows, interfaces, per-collector bytes and reports labelled by exporter and collector, exact-match entries
// by state.

#include <optional>
#include <string>

#include "tools/modctl/ModctlTables.h"

namespace Modctl {

// status: the agent's status reply, or nullopt when it is not running; the others as ModctlTables reads them.
std::string metricsText(std::optional<Json> const& status, Json const& flows, Json const& interfaces,
                        Json const& collectors, Json const& exactMatch);

}  // namespace Modctl
