#pragma once
// ConfigFile: reads mod-agent's TOML configuration (examples/mod-agent.toml documents every key) into an
// AgentConfig. It reports every error it finds, not just the first, each as
//   FILE:LINE: KEY: what was expected
// with KEY the dotted path of the key ("flow_tracking.trackers.t1.exporters.e1.dscp"). A file with any error
// gives no configuration.

#include <string>
#include <vector>

#include "agent/AgentConfig.h"

namespace ModAgent {

class ConfigFile {
 public:
  // False when the file has errors (listed in errors, in file order).
  static bool load(std::string const& file, AgentConfig& config, std::vector<std::string>& errors);
  // The same from text, as if read from a file of that name (tests, and a file already read).
  static bool parse(std::string const& text, std::string const& file, AgentConfig& config,
                    std::vector<std::string>& errors);
  // A trace level setting ("MOD-Manager=0-4,*=0-1") checked, not applied: its syntax, then that every handle
  // it names is one the agent has. Empty when good, else what is wrong, naming the item.
  static std::string traceLevelsCheck(std::string const& setting);
};

}  // namespace ModAgent
