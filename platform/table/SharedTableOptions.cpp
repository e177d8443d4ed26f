#include "platform/table/SharedTableOptions.h"

#include <cstdio>
#include <cstdlib>

namespace Calyx {

void sharedTableCorruptionStop(SharedTableCorruption const& c) {
  std::fprintf(stderr, "SharedTable %s (%s) is corrupted: %s; stopping\n", c.table.c_str(), c.path.c_str(),
               c.problem.c_str());
  std::fflush(stderr);
  std::abort();
}

std::string sharedTableDefaultStateDir() {
  char const* dir = std::getenv("CALYX_STATE_DIR");
  if (dir && *dir) return dir;
  return "/dev/shm/calyx";
}

std::string sharedTablePath(std::string const& stateDir, std::string const& name) {
  if (!stateDir.empty() && stateDir.back() == '/') return stateDir + name;
  return stateDir + "/" + name;
}

void sharedTableTrace(std::string const& table, std::string const& line) {
  std::fprintf(stderr, "SharedTable %s: %s\n", table.c_str(), line.c_str());
}

}  // namespace Calyx
