// `cmake --install` of this build under a throw-away prefix, used from there: every file in its place, the
// programs finding their libraries and the agent its plug-in through a RUNPATH relative to the program (the
// build tree gone from their view), the unit naming the prefix's paths and passing systemd-analyze verify.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "testkit/TempStateDir.h"
#include "tests/support/Program.h"

using Calyx::Test::programRun;
namespace fs = std::filesystem;

namespace {

class InstallTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    char dir[] = "/tmp/install-test-XXXXXX";
    ASSERT_TRUE(mkdtemp(dir));
    prefix_ = dir;
    char const* build = getenv("CALYX_BUILD_DIR");
    ASSERT_TRUE(build) << "CALYX_BUILD_DIR is not set (ctest sets it)";
    build_ = build;
    auto const r = programRun("cmake", {"--install", build_, "--prefix", prefix_}, {}, 120);
    ASSERT_EQ(r.status, 0) << r.out << r.err;
  }
  static void TearDownTestSuite() { fs::remove_all(prefix_); }

  static std::string at(std::string const& rel) { return prefix_ + "/" + rel; }
  static std::string text(std::string const& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
  }

  static std::string prefix_;
  static std::string build_;
};

std::string InstallTest::prefix_;
std::string InstallTest::build_;

TEST_F(InstallTest, EveryFileIsInItsPlaceAndTheProgramsRunFromThere) {
  for (char const* f :
       {"bin/mod-agent", "bin/modctl", "bin/mod-gen", "bin/mod-collector", "lib/mirror-on-drop/libcalyx.so",
        "lib/mirror-on-drop/libmirror_on_drop.so", "etc/mod-agent/mod-agent.toml",
        "lib/systemd/system/mod-agent.service", "lib/sysusers.d/mirror-on-drop.conf",
        "share/doc/mirror-on-drop/examples/mod-agent.toml"})
    EXPECT_TRUE(fs::exists(at(f))) << f;
  if (fs::exists(build_ + "/man")) {
    for (char const* f : {"share/man/man8/mod-agent.8", "share/man/man1/modctl.1", "share/man/man1/mod-gen.1",
                          "share/man/man1/mod-collector.1"}) {
      EXPECT_TRUE(fs::exists(at(f))) << f;
      EXPECT_EQ(text(at(f)).find(build_), std::string::npos) << f << " names the build tree";
    }
  }
  for (char const* program : {"mod-agent", "modctl", "mod-gen", "mod-collector"}) {
    auto const dynamic = programRun("readelf", {"-d", at("bin/") + program});
    EXPECT_NE(dynamic.out.find("[$ORIGIN/../lib/mirror-on-drop]"), std::string::npos) << dynamic.out;
    EXPECT_EQ(dynamic.out.find(build_), std::string::npos) << program << " looks into the build tree";
    auto const version = programRun(at("bin/") + program, {"--version"});
    EXPECT_EQ(version.status, 0) << program << ": " << version.err;
    EXPECT_EQ(version.out, programRun(program, {"--version"}).out);  // the build tree's, on PATH
  }
  // The agent finds the installed plug-in by itself and runs the feature with it.
  std::string const plugin = fs::canonical(at("lib/mirror-on-drop/libmirror_on_drop.so")).string();
  EXPECT_NE(programRun(at("bin/mod-agent"), {"--help"}).out.find("(here: " + plugin + ")"),
            std::string::npos);
  ASSERT_EQ(programRun(at("bin/mod-gen"), {"--out", at("d.pcap"), "--flows", "3", "--seed", "1"}).status, 0);
  Calyx::Test::TempStateDir state;
  std::ofstream(at("a.toml")) << "[agent]\nstate_dir = \"" << state.path() << "\"\n[capture]\nreplay = \""
                              << at("d.pcap") << "\"\nreplay_interface = \"Ethernet1\"\n"
                              << "[flow_tracking.trackers.t1]\nactive_interval = 1\ninactive_timeout = 1\n";
  auto const run = programRun(at("bin/mod-agent"), {"--config", at("a.toml")}, {}, 60);
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.err.find("flows 3,"), std::string::npos) << run.err;
}

TEST_F(InstallTest, TheUnitNamesThePrefixAndPassesSystemdAnalyzeVerify) {
  std::string const unit = text(at("lib/systemd/system/mod-agent.service"));
  EXPECT_NE(unit.find("ExecStart=" + at("bin/mod-agent") + " --config " + at("etc/mod-agent/mod-agent.toml")),
            std::string::npos)
      << unit;
  EXPECT_NE(unit.find("Type=notify"), std::string::npos);
  EXPECT_NE(unit.find("User=mod-agent"), std::string::npos);
  if (programRun("systemd-analyze", {"--version"}).status != 0)
    GTEST_SKIP() << "systemd-analyze is not installed";
  if (!fs::exists(build_ + "/man"))
    GTEST_SKIP() << "no manual pages in this build (help2man is not installed)";
  // The unit's Documentation= names the manual pages: verify looks them up where they were installed.
  auto const verify = programRun("env", {"MANPATH=" + at("share/man"), "systemd-analyze", "verify",
                                         at("lib/systemd/system/mod-agent.service")});
  EXPECT_EQ(verify.status, 0) << verify.out << verify.err;
  EXPECT_EQ(verify.err, "");
}

}  // namespace
