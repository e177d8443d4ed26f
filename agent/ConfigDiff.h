#pragma once
// ConfigDiff: what a reload changes, in words an operator reads in the log, one item per change, keyed as in
// the file: "agent.max_flows 1000000 -> 2000", "collector e1/c3 added (127.0.0.1:9)",
// "tracker t1 active_interval 1 -> 0.5 s". Empty when nothing changed.

#include <string>
#include <vector>

#include "agent/AgentConfig.h"

namespace ModAgent {

std::vector<std::string> configDiff(AgentConfig const& before, AgentConfig const& after);

}  // namespace ModAgent
