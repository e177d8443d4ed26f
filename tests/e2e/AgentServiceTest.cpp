// mod-agent run as a service is run: stopped by a signal with flows live, stopped past its deadline, watched
// by systemd through $NOTIFY_SOCKET, scraped over HTTP, with a capture that cannot open, a collector it
// cannot reach and (as root) a burst its capture cannot keep up with. The real binaries throughout; reports
// are received on loopback by the test's own collector.
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <vector>

#include "mirror_on_drop/MirrorOnDropReport.h"
#include "platform/shm/SharedTableReader.h"
#include "testkit/NetNs.h"
#include "testkit/TempStateDir.h"
#include "tests/support/LoopbackReceiver.h"
#include "tests/support/Program.h"

using Calyx::Test::Program;
using Calyx::Test::programRun;
using nlohmann::json;

namespace {

using Bytes = std::vector<uint8_t>;

class AgentServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(rx.bound());
    char dir[] = "/tmp/agent-service-test-XXXXXX";
    ASSERT_TRUE(mkdtemp(dir));
    work = dir;
  }
  void TearDown() override { std::filesystem::remove_all(work); }

  std::string file(std::string const& name) const { return work + "/" + name; }
  void capture(std::string const& flows, std::string const& name = "drops.pcap") {
    auto const r = programRun("mod-gen", {"--out", file(name), "--flows", flows, "--drops-per-flow", "1",
                                          "--family", "ipv4", "--seed", "11"});
    ASSERT_EQ(r.status, 0) << r.err;
  }
  // A replay as fast as it goes on the real clock, flows kept a minute; extra goes at the end.
  std::string config(std::string const& extra = {}, std::string const& agent = {},
                     std::string const& capture =
                         "replay = \"drops.pcap\"\nreplay_interface = "
                         "\"Ethernet1\"\nreplay_clock = \"max\"\n") const {
    return "[agent]\nstate_dir = \"" + state.path() + "\"\n" + agent + "[capture]\n" + capture +
           "[flow_tracking.trackers.t1]\nactive_interval = 0.2\ninactive_timeout = 60\n"
           "[flow_tracking.trackers.t1.exporters.e1]\nsource_ipv4 = \"127.0.0.1\"\n"
           "collectors = { c1 = \"127.0.0.1:" +
           std::to_string(rx.port()) + "\" }\n" + extra;
  }
  std::string write(std::string const& name, std::string const& text) const {
    std::ofstream(file(name)) << text;
    return file(name);
  }
  json status() const {
    auto const r = programRun("modctl", {"status", "--json", "--state-dir", state.path()});
    return r.status == 0 ? json::parse(r.out) : json();
  }
  // Waits until the agent's status satisfies done (10 s at most); the last status seen.
  json statusWhen(std::function<bool(json const&)> const& done) const {
    json s;
    for (int i = 0; i < 500; ++i) {
      s = status();
      if (s.is_object() && done(s)) break;
      usleep(20000);
    }
    return s;
  }
  // Per report, the types that arrived ("S" START, "P" STOP), gathered until want reports each have n types.
  std::map<Bytes, std::string> reports(size_t want, size_t n, double seconds = 5) {
    for (int i = 0; i < int(seconds * 100); ++i) {
      for (auto const& d : rx.drain())
        got[Bytes(d.bytes.begin() + 1, d.bytes.end())] += d.bytes.at(0) == 0 ? "S" : "P";
      size_t complete = 0;
      for (auto const& [r, types] : got) complete += types.size() >= n;
      if (got.size() >= want && complete >= want) break;
      usleep(10000);
    }
    return got;
  }
  size_t flowsInTable() const {
    return Calyx::SharedTableReader<MirrorOnDrop::Report::Key, MirrorOnDrop::Report::EntryStatus>::forTable(
               "reportStatus.entry", state.path())
        .count();
  }

  Calyx::Test::TempStateDir state;
  Calyx::Test::LoopbackReceiver rx{AF_INET};
  std::map<Bytes, std::string> got;
  std::string work;
};

TEST_F(AgentServiceTest, SigtermSendsEveryLiveFlowsStopBeforeTheAgentEnds) {
  capture("7");
  Program agent("mod-agent", {"--config", write("a.toml", config())}, work);
  ASSERT_EQ(reports(7, 1).size(), 7u) << agent.err();
  for (auto const& [r, types] : got) ASSERT_EQ(types, "S");
  agent.signal(SIGTERM);
  ASSERT_EQ(agent.wait(10), 0) << agent.err();
  // Everything arrived before the agent ended: what is waiting now is all there will be.
  for (auto const& d : rx.drain())
    got[Bytes(d.bytes.begin() + 1, d.bytes.end())] += d.bytes.at(0) ? "P" : "S";
  ASSERT_EQ(got.size(), 7u);
  for (auto const& [r, types] : got) EXPECT_EQ(types, "SP");
  EXPECT_NE(agent.err().find("reports START 7, STOP 7"), std::string::npos) << agent.err();
  EXPECT_NE(agent.err().find("stop: 7 flows closed, 0 left"), std::string::npos) << agent.err();
  EXPECT_NE(agent.err().find("collector bytes"), std::string::npos);
  EXPECT_EQ(flowsInTable(), 0u);
}

// stop_timeout = 0: the deadline has passed before the turn-off can send anything. The flows stay in the
// tables, as after a kill -9, and the next agent on the directory stops them without starting them again.
TEST_F(AgentServiceTest, AStopPastItsDeadlineLeavesTheFlowsForTheNextAgent) {
  capture("5");
  {
    std::ofstream empty(file("empty.pcap"), std::ios::binary);
    uint32_t const header[6] = {0xa1b2c3d4, 0x00040002, 0, 0, 65535, 1};
    empty.write(reinterpret_cast<char const*>(header), sizeof header);
  }
  Program first("mod-agent", {"--config", write("a.toml", config({}, "stop_timeout = 0\n"))}, work);
  ASSERT_EQ(reports(5, 1).size(), 5u) << first.err();
  first.signal(SIGTERM);
  ASSERT_EQ(first.wait(10), 0) << first.err();
  EXPECT_NE(first.err().find("stop: 0 flows closed, 5 left (stop_timeout (0 s) passed; the next agent"),
            std::string::npos)
      << first.err();
  EXPECT_EQ(flowsInTable(), 5u);

  std::string second = config({}, {}, "replay = \"empty.pcap\"\nreplay_interface = \"Ethernet1\"\n");
  second.replace(second.find("inactive_timeout = 60"), 21, "inactive_timeout = 0.2");
  Program next("mod-agent", {"--config", write("b.toml", second)}, work);
  reports(5, 2);
  next.signal(SIGTERM);
  ASSERT_EQ(next.wait(10), 0) << next.err();
  ASSERT_EQ(got.size(), 5u) << next.err();
  for (auto const& [r, types] : got) EXPECT_EQ(types, "SP");  // the STOP only from the second agent
  EXPECT_EQ(flowsInTable(), 0u);
}

// systemd's side of Type=notify: a datagram socket the test listens on, as $NOTIFY_SOCKET.
class NotifySocket {
 public:
  explicit NotifySocket(std::string path) : path_(std::move(path)) {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::snprintf(a.sun_path, sizeof a.sun_path, "%s", path_.c_str());
    bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  }
  ~NotifySocket() {
    close(fd_);
    unlink(path_.c_str());
  }
  bool bound() const { return bound_; }
  // Every message that arrives within seconds, until one holds text.
  std::vector<std::string> until(std::string const& text, double seconds) {
    for (int i = 0; i < int(seconds * 100); ++i) {
      char buffer[4096];
      ssize_t const n = recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
      if (n > 0) {
        messages.emplace_back(buffer, size_t(n));
        if (messages.back().find(text) != std::string::npos) break;
      } else {
        usleep(10000);
      }
    }
    return messages;
  }
  std::vector<std::string> messages;

 private:
  std::string path_;
  int fd_ = -1;
  bool bound_ = false;
};

TEST_F(AgentServiceTest, TheServiceManagerHearsReadyStatusWatchdogAndStopping) {
  capture("3");
  NotifySocket systemd(file("notify.sock"));
  ASSERT_TRUE(systemd.bound());
  setenv("NOTIFY_SOCKET", file("notify.sock").c_str(), 1);
  setenv("WATCHDOG_USEC", "400000", 1);  // a ping every 0.2 s
  Program agent("mod-agent", {"--config", write("a.toml", config())}, work);
  unsetenv("NOTIFY_SOCKET");
  unsetenv("WATCHDOG_USEC");
  auto const heard = systemd.until("WATCHDOG=1", 10);
  ASSERT_FALSE(heard.empty()) << agent.err();
  EXPECT_EQ(heard.front().rfind("READY=1\nSTATUS=feature on", 0), 0u) << heard.front();
  EXPECT_NE(heard.back().find("WATCHDOG=1"), std::string::npos) << agent.err();
  agent.signal(SIGTERM);
  ASSERT_EQ(agent.wait(10), 0);
  bool stopping = false;
  for (auto const& m : systemd.until("STOPPING=1", 2)) stopping |= m.find("STOPPING=1\nSTATUS=stopping") == 0;
  EXPECT_TRUE(stopping);
}

// A capture that cannot open (no such device as root, no permission otherwise) is not a healthy agent: said
// in the log, by modctl status and by the metrics, which the agent serves over HTTP as modctl prints them.
TEST_F(AgentServiceTest, AMissingInterfaceIsShownFailedAndTheMetricsAreServedOverHttp) {
  Program agent("mod-agent",
                {"--config", write("a.toml", config("[metrics]\nlisten = \"127.0.0.1:0\"\n", {},
                                                    "interfaces = [\"calyxnodev9\"]\n"))},
                work);
  ASSERT_TRUE(agent.waitForErr("degraded: capture on calyxnodev9 failed:", 10)) << agent.err();
  json const s = statusWhen([](json const& j) { return j["captures"][0]["state"] == "failed"; });
  EXPECT_EQ(s["health"], "degraded");
  EXPECT_EQ(s["captures"][0]["interface"], "calyxnodev9");
  auto const text = programRun("modctl", {"status", "--state-dir", state.path()});
  EXPECT_EQ(text.status, 0);
  EXPECT_EQ(text.out.rfind("health: DEGRADED: capture on calyxnodev9 failed: ", 0), 0u) << text.out;
  EXPECT_NE(text.out.find("capture: calyxnodev9 failed ("), std::string::npos) << text.out;

  std::smatch where;
  std::string const log = agent.err();
  ASSERT_TRUE(std::regex_search(log, where, std::regex("metrics at http://127.0.0.1:([0-9]+)/metrics")));
  httplib::Client http("127.0.0.1", std::stoi(where[1]));
  auto const scraped = http.Get("/metrics");
  ASSERT_TRUE(scraped) << httplib::to_string(scraped.error());
  EXPECT_EQ(scraped->status, 200);
  EXPECT_EQ(scraped->get_header_value("Content-Type").rfind("text/plain; version=0.0.4", 0), 0u);
  std::string const& body = scraped->body;
  EXPECT_NE(body.find("mod_agent_up 1\n"), std::string::npos) << body;
  EXPECT_NE(body.find("mod_agent_healthy 0\n"), std::string::npos) << body;
  EXPECT_NE(body.find("mod_capture_state{interface=\"calyxnodev9\",state=\"failed\"} 1\n"),
            std::string::npos);
  EXPECT_NE(body.find("mod_flows_refused_total 0\n"), std::string::npos);
  EXPECT_EQ(http.Get("/nothing")->status, 404);
  // The same families, in the same order, as modctl metrics prints (the values may have moved meanwhile).
  auto const familiesOf = [](std::string const& t) {
    std::vector<std::string> out;
    std::istringstream is(t);
    for (std::string l; std::getline(is, l);)
      if (l.rfind("# TYPE ", 0) == 0) out.push_back(l);
    return out;
  };
  EXPECT_EQ(familiesOf(body), familiesOf(programRun("modctl", {"metrics", "--state-dir", state.path()}).out));
  if (std::system("command -v promtool >/dev/null 2>&1") == 0) {
    write("metrics.txt", body);
    EXPECT_EQ(std::system(("promtool check metrics < " + file("metrics.txt")).c_str()), 0) << body;
  }
  agent.signal(SIGTERM);
  EXPECT_EQ(agent.wait(10), 0);
  EXPECT_NE(agent.err().find("capture calyxnodev9 frames 0, kernel drops 0 (failed: "), std::string::npos)
      << agent.err();
}

// An exporter whose source address is not this host's cannot send: its collector's errors are counted, and
// named, apart from the collector of the exporter that works.
TEST_F(AgentServiceTest, ASendErrorIsCountedForItsCollector) {
  capture("4");
  std::string const text = config(
      "[flow_tracking.trackers.t1.exporters.e2]\nsource_ipv4 = \"192.0.2.1\"\n"
      "collectors = { c9 = \"127.0.0.1:" +
      std::to_string(rx.port()) + "\" }\n");
  Program agent("mod-agent", {"--config", write("a.toml", text)}, work);
  ASSERT_EQ(reports(4, 1).size(), 4u) << agent.err();
  json collectors;
  for (int i = 0; i < 300; ++i) {
    auto const r = programRun("modctl", {"show", "collectors", "--json", "--state-dir", state.path()});
    collectors = json::parse(r.out)["collectors"];
    if (collectors.size() == 2 && collectors[1]["send_errors"] == 4) break;
    usleep(10000);
  }
  ASSERT_EQ(collectors.size(), 2u);
  EXPECT_EQ(collectors[0]["exporter"], "e1");
  EXPECT_EQ(collectors[0]["send_errors"], 0);
  EXPECT_EQ(collectors[1]["collector"], "c9");
  EXPECT_EQ(collectors[1]["send_errors"], 4);
  EXPECT_EQ(collectors[1]["start"], 0);
  auto const metrics = programRun("modctl", {"metrics", "--state-dir", state.path()}).out;
  EXPECT_NE(metrics.find("mod_collector_send_errors_total{exporter=\"e2\",collector=\"c9\"} 4"),
            std::string::npos)
      << metrics;
  EXPECT_TRUE(agent.waitForErr("collector e2/c9: ", 5)) << agent.err();
  agent.signal(SIGTERM);
  EXPECT_EQ(agent.wait(10), 0);
  EXPECT_NE(agent.err().find("send errors 8 (e2/c9 8 ("), std::string::npos)
      << agent.err();  // START and STOP
}

// A burst on a veth pair into a capture with a small ring: what the kernel could not hand over is counted,
// and with what was captured it makes up every frame sent. The agent runs as the unit runs it: a user of its
// own (nobody here) with CAP_NET_RAW alone, which it keeps; its files are its own, 0640.
TEST_F(AgentServiceTest, KernelDropsOfABurstAreCountedByAnAgentWithOnlyCapNetRaw) {
  if (auto why = Calyx::NetNs::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
  Calyx::NetNs ns;
  ASSERT_TRUE(ns.ok());
  ASSERT_EQ(chown(state.path().c_str(), 65534, 65534), 0);
  std::string text = config({}, {}, "interfaces = [\"" + ns.b() + "\"]\nbuffer_size = 65536\n");
  std::string const port = std::to_string(rx.port());
  text.replace(text.find(port), port.size(), "9");  // inside the namespace, nobody needs the reports
  chmod(work.c_str(), 0755);
  Program agent("ip",
                {"netns", "exec", ns.name(), "setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                 "--inh-caps=+net_raw", "--ambient-caps=+net_raw", Program::path("mod-agent"), "--config",
                 write("l.toml", text)},
                work);
  ASSERT_TRUE(agent.waitForErr("capabilities: kept cap_net_raw", 10)) << agent.err();
  ASSERT_TRUE(ns.run(Program::path("mod-gen") + " --interface " + ns.a() +
                     " --rate 0 --flows 20000 --drops-per-flow 1 --seed 2"));
  json s = statusWhen([](json const& j) {
    auto const& c = j["captures"][0];
    return c["frames"].get<uint64_t>() + c["kernel_drops"].get<uint64_t>() >= 20000;
  });
  auto const& c = s["captures"][0];
  EXPECT_EQ(c["state"], "up");
  EXPECT_GT(c["kernel_drops"].get<uint64_t>(), 0u) << s.dump();
  EXPECT_EQ(c["frames"].get<uint64_t>() + c["kernel_drops"].get<uint64_t>(), 20000u) << s.dump();
  EXPECT_EQ(s["capabilities"], "cap_net_raw=ep");
  struct stat st {};
  ASSERT_EQ(stat((state.path() + "/reportStatus.entry").c_str(), &st), 0);
  EXPECT_EQ(st.st_uid, 65534u);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  agent.signal(SIGTERM);
  EXPECT_EQ(agent.wait(20), 0);
  EXPECT_NE(agent.err().find(", kernel drops " + std::to_string(c["kernel_drops"].get<uint64_t>())),
            std::string::npos)
      << agent.err();
}

}  // namespace
