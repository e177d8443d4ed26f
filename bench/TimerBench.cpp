// Arming and firing timers on the wheel, beside a std::priority_queue doing push and pop of the same due
// times. Each iteration arms N timers at spread-out times, then moves the clock past all of them and fires
// them.
#include <benchmark/benchmark.h>

#include <functional>
#include <queue>
#include <random>
#include <vector>

#include "platform/core/EventLoop.h"
#include "platform/core/TimerWheel.h"

using namespace Calyx;

namespace {

std::vector<double> dueTimes(size_t n) {
  std::mt19937_64 rng(42);
  std::uniform_real_distribution<double> spread(0.001, 600.0);
  std::vector<double> times(n);
  for (double& t : times) t = spread(rng);
  return times;
}

class Count : public Timer::Reactor {
 public:
  Count(Ptr<Timer> t, uint64_t& fired) : Reactor(t), timer(std::move(t)), fired_(fired) {}
  void handleTimer() override { ++fired_; }
  Ptr<Timer> timer;

 private:
  uint64_t& fired_;
};

void BM_TimerWheelArmFire(benchmark::State& state) {
  size_t const n = static_cast<size_t>(state.range(0));
  auto loop = EventLoop::makeSimulated(0.0);
  auto& clock = dynamic_cast<SimulatedClock&>(loop->clock());
  auto wheel = make<TimerWheel>(*loop, 200, 525600, false, 1u << 30);
  uint64_t fired = 0;
  std::vector<std::unique_ptr<Count>> timers;
  for (size_t i = 0; i < n; ++i) timers.push_back(std::make_unique<Count>(wheel->timerNew(), fired));
  auto const times = dueTimes(n);
  double base = 0;
  for (auto _ : state) {
    for (size_t i = 0; i < n; ++i) timers[i]->timer->timeMinIs(base + times[i]);
    base += 1000;
    clock.nowIs(base);
    wheel->fireDue();
  }
  benchmark::DoNotOptimize(fired);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}

void BM_PriorityQueuePushPop(benchmark::State& state) {
  size_t const n = static_cast<size_t>(state.range(0));
  auto const times = dueTimes(n);
  std::priority_queue<std::pair<double, size_t>, std::vector<std::pair<double, size_t>>, std::greater<>>
      queue;
  uint64_t fired = 0;
  double base = 0;
  for (auto _ : state) {
    for (size_t i = 0; i < n; ++i) queue.emplace(base + times[i], i);
    base += 1000;
    while (!queue.empty() && queue.top().first <= base) {
      queue.pop();
      ++fired;
    }
  }
  benchmark::DoNotOptimize(fired);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}

BENCHMARK(BM_TimerWheelArmFire)->Arg(16)->Arg(4096);
BENCHMARK(BM_PriorityQueuePushPop)->Arg(16)->Arg(4096);

}  // namespace
