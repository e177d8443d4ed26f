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
  // A nested array on a line of its own still reaches the library, which names what it holds.
  ModAgent::ConfigFile::parse("[capture]\ninterfaces = [\n[\"eth1\"],\n]\n", "ok.toml", config, errors);
  for (auto const& e : errors) EXPECT_EQ(e.find("table header"), std::string::npos) << e;
  for (std::string const file : {"/dev/zero", "/tmp"}) {
    EXPECT_FALSE(ModAgent::ConfigFile::load(file, config, errors));
    EXPECT_EQ(errors, std::vector<std::string>{file + ": not a regular file"});
  }
}

}  // namespace
