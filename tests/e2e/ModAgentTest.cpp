// mod-agent as a user runs it: the real binaries (mod-gen, mod-agent), a capture replayed on the virtual or
// the real clock, reports received on loopback by the test's own collectors (IPv4 and IPv6), the shared
// tables read from the state directory afterwards.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "mirror_on_drop/MirrorOnDropCollector.h"
#include "mirror_on_drop/MirrorOnDropEmtCommon.h"
#include "mirror_on_drop/MirrorOnDropReport.h"
#include "platform/shm/SharedTableReader.h"
#include "testkit/NetNs.h"
#include "testkit/TempStateDir.h"
#include "tests/support/LoopbackReceiver.h"
#include "tests/support/MirroredFrameReader.h"
#include "tests/support/PcapRecords.h"
#include "tests/support/Program.h"

using namespace Calyx;
using Calyx::Test::Program;
using Calyx::Test::programRun;
using Bytes = std::vector<uint8_t>;

namespace {

struct Sent {
  uint8_t type;
  Bytes report;  // after the type byte
};

std::vector<Sent> decode(std::vector<Calyx::Test::Datagram> const& datagrams) {
  std::vector<Sent> out;
  for (auto const& d : datagrams) out.push_back({d.bytes.at(0), Bytes(d.bytes.begin() + 1, d.bytes.end())});
  return out;
}

// The report the feature must store for a mirrored frame: the timestamp big-endian, a zero reason, the size
// of the sample, and the sample: the dropped frame's MACs and everything from its own EtherType on, 80 bytes
// at most.
Bytes expectedReport(Bytes const& f) {
  auto const read = Calyx::Test::readMirrored(f);
  Bytes r;
  for (int i = 7; i >= 0; --i) r.push_back(uint8_t(read.timestamp >> (8 * i)));
  r.insert(r.end(), 16, 0);
  Bytes sample(f.begin(), f.begin() + 12);
  sample.insert(sample.end(), f.begin() + 24, f.end());
  sample.resize(std::min<size_t>(sample.size(), 80));
  r.push_back(uint8_t(sample.size()));
  r.insert(r.end(), sample.begin(), sample.end());
  return r;
}

class ModAgentTest : public ::testing::Test {
 protected:
  // A first agent with tracker t1 killed with flows live, then the next agent on its state directory.
  void restartAfterKill(char const* nextTracker);
  void SetUp() override {
    ASSERT_TRUE(rx4.bound() && rx6.bound());
    char dir[] = "/tmp/mod-agent-test-XXXXXX";
    ASSERT_TRUE(mkdtemp(dir));
    work = dir;
  }
  void TearDown() override { std::filesystem::remove_all(work); }

  std::string file(std::string const& name) const { return work + "/" + name; }
  void capture(std::vector<std::string> args, std::string const& name = "drops.pcap") {
    args.insert(args.begin(), {"--out", file(name)});
    auto const r = programRun("mod-gen", args);
    ASSERT_EQ(r.status, 0) << r.err;
  }
  // A configuration replaying the capture with the test's collectors; extra lines go into the tracker's
  // table.
  std::string config(std::string const& clock = "virtual", std::string const& tracker = "t1",
                     std::string const& intervals = "active_interval = 1.0\ninactive_timeout = 5.0\n",
                     std::string const& capture = "drops.pcap", bool support = true) const {
    std::ostringstream c;
    c << "[agent]\nstate_dir = \"" << state.path() << "\"\n"
      << "[hardware]\nmirror_on_drop = " << (support ? "true" : "false") << "\n"
      << "[capture]\nreplay = \"" << file(capture)
      << "\"\nreplay_interface = \"Ethernet1\"\nreplay_clock = \"" << clock << "\"\n"
      << "[flow_tracking]\nenabled = true\n"
      << "[flow_tracking.trackers." << tracker << "]\n"
      << intervals << "[flow_tracking.trackers." << tracker << ".exporters.e1]\n"
      << "source_ipv4 = \"127.0.0.1\"\nsource_ipv6 = \"::1\"\ndscp = 46\n"
      << "collectors = { c1 = \"127.0.0.1:" << rx4.port() << "\", c2 = \"[::1]:" << rx6.port() << "\" }\n"
      << "[trace]\nlevels = \"MOD-Manager=0-4,*=0-1\"\n";
    return c.str();
  }
  std::string write(std::string const& name, std::string const& text) const {
    std::ofstream(file(name)) << text;
    return file(name);
  }

  // Per report (keyed by its bytes), the types in the order they arrived.
  static std::map<Bytes, std::string> byReport(std::vector<Sent> const& sent) {
    std::map<Bytes, std::string> out;
    for (auto const& s : sent) out[s.report] += s.type == 0 ? "S" : "P";
    return out;
  }

  Calyx::Test::TempStateDir state;
  Calyx::Test::LoopbackReceiver rx4{AF_INET};
  Calyx::Test::LoopbackReceiver rx6{AF_INET6};
  std::string work;
};

TEST_F(ModAgentTest, VirtualClockReplayReportsEveryFlowOnceStartThenStopTheSameEveryTime) {
  capture({"--flows", "20", "--drops-per-flow", "3", "--seed", "9", "--malformed", "all", "--rate", "10"});
  std::set<Bytes> expected;
  std::set<std::tuple<IpGenAddr, IpGenAddr, uint8_t, uint16_t, uint16_t>> seen;
  for (auto const& rec : Calyx::Test::pcapRecords(file("drops.pcap"))) {
    auto const d = Calyx::Test::readMirrored(rec.bytes);
    if (!d.rejection.empty()) continue;
    if (seen.insert({d.flow.srcIp, d.flow.dstIp, d.flow.ipProto, d.flow.srcPort, d.flow.dstPort}).second)
      expected.insert(expectedReport(rec.bytes));  // the first drop of each flow is what is stored
  }
  ASSERT_EQ(expected.size(), 20u);
  std::string const conf = write("agent.toml", config());

  std::vector<Sent> first;
  for (int run = 0; run < 2; ++run) {
    auto const r = programRun("mod-agent", {"--config", conf}, work);
    ASSERT_EQ(r.status, 0) << r.err;
    auto const sent4 = decode(rx4.drain());
    auto const sent6 = decode(rx6.drain());
    for (auto const* sent : {&sent4, &sent6}) {
      auto const reports = byReport(*sent);
      EXPECT_EQ(reports.size(), 20u);
      for (auto const& [bytes, types] : reports) EXPECT_EQ(types, "SP");  // one START, then one STOP
      std::set<Bytes> got;
      for (auto const& [bytes, types] : reports) got.insert(bytes);
      EXPECT_EQ(got, expected);
    }
    // The collectors' counters, as the agent's summary read them from their table, are what arrived.
    uint64_t bytes4 = 0, bytes6 = 0;
    for (auto const& s : sent4) bytes4 += s.report.size();
    for (auto const& s : sent6) bytes6 += s.report.size();
    EXPECT_NE(r.err.find("(e1/c1 " + std::to_string(bytes4) + ", e1/c2 " + std::to_string(bytes6) + ")"),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("reports START 20, STOP 20"), std::string::npos) << r.err;
    // Nothing is left in the shared tables.
    using ReportReader = SharedTableReader<MirrorOnDrop::Report::Key, MirrorOnDrop::Report::EntryStatus>;
    using EmtReader = SharedTableReader<MirrorOnDrop::Emt::Key, MirrorOnDrop::Emt::EntryConfig>;
    EXPECT_TRUE(ReportReader::forTable("reportStatus.entry", state.path()).snapshot().empty());
    EXPECT_TRUE(EmtReader::forTable("emtConfig", state.path()).snapshot().empty());
    if (run == 0) {
      first = sent4;
    } else {
      ASSERT_EQ(sent4.size(), first.size());
      for (size_t i = 0; i < first.size(); ++i) {
        EXPECT_EQ(sent4[i].type, first[i].type);
        EXPECT_EQ(sent4[i].report, first[i].report) << "report " << i << " differs between runs";
      }
    }
  }
}

TEST_F(ModAgentTest, CheckConfigNamesFileLineAndKeyOfEveryKindOfError) {
  std::string const good = config();
  std::string const conf = write("good.toml", good);
  auto const ok = programRun("mod-agent", {"--config", conf, "--check-config"});
  EXPECT_EQ(ok.status, 0) << ok.err;
  EXPECT_EQ(ok.out, "configuration OK\n");

  // Each broken file: the good one with one change; the error is expected on the line holding `at`.
  struct Case {
    std::string from, to, at, expected;  // expected: "KEY: what was expected", after "FILE:LINE: "
  };
  std::string const port4 = "127.0.0.1:" + std::to_string(rx4.port());
  std::string const exporter = "flow_tracking.trackers.t1.exporters.e1.";
  std::string const longName(129, 'x');
  std::vector<Case> const cases = {
      {"dscp = 46", "dscp = 64", "dscp", exporter + "dscp: 64 is out of range (expected 0 to 63)"},
      {"dscp = 46", "dscp = \"af41\"", "dscp", exporter + "dscp: expected a whole number from 0 to 63"},
      {"dscp = 46", "dscp = 46\ncolour = 1", "colour", exporter + "colour: unknown key"},
      {"enabled = true", "enabled = \"yes\"", "enabled", "flow_tracking.enabled: expected true or false"},
      {"\"127.0.0.1\"\n", "\"127.0.0.300\"\n", "source_ipv4",
       exporter + "source_ipv4: \"127.0.0.300\" is not an IPv4 address"},
      {"\"::1\"\n", "\"10.0.0.1\"\n", "source_ipv6",
       exporter + "source_ipv6: \"10.0.0.1\" is not an IPv6 address"},
      {port4, "127.0.0.1:70000", "collectors",
       exporter + "collectors.c1: port \"70000\" is out of range (expected 1 to 65535)"},
      {port4, "localhost", "collectors",
       exporter + "collectors.c1: expected \"A.B.C.D:PORT\" or \"[IPv6]:PORT\""},
      {port4, "300.1.1.1:1", "collectors",
       exporter + "collectors.c1: \"300.1.1.1\" is not an IPv4 or IPv6 address"},
      {"active_interval = 1.0", "active_interval = 0", "active_interval",
       "flow_tracking.trackers.t1.active_interval: expected a positive number of seconds"},
      {"inactive_timeout = 5.0", "inactive_timeout = -5", "inactive_timeout",
       "flow_tracking.trackers.t1.inactive_timeout: expected a positive number of seconds"},
      {"[flow_tracking.trackers.t1]\n",
       "[flow_tracking.trackers.t0]\nactive_interval = 1.0\ninactive_timeout = "
       "1.0\n[flow_tracking.trackers.t1]\n",
       "[flow_tracking.trackers.t1]",
       "flow_tracking.trackers.t1: a second tracker: this hardware runs one tracker at a time"},
      {"exporters.e1]", "exporters." + longName + "]", "exporters.x",
       "flow_tracking.trackers.t1.exporters." + longName + ": names must be 1 to 128 bytes"},
      {"\"virtual\"", "\"fast\"", "replay_clock", "capture.replay_clock: \"fast\" is not a replay clock"},
      {"replay_interface = \"Ethernet1\"", "replay_interface = \"Ethernet 1\"", "replay_interface",
       "capture.replay_interface: bad interface name \"Ethernet 1\""},
      {"replay_interface = \"Ethernet1\"\n", "", "[capture]",
       "capture.replay_interface: missing: replay needs the interface its frames arrive on"},
      {"replay_interface", "interfaces = [\"eth1\"]\nreplay_interface", "[capture]",
       "capture: give either interfaces (live capture) or replay (a capture file), not both"},
      {"MOD-Manager=0-4,*=0-1", "MOD-Manager=0-9", "levels", "trace.levels: "},
      {"[hardware]", "[hardwar]", "[hardwar]", "hardwar: unknown key"},
      {"mirror_on_drop = true", "mirror_on_drop = ", "mirror_on_drop",
       ""},  // TOML syntax: toml++'s own words
      {"[hardware]", "stop_timeout = -1\n[hardware]", "stop_timeout",
       "agent.stop_timeout: expected 0 to 3600 seconds"},
      {"[hardware]", "group = \"nosuchgroup9\"\n[hardware]", "group",
       "agent.group: no group \"nosuchgroup9\" on this host"},
      {"replay_interface", "buffer_size = 100\nreplay_interface", "buffer_size",
       "capture.buffer_size: 100 is out of range (expected 65536 to 1073741824)"},
      {"[trace]", "[metrics]\nlisten = \"localhost:9464\"\n[trace]", "listen",
       "metrics.listen: \"localhost\" is not an IPv4 or IPv6 address"},
      {"levels =", "output = \"/nonexistent-dir/trace.log\"\nlevels =", "output",
       "trace.output: cannot make /nonexistent-dir/trace.log: /nonexistent-dir: No such file or directory"},
  };
  ASSERT_GE(cases.size(), 15u);
  for (size_t i = 0; i < cases.size(); ++i) {
    std::string text = good;
    auto const from = text.find(cases[i].from);
    ASSERT_NE(from, std::string::npos) << cases[i].from;
    text.replace(from, cases[i].from.size(), cases[i].to);
    auto const at = text.find(cases[i].at);
    ASSERT_NE(at, std::string::npos) << cases[i].at;
    std::string const line = std::to_string(1 + std::count(text.begin(), text.begin() + long(at), '\n'));
    std::string const f = write("bad" + std::to_string(i) + ".toml", text);
    auto const r = programRun("mod-agent", {"--config", f, "--check-config"});
    EXPECT_EQ(r.status, 2) << f;
    std::string const expected = f + ":" + line + ": " + cases[i].expected;
    EXPECT_NE(r.err.find(expected), std::string::npos)
        << "case " << i << ": expected \"" << expected << "\" in:\n"
        << r.err;
  }
}

// A live agent on the real clock, reconfigured by SIGHUP: each change reaches the feature as a transition.
TEST_F(ModAgentTest, ReloadAppliesOnlyTheDifferencesAndKeepsTheRunningConfigurationOnError) {
  capture({"--flows", "4", "--drops-per-flow", "1", "--seed", "3"});
  std::string const intervals = "active_interval = 0.2\ninactive_timeout = 0.5\n";
  std::string const conf = write("agent.toml", config("max", "t1", intervals));
  Program agent("mod-agent", {"--config", conf}, work);
  ASSERT_TRUE(agent.waitForErr("started: feature on", 10)) << agent.err();
  ASSERT_TRUE(agent.waitForErr("Turning ON", 5));

  write("agent.toml", config("max", "t2", intervals));  // the tracker renamed: the feature stays on
  agent.signal(SIGHUP);
  ASSERT_TRUE(agent.waitForErr("Adjusting config transition: old tracker = 't1', new tracker = 't2'.", 5))
      << agent.err();
  write("agent.toml", config("max", "t2", "active_interval = 0.3\ninactive_timeout = 0.5\n"));
  agent.signal(SIGHUP);
  ASSERT_TRUE(agent.waitForErr("Updating intervals: active = 0.3s, inactive = 0.5s.", 5)) << agent.err();
  // A collector added, then removed: its counter entry follows.
  auto const collectorNames = [&] {
    std::set<std::string> names;
    auto reader =
        SharedTableReader<MirrorOnDrop::Collector::Key, MirrorOnDrop::Collector::EntryStatus>::forTable(
            "collectorStatus", state.path());
    for (auto const& e : reader.snapshot()) names.insert(e.key().collector());
    return names;
  };
  auto const waitFor = [&](std::set<std::string> const& expected) {
    for (int i = 0; i < 300 && collectorNames() != expected; ++i) usleep(10000);
    return collectorNames();
  };
  std::string withC3 = config("max", "t2", "active_interval = 0.3\ninactive_timeout = 0.5\n");
  withC3.replace(withC3.find(" }\n[trace]"), 3, ", c3 = \"127.0.0.1:9\" }\n");
  write("agent.toml", withC3);
  agent.signal(SIGHUP);
  EXPECT_EQ(waitFor({"c1", "c2", "c3"}), (std::set<std::string>{"c1", "c2", "c3"})) << agent.err();
  EXPECT_TRUE(agent.waitForErr("reload: collector e1/c3 added (127.0.0.1:9)", 5)) << agent.err();
  write("agent.toml", config("max", "t2", "active_interval = 0.3\ninactive_timeout = 0.5\n"));
  agent.signal(SIGHUP);
  EXPECT_EQ(waitFor({"c1", "c2"}), (std::set<std::string>{"c1", "c2"})) << agent.err();
  write("agent.toml", config("max", "t2", intervals, "drops.pcap", false));
  agent.signal(SIGHUP);
  ASSERT_TRUE(
      agent.waitForErr("Turning OFF Mirror-On-Drop feature: tracker = 't2', hardware support = FALSE.", 5));
  ASSERT_TRUE(agent.waitForErr("reloaded", 5));
  // The turn-off ends once the last STOP has gone; support back before then would only cancel it.
  auto const featureOff = [&] {
    return programRun("modctl", {"--state-dir", state.path(), "status"}).out.find("feature: off") !=
           std::string::npos;
  };
  for (int i = 0; i < 100 && !featureOff(); ++i) usleep(50000);
  ASSERT_TRUE(featureOff()) << agent.err();
  write("agent.toml", config("max", "t2", intervals));
  agent.signal(SIGHUP);
  ASSERT_TRUE(
      agent.waitForErr("Turning ON Mirror-On-Drop feature: tracker = 't2', hardware support = TRUE.", 5));
  std::string biggerTable = config("max", "t2", intervals);
  biggerTable.replace(biggerTable.find("[capture]"), 0, "exact_match_capacity_ipv4 = 8\n");
  write("agent.toml",
        biggerTable);  // the tables were built at start: the change is said, not dropped silently
  agent.signal(SIGHUP);
  ASSERT_TRUE(agent.waitForErr("exact_match_capacity_ipv4 changes take effect at the next start", 5))
      << agent.err();
  write("agent.toml", "[agent]\nstate_dir = 3\n");
  agent.signal(SIGHUP);
  ASSERT_TRUE(agent.waitForErr("failed; the running configuration stays", 5)) << agent.err();
  EXPECT_NE(agent.err().find(conf + ":2: agent.state_dir: expected a string"), std::string::npos)
      << agent.err();
  agent.signal(SIGTERM);
  EXPECT_EQ(agent.wait(10), 0);
  EXPECT_NE(agent.err().find("summary: "), std::string::npos);
}

// kill -9 with flows live: the next agent on the same state directory stops them, and starts none again;
// also when the tracker was renamed while no agent ran (its stored status names the old one).
TEST_F(ModAgentTest, AfterAKillTheNextAgentStopsTheFlowsTheFirstLeft) {
  capture({"--flows", "6", "--drops-per-flow", "1", "--seed", "4", "--family", "ipv4"});
  for (char const* tracker : {"t1", "t2"}) {
    SCOPED_TRACE(std::string("the next agent's tracker: ") + tracker);
    restartAfterKill(tracker);
  }
}

void ModAgentTest::restartAfterKill(char const* nextTracker) {
  {
    std::ofstream empty(file("empty.pcap"), std::ios::binary);
    uint32_t const header[6] = {0xa1b2c3d4, 0x00040002, 0, 0, 65535, 1};
    empty.write(reinterpret_cast<char const*>(header), sizeof header);
  }
  Program first("mod-agent",
                {"--config",
                 write("first.toml", config("max", "t1", "active_interval = 0.2\ninactive_timeout = 60\n"))},
                work);
  std::map<Bytes, std::string> seen;
  for (int i = 0; i < 300 && seen.size() < 6; ++i) {
    for (auto const& [bytes, types] : byReport(decode(rx4.drain()))) seen[bytes] += types;
    usleep(10000);
  }
  ASSERT_EQ(seen.size(), 6u) << first.err();
  // A second agent on the same state directory is refused while the first lives.
  auto const refused = programRun("mod-agent", {"--config", file("first.toml")}, work, 10);
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("is in use by another mod-agent (pid " + std::to_string(first.pid()) + ")"),
            std::string::npos)
      << refused.err;
  first.signal(SIGKILL);
  EXPECT_EQ(first.wait(10), 128 + SIGKILL);

  Program second("mod-agent",
                 {"--config", write("second.toml",
                                    config("max", nextTracker,
                                           "active_interval = 0.2\ninactive_timeout = 0.3\n", "empty.pcap"))},
                 work);
  std::map<Bytes, std::string> after;
  for (int i = 0; i < 300 && after.size() < 6; ++i) {
    for (auto const& [bytes, types] : byReport(decode(rx4.drain()))) after[bytes] += types;
    usleep(10000);
  }
  second.signal(SIGTERM);
  EXPECT_EQ(second.wait(10), 0) << second.err();
  for (auto const& [bytes, types] : byReport(decode(rx4.drain()))) after[bytes] += types;
  ASSERT_EQ(after.size(), 6u) << second.err();
  for (auto const& [bytes, types] : after) {
    EXPECT_EQ(types, "P");  // a STOP, and no START
    EXPECT_TRUE(seen.count(bytes));
  }
}

// Live capture: mod-gen sends on one end of a veth pair in a throw-away namespace, the agent captures on the
// other and its reports reach a collector in the same namespace.
TEST_F(ModAgentTest, LiveCaptureOnAVethPairReachesTheCollector) {
  if (auto why = NetNs::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
  NetNs ns;
  ASSERT_TRUE(ns.ok()) << "could not make namespace " << ns.name();
  auto rx = ns.inside([] { return std::make_unique<Calyx::Test::LoopbackReceiver>(AF_INET); });
  std::string text = config("max", "t1", "active_interval = 0.2\ninactive_timeout = 0.5\n");
  auto const from = text.find("replay = ");
  auto const to = text.find("[flow_tracking]");
  text.replace(from, to - from, "interfaces = [\"" + ns.b() + "\"]\n");
  text.replace(text.find(std::to_string(rx4.port())), std::to_string(rx4.port()).size(),
               std::to_string(rx->port()));
  Program agent(
      "ip", {"netns", "exec", ns.name(), Program::path("mod-agent"), "--config", write("live.toml", text)},
      work);
  ASSERT_TRUE(agent.waitForErr("started: feature on", 10)) << agent.err();
  // The capture opens on the agent's next loop turn: wait until its status says it is up.
  auto const captureUp = [&] {
    auto const r = programRun("modctl", {"--state-dir", state.path(), "--json", "status"});
    auto const status = nlohmann::json::parse(r.out, nullptr, false);
    return status.is_object() && status.contains("captures") && !status["captures"].empty() &&
           status["captures"][0].value("state", "") == "up";
  };
  for (int i = 0; i < 200 && !captureUp(); ++i) usleep(20000);
  ASSERT_TRUE(captureUp()) << agent.err();
  ASSERT_TRUE(ns.run(Program::path("mod-gen") + " --interface " + ns.a() +
                     " --rate 0 --flows 5 --drops-per-flow 2 --seed 8 >/dev/null 2>&1"));
  std::map<Bytes, std::string> got;
  for (int i = 0; i < 500; ++i) {
    for (auto const& [bytes, types] : byReport(decode(rx->drain()))) got[bytes] += types;
    if (got.size() == 5 &&
        std::all_of(got.begin(), got.end(), [](auto const& g) { return g.second == "SP"; }))
      break;
    usleep(10000);
  }
  EXPECT_EQ(got.size(), 5u) << agent.err();
  for (auto const& [bytes, types] : got) EXPECT_EQ(types, "SP");
  agent.signal(SIGTERM);
  EXPECT_EQ(agent.wait(10), 0) << agent.err();
  EXPECT_NE(agent.err().find("frames received 10, processed 10"), std::string::npos) << agent.err();
}

// Exact match through the agent: while flows are reported their entries are installed (Emt::Status, read from
// the state directory), and once they are stopped nothing is left.
TEST_F(ModAgentTest, ExactMatchEntriesAreInstalledWhileFlowsAreReported) {
  capture({"--flows", "4", "--drops-per-flow", "1", "--seed", "6"});
  std::string text = config("max", "t1", "active_interval = 0.2\ninactive_timeout = 1.0\n");
  text.replace(text.find("mirror_on_drop = true\n"), 22,
               "mirror_on_drop = true\nexact_match = true\nexact_match_install_delay = 0.01\n");
  Program agent("mod-agent", {"--config", write("em.toml", text)}, work);
  using StatusReader = SharedTableReader<MirrorOnDrop::Emt::Key, MirrorOnDrop::Emt::EntryStatus>;
  auto reader = StatusReader::forTable("emtStatus", state.path());
  size_t installedCount = 0;
  for (int i = 0; i < 300 && installedCount < 4; ++i) {
    installedCount = 0;
    for (auto const& e : reader.snapshot()) installedCount += e.isInstalled();
    usleep(10000);
  }
  EXPECT_EQ(installedCount, 4u) << agent.err();
  std::map<Bytes, std::string> got;
  for (int i = 0; i < 500 && !(got.size() == 4 && got.begin()->second == "SP"); ++i) {
    for (auto const& [bytes, types] : byReport(decode(rx4.drain()))) got[bytes] += types;
    usleep(10000);
  }
  for (int i = 0; i < 300 && !reader.snapshot().empty(); ++i) usleep(10000);
  EXPECT_TRUE(reader.snapshot().empty());
  agent.signal(SIGTERM);
  EXPECT_EQ(agent.wait(10), 0) << agent.err();
}

// A client of the agent's control socket that sends raw lines.
class RawClient {
 public:
  explicit RawClient(std::string const& path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  }
  ~RawClient() { close(fd_); }
  bool connected() const { return connected_; }
  // Sends the lines, then reads until n reply lines came (or 5 s passed).
  std::vector<std::string> exchange(std::string const& lines, size_t n) {
    // A refused peer may find the connection closed before it writes: what counts is the replies it reads.
    (void)send(fd_, lines.data(), lines.size(), MSG_NOSIGNAL);
    std::string in;
    for (int i = 0; i < 500 && size_t(std::count(in.begin(), in.end(), '\n')) < n; ++i) {
      char chunk[65536];
      ssize_t const got = recv(fd_, chunk, sizeof chunk, MSG_DONTWAIT);
      if (got > 0) in.append(chunk, size_t(got));
      if (got <= 0) usleep(10000);
    }
    std::vector<std::string> out;
    std::istringstream is(in);
    for (std::string l; std::getline(is, l);) out.push_back(l);
    return out;
  }

 private:
  int fd_;
  bool connected_ = false;
};

// modctl against a running agent, a misbehaving client, and an agent killed.
TEST_F(ModAgentTest, ModctlShowsTheTablesAsTheyAreAndTheControlSocketHoldsUp) {
  capture({"--flows", "6", "--drops-per-flow", "1", "--seed", "6", "--family", "ipv4"});
  std::string text = config("max", "t1", "active_interval = 0.2\ninactive_timeout = 60\n");
  text += "[flow_tracking.trackers.t1.exporters.e2]\ncollectors = { c3 = \"127.0.0.1:" +
          std::to_string(rx4.port()) + "\" }\n";
  text.replace(text.find("mirror_on_drop = true\n"), 22, "mirror_on_drop = true\nexact_match = true\n");
  Program agent("mod-agent", {"--config", write("ctl.toml", text)}, work);
  ASSERT_TRUE(agent.waitForErr("started: feature on", 10)) << agent.err();
  auto const modctl = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {"--state-dir", state.path()});
    return programRun("modctl", args);
  };
  nlohmann::json status;
  for (int i = 0; i < 300; ++i) {
    auto const r = modctl({"--json", "status"});
    if (r.status == 0) status = nlohmann::json::parse(r.out);
    if (status.is_object() && status["counters"]["start_reports"] == 6) break;
    usleep(10000);
  }
  ASSERT_EQ(status["counters"]["start_reports"], 6) << agent.err();
  EXPECT_EQ(status["tracker"]["name"], "t1");

  // The same content as the table, with the documented keys.
  auto const flows = nlohmann::json::parse(modctl({"--json", "show", "flows"}).out);
  auto const table =
      SharedTableReader<MirrorOnDrop::Report::Key, MirrorOnDrop::Report::EntryStatus>::forTable(
          "reportStatus.entry", state.path())
          .snapshot();
  ASSERT_EQ(flows["count"], table.size());
  for (auto const& f : flows["flows"]) {
    for (char const* key : {"ip_proto", "src_ip", "dst_ip", "src_port", "dst_port", "type", "timestamp",
                            "data_size", "interfaces"})
      EXPECT_TRUE(f.contains(key)) << key;
  }
  EXPECT_NE(modctl({"show", "exact-match"}).out.find("true"), std::string::npos);

  // Clearing e1 leaves e2's collector as it was.
  EXPECT_EQ(modctl({"clear", "counters", "e1"}).status, 0);
  auto const collectors = nlohmann::json::parse(modctl({"--json", "show", "collectors"}).out)["collectors"];
  ASSERT_EQ(collectors.size(), 3u);
  for (auto const& c : collectors) EXPECT_EQ(c["start"], c["exporter"] == "e1" ? 0 : 6) << c.dump();

  // Malformed requests, a silent client and a refused peer do not disturb the agent.
  std::string const sock = state.path() + "/mod-agent.sock";
  RawClient silent(sock);
  ASSERT_TRUE(silent.connected());
  RawClient noisy(sock);
  std::vector<std::string> replies;
  for (int batch = 0; batch < 10;
       ++batch) {  // 1,000 in all, a hundred at a time, as a client reading replies
    std::string garbage;
    for (int i = 0; i < 100; ++i) garbage += (i % 2 ? "not json\n" : "{\"command\":\"fly\"}\n");
    auto const got = noisy.exchange(garbage, 100);
    replies.insert(replies.end(), got.begin(), got.end());
  }
  ASSERT_EQ(replies.size(), 1000u);
  EXPECT_NE(replies[0].find("unknown command \\\"fly\\\""), std::string::npos) << replies[0];
  EXPECT_NE(replies[1].find("\"ok\":false"), std::string::npos) << replies[1];
  // Each of these once ended the agent with SIGABRT.
  auto const crashers = noisy.exchange(
      "{\"command\": 5}\n{\"command\": null}\n{\"command\": [\"status\"]}\n{\"command\": {\"a\": 1}}\n"
      "{\"command\": true}\n{\"command\": 1.5}\n",
      6);
  ASSERT_EQ(crashers.size(), 6u);
  for (auto const& r : crashers) EXPECT_EQ(r, R"({"error":"command: expected a string","ok":false})");
  if (geteuid() == 0) {
    // The socket's mode (0660) already keeps strangers out; opened up by mistake, the credentials still do.
    chmod(state.path().c_str(), 0755);
    chmod(sock.c_str(), 0666);
    pid_t const child = fork();
    if (child == 0) {
      if (setgid(65534) != 0 || setuid(65534) != 0) _exit(3);
      RawClient stranger(sock);
      auto const reply = stranger.exchange("{\"command\":\"status\"}\n", 1);
      _exit(reply.size() == 1 && reply[0].find("permission denied") != std::string::npos ? 0 : 1);
    }
    int raw = 0;
    waitpid(child, &raw, 0);
    EXPECT_EQ(WEXITSTATUS(raw), 0) << "a peer without the rights was served";
  }
  EXPECT_EQ(modctl({"status"}).status, 0);

  auto const metrics = modctl({"metrics"});
  EXPECT_NE(
      metrics.out.find("mod_collector_reports_total{exporter=\"e2\",collector=\"c3\",type=\"start\"} 6"),
      std::string::npos)
      << metrics.out;
  EXPECT_NE(metrics.out.find("\nmod_state_tables_set_aside_total 0\n"), std::string::npos) << metrics.out;
  if (std::system("command -v promtool >/dev/null 2>&1") == 0) {
    write("metrics.txt", metrics.out);
    EXPECT_EQ(std::system(("promtool check metrics < " + file("metrics.txt")).c_str()), 0);
  }

  // Killed, the agent leaves its tables: modctl still shows them, and says plainly that nobody answers.
  agent.signal(SIGKILL);
  agent.wait(10);
  EXPECT_EQ(nlohmann::json::parse(modctl({"--json", "show", "flows"}).out)["count"], 6);
  auto const down = modctl({"status"});
  EXPECT_EQ(down.status, 3);  // "not running", as systemctl status says it
  EXPECT_NE(down.err.find("mod-agent is not running"), std::string::npos) << down.err;
  EXPECT_NE(modctl({"trace", "dump"}).out.find("ftName: 't1'"), std::string::npos);
}

// A table cut in half after a kill -9: the next agent sets it aside (with the tables holding entries of the
// same flows), says so, shows it in status and metrics, runs, and stops cleanly.
TEST_F(ModAgentTest, ATableCutShortAfterAKillIsSetAsideAndTheNextAgentStartsFresh) {
  capture({"--flows", "6", "--drops-per-flow", "1", "--seed", "4", "--family", "ipv4"});
  uint32_t const header[6] = {0xa1b2c3d4, 0x00040002, 0, 0, 65535, 1};  // a capture of no frame
  write("empty.pcap", std::string(reinterpret_cast<char const*>(header), sizeof header));
  std::string const first =
      write("1.toml", config("max", "t1", "active_interval = 0.2\ninactive_timeout = 60\n"));
  std::string const second =
      write("2.toml", config("max", "t1", "active_interval = 0.2\ninactive_timeout = 0.3\n", "empty.pcap"));
  for (std::string const table : {"reportStatus.entry", "collectorStatus", "emtConfig"}) {
    SCOPED_TRACE(table);
    for (auto const& e : std::filesystem::directory_iterator(state.path()))
      std::filesystem::remove_all(e.path());
    Program killed("mod-agent", {"--config", first}, work);
    std::map<Bytes, std::string> seen;
    for (int i = 0; i < 300 && seen.size() < 6; ++i, usleep(10000)) {
      for (auto const& [bytes, types] : byReport(decode(rx4.drain()))) seen[bytes] += types;
    }
    ASSERT_EQ(seen.size(), 6u) << killed.err();
    killed.signal(SIGKILL);
    ASSERT_EQ(killed.wait(10), 128 + SIGKILL);
    auto const size = std::filesystem::file_size(state.file(table));
    std::filesystem::resize_file(state.file(table), size / 2);

    Program agent("mod-agent", {"--config", second}, work);
    ASSERT_TRUE(agent.waitForErr("started: feature on", 10)) << agent.err();
    auto const status =
        nlohmann::json::parse(programRun("modctl", {"--state-dir", state.path(), "--json", "status"}).out);
    auto const& damaged = status["damaged_tables"];
    ASSERT_GE(damaged.size(), 1u);
    EXPECT_EQ(damaged[0]["table"], table);
    std::string const copy = damaged[0]["copy"];
    EXPECT_EQ(copy.rfind(state.path() + "/damaged-", 0), 0u);
    EXPECT_EQ(std::filesystem::file_size(copy), size / 2);
    EXPECT_NE(agent.err().find("table " + table + " is damaged (file is " + std::to_string(size / 2) +
                               " bytes, capacity 1024 needs " + std::to_string(size) + "): moved to " + copy),
              std::string::npos)
        << agent.err();
    auto const metrics = programRun("modctl", {"--state-dir", state.path(), "metrics"}).out;
    EXPECT_NE(metrics.find("\nmod_state_tables_set_aside_total " + std::to_string(damaged.size()) + "\n"),
              std::string::npos);
    usleep(500000);  // past the age-out
    agent.signal(SIGTERM);
    EXPECT_EQ(agent.wait(10), 0) << agent.err();
    // The flow tables go together, so a damaged one takes the flows with it (no STOP, and said so); the
    // collectors' counters hold no flows.
    EXPECT_EQ(byReport(decode(rx4.drain())).size(), table == "collectorStatus" ? 6u : 0u) << agent.err();
    if (table != "collectorStatus") {
      EXPECT_NE(agent.err().find("the flows it held cannot be closed with STOP reports"), std::string::npos);
    }
  }
}

// Damage found while running stops the agent at once with its own exit status and the table named; the next
// start sets the table aside and runs.
TEST_F(ModAgentTest, DamageFoundWhileRunningEndsTheAgentWithItsOwnStatusAndTheNextStartRecovers) {
  capture({"--flows", "2", "--drops-per-flow", "1", "--seed", "5"});
  std::string const conf =
      write("agent.toml", config("max", "t1", "active_interval = 0.2\ninactive_timeout = 60\n"));
  Program agent("mod-agent", {"--config", conf}, work);
  ASSERT_TRUE(agent.waitForErr("started: feature on", 10)) << agent.err();
  {
    std::fstream f(state.file("collectorStatus"), std::ios::in | std::ios::out | std::ios::binary);
    f.write("scribble", 8);  // over the magic
  }
  EXPECT_EQ(programRun("modctl", {"--state-dir", state.path(), "clear", "counters"}).status, 1);
  EXPECT_EQ(agent.wait(10), 3) << agent.err();
  EXPECT_NE(agent.err().find("SharedTable collectorStatus (" + state.file("collectorStatus") +
                             ") is corrupted: bad magic"),
            std::string::npos)
      << agent.err();
  EXPECT_NE(agent.err().find("; stopping (exit status 3"), std::string::npos);

  // The next start says it on stderr, in the trace log (a file this time) and in the ring trace.
  std::string const log = file("agent.log");
  std::string const withLog =
      config("max", "t1", "active_interval = 0.2\ninactive_timeout = 60\n") + "output = \"" + log + "\"\n";
  Program next("mod-agent", {"--config", write("next.toml", withLog)}, work);
  ASSERT_TRUE(next.waitForErr("started: feature on", 10)) << next.err();
  EXPECT_NE(next.err().find("table collectorStatus is damaged (bad magic"), std::string::npos) << next.err();
  std::ifstream in(log);
  std::string const logged((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  EXPECT_NE(logged.find("MOD-Agent 1 [ERROR] table collectorStatus is damaged (bad magic"), std::string::npos)
      << logged;
  auto const ring = programRun("modctl", {"--state-dir", state.path(), "trace", "dump"}).out;
  EXPECT_NE(ring.find("Damaged table set aside: collectorStatus -> " + state.path() + "/damaged-"),
            std::string::npos)
      << ring;
  next.signal(SIGTERM);
  EXPECT_EQ(next.wait(10), 0) << next.err();
}

// A state directory another user could change is refused before anything in it is opened.
TEST_F(ModAgentTest, AStateDirectoryOthersCanChangeIsRefusedAndNothingInItIsOpened) {
  capture({"--flows", "1", "--drops-per-flow", "1", "--seed", "1"});
  std::string const dir = work + "/state";
  auto const run = [&] {
    return programRun("mod-agent", {"--config", write("agent.toml", config()), "--state-dir", dir}, work, 10);
  };
  if (geteuid() == 0) {
    ASSERT_EQ(mkdir(dir.c_str(), 0777), 0);
    ASSERT_EQ(chmod(dir.c_str(), 0777), 0);
    ASSERT_EQ(chown(dir.c_str(), 65534, 65534), 0);
    auto const r = run();
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("refusing to use the state directory " + dir + ": it is owned by nobody"),
              std::string::npos)
        << r.err;
    EXPECT_FALSE(std::filesystem::exists(dir + "/mod-agent.lock"));
    std::filesystem::remove_all(dir);
  } else {
    std::cout << "skipped the directory made by another user: giving it to nobody needs root\n";
  }
  // A symlink in place of a table: refused, and the file it names is never opened (by the agent or modctl).
  ASSERT_EQ(mkdir(dir.c_str(), 0750), 0);
  std::string const target = write("root-only", "secret");
  ASSERT_EQ(symlink(target.c_str(), (dir + "/reportStatus.entry").c_str()), 0);
  int const watch = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  ASSERT_GE(inotify_add_watch(watch, target.c_str(), IN_OPEN | IN_ACCESS | IN_MODIFY), 0);
  auto const r = run();
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find(dir + "/reportStatus.entry is a symlink"), std::string::npos) << r.err;
  EXPECT_NE(programRun("modctl", {"--state-dir", dir, "show", "flows"}).status, 0);
  char events[4096];
  EXPECT_LE(read(watch, events, sizeof events), 0) << "the symlink's target was opened";
  close(watch);
}

// On the virtual clock nothing can make an unreadable capture readable: the replay ends with the reason at
// once instead of retrying while virtual time flies.
TEST_F(ModAgentTest, ACaptureThatCannotBeReadEndsAVirtualReplayWithItsReason) {
  write("drops.pcap", "not a capture at all, just text");
  auto const r = programRun("mod-agent", {"--config", write("agent.toml", config())}, work, 20);
  EXPECT_EQ(r.status, 1) << r.err;
  EXPECT_NE(r.err.find("cannot replay " + file("drops.pcap") + ": "), std::string::npos) << r.err;
}

}  // namespace
