#include "tools/mod-collector/Storage.h"

#include "tools/mod-collector/PostgresStorage.h"
#include "tools/mod-collector/SqliteStorage.h"

namespace ModCollector {

bool isPostgresUrl(std::string const& db) {
  return db.rfind("postgresql://", 0) == 0 || db.rfind("postgres://", 0) == 0;
}

std::unique_ptr<Storage> openStorage(std::string const& db, OpenMode mode) {
  if (isPostgresUrl(db)) return std::make_unique<PostgresStorage>(db, mode);
  return std::make_unique<SqliteStorage>(db, mode);
}

}  // namespace ModCollector
