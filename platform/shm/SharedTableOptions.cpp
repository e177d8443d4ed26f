#include "platform/shm/SharedTableOptions.h"

#include <cstdio>
#include <cstdlib>

namespace Calyx {

std::string sharedTableCorruptionText(SharedTableCorruption const& c) {
  return "SharedTable " + c.table + " (" + c.path + ") is corrupted: " + c.problem;
}

void sharedTableCorruptionStop(SharedTableCorruption const& c) {
  std::fprintf(stderr, "%s; stopping\n", sharedTableCorruptionText(c).c_str());
  std::fflush(stderr);
  std::abort();
}

namespace {

SharedTableCorruptionHandler& processHandler() {
  static auto* const handler = new SharedTableCorruptionHandler;  // never destroyed: tables may outlive main
  return *handler;
}

}  // namespace

void sharedTableCorruptionHandlerIs(SharedTableCorruptionHandler handler) {
  processHandler() = std::move(handler);
}

void sharedTableCorruptionReport(SharedTableCorruption const& c) {
  // A copy: the handler may replace itself.
  SharedTableCorruptionHandler const handler = processHandler();
  if (handler) return handler(c);
  sharedTableCorruptionStop(c);
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
