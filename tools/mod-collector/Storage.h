#pragma once
// Storage: where reports are kept, behind one small interface with one implementation per engine (SQLite for
// one machine, PostgreSQL for a fleet), each through the engine's own client library. One object is one
// connection, used by one thread at a time: the writer thread, the page's server and the query command each
// open their own.
//
// The schema (the same tables in both engines, created or migrated at open):
//   schema_version  the version of this layout (one row)
//   sources         exporters, by the address their reports come from
//   reasons         the four reason words
//   flows           five-tuples decoded from samples
//   lives           one row per drop life: its report (drop timestamp, reason, sample and what is decoded
//   from
//                   it), when its first report arrived (seen_us), its START and STOP arrivals, and how many
//                   of its reports are stored (1 or 2); unique by (source, drop timestamp, digest)
//   reports         one row per stored report: its life, its type, the sender's port, the collector it
//   reached
//                   and its arrival; unique by (life, type)
//   report_rows     a view: every stored report with everything known about it, one row each
// Times are microseconds since the epoch (UTC); the drop timestamp, an unsigned 64-bit number, is stored as
// the signed number of the same bits.

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "tools/mod-collector/ReportRow.h"

namespace ModCollector {

inline constexpr int kSchemaVersion = 1;

// transient: the engine may take the same work later (connection lost, disk full, busy); otherwise the
// database cannot be used as it is (not a database, a newer schema, refused credentials).
class StorageError : public std::runtime_error {
 public:
  StorageError(std::string const& what, bool transient) : std::runtime_error(what), transient_(transient) {}
  bool transient() const { return transient_; }

 private:
  bool transient_;
};

struct WriteResult {
  uint64_t stored = 0;      // reports new to the database
  uint64_t duplicates = 0;  // reports it held already
};

// A read-only statement for either engine: "?" marks each parameter, bound in order.
using SqlValue = std::variant<std::nullptr_t, int64_t, std::string>;
struct SqlQuery {
  std::string sql;
  std::vector<SqlValue> params;
};
using SqlRow = std::vector<std::optional<std::string>>;  // each column as text, nothing for NULL

class Storage {
 public:
  virtual ~Storage() = default;

  // Stores a batch in one transaction. Writing the same reports again changes nothing, so a batch whose
  // commit was not confirmed can be written again. Throws StorageError; the batch is then not stored.
  virtual WriteResult write(std::vector<ReportRow> const& batch) = 0;
  // Deletes at most limit of the oldest lives first seen before cutoffUs, with their reports; how many went.
  virtual uint64_t deleteSeenBefore(int64_t cutoffUs, uint64_t limit) = 0;
  virtual std::vector<SqlRow> select(SqlQuery const& query) = 0;
  // The engine's plan for a query, one step a line.
  virtual std::string explain(SqlQuery const& query) = 0;
  // Refreshes what the engine's planner knows of the tables' sizes (cheap; the writer calls it now and then).
  virtual void maintain() = 0;
  // Opens the connection again after a transient error (throws StorageError while it cannot).
  virtual void reconnect() = 0;
  // "SQLite /var/lib/x.db", "PostgreSQL mod@db1:5432/drops" (never a password).
  virtual std::string name() const = 0;
};

enum class OpenMode {
  Write,  // creates the database (SQLite) and the schema when missing, migrates an older schema
  Read,   // the database and its schema must exist already
};

bool isPostgresUrl(std::string const& db);
// SQLite for a path, PostgreSQL for "postgresql://..." or "postgres://...". Throws StorageError naming the
// database and what is wrong with it.
std::unique_ptr<Storage> openStorage(std::string const& db, OpenMode mode);

}  // namespace ModCollector
