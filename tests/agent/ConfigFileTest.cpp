// The configuration reader on text the TOML library cannot take safely: refused with file and line, never an
// assertion inside the library (or, in a release build, undefined behaviour).
#include "agent/ConfigFile.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(ConfigFileTest, ATableHeaderThatDoesNotStartLikeANameIsRefusedWithItsLine) {
  for (std::string const header :
       {"[[[1]]]", "[[=", "[ \xc3\x9egent]", "[[\xc3\x9e]]", "[", "[\x01]", "[{a = 1}]"}) {
    ModAgent::AgentConfig config;
    std::vector<std::string> errors;
    EXPECT_FALSE(ModAgent::ConfigFile::parse("[agent]\nstate_dir = \"/tmp/x\"\n" + header + "\n", "m.toml",
                                             config, errors));
    ASSERT_EQ(errors.size(), 1u) << header;
    EXPECT_EQ(
        errors[0],
        "m.toml:3: Error while parsing table header: expected a name (letters, digits, _ or -, or quoted)");
  }
  // Headers that are fine, and a nested array on a line of its own, go on to the library as before.
  ModAgent::AgentConfig config;
  std::vector<std::string> errors;
  ModAgent::ConfigFile::parse("[ \"agent\" ]\n[capture]\ninterfaces = [\n  \"eth1\",\n]\n[ flow_tracking ]\n",
                              "ok.toml", config, errors);
  for (auto const& e : errors) EXPECT_EQ(e.find("table header"), std::string::npos) << e;
}

TEST(ConfigFileTest, AFileThatIsNoRegularFileIsRefusedRatherThanReadForEver) {
  for (std::string const file : {"/dev/zero", "/tmp"}) {
    ModAgent::AgentConfig config;
    std::vector<std::string> errors;
    EXPECT_FALSE(ModAgent::ConfigFile::load(file, config, errors));
    EXPECT_EQ(errors, std::vector<std::string>{file + ": not a regular file"});
  }
}

}  // namespace
