// Drop history through the real programs: mod-agent replays a capture on the virtual clock to two
// mod-collectors that write into one database, an SQLite file or a PostgreSQL server the test starts itself
// (as nobody when run as root; skipped, saying why, only where it cannot start). What is stored, and what
// `mod-collector query` answers, is checked against the agent's summary and against counts made here from the
// capture itself. Then a PostgreSQL restart while reports arrive: the collectors queue, reconnect and lose
// nothing.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <thread>

#include "testkit/TempPostgres.h"
#include "testkit/TempStateDir.h"
#include "tests/support/CollectorProcess.h"
#include "tests/support/MirroredFrameReader.h"
#include "tests/support/PcapRecords.h"
#include "tests/support/ReportDatagrams.h"

using Calyx::Test::CollectorProcess;
using Calyx::Test::programRun;
using Json = nlohmann::json;

namespace {

enum class Engine { Sqlite, Postgres };

Calyx::Test::TempPostgres& server() {
  static Calyx::Test::TempPostgres pg;
  return pg;
}

// The counters of a collector's "stored:" line.
struct Stored {
  uint64_t fresh = 0, duplicates = 0, queueFull = 0, refused = 0, unwritten = 0;
};

Stored storedLine(std::string const& err) {
  std::smatch m;
  static std::regex const line(
      R"(stored: (\d+) reports new, (\d+) already stored; not stored: (\d+) dropped \(queue full\), (\d+) refused, )"
      R"((\d+) unwritten at exit)");
  Stored s;
  if (!std::regex_search(err, m, line)) {
    ADD_FAILURE() << "no stored line in:\n" << err;
    return s;
  }
  s.fresh = std::stoull(m[1]);
  s.duplicates = std::stoull(m[2]);
  s.queueFull = std::stoull(m[3]);
  s.refused = std::stoull(m[4]);
  s.unwritten = std::stoull(m[5]);
  return s;
}

class CollectorFleetTest : public ::testing::TestWithParam<Engine> {
 protected:
  void SetUp() override {
    char d[] = "/tmp/mod-fleet-XXXXXX";
    ASSERT_TRUE(mkdtemp(d));
    work_ = d;
    if (GetParam() == Engine::Sqlite) {
      db_ = work_ + "/drops.db";
      return;
    }
    if (!server().ok()) GTEST_SKIP() << "PostgreSQL cannot start here: " << server().why();
    static int n = 0;
    std::string const name = "fleet" + std::to_string(getpid()) + "_" + std::to_string(++n);
    ASSERT_TRUE(server().createDatabase(name));
    db_ = server().url(name);
  }
  void TearDown() override { std::filesystem::remove_all(work_); }

  // One number from the database, read apart from the collector's own code.
  int64_t sql(std::string const& query) const {
    if (GetParam() == Engine::Sqlite) {
      sqlite3* db = nullptr;
      sqlite3_open_v2(db_.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
      sqlite3_stmt* s = nullptr;
      sqlite3_prepare_v2(db, query.c_str(), -1, &s, nullptr);
      int64_t const v = sqlite3_step(s) == SQLITE_ROW ? sqlite3_column_int64(s, 0) : -1;
      sqlite3_finalize(s);
      sqlite3_close(db);
      return v;
    }
    PGconn* c = PQconnectdb(db_.c_str());
    PGresult* r = PQexec(c, query.c_str());
    int64_t const v =
        PQresultStatus(r) == PGRES_TUPLES_OK && PQntuples(r) ? std::stoll(PQgetvalue(r, 0, 0)) : -1;
    PQclear(r);
    PQfinish(c);
    return v;
  }

  Json query(std::vector<std::string> args) const {
    args.insert(args.begin(), {"query", "--db", db_, "--json"});
    auto const r = programRun("mod-collector", args);
    EXPECT_EQ(r.status, 0) << r.err;
    return r.status == 0 ? Json::parse(r.out) : Json();
  }

  std::string work_;
  std::string db_;
};

std::string flowText(Calyx::DropFlow const& f) {
  auto hostPort = [](Calyx::IpGenAddr const& a, uint16_t p) {
    std::string const t = a.stringValue();
    return (t.find(':') != std::string::npos ? "[" + t + "]" : t) + ":" + std::to_string(p);
  };
  return std::string(f.ipProto == 6 ? "TCP" : "UDP") + " " + hostPort(f.srcIp, f.srcPort) + " -> " +
         hostPort(f.dstIp, f.dstPort);
}

std::string flowText(Json const& f) {
  auto hostPort = [](std::string const& ip, int p) {
    return (ip.find(':') != std::string::npos ? "[" + ip + "]" : ip) + ":" + std::to_string(p);
  };
  return std::string(f["ip_proto"] == 6 ? "TCP" : "UDP") + " " + hostPort(f["src_ip"], f["src_port"]) +
         " -> " + hostPort(f["dst_ip"], f["dst_port"]);
}

TEST_P(CollectorFleetTest, AgentReplayToTwoCollectorsStoresEveryReportAndLifeOnce) {
  std::string const pcap = work_ + "/drops.pcap";
  auto const gen = programRun("mod-gen", {"--out", pcap, "--flows", "24", "--drops-per-flow", "3", "--seed",
                                          "5", "--malformed", "all", "--rate", "10"});
  ASSERT_EQ(gen.status, 0) << gen.err;
  std::set<std::string> flows;  // what the capture holds, read with the tests' own reader
  for (auto const& rec : Calyx::Test::pcapRecords(pcap)) {
    auto const d = Calyx::Test::readMirrored(rec.bytes);
    if (d.rejection.empty()) flows.insert(flowText(d.flow));
  }
  ASSERT_EQ(flows.size(), 24u);

  std::vector<std::string> const args = {"--db", db_, "--quiet", "--count", "48"};
  CollectorProcess c1(args), c2(args);
  ASSERT_TRUE(c1.started() && c2.started()) << c1.err() << c2.err();
  Calyx::Test::TempStateDir state;
  std::ofstream(work_ + "/agent.toml")
      << "[agent]\nstate_dir = \"" << state.path() << "\"\n[hardware]\nmirror_on_drop = true\n"
      << "[capture]\nreplay = \"" << pcap
      << "\"\nreplay_interface = \"Ethernet1\"\nreplay_clock = \"virtual\"\n"
      << "[flow_tracking]\nenabled = true\n[flow_tracking.trackers.t1]\nactive_interval = 1.0\n"
      << "inactive_timeout = 5.0\n[flow_tracking.trackers.t1.exporters.e1]\nsource_ipv4 = \"127.0.0.1\"\n"
      << "collectors = { c1 = \"127.0.0.1:" << c1.port() << "\", c2 = \"127.0.0.1:" << c2.port() << "\" }\n";
  auto const agent = programRun("mod-agent", {"--config", work_ + "/agent.toml"});
  ASSERT_EQ(agent.status, 0) << agent.err;
  ASSERT_NE(agent.err.find("reports START 24, STOP 24"), std::string::npos) << agent.err;
  ASSERT_EQ(c1.program().wait(30), 0) << c1.err();
  ASSERT_EQ(c2.program().wait(30), 0) << c2.err();

  // Each collector received all 48 reports; between them each was stored once.
  Stored const s1 = storedLine(c1.err()), s2 = storedLine(c2.err());
  EXPECT_EQ(s1.fresh + s2.fresh, 48u);
  EXPECT_EQ(s1.duplicates + s2.duplicates, 48u);
  EXPECT_EQ(s1.queueFull + s2.queueFull + s1.unwritten + s2.unwritten + s1.refused + s2.refused, 0u);
  EXPECT_EQ(sql("SELECT count(*) FROM reports"), 48);
  EXPECT_EQ(sql("SELECT count(*) FROM lives"), 24);
  EXPECT_EQ(sql("SELECT count(*) FROM lives WHERE start_us IS NOT NULL AND stop_us IS NOT NULL"), 24);
  EXPECT_EQ(sql("SELECT count(*) FROM report_rows WHERE source = '127.0.0.1'"), 48);

  Json const top = query({"top", "flows", "--limit", "100"});
  std::set<std::string> topFlows;
  for (auto const& row : top["rows"]) {
    topFlows.insert(flowText(row["flow"]));
    EXPECT_EQ(row["lives"], 1);
    EXPECT_EQ(row["reports"], 2);
  }
  EXPECT_EQ(topFlows, flows);
  Json const sources = query({"top", "sources"});
  ASSERT_EQ(sources["rows"].size(), 1u);
  EXPECT_EQ(sources["rows"][0], Json::parse(R"({"source":"127.0.0.1","lives":24,"reports":48})"));
  EXPECT_TRUE(query({"lives", "--open"})["lives"].empty());
  uint64_t inTimeline = 0;
  Json const timeline = query({"timeline", "--since", "10m", "--step", "1m"});
  for (auto const& p : timeline["points"]) inTimeline += p["lives"].get<uint64_t>();
  EXPECT_EQ(inTimeline, 24u);
  auto const table = programRun("mod-collector", {"query", "--db", db_, "top", "protocols"});
  EXPECT_EQ(table.out.rfind("lives  reports  protocol\n", 0), 0u) << table.out;
}

INSTANTIATE_TEST_SUITE_P(Engines, CollectorFleetTest, ::testing::Values(Engine::Sqlite, Engine::Postgres),
                         [](auto const& info) {
                           return info.param == Engine::Sqlite ? "Sqlite" : "Postgres";
                         });

class PostgresFleetTest : public CollectorFleetTest {};

// Reports sent by the test to both collectors, in three waves: before, during and after a restart of the
// server.
TEST_P(PostgresFleetTest, ADatabaseRestartWhileReportsArriveLosesNothingTheQueueHolds) {
  std::vector<std::string> const args = {"--db", db_, "--quiet", "--count", "120"};
  CollectorProcess c1(args), c2(args);
  ASSERT_TRUE(c1.started() && c2.started()) << c1.err() << c2.err();
  int const fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  auto send = [&](uint8_t type, int life) {
    auto const d = Calyx::Test::reportDatagram(
        type, 5000 + uint64_t(life), {0, 0, 0, 4},
        Calyx::Test::droppedSample("10.1.0.1", "10.2.0.2", 17, 999, uint16_t(life)));
    for (uint16_t port : {c1.port(), c2.port()}) {
      sockaddr_in to{};
      to.sin_family = AF_INET;
      to.sin_port = htons(port);
      to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      sendto(fd, d.data(), d.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    }
  };
  auto waitFor = [&](std::string const& q, int64_t n) {
    for (int i = 0; i < 500 && sql(q) != n; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return sql(q);
  };

  for (int life = 0; life < 30; ++life) send(0, life);
  ASSERT_EQ(waitFor("SELECT count(*) FROM reports", 30), 30);
  server().stop();
  for (int life = 0; life < 30; ++life)
    send(1, life);  // their STOPs, and 30 new lives, while the server is down
  for (int life = 30; life < 60; ++life) send(0, life);
  EXPECT_TRUE(c1.program().waitForErr("retrying", 30)) << c1.err();
  EXPECT_TRUE(c2.program().waitForErr("retrying", 30)) << c2.err();
  ASSERT_TRUE(server().start()) << server().why();
  for (int life = 30; life < 60; ++life) send(1, life);
  close(fd);
  ASSERT_EQ(c1.program().wait(60), 0) << c1.err();
  ASSERT_EQ(c2.program().wait(60), 0) << c2.err();

  for (auto const* c : {&c1, &c2}) EXPECT_NE(c->err().find("writing again"), std::string::npos) << c->err();
  Stored const s1 = storedLine(c1.err()), s2 = storedLine(c2.err());
  EXPECT_EQ(s1.fresh + s2.fresh, 120u);
  EXPECT_EQ(s1.duplicates + s2.duplicates, 120u);
  EXPECT_EQ(sql("SELECT count(*) FROM reports"), 120);
  EXPECT_EQ(sql("SELECT count(*) FROM lives WHERE start_us IS NOT NULL AND stop_us IS NOT NULL"), 60);
  EXPECT_EQ(sql("SELECT count(*) FROM lives"), 60);
}

INSTANTIATE_TEST_SUITE_P(Postgres, PostgresFleetTest, ::testing::Values(Engine::Postgres));

}  // namespace
