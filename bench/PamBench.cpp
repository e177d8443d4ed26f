// Frames per second taken through a live Pam on a veth pair, beside tcpdump running the same filter on the
// same traffic (root only; skipped otherwise). A sender thread pushes bursts of mirrored drop frames, with
// some frames of another EtherType mixed in, into one end of the pair; the Pam and tcpdump both capture the
// other end.
//
// Counters: pam_fps (frames the Pam took per second while
// frames flowed), pam_vs_tcpdump (frames the Pam took / frames
// tcpdump captured: 1.0 means both kept up), pam_missed and tcpdump_missed (frames
// sent but not captured), and
// cpu_pam_vs_tcpdump (CPU seconds the Pam's thread spent per frame / CPU seconds tcpdump spent per frame,
// lower is better).

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/core/EventLoop.h"
#include "platform/io/LivePam.h"
#include "platform/io/PcapFrameSender.h"
#include "testkit/NetNs.h"
#include "tools/common/DropFrameBuilder.h"

using namespace Calyx;

namespace {

constexpr int kBurst = 20000;

class Counting : public Pam::Reactor {
 public:
  explicit Counting(Ptr<Pam const> pam) : Reactor(pam), pam_(std::move(pam)) {}
  void handleReadable() override {
    while (Ptr<Pkt> pkt = pam_->rxPkt()) benchmark::DoNotOptimize(++taken);
  }
  uint64_t taken = 0;

 private:
  Ptr<Pam const> pam_;
};

// tcpdump inside the namespace, writing to /dev/null, with the Pam's filter, ring size and snap length.
class Tcpdump {
 public:
  Tcpdump(NetNs const& ns, std::string const& device)
      : errPath_("/tmp/calyx-pambench-" + std::to_string(getpid())) {
    pid_ = fork();
    if (pid_ == 0) {
      int const fd = open(errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(fd, 2);
      execlp("ip", "ip", "netns", "exec", ns.name().c_str(), "tcpdump", "-i", device.c_str(), "-w",
             "/dev/null", "--immediate-mode", "-B", "8192", "-s", "4096", "-Q", "in", "ether proto 0x1042",
             nullptr);
      _exit(127);
    }
    // Wait until it listens, so that it sees the same traffic from the first frame.
    for (int i = 0; i < 100 && stderrText().find("listening on") == std::string::npos; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }
  ~Tcpdump() { stop(); }

  double cpuSeconds() const {
    std::ifstream stat("/proc/" + std::to_string(pid_) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    double ticks = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
      if (i == 14 || i == 15) ticks += std::stod(field);  // utime, stime
    }
    return ticks / double(sysconf(_SC_CLK_TCK));
  }
  // Stops it and returns what it says it captured.
  uint64_t stop() {
    if (pid_ > 0) {
      kill(pid_, SIGINT);
      waitpid(pid_, nullptr, 0);
      pid_ = -1;
      std::smatch m;
      std::string const text = stderrText();
      if (std::regex_search(text, m, std::regex("(\\d+) packets? captured"))) captured_ = std::stoull(m[1]);
      unlink(errPath_.c_str());
    }
    return captured_;
  }

 private:
  std::string stderrText() const {
    std::ifstream in(errPath_);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  }
  std::string errPath_;
  pid_t pid_ = -1;
  uint64_t captured_ = 0;
};

double threadCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

std::vector<std::vector<uint8_t>> trafficMake() {
  std::vector<std::vector<uint8_t>> frames;
  for (uint16_t i = 0; i < 64; ++i) {
    DropFlow flow;
    flow.dMac.bytes = {2, 0, 0, 0, 0, 1};
    flow.sMac.bytes = {2, 0, 0, 0, 0, 2};
    flow.srcIp = Ip4Addr::fromHost(0x0a000000u + i);
    flow.dstIp = Ip4Addr::fromHost(0x0a010000u + i);
    flow.srcPort = uint16_t(1000 + i);
    flow.dstPort = 443;
    frames.push_back(i % 8 == 7 ? DropFrameBuilder::malformedFrame(MalformedKind::wrongEtherType, flow, i)
                                : DropFrameBuilder::dropFrame(flow, 64 + 20 * i, i));
  }
  return frames;
}

void BM_LivePamBesideTcpdump(benchmark::State& state) {
  if (auto why = NetNs::unavailableReason(); !why.empty()) {
    state.SkipWithError(why.c_str());
    return;
  }
  NetNs ns;
  if (!ns.ok()) {
    state.SkipWithError("could not make a network namespace");
    return;
  }
  auto loop = EventLoop::makeReal();
  auto wheel = make<TimerWheel>(*loop, 10, 1000, false, 64);
  Tcpdump tcpdump(ns, ns.b());
  auto pam = ns.inside([&] {
    LivePamOptions options;
    options.device = ns.b();
    options.filter = "ether proto 0x1042";
    return make<LivePam>(*loop, wheel, IntfId("et1"), options);
  });
  PcapFrameSender sender;
  ns.inside([&] { return sender.open(ns.a()); });
  if (!pam->isCapturing() || !sender.isOpen()) {
    state.SkipWithError("could not open the veth pair");
    return;
  }
  Counting counting(pam);
  auto const traffic = trafficMake();
  uint64_t const wantedPerBurst = kBurst - kBurst / 8;
  uint64_t sent = 0;
  double const cpuStart = threadCpuSeconds();
  double const tcpdumpCpuStart = tcpdump.cpuSeconds();

  for (auto _ : state) {
    uint64_t const target = counting.taken + wantedPerBurst;
    std::atomic<bool> done = false;
    auto const start = std::chrono::steady_clock::now();
    std::thread send([&] {
      for (int i = 0; i < kBurst; ++i) sender.send(traffic[size_t(i) % traffic.size()]);
      done = true;
    });
    // Drain while the sender runs; stop once all came, or nothing more came for a while after the sender
    // finished (frames the kernel dropped on the way, before either capture saw them). The quiet tail is not
    // timed.
    auto lastFrame = start;
    while (counting.taken < target) {
      uint64_t const before = counting.taken;
      loop->runOnce(0.01);
      auto const now = std::chrono::steady_clock::now();
      if (counting.taken != before) lastFrame = now;
      if (done && now - std::max(lastFrame, start) > std::chrono::milliseconds(200)) break;
    }
    send.join();
    state.SetIterationTime(std::chrono::duration<double>(lastFrame - start).count());
    sent += wantedPerBurst;
  }
  double const pamCpu = threadCpuSeconds() - cpuStart;
  double const tcpdumpCpu = tcpdump.cpuSeconds() - tcpdumpCpuStart;
  std::this_thread::sleep_for(std::chrono::milliseconds(200));  // let tcpdump finish its ring
  uint64_t const tcpdumpCaptured = tcpdump.stop();

  state.SetItemsProcessed(int64_t(counting.taken));
  state.counters["pam_fps"] = benchmark::Counter(double(counting.taken), benchmark::Counter::kIsRate);
  state.counters["pam_vs_tcpdump"] = tcpdumpCaptured ? double(counting.taken) / double(tcpdumpCaptured) : 0.0;
  // Frames sent but not captured; the same for both when they lost them on the way in, before either looked.
  state.counters["pam_missed"] = double(sent - std::min(sent, counting.taken));
  state.counters["tcpdump_missed"] = double(sent - std::min(sent, tcpdumpCaptured));
  if (counting.taken && tcpdumpCaptured && tcpdumpCpu > 0) {
    state.counters["cpu_pam_vs_tcpdump"] =
        (pamCpu / double(counting.taken)) / (tcpdumpCpu / double(tcpdumpCaptured));
  }
}

BENCHMARK(BM_LivePamBesideTcpdump)->Iterations(20)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
