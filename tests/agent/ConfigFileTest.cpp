// The configuration reader on input the TOML library cannot take safely: refused with file and line, never an
// assertion inside the library (or, in a release build, undefined behaviour), and never read for ever.
#include "agent/ConfigFile.h"

#include <gtest/gtest.h>

namespace {

TEST(ConfigFileTest, WhatTheTomlLibraryCannotTakeIsRefusedFirst) {
  ModAgent::AgentConfig config;
  std::vector<std::string> errors;
  for (std::string const header : {"[[[1]]]", "[[=", "[ \xc3\x9egent]", "[", "[\x01]"}) {
    EXPECT_FALSE(ModAgent::ConfigFile::parse("[agent]\n\n" + header + "\n", "m.toml", config, errors));
    EXPECT_EQ(errors, std::vector<std::string>{"m.toml:3: Error while parsing table header: expected a name "
                                               "(letters, digits, _ or -, or quoted)"});
  }
  // A character beyond ASCII where only ASCII may be (a key, a bare value, between items): the library takes
  // it for possible whitespace and reaches code it holds unreachable. Inside strings and comments it is text,
  // and a multi-line string's lines are counted.
  std::string const beyond = "a character beyond ASCII outside a comment";
  for (std::string const text :
       {"[agent]\ncaf\xc3\xa9 = 1\n", "[agent]\nmax_flows = 5 \xc3\xa9\n", "[agent]\n[a.\xc3\xa9]\n",
        "# \xc3\xa9\nx = '''\n#\n'''\n\xc2\xa0\n", "[agent]\nstate_dir = \"#\xc3\xa9\"\n"}) {
    EXPECT_FALSE(ModAgent::ConfigFile::parse(text, "m.toml", config, errors));
    ASSERT_EQ(errors.size(), 1u) << text;
    EXPECT_NE(errors[0].find(beyond), std::string::npos) << errors[0];
    EXPECT_EQ(errors[0].substr(0, 9), text[0] == '#' ? "m.toml:5:" : "m.toml:2:") << errors[0];
  }
  ModAgent::ConfigFile::parse("# caf\xc3\xa9\n[agent]\nstate_dir = \"/tmp/#\\\"\" # caf\xc3\xa9\n", "ok.toml",
                              config, errors);
  for (auto const& e : errors) EXPECT_EQ(e.find(beyond), std::string::npos) << e;
  // A nested array on a line of its own still reaches the library, which names what it holds.
  ModAgent::ConfigFile::parse("[capture]\ninterfaces = [\n[\"eth1\"],\n]\n", "ok.toml", config, errors);
  for (auto const& e : errors) EXPECT_EQ(e.find("table header"), std::string::npos) << e;
  for (std::string const file : {"/dev/zero", "/tmp"}) {
    EXPECT_FALSE(ModAgent::ConfigFile::load(file, config, errors));
    EXPECT_EQ(errors, std::vector<std::string>{file + ": not a regular file"});
  }
}

}  // namespace
