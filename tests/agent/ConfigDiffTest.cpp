// What a reload says it changed: one item per change, keyed as in the file, nothing for what stayed.
#include "agent/ConfigDiff.h"

#include <gtest/gtest.h>

#include "agent/ConfigFile.h"

namespace ModAgent {
namespace {

AgentConfig parsed(std::string const& text) {
  AgentConfig c;
  std::vector<std::string> errors;
  EXPECT_TRUE(ConfigFile::parse(text, "a.toml", c, errors)) << (errors.empty() ? "" : errors.front());
  return c;
}

std::string const kBefore = R"([agent]
max_flows = 100
[capture]
interfaces = ["eth1"]
[flow_tracking.trackers.t1]
active_interval = 1
inactive_timeout = 5
[flow_tracking.trackers.t1.exporters.e1]
dscp = 46
collectors = { c1 = "127.0.0.1:6343", c2 = "[::1]:6343" }
[flow_tracking.trackers.t1.exporters.e2]
collectors = { c3 = "127.0.0.1:9" }
)";

TEST(ConfigDiffTest, EachChangeIsOneItemAndNothingElseIsSaid) {
  AgentConfig const before = parsed(kBefore);
  EXPECT_TRUE(configDiff(before, before).empty());

  std::string text = kBefore;
  text.replace(text.find("max_flows = 100"), 15, "max_flows = 200\nstop_timeout = 1");
  text.replace(text.find("active_interval = 1"), 19, "active_interval = 0.5");
  text.replace(text.find("dscp = 46"), 9, "dscp = 10");
  text.replace(text.find("c2 = \"[::1]:6343\""), 17, "c2 = \"[::1]:6344\", c4 = \"10.0.0.1:1\"");
  text.erase(text.find("[flow_tracking.trackers.t1.exporters.e2]"));
  auto const changes = configDiff(before, parsed(text));
  std::vector<std::string> const expected = {
      "agent.max_flows 100 -> 200",
      "agent.stop_timeout 5 -> 1",
      "tracker t1 active_interval (ms) 1000 -> 500",
      "exporter e1 dscp 46 -> 10",
      "collector e1/c2 \"[::1]:6343\" -> \"[::1]:6344\"",
      "collector e1/c4 added (10.0.0.1:1)",
      "exporter e2 removed",
  };
  EXPECT_EQ(changes, expected);
}

}  // namespace
}  // namespace ModAgent
