// The bash completion, run by bash as it completes a line: commands, options and values of the four programs,
// against the programs of this build (ctest puts them on PATH). Options come from each program's --help, so
// an option a program gains is offered without a change here; that is checked too.
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/Program.h"

using Calyx::Test::programRun;

namespace {

std::string const kScript = CALYX_SOURCE_DIR "/contrib/bash-completion/mirror-on-drop.bash";

// What bash offers for a line whose last word is being completed ("modctl show " completes an empty word).
std::set<std::string> offered(std::string const& line) {
  std::string const function = line.rfind("modctl", 0) == 0      ? "_modctl"
                               : line.rfind("mod-agent", 0) == 0 ? "_mod_agent"
                               : line.rfind("mod-gen", 0) == 0   ? "_mod_gen"
                                                                 : "_mod_collector";
  std::string const script = "source '" + kScript + "'\n" + "read -ra COMP_WORDS <<< \"$1\"\n" +
                             "[[ $1 == *' ' ]] && COMP_WORDS+=('')\n" +
                             "COMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n" + function +
                             "\nprintf '%s\\n' \"${COMPREPLY[@]}\"\n";
  auto const r = programRun("bash", {"--norc", "--noprofile", "-c", script, "bash", line});
  EXPECT_EQ(r.status, 0) << line << "\n" << r.err;
  std::set<std::string> words;
  std::istringstream is(r.out);
  for (std::string w; std::getline(is, w);)
    if (!w.empty()) words.insert(w);
  return words;
}

// Every option that begins a line of the program's help.
std::set<std::string> helpOptions(std::vector<std::string> const& command) {
  std::vector<std::string> args(command.begin() + 1, command.end());
  args.push_back("--help");
  std::istringstream is(programRun(command[0], args).out);
  std::set<std::string> options;
  for (std::string line; std::getline(is, line);) {
    if (line.rfind("  -", 0) != 0) continue;
    std::istringstream names(line.substr(2, line.find(' ', 2) - 2));  // "-c,--config"
    for (std::string name; std::getline(names, name, ',');) options.insert(name);
  }
  return options;
}

TEST(BashCompletionTest, CommandsOptionsAndValuesAreOffered) {
  struct Case {
    std::string line;
    std::set<std::string> expected;  // all offered (others may be too)
  };
  std::vector<Case> const cases = {
      {"modctl ", {"show", "status", "clear", "trace", "metrics"}},
      {"modctl --json tr", {"trace"}},
      {"modctl show ", {"flows", "interfaces", "collectors", "exact-match"}},
      {"modctl trace ", {"set", "show", "dump"}},
      {"modctl show flows --",
       {"--filter", "--sort", "--reverse", "--limit", "--time", "--json", "--state-dir"}},
      {"modctl status --js", {"--json"}},
      {"modctl show flows --time ", {"iso", "ns"}},
      {"modctl show flows --sort src", {"src_ip", "src_port"}},
      {"modctl show flows --filter ip", {"ip=", "ip_proto="}},
      {"modctl trace set MOD-D", {"MOD-Dispatcher"}},
      {"mod-agent --", {"--config", "--check-config", "--trace", "--plugin", "--state-dir", "--version"}},
      {"mod-agent -", {"-c"}},
      {"mod-agent --trace MOD-S", {"MOD-Sender="}},
      {"mod-gen --", {"--out", "--reports", "--reason", "--collector", "--vlan-tags"}},
      {"mod-gen --family ", {"ipv4", "ipv6", "mixed"}},
      {"mod-gen --malformed ", {"all", "wrong-ethertype", "truncated-transport"}},
      {"mod-collector --", {"--listen", "--json", "--count"}},
  };
  for (auto const& c : cases) {
    auto const got = offered(c.line);
    for (auto const& w : c.expected) EXPECT_TRUE(got.count(w)) << "'" << c.line << "' does not offer " << w;
  }
  // Nothing is offered that does not fit what was typed.
  EXPECT_EQ(offered("modctl status --js"), std::set<std::string>{"--json"});
  EXPECT_EQ(offered("modctl show flows --time "), (std::set<std::string>{"iso", "ns"}));
  // Whatever option a program's help lists is offered.
  for (std::vector<std::string> const& command :
       {std::vector<std::string>{"modctl", "show", "flows"}, {"mod-agent"}, {"mod-gen"}, {"mod-collector"}}) {
    std::string line;
    for (auto const& w : command) line += w + " ";
    auto const got = offered(line + "-");
    for (auto const& option : helpOptions(command)) EXPECT_TRUE(got.count(option)) << line << option;
  }
}

}  // namespace
