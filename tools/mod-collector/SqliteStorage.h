#pragma once
// SqliteStorage: the store in one SQLite file, for a collector on one machine. WAL mode, so that readers (the
// page, the query command) never wait for the writer and several collectors can write into one file in turn;
// synchronous=NORMAL: a committed batch survives the collector's crash, the last ones may not survive the
// machine's. Writes take the file's write lock for one batch (BEGIN IMMEDIATE) and wait up to 10 s for it.

#include <sqlite3.h>

#include <map>
#include <memory>
#include <string>
#include <tuple>

#include "tools/mod-collector/Storage.h"

namespace ModCollector {

struct LifeInBatch;

class SqliteStorage : public Storage {
 public:
  SqliteStorage(std::string path, OpenMode mode);
  ~SqliteStorage() override;

  WriteResult write(std::vector<ReportRow> const& batch) override;
  uint64_t deleteSeenBefore(int64_t cutoffUs, uint64_t limit) override;
  std::vector<SqlRow> select(SqlQuery const& query) override;
  std::string explain(SqlQuery const& query) override;
  void maintain() override;
  void reconnect() override;
  std::string name() const override { return "SQLite " + path_; }

  class Statement;

 private:
  void open();
  void close();
  void migrate();
  void checkVersion();
  int64_t sourceId(std::string const& address);
  int64_t reasonId(std::array<uint32_t, 4> const& words);
  std::optional<int64_t> flowId(std::optional<SampleFlow> const& flow);
  void writeLife(LifeInBatch const& life, WriteResult& result);
  [[noreturn]] void fail(std::string const& doing);

  std::string path_;
  OpenMode mode_;
  sqlite3* db_ = nullptr;
  std::map<std::string, std::unique_ptr<Statement>> statements_;  // prepared once, by their text
  Statement& statement(char const* sql);
  // Ids of the small tables, as this connection last saw them committed.
  std::map<std::string, int64_t> sources_;
  std::map<std::array<uint32_t, 4>, int64_t> reasons_;
  std::map<SampleFlow, int64_t> flows_;
};

}  // namespace ModCollector
