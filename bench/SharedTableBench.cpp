// SharedTable against std::unordered_map doing the same work on a million keys: insert, look up, delete.
//
// The table publishes every change into its shared-memory segment (tmpfs), so this is the price of publishing
// on top of an in-process map. Compare each Table* line with the Map* line of the same operation from the
// same run.

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/shm/SharedTable.h"

namespace {

struct Key {
  uint64_t hi = 0;
  uint64_t lo = 0;
  bool operator==(Key const&) const = default;
  auto operator<=>(Key const&) const = default;
};

}  // namespace

template <>
struct std::hash<Key> {
  size_t operator()(Key const& k) const noexcept { return k.lo * 0x9e3779b97f4a7c15ull ^ k.hi; }
};

namespace {

struct Value {
  Key k;
  uint64_t counters[6] = {};
  Key key() const { return k; }
  bool operator==(Value const&) const = default;
};
static_assert(sizeof(Value) == 64);

using Table = Calyx::SharedTable<Key, Value>;
using Map = std::unordered_map<Key, Value>;

constexpr size_t kKeys = 1'000'000;

// The same keys, in a shuffled order, for every benchmark.
std::vector<Value> const& values() {
  static std::vector<Value> const all = [] {
    std::vector<Value> v(kKeys);
    for (size_t i = 0; i < kKeys; ++i)
      v[i] = Value{Key{i >> 10, i * 2654435761u}, {i, i + 1, i + 2, 0, 0, 0}};
    std::shuffle(v.begin(), v.end(), std::mt19937_64(42));
    return v;
  }();
  return all;
}

// A state directory of the bench's own under /dev/shm, gone when the program ends.
std::string const& stateDir() {
  static struct Dir {
    std::string path;
    Dir() {
      std::string tmpl = "/dev/shm/calyx-table-bench-XXXXXX";
      path = ::mkdtemp(tmpl.data()) ? tmpl : "/tmp";
    }
    ~Dir() {
      std::error_code ec;
      std::filesystem::remove_all(path, ec);
    }
  } dir;
  return dir.path;
}

Calyx::Ptr<Table> freshTable() {
  Calyx::SharedTableOptions o;
  o.stateDir = stateDir();
  std::filesystem::remove(stateDir() + "/bench");
  return Calyx::make<Table>("bench", o);
}

Calyx::Ptr<Table> filledTable() {
  auto t = freshTable();
  for (Value const& v : values()) t->entryIs(v);
  return t;
}

Map filledMap() {
  Map m;
  for (Value const& v : values()) m.insert_or_assign(v.k, v);
  return m;
}

void MapInsert(benchmark::State& state) {
  for (auto _ : state) {
    Map m;
    for (Value const& v : values()) m.insert_or_assign(v.k, v);
    benchmark::DoNotOptimize(m.size());
    state.PauseTiming();
    m = Map();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kKeys));
}

void TableEntryIs(benchmark::State& state) {
  for (auto _ : state) {
    auto t = freshTable();
    for (Value const& v : values()) t->entryIs(v);
    benchmark::DoNotOptimize(t->entryCount());
    state.PauseTiming();
    t = nullptr;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kKeys));
}

void MapLookup(benchmark::State& state) {
  Map const m = filledMap();
  for (auto _ : state) {
    uint64_t sum = 0;
    for (Value const& v : values()) sum += m.find(v.k)->second.counters[0];
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kKeys));
}

void TableLookup(benchmark::State& state) {
  auto const t = filledTable();
  for (auto _ : state) {
    uint64_t sum = 0;
    for (Value const& v : values()) sum += t->entry(v.k)->counters[0];
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kKeys));
}

void MapErase(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    Map m = filledMap();
    state.ResumeTiming();
    for (Value const& v : values()) m.erase(v.k);
    benchmark::DoNotOptimize(m.size());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kKeys));
}

void TableEntryDel(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    auto t = filledTable();
    state.ResumeTiming();
    for (Value const& v : values()) t->entryDel(v.k);
    benchmark::DoNotOptimize(t->entryCount());
    state.PauseTiming();
    t = nullptr;
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kKeys));
}

BENCHMARK(MapInsert)->Unit(benchmark::kMillisecond);
BENCHMARK(TableEntryIs)->Unit(benchmark::kMillisecond);
BENCHMARK(MapLookup)->Unit(benchmark::kMillisecond);
BENCHMARK(TableLookup)->Unit(benchmark::kMillisecond);
BENCHMARK(MapErase)->Unit(benchmark::kMillisecond);
BENCHMARK(TableEntryDel)->Unit(benchmark::kMillisecond);

}  // namespace
