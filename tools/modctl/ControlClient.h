#pragma once
// ControlClient: one request to a running agent over its control socket: a JSON object out, the JSON reply
// back (one line each), with a deadline so that a hung agent gives an error instead of a hung modctl.
//
// A failure says what the caller can tell the operator: nobody listens (the agent is not running), the
// socket or the agent refused this user (permission denied: whether the agent runs is unknown), or the agent
// did not answer sensibly.

#include <optional>
#include <string>

#include "tools/modctl/ModctlTables.h"

namespace Modctl {

enum class ControlFailure { none, notRunning, denied, noAnswer };

struct ControlReply {
  std::optional<Json> reply;  // the agent's answer (its "ok" may be false), when failure is none
  ControlFailure failure = ControlFailure::none;
  std::string error;  // what went wrong, naming the socket
};

ControlReply controlRequest(std::string const& path, Json const& request, int timeoutMs = 3000);

}  // namespace Modctl
