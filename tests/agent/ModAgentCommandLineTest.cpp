// mod-agent's command line as a user meets it, through the real binary: the short and long options, usage
// errors that say which program speaks, trace settings checked for typos, every error of a broken
// configuration in the file's own order, and a help that says where the plug-in is looked for.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/Program.h"

using Calyx::Test::programRun;

namespace {

std::string const kExample = CALYX_SOURCE_DIR "/examples/mod-agent.toml";

TEST(ModAgentCommandLineTest, EveryCommandLineIsCheckedAndEveryErrorNamed) {
  char dir[] = "/tmp/mod-agent-cli-XXXXXX";
  ASSERT_TRUE(mkdtemp(dir));
  std::string const broken = std::string(dir) + "/broken.toml";
  // Errors on lines 2, 4, 5, 6 and 9, in tables whose names sort the other way round.
  std::ofstream(broken) << "[trace]\nlevels = \"Nosuch=1\"\n[hardware]\nmirror_on_drop = \"yes\"\n[capture]\n"
                           "replay_clock = \"fast\"\nreplay = \"x.pcap\"\n[agent]\nstate_dir = 3\n";
  std::string brokenErrors;
  for (std::string const line :
       {":2: trace.levels: unknown trace handle \"Nosuch\" (handles: MOD-Manager, MOD-Dispatcher, "
        "MOD-Receiver, "
        "MOD-Sender, MOD-Adapter, Calyx-Pam, Calyx-Udp, Calyx-ExactMatch, MOD-Agent, Calyx-Control, or * for "
        "all)",
        ":4: hardware.mirror_on_drop: expected true or false",
        ":5: capture.replay_interface: missing: replay needs the interface its frames arrive on",
        ":6: capture.replay_clock: \"fast\" is not a replay clock (expected \"virtual\", \"recorded\" or "
        "\"max\")",
        ":9: agent.state_dir: expected a string"})
    brokenErrors += broken + line + "\n";
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string out;  // a part of stdout
    std::string err;  // a part of stderr
  };
  std::vector<Case> const cases = {
      {{"-c", kExample, "--check-config"}, 0, "configuration OK", ""},
      {{"--check-config", "--config", kExample}, 0, "configuration OK", ""},
      {{"--check-config", "-c", kExample, "--trace", "MOD-Manager=0-4,*=0-1"}, 0, "configuration OK", ""},
      {{"--check-config", "-c", kExample, "--trace", "NoSuch=0-4"},
       2,
       "",
       "mod-agent: --trace: unknown trace handle \"NoSuch\" (handles: MOD-Manager,"},
      {{"--check-config", "-c", kExample, "--trace", "MOD-Manager=0-9"},
       2,
       "",
       "mod-agent: --trace: Bad trace level \"0-9\""},
      {{"--check-config"},
       2,
       "",
       "mod-agent: a configuration file is required: -c FILE or --config FILE\n"
       "(see mod-agent --help)"},
      {{"--bogus", "-c", kExample}, 2, "", "mod-agent: The following argument was not expected: --bogus"},
      {{"-c", "/nonexistent.toml"}, 2, "", "mod-agent: --config: File does not exist: /nonexistent.toml"},
      {{"-c", broken, "--check-config"}, 2, "", brokenErrors},
      {{"--help"},
       0,
       "../lib/mirror-on-drop/libmirror_on_drop.so and ../lib/libmirror_on_drop.so beside the program",
       ""},
      {{"--version"}, 0, "mod-agent ", ""},
  };
  for (auto const& c : cases) {
    std::string what = "mod-agent";
    for (auto const& a : c.args) what += " " + a;
    auto const r = programRun("mod-agent", c.args);
    EXPECT_EQ(r.status, c.status) << what << "\n" << r.out << r.err;
    EXPECT_NE(r.out.find(c.out), std::string::npos) << what << "\n" << r.out;
    EXPECT_NE(r.err.find(c.err), std::string::npos) << what << "\n" << r.err;
  }
  std::filesystem::remove_all(dir);
}

}  // namespace
