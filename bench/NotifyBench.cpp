// Notification dispatch through an entity's reactor list, beside the baseline it replaces: a plain virtual
// call on each observer. Compare BM_Notify/N with BM_VirtualCall/N of the same run.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "platform/core/Entity.h"

using namespace Calyx;

namespace {

class Counter : public Object, public Notifier<Counter> {
 public:
  class Reactor : public ReactorBase<Counter> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleValue() {}
  };
  void valueIs(uint64_t v) {
    if (v == value_) return;
    value_ = v;
    notify(&Reactor::handleValue);
  }

 private:
  uint64_t value_ = 0;

 protected:
  ~Counter() override = default;
};

class Sum : public Counter::Reactor {
 public:
  using Reactor::Reactor;
  void handleValue() override { benchmark::DoNotOptimize(++calls); }
  uint64_t calls = 0;
};

struct Observer {
  virtual ~Observer() = default;
  virtual void handleValue() = 0;
};
struct PlainSum : Observer {
  void handleValue() override { benchmark::DoNotOptimize(++calls); }
  uint64_t calls = 0;
};

void BM_Notify(benchmark::State& state) {
  auto counter = make<Counter>();
  std::vector<std::unique_ptr<Sum>> reactors;
  for (int i = 0; i < state.range(0); ++i) reactors.push_back(std::make_unique<Sum>(counter));
  uint64_t v = 0;
  for (auto _ : state) counter->valueIs(++v);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_VirtualCall(benchmark::State& state) {
  std::vector<std::unique_ptr<Observer>> observers;
  for (int i = 0; i < state.range(0); ++i) observers.push_back(std::make_unique<PlainSum>());
  uint64_t value = 0, v = 0;
  for (auto _ : state) {
    if (++v == value) continue;
    value = v;
    for (auto& o : observers) o->handleValue();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

BENCHMARK(BM_Notify)->Arg(1)->Arg(8);
BENCHMARK(BM_VirtualCall)->Arg(1)->Arg(8);

}  // namespace
