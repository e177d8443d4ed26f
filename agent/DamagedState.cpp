#include "agent/DamagedState.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>

namespace ModAgent {

namespace {

std::string utc(char const* format) {
  std::time_t const now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  std::tm tm{};
  gmtime_r(&now, &tm);
  char text[32];
  std::strftime(text, sizeof text, format, &tm);
  return text;
}

std::string inDir(std::string const& dir, std::string const& name) {
  return !dir.empty() && dir.back() == '/' ? dir + name : dir + "/" + name;
}

bool isRegularFile(std::string const& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

constexpr char const* kPrefix = "damaged-";

}  // namespace

DamagedState::DamagedState(std::string stateDir, std::map<std::string, std::string> lost,
                           std::map<std::string, std::vector<std::string>> companions)
    : stateDir_(std::move(stateDir)), lost_(std::move(lost)), companions_(std::move(companions)) {}

DamagedTable DamagedState::setAside(Calyx::SharedTableCorruption const& c) {
  DamagedTable d = move(c.table, c.path, c.problem, {});
  prune();
  return d;
}

std::vector<DamagedTable> DamagedState::companionsSetAside(
    std::function<bool(std::string const& table)> const& holdsEntries) {
  auto const setAlready = [&](std::string const& table) {
    return std::any_of(tables_.begin(), tables_.end(), [&](auto const& d) { return d.table == table; });
  };
  std::vector<DamagedTable> done;
  for (size_t i = 0; i < tables_.size(); ++i) {
    if (!tables_[i].with.empty()) continue;
    auto const it = companions_.find(tables_[i].table);
    if (it == companions_.end()) continue;
    std::string const damaged = tables_[i].table;  // tables_ grows below
    for (auto const& other : it->second) {
      std::string const path = inDir(stateDir_, other);
      if (setAlready(other) || !isRegularFile(path) || !holdsEntries(other)) continue;
      done.push_back(
          move(other, path, "its entries go with those of " + damaged + ", which is damaged", damaged));
    }
  }
  if (!done.empty()) prune();
  return done;
}

DamagedTable DamagedState::move(std::string const& table, std::string const& path, std::string const& problem,
                                std::string const& with) {
  DamagedTable d{table, problem, with, {}, {}, utc("%Y-%m-%dT%H:%M:%SZ"), {}};
  auto const lost = lost_.find(table);
  d.lost = lost != lost_.end() ? lost->second : "what it held is lost";
  std::string error;
  if (directoryMake(error)) {
    std::string const to = inDir(dir_, table);
    if (::rename(path.c_str(), to.c_str()) == 0) {
      d.copy = to;
    } else {
      d.notKept = "cannot move " + path + " to " + to + ": " + std::strerror(errno);
    }
  } else {
    d.notKept = error;
  }
  tables_.push_back(d);
  return d;
}

bool DamagedState::directoryMake(std::string& error) {
  if (!dir_.empty()) return true;
  std::string const base = inDir(stateDir_, kPrefix + utc("%Y%m%dT%H%M%SZ"));
  // Two starts within a second (a supervisor restarting quickly) each get their own directory.
  for (int n = 0; n < 100; ++n) {
    std::string const dir = n == 0 ? base : base + "-" + std::to_string(n);
    if (::mkdir(dir.c_str(), 0750) == 0) {
      dir_ = dir;
      return true;
    }
    if (errno != EEXIST) {
      error = "cannot make " + dir + ": " + std::strerror(errno);
      return false;
    }
  }
  error = "cannot make a directory " + base + "-N: every N up to 99 is taken";
  return false;
}

void DamagedState::prune() const {
  namespace fs = std::filesystem;
  std::vector<std::string> found;
  std::error_code ec;
  for (auto const& entry : fs::directory_iterator(stateDir_, ec)) {
    std::string const name = entry.path().filename().string();
    if (name.rfind(kPrefix, 0) == 0 && entry.is_directory(ec) && !entry.is_symlink(ec))
      found.push_back(entry.path().string());
  }
  std::sort(found.begin(), found.end());
  size_t excess = found.size() > kCopiesKept ? found.size() - kCopiesKept : 0;
  for (auto const& dir : found) {
    if (excess == 0) break;
    if (dir == dir_) continue;  // this start's own, even if a clock set back made it sort first
    fs::remove_all(dir, ec);
    --excess;
  }
}

std::string DamagedState::message(DamagedTable const& d) {
  std::string const where =
      d.copy.empty() ? "it could not be kept (" + d.notKept + ") and is replaced" : "moved to " + d.copy;
  std::string const what = d.with.empty() ? "is damaged (" + d.problem + ")"
                                          : "goes with " + d.with + " (its entries belong to the same flows)";
  return "table " + d.table + " " + what + ": " + where + "; " + d.lost + "; starting with a fresh table";
}

}  // namespace ModAgent
