// The storm: a burst of new flows, one drop each at 100,000 drops a second, replayed through the real
// mod-agent on the virtual clock (exact match on, no flow cap) to a collector on loopback, for bursts of 1k,
// 10k, 100k and 1M flows. The cost per flow is the agent's wall time less that of a one-flow replay in the
// same iteration (start-up and tear-down), divided by the flows; vs_1k is that cost over the 1k burst's. A
// flat vs_1k is the aim: a rising one means some step costs more per flow the bigger the storm.
//
// Every run is checked: the summary must say every flow got its START and its STOP, and the collector must
// have received twice as many reports as flows.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "testkit/ReportSink.h"

namespace {

namespace fs = std::filesystem;

// The build's programs, beside this benchmark's folder.
std::string program(char const* folder, char const* name) {
  return (fs::read_symlink("/proc/self/exe").parent_path().parent_path() / folder / name).string();
}

// Runs a program to its end with its standard error in errFile; its exit status, -1 when it could not run.
int run(std::vector<std::string> const& argv, std::string const& cwd, std::string const& errFile) {
  pid_t const pid = fork();
  if (pid == 0) {
    int const out = ::open("/dev/null", O_WRONLY);
    int const err = ::open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(out, 1);
    dup2(err, 2);
    if (chdir(cwd.c_str()) != 0) _exit(127);
    std::vector<char*> args;
    for (auto const& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string slurp(std::string const& file) {
  std::ifstream in(file);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

class Storm {
 public:
  Storm() {
    char dir[] = "/tmp/mod-storm-bench-XXXXXX";
    if (mkdtemp(dir)) work_ = dir;
  }
  ~Storm() {
    std::error_code ignored;
    fs::remove_all(work_, ignored);
  }

  // The capture of a burst of n new flows (made once).
  std::string const& capture(int64_t flows) {
    auto it = captures_.find(flows);
    if (it != captures_.end()) return it->second;
    std::string const file = work_ + "/storm-" + std::to_string(flows) + ".pcap";
    run({program("tools", "mod-gen"), "--out", file, "--flows", std::to_string(flows), "--rate", "100000",
         "--seed", "3"},
        work_, work_ + "/mod-gen.err");
    return captures_.emplace(flows, file).first->second;
  }

  // Seconds of wall time the agent takes to replay the capture; negative, with why, when the run went wrong.
  double replay(std::string const& capture, int64_t flows, std::string& why) {
    std::string const state = work_ + "/state";
    fs::remove_all(state);
    std::ofstream(work_ + "/agent.toml")
        << "[agent]\nstate_dir = \"" << state << "\"\nmax_flows = 0\n"
        << "[hardware]\nmirror_on_drop = true\nexact_match = true\n"
        << "[capture]\nreplay = \"" << capture << "\"\nreplay_interface = \"Ethernet1\"\n"
        << "replay_clock = \"virtual\"\n"
        << "[flow_tracking]\nenabled = true\n[flow_tracking.trackers.t1]\n"
        << "active_interval = 1.0\ninactive_timeout = 5.0\n"
        << "[flow_tracking.trackers.t1.exporters.e1]\nsource_ipv4 = \"127.0.0.1\"\n"
        << "collectors = { c1 = \"127.0.0.1:" << sink_.port() << "\" }\n"
        << "[trace]\nlevels = \"*=0-1\"\n";
    uint64_t const before = sink_.datagrams();
    auto const start = std::chrono::steady_clock::now();
    int const status = run({program("agent", "mod-agent"), "--config", work_ + "/agent.toml"}, work_,
                           work_ + "/mod-agent.err");
    double const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    sink_.settle(100);
    std::string const err = slurp(work_ + "/mod-agent.err");
    std::string const n = std::to_string(flows);
    if (status != 0 || err.find("reports START " + n + ", STOP " + n + ";") == std::string::npos) {
      why = "mod-agent (status " + std::to_string(status) + "): " + err;
      return -1;
    }
    if (uint64_t const got = sink_.datagrams() - before; got != 2 * uint64_t(flows)) {
      why = "the collector received " + std::to_string(got) + " reports for " + n + " flows";
      return -1;
    }
    return seconds;
  }

  double perFlow1k = 0;  // seconds, from the 1k burst

 private:
  std::string work_;
  Calyx::Test::ReportSink sink_{false};
  std::map<int64_t, std::string> captures_;
};

Storm& storm() {
  static Storm s;
  return s;
}

void BM_StormOfNewFlows(benchmark::State& state) {
  int64_t const flows = state.range(0);
  Storm& s = storm();
  std::string const& burst = s.capture(flows);
  std::string const& one = s.capture(1);
  double net = 0;
  for (auto _ : state) {
    std::string why;
    double const base = s.replay(one, 1, why);
    double const whole = base < 0 ? base : s.replay(burst, flows, why);
    if (whole < 0) {
      state.SkipWithError(why.c_str());
      return;
    }
    state.SetIterationTime(whole - base);
    net += whole - base;
  }
  double const perFlow = net / double(state.iterations()) / double(flows);
  if (flows == 1000) s.perFlow1k = perFlow;
  state.counters["us_per_flow"] = perFlow * 1e6;
  if (s.perFlow1k > 0) state.counters["vs_1k"] = perFlow / s.perFlow1k;
  state.SetItemsProcessed(state.iterations() * flows);
}

BENCHMARK(BM_StormOfNewFlows)->Arg(1000)->Iterations(10)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StormOfNewFlows)->Arg(10000)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StormOfNewFlows)->Arg(100000)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StormOfNewFlows)->Arg(1000000)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
