#include "tools/mod-collector/SqliteStorage.h"

#include <sys/stat.h>

#include <cstring>

#include "tools/mod-collector/LifeBatch.h"
#include "tools/mod-collector/ReportFormat.h"

namespace ModCollector {
namespace {

// Each entry brings the schema from its index's version to the next; an empty database is version 0.
char const* const kMigrations[] = {
    R"SQL(
CREATE TABLE schema_version (version INTEGER NOT NULL);
INSERT INTO schema_version VALUES (0);
CREATE TABLE sources (id INTEGER PRIMARY KEY, address TEXT NOT NULL UNIQUE);
CREATE TABLE reasons (id INTEGER PRIMARY KEY, word0 INTEGER NOT NULL, word1 INTEGER NOT NULL,
                      word2 INTEGER NOT NULL, word3 INTEGER NOT NULL, UNIQUE (word0, word1, word2, word3));
CREATE TABLE flows (id INTEGER PRIMARY KEY, ip_proto INTEGER NOT NULL, src_ip TEXT NOT NULL, dst_ip TEXT NOT NULL,
                    src_port INTEGER NOT NULL, dst_port INTEGER NOT NULL,
                    UNIQUE (ip_proto, src_ip, dst_ip, src_port, dst_port));
CREATE TABLE lives (
  id INTEGER PRIMARY KEY,
  source_id INTEGER NOT NULL REFERENCES sources (id),
  drop_ts INTEGER NOT NULL,
  digest INTEGER NOT NULL,
  reason_id INTEGER NOT NULL REFERENCES reasons (id),
  flow_id INTEGER REFERENCES flows (id),
  ip_proto INTEGER,
  data_size INTEGER NOT NULL,
  sample BLOB NOT NULL,
  dst_mac TEXT,
  src_mac TEXT,
  ethertype INTEGER,
  vlans TEXT,
  seen_us INTEGER NOT NULL,
  start_us INTEGER,
  stop_us INTEGER,
  reports INTEGER NOT NULL);
CREATE UNIQUE INDEX lives_key ON lives (source_id, drop_ts, digest);
CREATE INDEX lives_seen ON lives (seen_us);
CREATE INDEX lives_open ON lives (seen_us) WHERE stop_us IS NULL;
CREATE INDEX lives_by_flow ON lives (flow_id, seen_us, reports);
CREATE INDEX lives_by_source ON lives (source_id, seen_us, reports);
CREATE INDEX lives_by_reason ON lives (reason_id, seen_us, reports);
CREATE INDEX lives_by_proto ON lives (ip_proto, seen_us, reports);
CREATE TABLE reports (
  id INTEGER PRIMARY KEY,
  life_id INTEGER NOT NULL REFERENCES lives (id),
  type INTEGER NOT NULL,
  source_port INTEGER NOT NULL,
  collector TEXT NOT NULL,
  arrived_us INTEGER NOT NULL,
  UNIQUE (life_id, type));
CREATE VIEW report_rows AS
  SELECT r.id, s.address AS source, r.source_port, r.collector, r.arrived_us,
         CASE r.type WHEN 0 THEN 'START' ELSE 'STOP' END AS type, l.drop_ts,
         x.word0 AS reason0, x.word1 AS reason1, x.word2 AS reason2, x.word3 AS reason3,
         l.data_size, l.sample, l.dst_mac, l.src_mac, l.ethertype, l.vlans,
         f.ip_proto, f.src_ip, f.dst_ip, f.src_port, f.dst_port, r.life_id
  FROM reports r JOIN lives l ON l.id = r.life_id JOIN sources s ON s.id = l.source_id
       JOIN reasons x ON x.id = l.reason_id LEFT JOIN flows f ON f.id = l.flow_id;
)SQL",
};
static_assert(std::size(kMigrations) == kSchemaVersion);

bool transientCode(int code) {
  switch (code & 0xff) {
    case SQLITE_FULL:
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_IOERR:
    case SQLITE_NOMEM:
    case SQLITE_READONLY:
      return true;
    default:
      return false;
  }
}

}  // namespace

// A prepared statement: bind in order, step, read columns; reset before the next use.
class SqliteStorage::Statement {
 public:
  Statement(sqlite3* db, char const* sql) : db_(db) {
    if (sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &stmt_, nullptr) != SQLITE_OK) {
      throw StorageError(std::string("cannot prepare a statement: ") + sqlite3_errmsg(db), false);
    }
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(Statement const&) = delete;
  Statement& operator=(Statement const&) = delete;

  Statement& bind(int i, int64_t v) {
    check(sqlite3_bind_int64(stmt_, i, v));
    return *this;
  }
  Statement& bind(int i, std::string const& v) {
    check(sqlite3_bind_text(stmt_, i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT));
    return *this;
  }
  Statement& bind(int i, std::optional<int64_t> const& v) {
    check(v ? sqlite3_bind_int64(stmt_, i, *v) : sqlite3_bind_null(stmt_, i));
    return *this;
  }
  Statement& bind(int i, SqlValue const& v) {
    if (auto const* n = std::get_if<int64_t>(&v)) return bind(i, *n);
    if (auto const* s = std::get_if<std::string>(&v)) return bind(i, *s);
    check(sqlite3_bind_null(stmt_, i));
    return *this;
  }
  Statement& bindBlob(int i, void const* data, size_t n) {
    check(sqlite3_bind_blob(stmt_, i, data, static_cast<int>(n), SQLITE_TRANSIENT));
    return *this;
  }
  // True while a row is there to read.
  bool step() {
    int const rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    check(rc);
    return false;
  }
  int64_t integer(int col) const { return sqlite3_column_int64(stmt_, col); }
  bool isNull(int col) const { return sqlite3_column_type(stmt_, col) == SQLITE_NULL; }
  std::optional<int64_t> optInteger(int col) const {
    return isNull(col) ? std::nullopt : std::optional<int64_t>(integer(col));
  }
  std::optional<std::string> text(int col) const {
    if (isNull(col)) return std::nullopt;
    auto const* p = reinterpret_cast<char const*>(sqlite3_column_text(stmt_, col));
    return std::string(p, static_cast<size_t>(sqlite3_column_bytes(stmt_, col)));
  }
  int columns() const { return sqlite3_column_count(stmt_); }
  void reset() {
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
  }

 private:
  void check(int rc) {
    if (rc == SQLITE_OK) return;
    sqlite3_reset(stmt_);
    throw StorageError(sqlite3_errmsg(db_), transientCode(rc));
  }
  sqlite3* db_;
  sqlite3_stmt* stmt_ = nullptr;
};

namespace {

// Resets a statement however the scope ends, so that no statement holds a read transaction open.
struct Using {
  explicit Using(SqliteStorage::Statement& s) : s(s) {}
  ~Using() { s.reset(); }
  SqliteStorage::Statement& s;
};

}  // namespace

SqliteStorage::SqliteStorage(std::string path, OpenMode mode) : path_(std::move(path)), mode_(mode) {
  open();
}

SqliteStorage::~SqliteStorage() {
  close();
}

void SqliteStorage::close() {
  statements_.clear();
  sources_.clear();
  reasons_.clear();
  flows_.clear();
  if (db_) sqlite3_close_v2(db_);
  db_ = nullptr;
}

void SqliteStorage::fail(std::string const& doing) {
  int const code = sqlite3_extended_errcode(db_);
  throw StorageError(name() + ": " + doing + ": " + sqlite3_errmsg(db_), transientCode(code));
}

void SqliteStorage::open() {
  struct stat st {};
  if (mode_ == OpenMode::Read && stat(path_.c_str(), &st) != 0) {
    throw StorageError(name() + ": no such database (" + std::strerror(errno) + ")", false);
  }
  int const flags =
      SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | (mode_ == OpenMode::Write ? SQLITE_OPEN_CREATE : 0);
  if (sqlite3_open_v2(path_.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
    std::string const why = db_ ? sqlite3_errmsg(db_) : "out of memory";
    close();
    throw StorageError(name() + ": cannot open: " + why, false);
  }
  sqlite3_extended_result_codes(db_, 1);
  sqlite3_busy_timeout(db_, 10000);
  // The first statement reads the file's header: a file that is not SQLite fails here, before anything is
  // written.
  if (sqlite3_exec(db_, "PRAGMA journal_mode=WAL", nullptr, nullptr, nullptr) != SQLITE_OK) {
    std::string const why = sqlite3_errmsg(db_);
    bool const transient = transientCode(sqlite3_extended_errcode(db_));
    close();
    throw StorageError(name() + ": " + why, transient);
  }
  sqlite3_exec(db_, "PRAGMA synchronous=NORMAL; PRAGMA cache_size=-65536", nullptr, nullptr, nullptr);
  if (mode_ == OpenMode::Write) {
    migrate();  // closes the connection when it throws
    return;
  }
  try {
    checkVersion();
  } catch (...) {
    close();  // a constructor that throws runs no destructor
    throw;
  }
  sqlite3_exec(db_, "PRAGMA query_only=1", nullptr, nullptr, nullptr);
}

void SqliteStorage::reconnect() {
  close();
  open();
}

SqliteStorage::Statement& SqliteStorage::statement(char const* sql) {
  auto it = statements_.find(sql);
  if (it == statements_.end()) it = statements_.emplace(sql, std::make_unique<Statement>(db_, sql)).first;
  return *it->second;
}

void SqliteStorage::checkVersion() {
  Statement s(db_, "SELECT count(*) FROM sqlite_master WHERE type = 'table' AND name = 'schema_version'");
  s.step();
  if (s.integer(0) == 0) throw StorageError(name() + ": holds no mod-collector schema", false);
  Statement v(db_, "SELECT version FROM schema_version");
  int64_t const version = v.step() ? v.integer(0) : 0;
  if (version != kSchemaVersion) {
    throw StorageError(name() + ": schema version " + std::to_string(version) +
                           ", this mod-collector reads " + std::to_string(kSchemaVersion) +
                           (version < kSchemaVersion ? " (start a collector on it to migrate)" : ""),
                       false);
  }
}

void SqliteStorage::migrate() {
  if (sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) fail("cannot lock");
  try {
    int64_t version = 0;
    {
      Statement tables(db_, "SELECT name FROM sqlite_master WHERE type = 'table'");
      bool ours = false, others = false;
      while (tables.step()) (*tables.text(0) == "schema_version" ? ours : others) = true;
      if (ours) {
        Statement v(db_, "SELECT version FROM schema_version");
        if (v.step()) version = v.integer(0);
      } else if (others) {
        throw StorageError(name() + ": holds tables of another program (no schema_version table)", false);
      }
    }
    if (version > kSchemaVersion) {
      throw StorageError(name() + ": schema version " + std::to_string(version) +
                             " is newer than this mod-collector's (" + std::to_string(kSchemaVersion) + ")",
                         false);
    }
    for (; version < kSchemaVersion; ++version) {
      if (sqlite3_exec(db_, kMigrations[version], nullptr, nullptr, nullptr) != SQLITE_OK) {
        fail("cannot migrate the schema to version " + std::to_string(version + 1));
      }
      Statement(db_, "UPDATE schema_version SET version = ?").bind(1, version + 1).step();
    }
    if (sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) fail("cannot commit the schema");
  } catch (...) {
    sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    close();
    throw;
  }
}

int64_t SqliteStorage::sourceId(std::string const& address) {
  if (auto it = sources_.find(address); it != sources_.end()) return it->second;
  {
    Using u(statement("INSERT INTO sources (address) VALUES (?) ON CONFLICT DO NOTHING"));
    u.s.bind(1, address).step();
  }
  Using u(statement("SELECT id FROM sources WHERE address = ?"));
  u.s.bind(1, address).step();
  return sources_[address] = u.s.integer(0);
}

int64_t SqliteStorage::reasonId(std::array<uint32_t, 4> const& w) {
  if (auto it = reasons_.find(w); it != reasons_.end()) return it->second;
  auto bindWords = [&](Statement& s) {
    for (int i = 0; i < 4; ++i) s.bind(i + 1, int64_t{w[static_cast<size_t>(i)]});
  };
  {
    Using u(statement(
        "INSERT INTO reasons (word0, word1, word2, word3) VALUES (?, ?, ?, ?) ON CONFLICT DO NOTHING"));
    bindWords(u.s);
    u.s.step();
  }
  Using u(statement("SELECT id FROM reasons WHERE word0 = ? AND word1 = ? AND word2 = ? AND word3 = ?"));
  bindWords(u.s);
  u.s.step();
  return reasons_[w] = u.s.integer(0);
}

std::optional<int64_t> SqliteStorage::flowId(std::optional<SampleFlow> const& flow) {
  if (!flow) return std::nullopt;
  if (auto it = flows_.find(*flow); it != flows_.end()) return it->second;
  auto bindFlow = [&](Statement& s) {
    s.bind(1, int64_t{flow->ipProto}).bind(2, flow->srcIp).bind(3, flow->dstIp);
    s.bind(4, int64_t{flow->srcPort}).bind(5, int64_t{flow->dstPort});
  };
  {
    Using u(
        statement("INSERT INTO flows (ip_proto, src_ip, dst_ip, src_port, dst_port) VALUES (?, ?, ?, ?, ?) "
                  "ON CONFLICT DO NOTHING"));
    bindFlow(u.s);
    u.s.step();
  }
  Using u(
      statement("SELECT id FROM flows WHERE ip_proto = ? AND src_ip = ? AND dst_ip = ? AND src_port = ? AND "
                "dst_port = ?"));
  bindFlow(u.s);
  u.s.step();
  return flows_[*flow] = u.s.integer(0);
}

void SqliteStorage::writeLife(LifeInBatch const& life, WriteResult& result) {
  ReportRow const& row = *life.first;
  Report const& r = row.report;
  int64_t const source = sourceId(row.source);
  int64_t lifeId = 0;
  std::optional<int64_t> startUs, stopUs;
  bool found = false;
  {
    Using u(statement(
        "SELECT id, start_us, stop_us FROM lives WHERE source_id = ? AND drop_ts = ? AND digest = ?"));
    u.s.bind(1, source).bind(2, static_cast<int64_t>(r.timestamp)).bind(3, row.digest);
    if (u.s.step()) {
      found = true;
      lifeId = u.s.integer(0);
      startUs = u.s.optInteger(1);
      stopUs = u.s.optInteger(2);
    }
  }
  if (!found) {
    int64_t const reason = reasonId(r.reason);
    std::optional<int64_t> const flow = flowId(r.flow);
    Using u(
        statement("INSERT INTO lives (source_id, drop_ts, digest, reason_id, flow_id, ip_proto, data_size, "
                  "sample, dst_mac, "
                  "src_mac, ethertype, vlans, seen_us, start_us, stop_us, reports) "
                  "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"));
    Statement& s = u.s;
    s.bind(1, source).bind(2, static_cast<int64_t>(r.timestamp)).bind(3, row.digest).bind(4, reason);
    s.bind(5, flow).bind(6, r.flow ? std::optional<int64_t>(r.flow->ipProto) : std::nullopt);
    s.bind(7, int64_t{r.dataSize}).bindBlob(8, row.sample.data(), r.dataSize);
    if (r.ethernet) {
      s.bind(9, macText(r.ethernet->dstMac)).bind(10, macText(r.ethernet->srcMac));
      s.bind(11, int64_t{r.ethernet->etherType}).bind(12, vlansText(r.ethernet->vlans));
    }
    s.bind(13, life.seenUs).bind(14, life.startUs).bind(15, life.stopUs);
    s.bind(16, int64_t{reportsOf(life.startUs, life.stopUs)});
    s.step();
    lifeId = sqlite3_last_insert_rowid(db_);
  } else if ((!startUs && life.startUs) || (!stopUs && life.stopUs)) {
    if (!startUs) startUs = life.startUs;
    if (!stopUs) stopUs = life.stopUs;
    Using u(statement("UPDATE lives SET start_us = ?, stop_us = ?, reports = ? WHERE id = ?"));
    u.s.bind(1, startUs).bind(2, stopUs).bind(3, int64_t{reportsOf(startUs, stopUs)}).bind(4, lifeId).step();
  }
  for (ReportRow const* report : life.rows) {
    Using u(statement(
        "INSERT INTO reports (life_id, type, source_port, collector, arrived_us) VALUES (?, ?, ?, ?, ?) "
        "ON CONFLICT DO NOTHING"));
    u.s.bind(1, lifeId).bind(2, int64_t{report->report.type}).bind(3, int64_t{report->sourcePort});
    u.s.bind(4, report->collector).bind(5, report->arrivedUs).step();
    (sqlite3_changes(db_) > 0 ? result.stored : result.duplicates) += 1;
  }
}

WriteResult SqliteStorage::write(std::vector<ReportRow> const& batch) {
  WriteResult result;
  if (batch.empty()) return result;
  if (sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) fail("cannot lock");
  try {
    for (LifeInBatch const& life : livesOf(batch)) writeLife(life, result);
    if (sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) fail("cannot commit");
  } catch (StorageError const& e) {
    sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    // Ids learnt inside the rolled-back transaction may name rows that are gone.
    sources_.clear();
    reasons_.clear();
    flows_.clear();
    throw StorageError(std::string(e.what()).rfind(name(), 0) == 0 ? e.what() : name() + ": " + e.what(),
                       e.transient());
  }
  return result;
}

uint64_t SqliteStorage::deleteSeenBefore(int64_t cutoffUs, uint64_t limit) {
  if (sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) fail("cannot lock");
  try {
    {
      Using u(
          statement("DELETE FROM reports WHERE life_id IN "
                    "(SELECT id FROM lives WHERE seen_us < ? ORDER BY seen_us LIMIT ?)"));
      u.s.bind(1, cutoffUs).bind(2, static_cast<int64_t>(limit)).step();
    }
    Using u(statement(
        "DELETE FROM lives WHERE id IN (SELECT id FROM lives WHERE seen_us < ? ORDER BY seen_us LIMIT ?)"));
    u.s.bind(1, cutoffUs).bind(2, static_cast<int64_t>(limit)).step();
    uint64_t const deleted = static_cast<uint64_t>(sqlite3_changes(db_));
    if (sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) fail("cannot commit");
    return deleted;
  } catch (...) {
    sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    throw;
  }
}

std::vector<SqlRow> SqliteStorage::select(SqlQuery const& query) {
  Statement s(db_, query.sql.c_str());
  for (size_t i = 0; i < query.params.size(); ++i) s.bind(static_cast<int>(i + 1), query.params[i]);
  std::vector<SqlRow> rows;
  while (s.step()) {
    SqlRow row;
    for (int c = 0; c < s.columns(); ++c) row.push_back(s.text(c));
    rows.push_back(std::move(row));
  }
  return rows;
}

std::string SqliteStorage::explain(SqlQuery const& query) {
  SqlQuery plan = query;
  plan.sql = "EXPLAIN QUERY PLAN " + query.sql;
  std::string text;
  for (SqlRow const& row : select(plan)) text += row.at(3).value_or("") + "\n";
  return text;
}

void SqliteStorage::maintain() {
  // A bounded ANALYZE: it samples each index instead of reading it whole, so it stays cheap on a large file,
  // and it is enough for the planner to see that the per-flow and per-source indexes can be skip-scanned.
  if (sqlite3_exec(db_, "PRAGMA analysis_limit=1000; ANALYZE", nullptr, nullptr, nullptr) != SQLITE_OK) {
    fail("cannot analyze");
  }
}

}  // namespace ModCollector
