// mod-collector, driven as a program: it listens on loopback ports it picks itself, the test sends it report
// datagrams and reads what it prints through pipes.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "platform/io/UdpPam.h"
#include "platform/types/PktManager.h"
#include "tests/support/LoopbackReceiver.h"
#include "tools/common/DropFrameBuilder.h"

extern char** environ;

namespace {

using Bytes = std::vector<uint8_t>;

// Lines of one pipe, read with a deadline so that a collector that prints nothing fails the test instead of
// hanging.
class LineReader {
 public:
  explicit LineReader(int fd) : fd_(fd) {}
  std::optional<std::string> line(int timeoutMs = 5000) {
    for (;;) {
      size_t const nl = buf_.find('\n');
      if (nl != std::string::npos) {
        std::string l = buf_.substr(0, nl);
        buf_.erase(0, nl + 1);
        return l;
      }
      if (eof_) return std::nullopt;
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, timeoutMs) != 1) return std::nullopt;
      char chunk[4096];
      ssize_t const n = read(fd_, chunk, sizeof chunk);
      if (n <= 0) eof_ = true;
      if (n > 0) buf_.append(chunk, static_cast<size_t>(n));
    }
  }
  // Every line left until the writer closes the pipe.
  std::vector<std::string> rest() {
    std::vector<std::string> lines;
    while (auto l = line()) lines.push_back(*l);
    return lines;
  }

 private:
  int fd_;
  std::string buf_;
  bool eof_ = false;
};

class Collector {
 public:
  explicit Collector(std::vector<std::string> args) {
    int out[2], err[2];
    EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(err, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    std::string const program = programPath();
    args.insert(args.begin(), program);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    int const rc = posix_spawnp(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    EXPECT_EQ(rc, 0) << "cannot start " << program;
    close(out[1]);
    close(err[1]);
    outFd_ = out[0];
    errFd_ = err[0];
    outLines_ = LineReader(outFd_);
    errLines_ = LineReader(errFd_);
  }
  ~Collector() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    close(outFd_);
    close(errFd_);
  }

  // Reads the "listening on ADDR:PORT" lines, one per --listen; returns the ports in order.
  std::vector<uint16_t> ports(size_t n) {
    std::vector<uint16_t> ports;
    while (ports.size() < n) {
      auto l = errLines_.line();
      if (!l) break;
      size_t const colon = l->rfind(':');
      if (l->rfind("listening on ", 0) == 0 && colon != std::string::npos) {
        ports.push_back(static_cast<uint16_t>(std::stoi(l->substr(colon + 1))));
      }
    }
    return ports;
  }
  LineReader& stdoutLines() { return outLines_; }
  LineReader& stderrLines() { return errLines_; }
  void signal(int signo) { kill(pid_, signo); }
  // The exit status once the program ends (after its pipes reached their end).
  int exitCode() {
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  // ctest puts the tools on PATH and names the build folder; run by hand, the folder decides.
  static std::string programPath() {
    char const* build = std::getenv("CALYX_BUILD_DIR");
    return build ? std::string(build) + "/tools/mod-collector" : "mod-collector";
  }

  pid_t pid_ = -1;
  int outFd_ = -1;
  int errFd_ = -1;
  LineReader outLines_{-1};
  LineReader errLines_{-1};
};

// Sends datagrams to loopback through the platform's UDP transmit, one socket per family, and tells the port
// they came from (0 when the send failed).
class Sender {
 public:
  Sender() {
    v6_->ipv6EnIs(true);
    for (auto* p : {&v4_, &v6_}) (*p)->modeIs(Calyx::UdpPam::kModeTransmit);
    v4_->txDstIpAddrIs(Calyx::Ip4Addr::fromHost(INADDR_LOOPBACK));
    v6_->txDstIp6AddrIs(*Calyx::Ip6Addr::parse("::1"));
  }
  uint16_t send(int af, uint16_t port, Bytes const& datagram) {
    Calyx::Ptr<Calyx::UdpPam> const& pam = af == AF_INET6 ? v6_ : v4_;
    Calyx::Ptr<Calyx::Pkt> pkt = Calyx::PktManager::global().newPkt();
    pkt->assign(datagram.data(), datagram.size());
    pam->txPortIs(port);
    pam->txPktIs(pkt);
    if (pam->errno_() != 0) return 0;
    sockaddr_storage self{};
    socklen_t len = sizeof self;
    getsockname(pam->fd(), reinterpret_cast<sockaddr*>(&self), &len);
    return ntohs(
        reinterpret_cast<sockaddr_in*>(&self)->sin_port);  // the port sits at the same place for IPv6
  }

 private:
  Calyx::Ptr<Calyx::UdpPam> v4_ = Calyx::make<Calyx::UdpPam>("v4");
  Calyx::Ptr<Calyx::UdpPam> v6_ = Calyx::make<Calyx::UdpPam>("v6");
};

void put16(Bytes& b, uint16_t v) {
  b.push_back(uint8_t(v >> 8));
  b.push_back(uint8_t(v));
}
void put32(Bytes& b, uint32_t v) {
  put16(b, uint16_t(v >> 16));
  put16(b, uint16_t(v));
}

// A report: type, timestamp, four reason words, then the sample with its size byte in front.
Bytes report(uint8_t type, uint64_t ts, std::array<uint32_t, 4> reason, Bytes const& sample) {
  Bytes b{type};
  put32(b, uint32_t(ts >> 32));
  put32(b, uint32_t(ts));
  for (uint32_t w : reason) put32(b, w);
  b.push_back(static_cast<uint8_t>(sample.size()));
  b.insert(b.end(), sample.begin(), sample.end());
  return b;
}

// A dropped frame of 64 bytes: VLANs 100 (priority 1) and 200, IPv4 TCP 10.0.0.1:1234 -> 10.0.0.2:80.
Bytes ipv4TcpSample() {
  Calyx::DropFlow flow{*Calyx::EthAddr::parse("02:00:00:00:00:01"),
                       *Calyx::EthAddr::parse("02:00:00:00:00:02"),
                       {0x2064, 200},
                       *Calyx::IpGenAddr::parse("10.0.0.1"),
                       *Calyx::IpGenAddr::parse("10.0.0.2"),
                       6,
                       1234,
                       80};
  return Calyx::DropFrameBuilder::droppedFrame(flow, 64);
}

// A dropped frame of 68 bytes: IPv6 UDP 2001:db8::1:5353 -> 2001:db8::2:53, no VLAN.
Bytes ipv6UdpSample() {
  Calyx::DropFlow flow{*Calyx::EthAddr::parse("33:33:00:00:00:01"),
                       *Calyx::EthAddr::parse("02:00:00:00:00:03"),
                       {},
                       *Calyx::IpGenAddr::parse("2001:db8::1"),
                       *Calyx::IpGenAddr::parse("2001:db8::2"),
                       17,
                       5353,
                       53};
  return Calyx::DropFrameBuilder::droppedFrame(flow, 68);
}

TEST(ModCollectorTest, ReportsOfBothFamiliesDecodeToTheDocumentedJson) {
  bool const v6 = Calyx::Test::LoopbackReceiver(AF_INET6).bound();
  std::vector<std::string> args = {"--listen", "127.0.0.1:0", "--json", "--count", v6 ? "3" : "2"};
  if (v6) args.insert(args.end(), {"--listen", "[::1]:0"});
  Collector c(args);
  auto ports = c.ports(v6 ? 2 : 1);
  ASSERT_EQ(ports.size(), v6 ? 2u : 1u);

  Sender sender;
  uint16_t from = 0;
  from = sender.send(AF_INET, ports[0], report(0, 0x0102030405060708, {1, 2, 3, 255}, ipv4TcpSample()));
  ASSERT_NE(from, 0);
  EXPECT_EQ(c.stdoutLines().line(),
            "{\"type\":\"START\",\"timestamp\":72623859790382856,"
            "\"reason\":\"0x000000010000000200000003000000ff\",\"data_size\":64,"
            "\"dst_mac\":\"02:00:00:00:00:01\",\"src_mac\":\"02:00:00:00:00:02\",\"ethertype\":33024,"
            "\"vlans\":[100,200],\"flow\":{\"ip_proto\":6,\"src_ip\":\"10.0.0.1\",\"dst_ip\":\"10.0.0.2\","
            "\"src_port\":1234,\"dst_port\":80},\"from\":\"127.0.0.1:" +
                std::to_string(from) + "\"}");

  from = sender.send(AF_INET, ports[0], report(0, 7, {0, 0, 0, 0}, {}));
  ASSERT_NE(from, 0);
  EXPECT_EQ(c.stdoutLines().line(),
            "{\"type\":\"START\",\"timestamp\":7,\"reason\":\"0x00000000000000000000000000000000\","
            "\"data_size\":0,\"from\":\"127.0.0.1:" +
                std::to_string(from) + "\"}");

  if (v6) {
    from = sender.send(AF_INET6, ports[1], report(1, 9, {0, 0, 0, 0x80000000}, ipv6UdpSample()));
    ASSERT_NE(from, 0);
    EXPECT_EQ(c.stdoutLines().line(),
              "{\"type\":\"STOP\",\"timestamp\":9,\"reason\":\"0x00000000000000000000000080000000\","
              "\"data_size\":68,\"dst_mac\":\"33:33:00:00:00:01\",\"src_mac\":\"02:00:00:00:00:03\","
              "\"ethertype\":34525,\"vlans\":[],\"flow\":{\"ip_proto\":17,\"src_ip\":\"2001:db8::1\","
              "\"dst_ip\":\"2001:db8::2\",\"src_port\":5353,\"dst_port\":53},\"from\":\"[::1]:" +
                  std::to_string(from) + "\"}");
  }

  EXPECT_EQ(c.stdoutLines().rest(), std::vector<std::string>{});
  std::string const summary = c.stderrLines().rest().at(0);
  EXPECT_EQ(summary, v6 ? "summary: 3 reports (START 2, STOP 1), 0 rejected"
                        : "summary: 2 reports (START 2, STOP 0), 0 rejected");
  EXPECT_EQ(c.exitCode(), 0);
}

TEST(ModCollectorTest, MalformedDatagramsAreReportedOnStderrOnly) {
  Collector c({"--listen", "127.0.0.1:0", "--json", "--count", "1"});
  auto ports = c.ports(1);
  ASSERT_EQ(ports.size(), 1u);

  Bytes wrongLength = report(0, 1, {}, Bytes(10, 0));
  wrongLength.resize(wrongLength.size() + 4);
  Bytes tooLarge = report(0, 1, {}, Bytes(81, 0));
  std::vector<Bytes> bad = {Bytes(10, 0), wrongLength, report(2, 1, {}, {}), tooLarge, Bytes(25, 0)};
  Sender sender;
  for (Bytes const& d : bad) ASSERT_NE(sender.send(AF_INET, ports[0], d), 0);
  ASSERT_NE(sender.send(AF_INET, ports[0], report(1, 5, {}, {})), 0);

  std::vector<std::string> out = c.stdoutLines().rest();
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].rfind("{\"type\":\"STOP\",\"timestamp\":5,", 0), 0u) << out[0];

  std::vector<std::string> err = c.stderrLines().rest();
  std::vector<std::string> kinds;
  for (std::string const& l : err) {
    if (l.rfind("rejected datagram from 127.0.0.1:", 0) == 0) kinds.push_back(l.substr(l.find(": ") + 2));
  }
  EXPECT_EQ(kinds, (std::vector<std::string>{
                       "short datagram: 10 bytes, a report has at least 26",
                       "wrong length: 40 bytes, data size 10 needs 36",
                       "bad report type: 2, expected 0 (START) or 1 (STOP)",
                       "data size too large: 81, at most 80",
                       "short datagram: 25 bytes, a report has at least 26",
                   }));
  ASSERT_FALSE(err.empty());
  EXPECT_NE(std::find(err.begin(), err.end(), "summary: 1 reports (START 0, STOP 1), 5 rejected"), err.end());
  EXPECT_EQ(c.exitCode(), 0);
}

TEST(ModCollectorTest, ReadableLinesAndStopByDuration) {
  // Long enough that a slow start (a sanitizer build on a loaded machine) still reads the datagram in time.
  Collector c({"--listen", "127.0.0.1:0", "--duration", "2", "--summary", "flows"});
  auto ports = c.ports(1);
  ASSERT_EQ(ports.size(), 1u);
  Bytes cut = ipv4TcpSample();
  cut.resize(14 + 8 + 20 + 2);  // the ports are cut in half: the flow keeps its addresses, ports 0
  ASSERT_NE(Sender().send(AF_INET, ports[0], report(0, 42, {0, 0, 0, 1}, cut)), 0);
  auto line = c.stdoutLines().line();
  ASSERT_TRUE(line);
  EXPECT_NE(line->find("START"), std::string::npos) << *line;
  EXPECT_NE(line->find("ts=42"), std::string::npos) << *line;
  EXPECT_NE(line->find("vlans=100,200"), std::string::npos) << *line;
  EXPECT_NE(line->find("flow=TCP 10.0.0.1:0 -> 10.0.0.2:0"), std::string::npos) << *line;

  EXPECT_TRUE(c.stdoutLines().rest().empty());  // ends by itself
  std::vector<std::string> err = c.stderrLines().rest();
  ASSERT_FALSE(err.empty());
  EXPECT_EQ(err[0], "summary: 1 reports (START 1, STOP 0), 0 rejected");
  EXPECT_EQ(err.at(2), "  TCP 10.0.0.1:0 -> 10.0.0.2:0: START 1, STOP 0");
  EXPECT_EQ(c.exitCode(), 0);
}

TEST(ModCollectorTest, SigtermStopsItWithTheSummaryItWasAskedFor) {
  Collector c({"--listen", "127.0.0.1:0"});
  ASSERT_EQ(c.ports(1).size(), 1u);
  c.signal(SIGTERM);
  std::vector<std::string> err = c.stderrLines().rest();
  EXPECT_EQ(err, std::vector<std::string>{"summary: 0 reports (START 0, STOP 0), 0 rejected"});
  EXPECT_EQ(c.exitCode(), 0);

  Collector quiet({"--listen", "127.0.0.1:0", "--summary", "none"});
  ASSERT_EQ(quiet.ports(1).size(), 1u);
  quiet.signal(SIGTERM);
  EXPECT_EQ(quiet.stderrLines().rest(), std::vector<std::string>{});
  EXPECT_EQ(quiet.exitCode(), 0);
}

TEST(ModCollectorTest, BadArgumentsFailWithAMessage) {
  Collector bad({"--listen", "localhost"});
  auto err = bad.stderrLines().rest();
  ASSERT_FALSE(err.empty());
  EXPECT_NE(err[0].find("--listen: bad address 'localhost'"), std::string::npos) << err[0];
  EXPECT_EQ(bad.exitCode(), 2);
  for (auto const& [args, expected] : std::vector<std::pair<std::vector<std::string>, std::string>>{
           {{"--summary", "some"}, "--summary: Check some value in {"},
           {{"--http", "8080"}, "--http requires --db"},
           {{"--db", "x.db", "--retain", "7 days"}, "--retain: bad duration '7 days'"},
           {{"--json", "--quiet"}, "--json excludes --quiet"}}) {
    std::vector<std::string> all = {"--listen", "127.0.0.1:0"};
    all.insert(all.end(), args.begin(), args.end());
    Collector wrong(all);
    auto lines = wrong.stderrLines().rest();
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(lines[0].find(expected), std::string::npos) << lines[0];
    EXPECT_EQ(wrong.exitCode(), 2);
  }

  Collector help({"--help"});
  auto out = help.stdoutLines().rest();
  ASSERT_FALSE(out.empty());
  EXPECT_EQ(out[0].rfind("mod-collector: receives", 0), 0u);
  std::string all;
  for (auto const& l : out) all += l + "\n";
  for (char const* option : {"--listen", "--json", "--count", "--duration", "--quiet", "--summary", "--db",
                             "--retain", "--queue", "--http", "mod-collector query --help"}) {
    EXPECT_NE(all.find(option), std::string::npos) << option;
  }
  EXPECT_EQ(help.exitCode(), 0);
}

}  // namespace
