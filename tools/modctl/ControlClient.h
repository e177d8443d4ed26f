#pragma once
// ControlClient: one request to a running agent over its control socket: a JSON object out, the JSON reply
// back (one line each), with a deadline so that a hung agent gives an error instead of a hung modctl.

#include <optional>
#include <string>

#include "tools/modctl/ModctlTables.h"

namespace Modctl {

// The reply, or nullopt with error set ("mod-agent is not running ..." when nothing listens on path).
std::optional<Json> controlRequest(std::string const& path, Json const& request, std::string& error,
                                   int timeoutMs = 3000);

}  // namespace Modctl
