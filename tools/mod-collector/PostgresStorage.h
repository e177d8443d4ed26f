#pragma once
// PostgresStorage: the store in a PostgreSQL database, for a fleet: several collectors write into one
// database, and the unique keys make each report, and each life, land once whichever collector writes it
// first. A batch is copied (COPY) into two temporary tables and merged from there with two statements, so a
// batch costs a few round trips whatever its size. Writers take row locks in key order; a deadlock or a lost
// connection is a transient error, and the writer retries the batch.

#include <libpq-fe.h>

#include <array>
#include <map>
#include <string>

#include "tools/mod-collector/Storage.h"

namespace ModCollector {

class PostgresStorage : public Storage {
 public:
  PostgresStorage(std::string url, OpenMode mode);
  ~PostgresStorage() override;

  WriteResult write(std::vector<ReportRow> const& batch) override;
  uint64_t deleteSeenBefore(int64_t cutoffUs, uint64_t limit) override;
  std::vector<SqlRow> select(SqlQuery const& query) override;
  std::string explain(SqlQuery const& query) override;
  void maintain() override {}  // autovacuum keeps the planner's statistics
  void reconnect() override;
  std::string name() const override { return name_; }

  class Result;

 private:
  void connect();
  void disconnect();
  void migrate();
  void checkVersion();
  Result exec(std::string const& sql, std::vector<std::string> const& params = {});
  void copy(std::string const& into, std::string const& data);
  [[noreturn]] void fail(std::string const& doing, PGresult const* result);

  std::string url_;
  OpenMode mode_;
  std::string name_;
  PGconn* conn_ = nullptr;
};

}  // namespace ModCollector
