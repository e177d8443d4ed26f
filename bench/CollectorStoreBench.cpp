// Reports stored per second by the collector's store, into SQLite and into PostgreSQL, beside a bare insert
// loop of the same rows into the same schema in the same run. BM_Store is the whole road after the socket:
// each datagram decoded and digested, handed to the StoreWriter in drains of 64, batched and written on its
// thread; BM_BareInsert writes the rows those datagrams become (a life per START, its STOP as an update, a
// report row each) with one prepared statement per row, 5000 rows a transaction, on the calling thread. Sizes
// sweep 1k to 1M reports; each line gives ns per report and its ratio to the 1k line ("vs_1k", flat is the
// aim) and, for BM_Store, its speed as a share of the bare loop at the same size ("x_bare").
//
// PostgreSQL: a server the benchmark starts itself (as for the tests), or MOD_BENCH_PG_URL; left out when
// neither is there.

#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>

#include "testkit/TempPostgres.h"
#include "tools/common/DropFrameBuilder.h"
#include "tools/mod-collector/StoreWriter.h"

using namespace ModCollector;

namespace {

using Bytes = std::vector<uint8_t>;

// The datagrams of n/2 lives, START then STOP, spread over 100 sources, 50,000 flows and 16 reasons.
std::vector<std::pair<Bytes, std::string>> datagrams(size_t n) {
  std::vector<std::pair<Bytes, std::string>> out;
  out.reserve(n);
  for (size_t i = 0; out.size() < n; ++i) {
    uint32_t const flow = uint32_t(i % 50000);
    Calyx::DropFlow f{*Calyx::EthAddr::parse("02:00:00:00:00:01"),
                      *Calyx::EthAddr::parse("02:00:00:00:00:02"),
                      {100},
                      Calyx::IpGenAddr(Calyx::Ip4Addr::fromHost(0x0a000000 + flow)),
                      Calyx::IpGenAddr(Calyx::Ip4Addr::fromHost(0x0b000001)),
                      uint8_t(flow % 3 ? 6 : 17),
                      uint16_t(1024 + flow % 60000),
                      443};
    Bytes const sample = Calyx::DropFrameBuilder::droppedFrame(f, 80);
    Bytes d(26 + sample.size());
    uint64_t const ts = 1700000000000000000ull + i * 1000;
    for (int b = 0; b < 8; ++b) d[size_t(1 + b)] = uint8_t(ts >> (56 - 8 * b));
    d[24] = uint8_t(1u << (i % 8));
    d[25] = uint8_t(sample.size());
    std::copy(sample.begin(), sample.end(), d.begin() + 26);
    std::string const source = "192.0.2." + std::to_string(i % 100);
    out.emplace_back(d, source);
    d[0] = 1;
    if (out.size() < n) out.emplace_back(d, source);
  }
  return out;
}

std::vector<ReportRow> rowsOf(std::vector<std::pair<Bytes, std::string>> const& ds) {
  std::vector<ReportRow> rows;
  rows.reserve(ds.size());
  int64_t at = 1'800'000'000'000'000;
  for (auto const& [d, source] : ds) {
    std::string why;
    rows.push_back(reportRow(d.data(), d.size(), *decodeReport(d.data(), d.size(), why), source, 40000,
                             "127.0.0.1:6343", at++));
  }
  return rows;
}

// A fresh database per run: an SQLite file, or a new PostgreSQL database.
struct Target {
  virtual ~Target() = default;
  virtual std::string fresh() = 0;
};

struct SqliteTarget : Target {
  std::string dir;
  int n = 0;
  SqliteTarget() {
    char d[] = "/tmp/mod-bench-XXXXXX";
    dir = mkdtemp(d) ? d : "/tmp";
  }
  ~SqliteTarget() override { std::filesystem::remove_all(dir); }
  std::string fresh() override {
    for (char const* ext : {"", "-wal", "-shm"}) std::filesystem::remove(dir + "/b.db" + ext);
    return dir + "/b.db";
  }
};

struct PostgresTarget : Target {
  std::unique_ptr<Calyx::Test::TempPostgres> server;
  std::string base;
  int n = 0;
  PostgresTarget() {
    if (char const* url = std::getenv("MOD_BENCH_PG_URL")) {
      base = url;
      return;
    }
    server = std::make_unique<Calyx::Test::TempPostgres>();
  }
  bool ok() const { return !base.empty() || server->ok(); }
  std::string fresh() override {
    if (!base.empty()) {
      PGconn* c = PQconnectdb(base.c_str());
      PQclear(
          PQexec(c, "DROP TABLE IF EXISTS reports, lives, flows, reasons, sources, schema_version CASCADE"));
      PQclear(PQexec(c, "DROP VIEW IF EXISTS report_rows"));
      PQfinish(c);
      return base;
    }
    std::string const name = "bench" + std::to_string(++n);
    server->createDatabase(name);
    return server->url(name);
  }
};

std::map<std::string, double> nsAt1k;                     // by benchmark family
std::map<std::pair<std::string, size_t>, double> bareNs;  // by engine and size

void report(benchmark::State& state, std::string const& family, std::string const& engine, size_t n,
            double seconds, bool isStore) {
  double const ns = seconds * 1e9 / double(n);
  if (n == 1000) nsAt1k[family] = ns;
  state.counters["ns_per_report"] = ns;
  state.counters["reports_per_s"] = double(n) / seconds;
  if (nsAt1k.count(family)) state.counters["vs_1k"] = ns / nsAt1k[family];
  if (!isStore) bareNs[{engine, n}] = ns;
  if (isStore && bareNs.count({engine, n})) state.counters["x_bare"] = bareNs[{engine, n}] / ns;
}

void runStore(benchmark::State& state, Target& target, std::string const& engine) {
  size_t const n = size_t(state.range(0));
  auto const ds = datagrams(n);
  double total = 0;
  for (auto _ : state) {
    std::string const db = target.fresh();
    WriterOptions o;
    o.queueCapacity = n + 1;  // nothing dropped: the speed of storing is what is measured
    std::unique_ptr<Storage> storage =
        openStorage(db, OpenMode::Write);  // the schema, as the bare loop has it
    auto const start = std::chrono::steady_clock::now();
    StoreWriter writer(std::move(storage), o);
    std::vector<ReportRow> drain;
    int64_t at = 1'800'000'000'000'000;
    for (auto const& [d, source] : ds) {
      std::string why;
      drain.push_back(reportRow(d.data(), d.size(), *decodeReport(d.data(), d.size(), why), source, 40000,
                                "127.0.0.1:6343", at++));
      if (drain.size() == 64) writer.offer(drain);
    }
    writer.offer(drain);
    writer.close();
    double const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.SetIterationTime(seconds);
    total += seconds;
    if (writer.stats().stored != n) state.SkipWithError("not every report was stored");
  }
  report(state, "store_" + engine, engine, n, total / double(state.iterations()), true);
  state.SetItemsProcessed(int64_t(n) * state.iterations());
}

// The bare loop: the same rows, one prepared statement each, no queue, no thread, no digest, no dimension
// cache.
double bareSqlite(std::string const& path, std::vector<ReportRow> const& rows) {
  openStorage(path, OpenMode::Write).reset();  // the same schema and indexes
  sqlite3* db = nullptr;
  sqlite3_open(path.c_str(), &db);
  sqlite3_exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA cache_size=-65536", nullptr,
               nullptr, nullptr);
  sqlite3_exec(
      db,
      "INSERT INTO sources (address) WITH RECURSIVE g(v) AS (SELECT 0 UNION ALL SELECT v + 1 FROM g WHERE "
      "v < 99) SELECT '192.0.2.' || v FROM g",
      nullptr, nullptr, nullptr);
  auto const start = std::chrono::steady_clock::now();
  sqlite3_stmt *life = nullptr, *stop = nullptr, *report = nullptr, *flow = nullptr, *reason = nullptr;
  sqlite3_prepare_v2(
      db,
      "INSERT INTO lives (source_id, drop_ts, digest, reason_id, flow_id, ip_proto, data_size, sample, "
      "seen_us, start_us, reports) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, 1)",
      -1, &life, nullptr);
  sqlite3_prepare_v2(db, "UPDATE lives SET stop_us = ?, reports = 2 WHERE id = ?", -1, &stop, nullptr);
  sqlite3_prepare_v2(
      db, "INSERT INTO reports (life_id, type, source_port, collector, arrived_us) VALUES (?, ?, ?, ?, ?)",
      -1, &report, nullptr);
  sqlite3_prepare_v2(db,
                     "INSERT OR IGNORE INTO flows (id, ip_proto, src_ip, dst_ip, src_port, dst_port) VALUES "
                     "(?, ?, ?, ?, ?, ?)",
                     -1, &flow, nullptr);
  sqlite3_prepare_v2(db,
                     "INSERT OR IGNORE INTO reasons (id, word0, word1, word2, word3) VALUES (?, 0, 0, 0, ?)",
                     -1, &reason, nullptr);
  auto step = [](sqlite3_stmt* s) {
    sqlite3_step(s);
    sqlite3_reset(s);
  };
  int64_t lifeId = 0;
  for (size_t i = 0; i < rows.size(); ++i) {
    if (i % 5000 == 0) sqlite3_exec(db, i ? "COMMIT; BEGIN" : "BEGIN", nullptr, nullptr, nullptr);
    ReportRow const& r = rows[i];
    if (r.report.type == 0) {
      int64_t const f = int64_t(i / 2 % 50000) + 1;
      sqlite3_bind_int64(flow, 1, f);
      sqlite3_bind_int64(flow, 2, r.report.flow->ipProto);
      sqlite3_bind_text(flow, 3, r.report.flow->srcIp.c_str(), -1, SQLITE_STATIC);
      sqlite3_bind_text(flow, 4, r.report.flow->dstIp.c_str(), -1, SQLITE_STATIC);
      sqlite3_bind_int64(flow, 5, r.report.flow->srcPort);
      sqlite3_bind_int64(flow, 6, r.report.flow->dstPort);
      step(flow);
      sqlite3_bind_int64(reason, 1, r.report.reason[3]);
      sqlite3_bind_int64(reason, 2, r.report.reason[3]);
      step(reason);
      sqlite3_bind_int64(life, 1, int64_t(i / 2 % 100) + 1);
      sqlite3_bind_int64(life, 2, int64_t(r.report.timestamp));
      sqlite3_bind_int64(life, 3, r.digest);
      sqlite3_bind_int64(life, 4, r.report.reason[3]);
      sqlite3_bind_int64(life, 5, f);
      sqlite3_bind_int64(life, 6, r.report.flow->ipProto);
      sqlite3_bind_int64(life, 7, r.report.dataSize);
      sqlite3_bind_blob(life, 8, r.sample.data(), r.report.dataSize, SQLITE_STATIC);
      sqlite3_bind_int64(life, 9, r.arrivedUs);
      sqlite3_bind_int64(life, 10, r.arrivedUs);
      step(life);
      lifeId = sqlite3_last_insert_rowid(db);
    } else {
      sqlite3_bind_int64(stop, 1, r.arrivedUs);
      sqlite3_bind_int64(stop, 2, lifeId);
      step(stop);
    }
    sqlite3_bind_int64(report, 1, lifeId);
    sqlite3_bind_int64(report, 2, r.report.type);
    sqlite3_bind_int64(report, 3, r.sourcePort);
    sqlite3_bind_text(report, 4, r.collector.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int64(report, 5, r.arrivedUs);
    step(report);
  }
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  double const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  for (auto* s : {life, stop, report, flow, reason}) sqlite3_finalize(s);
  sqlite3_close(db);
  return seconds;
}

double barePostgres(std::string const& url, std::vector<ReportRow> const& rows) {
  openStorage(url, OpenMode::Write).reset();
  PGconn* c = PQconnectdb(url.c_str());
  PQclear(PQexec(c, "INSERT INTO sources (address) SELECT '192.0.2.' || g FROM generate_series(0, 99) g"));
  auto const start = std::chrono::steady_clock::now();
  PQclear(PQprepare(
      c, "flow",
      "INSERT INTO flows (id, ip_proto, src_ip, dst_ip, src_port, dst_port) VALUES ($1, $2, $3, $4, $5, "
      "$6) ON CONFLICT DO NOTHING",
      0, nullptr));
  PQclear(PQprepare(
      c, "reason",
      "INSERT INTO reasons (id, word0, word1, word2, word3) VALUES ($1, 0, 0, 0, $2) ON CONFLICT DO NOTHING",
      0, nullptr));
  PQclear(PQprepare(
      c, "life",
      "INSERT INTO lives (source_id, drop_ts, digest, reason_id, flow_id, ip_proto, data_size, sample, "
      "seen_us, start_us, reports) VALUES ($1, $2, $3, $4, $5, $6, $7, $8, $9, $10, 1) RETURNING id",
      0, nullptr));
  PQclear(PQprepare(c, "stop", "UPDATE lives SET stop_us = $1, reports = 2 WHERE id = $2", 0, nullptr));
  PQclear(PQprepare(
      c, "report",
      "INSERT INTO reports (life_id, type, source_port, collector, arrived_us) VALUES ($1, $2, $3, $4, $5)",
      0, nullptr));
  auto run = [&](char const* name, std::vector<std::string> const& params) {
    std::vector<char const*> v;
    for (auto const& p : params) v.push_back(p.c_str());
    return PQexecPrepared(c, name, int(v.size()), v.data(), nullptr, nullptr, 0);
  };
  std::string lifeId;
  auto hex = [](ReportRow const& r) {
    static char const digits[] = "0123456789abcdef";
    std::string s = "\\x";
    for (size_t i = 0; i < r.report.dataSize; ++i) {
      s += digits[r.sample[i] >> 4];
      s += digits[r.sample[i] & 15];
    }
    return s;
  };
  for (size_t i = 0; i < rows.size(); ++i) {
    if (i % 5000 == 0) PQclear(PQexec(c, i ? "COMMIT; BEGIN" : "BEGIN"));
    ReportRow const& r = rows[i];
    if (r.report.type == 0) {
      std::string const f = std::to_string(i / 2 % 50000 + 1);
      std::string const reason = std::to_string(r.report.reason[3]);
      PQclear(
          run("flow", {f, std::to_string(r.report.flow->ipProto), r.report.flow->srcIp, r.report.flow->dstIp,
                       std::to_string(r.report.flow->srcPort), std::to_string(r.report.flow->dstPort)}));
      PQclear(run("reason", {reason, reason}));
      PGresult* res =
          run("life", {std::to_string(i / 2 % 100 + 1), std::to_string(int64_t(r.report.timestamp)),
                       std::to_string(r.digest), reason, f, std::to_string(r.report.flow->ipProto),
                       std::to_string(r.report.dataSize), hex(r), std::to_string(r.arrivedUs),
                       std::to_string(r.arrivedUs)});
      lifeId = PQntuples(res) ? PQgetvalue(res, 0, 0) : "0";
      PQclear(res);
    } else {
      PQclear(run("stop", {std::to_string(r.arrivedUs), lifeId}));
    }
    PQclear(run("report", {lifeId, std::to_string(r.report.type), std::to_string(r.sourcePort), r.collector,
                           std::to_string(r.arrivedUs)}));
  }
  PQclear(PQexec(c, "COMMIT"));
  double const seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  PQfinish(c);
  return seconds;
}

void runBare(benchmark::State& state, Target& target, std::string const& engine) {
  size_t const n = size_t(state.range(0));
  auto const rows = rowsOf(datagrams(n));
  double total = 0;
  for (auto _ : state) {
    std::string const db = target.fresh();
    double const seconds = engine == "sqlite" ? bareSqlite(db, rows) : barePostgres(db, rows);
    state.SetIterationTime(seconds);
    total += seconds;
  }
  report(state, "bare_" + engine, engine, n, total / double(state.iterations()), false);
  state.SetItemsProcessed(int64_t(n) * state.iterations());
}

// Registered by hand so that each size gets its own number of runs, and the bare loop runs before BM_Store.
struct Register {
  Register() {
    static SqliteTarget sqlite;
    static std::unique_ptr<PostgresTarget> postgres;
    std::vector<std::pair<std::string, Target*>> engines = {{"sqlite", &sqlite}};
    if (!std::getenv("MOD_BENCH_SQLITE_ONLY")) {
      postgres = std::make_unique<PostgresTarget>();
      if (postgres->ok()) engines.emplace_back("postgres", postgres.get());
    }
    for (auto const& [engine, target] : engines) {
      for (size_t n : {1000, 10000, 100000, 1000000}) {
        int const runs = n <= 10000 ? 5 : 1;
        benchmark::RegisterBenchmark(("BM_BareInsert/" + engine).c_str(),
                                     [t = target, e = engine](benchmark::State& s) { runBare(s, *t, e); })
            ->Arg(int64_t(n))
            ->Iterations(runs)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("BM_Store/" + engine).c_str(),
                                     [t = target, e = engine](benchmark::State& s) { runStore(s, *t, e); })
            ->Arg(int64_t(n))
            ->Iterations(runs)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
      }
    }
  }
} registerAll;

}  // namespace
