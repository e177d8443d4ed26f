#pragma once
// Metrics in the Prometheus text exposition format (each family with # HELP and # TYPE): the frame and report
// counters of a running agent (mod_agent_up says whether one answered), and what the shared tables hold:
// flows, interfaces, per-collector bytes and reports labelled by exporter and collector, exact-match entries
// by state. When the agent could not be asked (this user may not use its socket), mod_agent_up and the
// agent's counters are left out rather than reported as 0: absent means unknown, not down.

#include <optional>
#include <string>

#include "tools/modctl/ModctlTables.h"

namespace Modctl {

enum class AgentState { answered, notRunning, unknown };

// status: the agent's status reply when state is answered; the others as ModctlTables reads them.
std::string metricsText(AgentState state, std::optional<Json> const& status, Json const& flows,
                        Json const& interfaces, Json const& collectors, Json const& exactMatch);

}  // namespace Modctl
