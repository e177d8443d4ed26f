#pragma once
// Size sweeps for the benchmarks: a benchmark registered with ->Apply(BenchSweep::sizes) runs at 1k, 10k,
// 100k and 1M items, and BenchSweep::costReport() puts beside each run:
//   ns_per_item   CPU nanoseconds of the timed loop per item (user and system time of the benchmark's thread,
//                 which a busy shared machine disturbs less than wall time)
//   vs_smallest   ns_per_item divided by the same benchmark's at its smallest size: about 1.0 all the way
//                 down is a flat cost, a rising column is a cost that grows with the size
//   vs_baseline   ns_per_item divided by the named baseline's at the same size, when the baseline is
//                 registered (and so ran) first: the ratio the hot path is held to, from one run
// With --benchmark_repetitions each repetition compares with the latest run before it.

#include <benchmark/benchmark.h>
#include <time.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>

namespace BenchSweep {

inline constexpr int64_t kSizes[] = {1000, 10000, 100000, 1000000};

inline void sizes(benchmark::internal::Benchmark* b) {
  for (int64_t n : kSizes) b->Arg(n);
}

// The calling thread's CPU time; pause() and resume() leave out what the benchmark does not time.
class CpuTimer {
 public:
  CpuTimer() : start_(now()) {}
  void pause() { total_ += now() - start_; }
  void resume() { start_ = now(); }
  double seconds() const { return total_ + now() - start_; }

 private:
  static double now() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
  }
  double start_;
  double total_ = 0;
};

inline void costReport(benchmark::State& state, std::string const& name, double cpuSeconds, double items,
                       std::string const& baseline = {}) {
  static std::map<std::string, std::pair<int64_t, double>> smallest;  // name: size and cost
  static std::map<std::pair<std::string, int64_t>, double> latest;    // (name, size): cost
  if (items <= 0) return;
  int64_t const size = state.range(0);
  double const ns = cpuSeconds * 1e9 / items;
  state.counters["ns_per_item"] = ns;
  auto& first = smallest[name];
  if (first.first == 0 || size <= first.first) first = {size, ns};
  state.counters["vs_smallest"] = ns / first.second;
  latest[{name, size}] = ns;
  if (baseline.empty()) return;
  auto const base = latest.find({baseline, size});
  if (base != latest.end() && base->second > 0) state.counters["vs_baseline"] = ns / base->second;
}

}  // namespace BenchSweep
