#pragma once
// Privileges: who may see what the agent keeps, and what the agent may still do once it runs.
//
// - The state directory is 0750 and its files 0640 (the control socket 0660): its owner writes, its group
//   reads the tables and uses modctl, nobody else gets in. With a group configured ([agent] group) the
//   directory is given to that group and made set-group-ID (02750), so every file made in it later (a table
//   that grows, the ring trace, the socket) takes the group without the agent needing any privilege then;
//   files an earlier run left are given the group and the modes too.
// - Once the captures are open the agent keeps only the capability capture needs to open a capture again
//   (CAP_NET_RAW, when it captures live) and drops every other one from its effective, permitted,
//   inheritable, ambient and (when it may) bounding sets. Without capabilities to begin with, nothing
//   changes.

#include <string>

namespace ModAgent {

// False with error set (naming the directory or file and the reason).
bool stateDirAccessApply(std::string const& dir, std::string const& group, std::string& error);

// Keeps CAP_NET_RAW (when netRaw and the process has it) and drops the rest. Returns what it did, for the log
// ("kept cap_net_raw, dropped the others"), empty when there was nothing to drop; error is set on failure.
std::string capabilitiesReduce(bool netRaw, std::string& error);

// The process's capabilities as text ("=" when none, "cap_net_raw=ep").
std::string capabilitiesText();

}  // namespace ModAgent
