// The collector's store on both engines, through the Storage interface the writer and the queries use: lives
// paired from START and STOP whichever collector stores them and in whatever order, each report kept once,
// the queries' counts against counts made here from the rows written, the retention. The PostgreSQL cases run
// on a server the test starts itself, and are skipped (saying why) only where it cannot start.

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>

#include "testkit/TempPostgres.h"
#include "tests/support/ReportDatagrams.h"
#include "tools/mod-collector/Queries.h"
#include "tools/mod-collector/ReportFormat.h"
#include "tools/mod-collector/Storage.h"

using namespace ModCollector;
using Calyx::Test::Bytes;

namespace {

constexpr int64_t kHour = 3600LL * 1000000;
constexpr int64_t kT0 = 1'800'000'000LL * 1000000;  // an arrival time all cases count from

struct Drop {
  std::string source;
  uint64_t ts;
  uint32_t reason;
  Bytes sample;
};

ReportRow row(Drop const& d, uint8_t type, int64_t arrivedUs,
              std::string const& collector = "127.0.0.1:6343") {
  Bytes const datagram = Calyx::Test::reportDatagram(type, d.ts, {0, 0, 0, d.reason}, d.sample);
  std::string why;
  auto report = decodeReport(datagram.data(), datagram.size(), why);
  EXPECT_TRUE(report) << why;
  return reportRow(datagram.data(), datagram.size(), *report, d.source, 40000, collector, arrivedUs);
}

Bytes tcp(std::string const& src, uint16_t dport) {
  return Calyx::Test::droppedSample(src, "10.9.9.9", 6, 1000, dport);
}

enum class Engine { Sqlite, Postgres };

Calyx::Test::TempPostgres& server() {
  static Calyx::Test::TempPostgres pg;
  return pg;
}

class StorageTest : public ::testing::TestWithParam<Engine> {
 protected:
  void SetUp() override {
    static int n = 0;
    if (GetParam() == Engine::Sqlite) {
      char d[] = "/tmp/mod-storage-XXXXXX";
      ASSERT_TRUE(mkdtemp(d));
      dir_ = d;
      db_ = dir_ + "/drops.db";
      return;
    }
    if (!server().ok()) GTEST_SKIP() << "PostgreSQL cannot start here: " << server().why();
    std::string const name = "drops" + std::to_string(getpid()) + "_" + std::to_string(++n);
    ASSERT_TRUE(server().createDatabase(name));
    db_ = server().url(name);
  }
  void TearDown() override {
    if (!dir_.empty()) std::filesystem::remove_all(dir_);
  }
  std::unique_ptr<Storage> open(OpenMode mode = OpenMode::Write) { return openStorage(db_, mode); }
  int64_t count(Storage& s, std::string const& sql) { return std::stoll(*s.select({sql, {}}).at(0).at(0)); }

  std::string dir_;
  std::string db_;
};

TopQuery top(TopKind kind, size_t limit = 10, std::optional<int64_t> sinceUs = {},
             TopOrder by = TopOrder::Lives) {
  TopQuery q;
  q.kind = kind;
  q.limit = limit;
  q.sinceUs = sinceUs;
  q.by = by;
  return q;
}

LivesQuery lives(bool openOnly = false, std::optional<std::string> source = {},
                 std::string const& flow = {}) {
  LivesQuery q;
  q.openOnly = openOnly;
  q.source = std::move(source);
  std::string error;
  if (!flow.empty()) q.flow = FlowFilter::parse(flow, error);
  q.limit = 1000;
  return q;
}

std::string flowOf(std::optional<SampleFlow> const& f) {
  return f ? flowText(*f) : "-";
}

TEST_P(StorageTest, StartAndStopPairIntoOneLifeStoredOnceWhicheverCollectorWritesThem) {
  auto a = open();  // two collectors, one database
  auto b = open();
  Drop const one{"192.0.2.1", 100, 1, tcp("10.0.0.1", 80)};
  Drop const two{"192.0.2.1", 200, 1, tcp("10.0.0.2", 80)};

  WriteResult r = a->write({row(one, 0, kT0, "a"), row(two, 0, kT0 + 1, "a")});
  EXPECT_EQ(r.stored, 2u);
  EXPECT_EQ(r.duplicates, 0u);
  r = b->write({row(one, 0, kT0 + 5, "b"), row(one, 1, kT0 + 10, "b")});
  EXPECT_EQ(r.stored, 1u);  // the STOP; b's START was a already stored
  EXPECT_EQ(r.duplicates, 1u);
  r = a->write({row(one, 1, kT0 + 11, "a"), row(two, 1, kT0 + 12, "a"), row(two, 1, kT0 + 13, "a")});
  EXPECT_EQ(r.stored, 1u);  // two's STOP, once though it came twice in the batch
  EXPECT_EQ(r.duplicates, 2u);

  auto all = runLives(*a, {});
  ASSERT_EQ(all.size(), 2u);
  LifeRow const& l1 = all[0].dropTs == 100 ? all[0] : all[1];
  EXPECT_EQ(l1.seenUs, kT0);
  EXPECT_EQ(l1.startUs, kT0);  // the first stored START
  EXPECT_EQ(l1.stopUs, kT0 + 10);
  EXPECT_EQ(flowOf(l1.flow), "TCP 10.0.0.1:1000 -> 10.9.9.9:80");
  EXPECT_EQ(count(*a, "SELECT count(*) FROM reports"), 4);
  EXPECT_EQ(count(*a, "SELECT count(*) FROM report_rows WHERE collector = 'b'"), 1);
  EXPECT_EQ(count(*a, "SELECT sum(reports) FROM lives"), 4);
  EXPECT_TRUE(runLives(*b, lives(true)).empty());
}

TEST_P(StorageTest, AStopBeforeItsStartPairsAndOtherLivesStayApart) {
  auto s = open();
  Drop const late{"192.0.2.1", 100, 1, tcp("10.0.0.1", 80)};
  Drop const again{"192.0.2.1", 900, 1, tcp("10.0.0.1", 80)};      // the same flow dropping again later
  Drop const elsewhere{"192.0.2.7", 100, 1, tcp("10.0.0.1", 80)};  // the same report from another switch
  Drop const noFlow{"192.0.2.1", 100, 1, Bytes(10, 0xee)};         // a sample too short for any header

  s->write({row(late, 1, kT0)});
  auto stored = runLives(*s, {});
  ASSERT_EQ(stored.size(), 1u);
  EXPECT_FALSE(stored[0].startUs);
  EXPECT_EQ(stored[0].stopUs, kT0);
  s->write(
      {row(late, 0, kT0 + 1), row(again, 0, kT0 + 2), row(elsewhere, 0, kT0 + 3), row(noFlow, 0, kT0 + 4)});

  stored = runLives(*s, {});
  ASSERT_EQ(stored.size(), 4u);
  std::set<std::tuple<std::string, uint64_t, std::string, bool>> got;
  for (auto const& l : stored) got.insert({l.source, l.dropTs, flowOf(l.flow), l.stopUs.has_value()});
  std::string const flow = "TCP 10.0.0.1:1000 -> 10.9.9.9:80";
  EXPECT_EQ(got, (decltype(got){{"192.0.2.1", 100, flow, true},
                                {"192.0.2.1", 900, flow, false},
                                {"192.0.2.7", 100, flow, false},
                                {"192.0.2.1", 100, "-", false}}));
  EXPECT_EQ(stored.back().seenUs, kT0);  // newest first; the paired life was first seen with its STOP
  auto flows = runTop(*s, top(TopKind::Flows));
  ASSERT_EQ(flows.size(), 2u);
  EXPECT_EQ(flowOf(flows[0].flow), flow);
  EXPECT_EQ(flows[0].lives, 3u);
  EXPECT_EQ(flows[0].reports, 4u);
  EXPECT_FALSE(flows[1].flow);
}

// Lives of 4 sources, 12 flows (TCP and UDP), 3 reasons over two hours, a fifth of them still open; every
// answer checked against counts kept while writing.
TEST_P(StorageTest, QueriesAnswerWhatWasWritten) {
  auto s = open();
  std::mt19937 rng(7);
  std::map<std::string, std::pair<uint64_t, uint64_t>> byFlow, byFlowRecent, byReason, bySource, byProto;
  std::map<int64_t, uint64_t> perTenMinutes;
  std::set<std::string> open, fromSource3;
  uint64_t udp53 = 0;
  std::vector<ReportRow> batch;
  for (int i = 0; i < 400; ++i) {
    int const f = int(rng() % 12);
    bool const udp = f % 3 == 0;
    uint16_t const dport = udp ? 53 : uint16_t(8000 + f);
    std::string const src = "10.0.0." + std::to_string(f);
    Drop d{"192.0.2." + std::to_string(rng() % 4), uint64_t(1000 + i), uint32_t(1) << (rng() % 3),
           Calyx::Test::droppedSample(src, "10.9.9.9", udp ? 17 : 6, 1000, dport)};
    int64_t const seen = kT0 + int64_t(i) * (2 * kHour / 400);
    bool const stopped = rng() % 5 != 0;
    batch.push_back(row(d, 0, seen));
    if (stopped) batch.push_back(row(d, 1, seen + 1000));
    std::string const flow =
        std::string(udp ? "UDP " : "TCP ") + src + ":1000 -> 10.9.9.9:" + std::to_string(dport);
    uint64_t const reports = stopped ? 2 : 1;
    for (auto* m : {&byFlow, &byReason, &bySource, &byProto}) {
      std::string const key = m == &byFlow     ? flow
                              : m == &byReason ? reasonText(std::array<uint32_t, 4>{0, 0, 0, d.reason})
                              : m == &bySource ? d.source
                                               : (udp ? "17" : "6");
      (*m)[key].first += 1;
      (*m)[key].second += reports;
    }
    if (seen >= kT0 + kHour) {
      byFlowRecent[flow].first += 1;
      byFlowRecent[flow].second += reports;
    }
    perTenMinutes[(seen - kT0) / (kHour / 6)] += 1;
    if (!stopped) open.insert(flow + " " + std::to_string(d.ts));
    if (d.source == "192.0.2.3") fromSource3.insert(std::to_string(d.ts));
    if (udp) udp53 += 1;
  }
  s->write(batch);
  s->maintain();

  auto asMap = [](std::vector<TopRow> const& rows, TopKind k) {
    std::map<std::string, std::pair<uint64_t, uint64_t>> m;
    for (auto const& r : rows) {
      std::string const key = k == TopKind::Flows     ? flowOf(r.flow)
                              : k == TopKind::Reasons ? reasonText(r.reason)
                              : k == TopKind::Sources ? r.source
                                                      : std::to_string(r.ipProto.value_or(-1));
      m[key] = {r.lives, r.reports};
    }
    return m;
  };
  EXPECT_EQ(asMap(runTop(*s, top(TopKind::Flows, 100)), TopKind::Flows), byFlow);
  EXPECT_EQ(asMap(runTop(*s, top(TopKind::Flows, 100, kT0 + kHour)), TopKind::Flows), byFlowRecent);
  EXPECT_EQ(asMap(runTop(*s, top(TopKind::Reasons)), TopKind::Reasons), byReason);
  EXPECT_EQ(asMap(runTop(*s, top(TopKind::Sources)), TopKind::Sources), bySource);
  EXPECT_EQ(asMap(runTop(*s, top(TopKind::Protocols)), TopKind::Protocols), byProto);

  // The order and the limit: the first rows are the largest, by lives or by reports as asked.
  auto byReports = runTop(*s, top(TopKind::Flows, 3, {}, TopOrder::Reports));
  ASSERT_EQ(byReports.size(), 3u);
  uint64_t most = 0;
  for (auto const& [flow, c] : byFlow) most = std::max(most, c.second);
  EXPECT_EQ(byReports[0].reports, most);
  EXPECT_GE(byReports[1].reports, byReports[2].reports);

  std::set<std::string> gotOpen;
  for (auto const& l : runLives(*s, lives(true))) {
    gotOpen.insert(flowOf(l.flow) + " " + std::to_string(l.dropTs));
  }
  EXPECT_EQ(gotOpen, open);
  std::set<std::string> gotSource;
  for (auto const& l : runLives(*s, lives(false, "192.0.2.3"))) gotSource.insert(std::to_string(l.dropTs));
  EXPECT_EQ(gotSource, fromSource3);
  EXPECT_EQ(runLives(*s, lives(false, {}, "udp dport=53")).size(), udp53);
  EXPECT_TRUE(runLives(*s, lives(false, {}, "tcp port=53")).empty());
  LivesQuery five;
  five.limit = 5;
  auto newest = runLives(*s, five);
  ASSERT_EQ(newest.size(), 5u);
  EXPECT_EQ(newest[0].seenUs, kT0 + 399 * (2 * kHour / 400));

  auto points = runTimeline(*s, TimelineQuery{kT0, kT0 + 2 * kHour - 1, kHour / 6});
  ASSERT_EQ(points.size(), 12u);
  for (size_t i = 0; i < points.size(); ++i) {
    EXPECT_EQ(points[i].atUs, kT0 + int64_t(i) * (kHour / 6));
    EXPECT_EQ(points[i].lives, perTenMinutes[int64_t(i)]) << "step " << i;
  }
}

TEST_P(StorageTest, RetentionDeletesOldLivesWithTheirReportsInChunks) {
  auto s = open();
  std::vector<ReportRow> batch;
  for (int i = 0; i < 30; ++i) {
    Drop d{"192.0.2.1", uint64_t(i), 1, tcp("10.0.0.1", uint16_t(i))};
    batch.push_back(row(d, 0, kT0 + i));
    batch.push_back(row(d, 1, kT0 + i + 100));
  }
  s->write(batch);
  EXPECT_EQ(s->deleteSeenBefore(kT0 + 20, 15), 15u);
  EXPECT_EQ(s->deleteSeenBefore(kT0 + 20, 15), 5u);
  EXPECT_EQ(s->deleteSeenBefore(kT0 + 20, 15), 0u);
  EXPECT_EQ(count(*s, "SELECT count(*) FROM lives"), 10);
  EXPECT_EQ(count(*s, "SELECT count(*) FROM reports"), 20);
  EXPECT_EQ(count(*s, "SELECT min(seen_us) FROM lives"), kT0 + 20);
}

TEST_P(StorageTest, ReadingNeedsTheSchemaAndANewerSchemaIsRefused) {
  if (GetParam() == Engine::Sqlite) std::ofstream(db_).close();  // an empty file is an empty database
  try {
    open(OpenMode::Read);
    ADD_FAILURE() << "opened a database without the schema";
  } catch (StorageError const& e) {
    EXPECT_NE(std::string(e.what()).find("holds no mod-collector schema"), std::string::npos) << e.what();
  }
  open()->write({row({"192.0.2.1", 1, 1, tcp("10.0.0.1", 80)}, 0, kT0)});
  EXPECT_EQ(runLives(*open(OpenMode::Read), {}).size(), 1u);
  if (GetParam() == Engine::Sqlite) {
    sqlite3* db = nullptr;
    sqlite3_open(db_.c_str(), &db);
    sqlite3_exec(db, "UPDATE schema_version SET version = 99", nullptr, nullptr, nullptr);
    sqlite3_close(db);
  } else {
    PGconn* c = PQconnectdb(db_.c_str());
    PQclear(PQexec(c, "UPDATE schema_version SET version = 99"));
    PQfinish(c);
  }
  try {
    open();
    ADD_FAILURE() << "opened a newer schema";
  } catch (StorageError const& e) {
    EXPECT_NE(std::string(e.what()).find("schema version 99 is newer than this mod-collector's (1)"),
              std::string::npos)
        << e.what();
    EXPECT_FALSE(e.transient());
  }
}

INSTANTIATE_TEST_SUITE_P(Engines, StorageTest, ::testing::Values(Engine::Sqlite, Engine::Postgres),
                         [](auto const& info) {
                           return info.param == Engine::Sqlite ? "Sqlite" : "Postgres";
                         });

// What is not the collector's own is refused before anything is written into it.
TEST(SqliteStorageTest, AFileThatIsNotItsOwnIsRefusedAndLeftAsItWas) {
  char d[] = "/tmp/mod-storage-XXXXXX";
  ASSERT_TRUE(mkdtemp(d));
  std::string const dir = d;
  std::string const text = dir + "/notes.txt";
  std::string const other = dir + "/other.db";
  std::ofstream(text) << "not a database at all, but long enough to hold a header's worth of bytes\n";
  sqlite3* db = nullptr;
  sqlite3_open(other.c_str(), &db);
  sqlite3_exec(db, "CREATE TABLE accounts (id INTEGER)", nullptr, nullptr, nullptr);
  sqlite3_close(db);
  auto const before = std::filesystem::file_size(text);

  for (auto const& [path, expected] :
       {std::pair{text, "file is not a database"}, std::pair{other, "holds tables of another program"},
        std::pair{dir + "/missing.db", "no such database"}}) {
    try {
      openStorage(path, path.ends_with("missing.db") ? OpenMode::Read : OpenMode::Write);
      ADD_FAILURE() << path << " was opened";
    } catch (StorageError const& e) {
      EXPECT_NE(std::string(e.what()).find(expected), std::string::npos) << e.what();
      EXPECT_NE(std::string(e.what()).find(path), std::string::npos) << e.what();
    }
  }
  EXPECT_EQ(std::filesystem::file_size(text), before);
  EXPECT_FALSE(std::filesystem::exists(text + "-wal"));
  EXPECT_FALSE(std::filesystem::exists(dir + "/missing.db"));
  std::filesystem::remove_all(dir);
}

}  // namespace
