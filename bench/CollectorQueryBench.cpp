// How long the collector's queries take on a large history: 10,000,000 stored reports (5,000,000 lives of
// 50,000 flows from 200 sources with 16 reasons, first seen over the last 7 days, 1% still open) in an SQLite
// file, or in PostgreSQL when MOD_BENCH_PG_URL names a database. The history is written once through the
// store (MOD_BENCH_QUERY_DB names the file, default /tmp/mod-bench-10m.db; MOD_BENCH_REPORTS another size)
// and kept for later runs, since writing it takes minutes. Each query's plan is printed before it runs; the
// aim is under a second each.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "tools/common/DropFrameBuilder.h"
#include "tools/mod-collector/Duration.h"
#include "tools/mod-collector/QueryAnswer.h"

using namespace ModCollector;

namespace {

std::string database() {
  if (char const* url = std::getenv("MOD_BENCH_PG_URL")) return url;
  char const* path = std::getenv("MOD_BENCH_QUERY_DB");
  return path ? path : "/tmp/mod-bench-10m.db";
}

int64_t reportsWanted() {
  char const* n = std::getenv("MOD_BENCH_REPORTS");
  return n ? std::atoll(n) : 10'000'000;
}

int64_t storedReports(Storage& s) {
  return std::stoll(s.select({"SELECT count(*) FROM reports", {}}).at(0).at(0).value_or("0"));
}

void fill(Storage& s, int64_t reports) {
  int64_t const lives = reports / 2;
  int64_t const now = wallClockMicros();
  int64_t const span = 7 * 86400 * kMicrosPerSecond;
  std::vector<ReportRow> batch;
  std::fprintf(stderr, "writing %lld reports into %s ...\n", static_cast<long long>(reports),
               s.name().c_str());
  for (int64_t i = 0; i < lives; ++i) {
    uint32_t const flow = uint32_t(i * 7919 % 50000);
    Calyx::DropFlow f{*Calyx::EthAddr::parse("02:00:00:00:00:01"),
                      *Calyx::EthAddr::parse("02:00:00:00:00:02"),
                      {},
                      Calyx::IpGenAddr(Calyx::Ip4Addr::fromHost(0x0a000000 + flow)),
                      Calyx::IpGenAddr(Calyx::Ip4Addr::fromHost(0x0b000001 + flow % 97)),
                      uint8_t(flow % 3 ? 6 : 17),
                      uint16_t(1024 + flow),
                      uint16_t(443 + flow % 7)};
    auto const sample = Calyx::DropFrameBuilder::droppedFrame(f, 64);
    std::vector<uint8_t> d(26 + sample.size());
    uint64_t const ts = 1700000000000000000ull + uint64_t(i) * 1000;
    for (int b = 0; b < 8; ++b) d[size_t(1 + b)] = uint8_t(ts >> (56 - 8 * b));
    d[24] = uint8_t(1u << (i % 16 % 8));
    d[20] = uint8_t(i % 16 / 8);
    d[25] = uint8_t(sample.size());
    std::copy(sample.begin(), sample.end(), d.begin() + 26);
    std::string why;
    Report r = *decodeReport(d.data(), d.size(), why);
    int64_t const seen = now - span + i * (span / lives);
    std::string const source = "10.200." + std::to_string(i % 200 / 100) + "." + std::to_string(i % 100);
    batch.push_back(reportRow(d.data(), d.size(), r, source, 40000, "127.0.0.1:6343", seen));
    if (i % 100 != 0) {
      d[0] = 1;
      r.type = 1;
      batch.push_back(
          reportRow(d.data(), d.size(), r, source, 40000, "127.0.0.1:6343", seen + 10 * kMicrosPerSecond));
    }
    if (batch.size() >= 5000) {
      s.write(batch);
      batch.clear();
    }
    if (i % 500000 == 0) std::fprintf(stderr, "  %lld lives\n", static_cast<long long>(i));
  }
  s.write(batch);
  s.maintain();
}

Storage& storage() {
  static std::unique_ptr<Storage> s = [] {
    auto w = openStorage(database(), OpenMode::Write);
    if (storedReports(*w) < reportsWanted() * 99 / 100) fill(*w, reportsWanted());
    w->maintain();
    w.reset();
    return openStorage(database(), OpenMode::Read);
  }();
  return *s;
}

void runQuery(benchmark::State& state, std::string const& subject, QueryOptions const& options) {
  Storage& s = storage();
  Query const q = parseQuery(subject, options, wallClockMicros());
  std::cerr << "\n== " << subject;
  for (auto const& [k, v] : options) std::cerr << " --" << k << " " << v;
  std::cerr << "\n" << s.explain(querySql(q));
  size_t rows = 0;
  for (auto _ : state) rows = answerJson(s, q).dump().size();
  state.counters["answer_bytes"] = double(rows);
}

struct Register {
  Register() {
    struct Case {
      char const* name;
      std::string subject;
      QueryOptions options;
    };
    std::vector<Case> const cases = {
        {"top_flows_all", "top flows", {}},
        {"top_flows_1h", "top flows", {{"since", "1h"}}},
        {"top_flows_24h_by_reports", "top flows", {{"since", "24h"}, {"by", "reports"}}},
        {"top_reasons_all", "top reasons", {}},
        {"top_sources_7d", "top sources", {{"since", "7d"}}},
        {"top_protocols_1h", "top protocols", {{"since", "1h"}}},
        {"lives_newest", "lives", {}},
        {"lives_open", "lives", {{"open", "1"}}},
        {"lives_source", "lives", {{"source", "10.200.1.7"}}},
        {"lives_flow_filter", "lives", {{"flow", "udp dport=445"}}},
        {"timeline_1h_1m", "timeline", {}},
        {"timeline_7d_2h", "timeline", {{"since", "7d"}, {"step", "2h"}}},
    };
    for (auto const& c : cases) {
      benchmark::RegisterBenchmark(c.name, [c](benchmark::State& s) { runQuery(s, c.subject, c.options); })
          ->Iterations(3)
          ->Unit(benchmark::kMillisecond);
    }
  }
} registerAll;

}  // namespace
