// modctl as an operator types it, against a real mod-agent replaying a capture (flows kept: inactive timeout
// 60 s): its command line in every order, its refusals of what it does not know, the flow view's filter,
// sort, limit and time forms, and what a user without access to the agent's socket is told.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "testkit/TempStateDir.h"
#include "tests/support/Program.h"

using Calyx::Test::Program;
using Calyx::Test::ProgramResult;
using Calyx::Test::programRun;
using nlohmann::json;

namespace {

class ModctlTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    char dir[] = "/tmp/modctl-test-XXXXXX";
    ASSERT_TRUE(mkdtemp(dir));
    work_ = dir;
    state_ = std::make_unique<Calyx::Test::TempStateDir>();
    chmod(state_->path().c_str(), 0755);  // as the agent makes its own: anyone may read the tables
    auto const gen =
        programRun("mod-gen", {"--out", work_ + "/drops.pcap", "--flows", "8", "--drops-per-flow", "2",
                               "--seed", "5", "--family", "mixed", "--proto", "mixed"});
    ASSERT_EQ(gen.status, 0) << gen.err;
    std::ofstream(work_ + "/agent.toml")
        << "[agent]\nstate_dir = \"" << state_->path() << "\"\n"
        << "[hardware]\nmirror_on_drop = true\nexact_match = true\n"
        << "[capture]\nreplay = \"drops.pcap\"\nreplay_interface = \"Ethernet1\"\nreplay_clock = \"max\"\n"
        << "[flow_tracking]\nenabled = true\n[flow_tracking.trackers.t1]\n"
        << "active_interval = 0.2\ninactive_timeout = 60\n"
        << "[flow_tracking.trackers.t1.exporters.e1]\ncollectors = { c1 = \"127.0.0.1:9\" }\n"
        << "[flow_tracking.trackers.t1.exporters.e2]\ncollectors = { c2 = \"127.0.0.1:9\" }\n";
    agent_ = std::make_unique<Program>("mod-agent", std::vector<std::string>{"-c", "agent.toml"}, work_);
    ASSERT_TRUE(agent_->waitForErr("started: feature on", 10)) << agent_->err();
    for (int i = 0; i < 500; ++i) {
      auto const r = modctl({"status", "--json"});
      if (r.status == 0 && json::parse(r.out)["counters"]["start_reports"] == 8) return;
      usleep(10000);
    }
    FAIL() << "the agent never reported its 8 flows: " << agent_->err();
  }
  static void TearDownTestSuite() {
    agent_.reset();
    state_.reset();
    std::filesystem::remove_all(work_);
  }

  static ProgramResult modctl(std::vector<std::string> args) {
    args.insert(args.end(), {"--state-dir", state_->path()});  // options after the command: they go anywhere
    return programRun("modctl", args);
  }
  static json flows(std::vector<std::string> args = {}) {
    args.insert(args.begin(), {"show", "flows", "--json"});
    auto const r = modctl(args);
    EXPECT_EQ(r.status, 0) << r.err;
    return json::parse(r.out, nullptr, false);
  }

  static std::string work_;
  static std::unique_ptr<Calyx::Test::TempStateDir> state_;
  static std::unique_ptr<Program> agent_;
};

std::string ModctlTest::work_;
std::unique_ptr<Calyx::Test::TempStateDir> ModctlTest::state_;
std::unique_ptr<Program> ModctlTest::agent_;

TEST_F(ModctlTest, EveryCommandLineIsAnsweredOrRefusedByName) {
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string out;  // a part of stdout (JSON: a key the object must have)
    std::string err;  // a part of stderr
  };
  std::vector<Case> const cases = {
      // Options before or after the command; every command's --json is one JSON object.
      {{"status", "--json"}, 0, "counters", ""},
      {{"--json", "status"}, 0, "counters", ""},
      {{"show", "flows", "--json"}, 0, "flows", ""},
      {{"show", "--json", "interfaces"}, 0, "interfaces", ""},
      {{"show", "collectors", "--json"}, 0, "collectors", ""},
      {{"show", "exact-match", "--json"}, 0, "entries", ""},
      {{"trace", "show", "--json"}, 0, "handles", ""},
      {{"trace", "dump", "--json"}, 0, "records", ""},
      {{"clear", "counters", "e2", "--json"}, 0, "cleared", ""},
      {{"trace", "set", "MOD-Sender", "0-1", "--json"}, 0, "applied", ""},
      {{"metrics", "--json"}, 2, "", "--json does not apply"},
      // Words and options it does not know are named, exit status 2.
      {{"frobnicate"}, 2, "", "modctl: unknown command 'frobnicate' (commands: show, status, clear, trace"},
      {{"show", "nope"}, 2, "", "modctl show: unknown command 'nope'"},
      {{"show"}, 2, "", "modctl show: a command is needed: flows, interfaces, collectors, exact-match"},
      {{}, 2, "", "modctl: a command is needed"},
      {{"status", "--bogus"}, 2, "", "modctl status: unknown option '--bogus'"},
      {{"show", "--bogus", "flows"}, 2, "", "modctl show flows: unknown option '--bogus'"},
      {{"trace", "--limit", "3"}, 2, "", "modctl trace: unknown option '--limit'"},
      {{"status", "now"}, 2, "", "modctl status: unexpected argument 'now'"},
      {{"clear", "counters", "nosuch"}, 2, "", "no exporter 'nosuch' has collectors (exporters: e1, e2)"},
      {{"trace", "set", "NoSuch-Handle", "0-4"}, 2, "", "unknown trace handle 'NoSuch-Handle'"},
      {{"trace", "set", "MOD-Sender", "0-9"}, 1, "", "levels are 0 to 8"},  // the agent's own check
      {{"show", "flows", "--filter", "colour=red"}, 2, "", "--filter: unknown key 'colour'"},
      {{"show", "flows", "--filter", "src_ip=10.0.0.0/33"}, 2, "", "--filter: src_ip"},
      {{"show", "flows", "--filter", "ip_proto=sctp"}, 2, "", "--filter: ip_proto"},
      {{"show", "flows", "--sort", "colour"}, 2, "", "--sort: unknown key 'colour'"},
      {{"show", "flows", "--time", "utc"}, 2, "", "--time"},
      // Readable forms.
      {{"status"}, 0, "feature: on\ntracker: t1", ""},
      {{"clear", "counters", "e1"}, 0, "cleared: e1", ""},
      {{"trace", "set", "MOD-Dispatcher", "0-4"}, 0, "applied: MOD-Dispatcher=0-4", ""},
      {{"trace", "dump"}, 0, "ftName: 't1'", ""},
      {{"show", "flows", "--limit", "2"}, 0, "(2 of 8 shown)", ""},
      {{"show", "flows", "--time", "ns"}, 0, " 17000000000", ""},
      {{"show", "flows"}, 0, " 2023-11-14T22:13:20.0", ""},
      {{"show", "flows", "--filter", "ip_proto=udp", "--filter", "port=1"},
       0,
       "(no flows match; 8 in all)",
       ""},
      {{"metrics"}, 0, "mod_agent_up 1", ""},
  };
  for (auto const& c : cases) {
    std::string what = "modctl";
    for (auto const& a : c.args) what += " " + a;
    auto const r = modctl(c.args);
    EXPECT_EQ(r.status, c.status) << what << "\n" << r.out << r.err;
    EXPECT_NE(r.err.find(c.err), std::string::npos) << what << "\n" << r.err;
    bool const isJson = std::find(c.args.begin(), c.args.end(), "--json") != c.args.end() && c.status == 0;
    if (isJson) {
      json const doc = json::parse(r.out, nullptr, false);
      EXPECT_TRUE(doc.is_object()) << what << "\n" << r.out;
      EXPECT_TRUE(doc.is_object() && doc.contains(c.out)) << what << "\n" << r.out;
    } else {
      EXPECT_NE(r.out.find(c.out), std::string::npos) << what << "\n" << r.out;
    }
  }
  // Every handle the agent has traced under is one modctl knows: a new handle must join the list.
  auto const handles = json::parse(modctl({"trace", "show", "--json"}).out)["handles"];
  EXPECT_GE(handles.size(), 5u);
  for (auto const& [name, levels] : handles.items())
    EXPECT_EQ(modctl({"trace", "set", name, levels.get<std::string>()}).status, 0) << name;
}

TEST_F(ModctlTest, FlowsAreFilteredSortedAndLimitedAsAsked) {
  json const all = flows();
  ASSERT_EQ(all["flows"].size(), 8u);
  auto const isV6 = [](json const& f) {
    return f["src_ip"].get<std::string>().find(':') != std::string::npos;
  };
  size_t udp = 0, udp6 = 0, v6 = 0;
  for (auto const& f : all["flows"]) {
    udp += f["ip_proto"] == 17;
    udp6 += f["ip_proto"] == 17 && isV6(f);
    v6 += isV6(f);
  }
  ASSERT_TRUE(udp > 0 && udp < 8 && v6 > 0 && v6 < 8);
  // Terms of one filter and of repeated filters must all hold; addresses match by prefix, ports either side.
  json const both = flows({"--filter", "ip_proto=UDP", "--filter", "src_ip=2001:db8::/32"});
  EXPECT_EQ(both["matching"], udp6);
  for (auto const& f : both["flows"]) EXPECT_TRUE(f["ip_proto"] == 17 && isV6(f)) << f;
  EXPECT_EQ(flows({"--filter", "ip=10.0.0.0/8"})["matching"], 8 - v6);
  json const first = all["flows"][0];
  EXPECT_EQ(flows({"--filter", "port=" + std::to_string(first["dst_port"].get<int>()) +
                                   ",src_ip=" + first["src_ip"].get<std::string>()})["flows"],
            json::array({first}));
  EXPECT_EQ(flows({"--filter", "interface=Ethernet2"})["matching"], 0);

  // Newest drops first, three of them; addresses by value (IPv4 before IPv6), not as text.
  std::vector<uint64_t> times;
  for (auto const& f : all["flows"]) times.push_back(f["timestamp"]);
  std::sort(times.rbegin(), times.rend());
  json const newest = flows({"--sort", "timestamp", "--reverse", "--limit", "3"});
  ASSERT_EQ(newest["flows"].size(), 3u);
  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(newest["flows"][i]["timestamp"], times[i]);
  json const bySource = flows({"--sort", "src_ip"})["flows"];
  for (size_t i = 0; i + 1 < bySource.size(); ++i) EXPECT_LE(isV6(bySource[i]), isV6(bySource[i + 1]));
  // JSON keeps nanoseconds; --time iso adds the date.
  json const dated = flows({"--time", "iso", "--limit", "1"})["flows"][0];
  EXPECT_TRUE(dated["timestamp"].is_number());
  EXPECT_EQ(dated["time"].get<std::string>().substr(0, 20), "2023-11-14T22:13:20.");
}

// As a user who may not use the agent's socket (as root: run as nobody; otherwise: the socket closed to its
// owner too), then with the agent gone.
TEST_F(ModctlTest, AUserWithoutAccessIsToldSoAndTheAgentsAbsenceIsNotInvented) {
  std::string const sock = state_->path() + "/mod-agent.sock";
  auto const asStranger = [&](std::vector<std::string> args) {
    args.insert(args.end(), {"--state-dir", state_->path()});
    if (geteuid() != 0) return programRun("modctl", args);
    args.insert(args.begin(), {"--reuid=65534", "--regid=65534", "--clear-groups", Program::path("modctl")});
    return programRun("setpriv", args);
  };
  if (geteuid() != 0) chmod(sock.c_str(), 0);
  auto const status = asStranger({"status"});
  EXPECT_EQ(status.status, 4) << status.err;
  EXPECT_NE(status.err.find("permission denied on " + sock), std::string::npos) << status.err;
  EXPECT_EQ(status.err.find("not running"), std::string::npos) << status.err;
  auto const metrics = asStranger({"metrics"});
  EXPECT_EQ(metrics.status, 0) << metrics.err;
  EXPECT_NE(metrics.out.find("mod_flows 8"), std::string::npos) << metrics.out;
  EXPECT_EQ(metrics.out.find("mod_agent_up"), std::string::npos) << "no false alarm:\n" << metrics.out;
  EXPECT_NE(metrics.err.find("permission denied"), std::string::npos) << metrics.err;
  if (geteuid() != 0) chmod(sock.c_str(), 0660);

  agent_->signal(SIGKILL);
  agent_->wait(10);
  auto const down = modctl({"status"});
  EXPECT_EQ(down.status, 3) << down.err;
  EXPECT_NE(down.err.find("mod-agent is not running"), std::string::npos) << down.err;
  EXPECT_NE(modctl({"metrics"}).out.find("mod_agent_up 0"), std::string::npos);
  EXPECT_EQ(flows()["count"], 8) << "the tables outlive the agent";
}

}  // namespace
