#pragma once
// AgentMetrics: an agent's metrics in the Prometheus text format (each family with # HELP and # TYPE), the
// one renderer behind `modctl metrics` and the agent's own scrape endpoint. Two sources:
// - the agent's status reply (its control socket's "status"), when it answered: whether it is healthy, the
//   feature, frame and report counters, flows refused, each capture's state, frames and kernel drops, each
//   collector's send errors; mod_agent_up says whether it answered;
// - what the shared tables hold (read from shared memory, so it is there while the agent is down): flows,
//   flows per interface, per-collector bytes and reports, exact-match entries by state.
// When the agent could not be asked (this user may not use its socket), mod_agent_up and the agent's
// families are left out rather than reported as 0: absent means unknown, not down.

#include <optional>
#include <string>

#include "ops/TableViews.h"

namespace Ops {

enum class AgentState { answered, notRunning, unknown };

// status: the agent's status reply when state is answered.
std::string metricsText(AgentState state, std::optional<Json> const& status, TableCounts const& tables);

}  // namespace Ops
