#pragma once
// DamagedState: the tables of the state directory that failed their checks when the agent opened them.
//
// Each damaged file is moved into <state dir>/damaged-<UTC time>/ (one directory per start), so the agent
// starts with a fresh table instead of stopping on the same damage at every start, and an operator keeps the
// bytes to look at. Tables whose entries only make sense together are companions: once every table has been
// opened, companionsSetAside() moves the companions of a damaged table along with it, so the fresh tables
// agree with each other. At most kCopiesKept damaged-* directories are kept, the oldest (by name, which is
// by time) removed first, so a flapping disk cannot fill the file system.
//
// Only the file system of the state directory is touched; a file that cannot be moved is said and left for
// the table to replace.

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/shm/SharedTableOptions.h"

namespace ModAgent {

struct DamagedTable {
  std::string table;    // its file name in the state directory
  std::string problem;  // what its checks found
  std::string with;     // for a companion: the damaged table it went with (problem says so too)
  std::string copy;     // where the file went; empty when it could not be moved ...
  std::string notKept;  // ... and why
  std::string time;     // when it was set aside, UTC, e.g. 2024-05-01T12:00:00Z
  std::string lost;     // what the agent cannot do any more because the table's entries are gone
};

class DamagedState {
 public:
  static constexpr size_t kCopiesKept = 3;

  // lost: per table, the sentence said about what its loss means (a table not named gets a general one);
  // companions: per table, the tables whose entries go with its own.
  DamagedState(std::string stateDir, std::map<std::string, std::string> lost = {},
               std::map<std::string, std::vector<std::string>> companions = {});

  // Moves c.path aside and records it.
  DamagedTable setAside(Calyx::SharedTableCorruption const& c);
  // Moves aside the files of the companions of every damaged table recorded so far (those still in the state
  // directory, not set aside yet, and holding entries by holdsEntries); returns what it recorded.
  std::vector<DamagedTable> companionsSetAside(
      std::function<bool(std::string const& table)> const& holdsEntries);
  std::vector<DamagedTable> const& tables() const { return tables_; }

  // One sentence for the operator: which table, what was wrong, where the copy is, what is lost.
  static std::string message(DamagedTable const& d);

 private:
  DamagedTable move(std::string const& table, std::string const& path, std::string const& problem,
                    std::string const& with);
  bool directoryMake(std::string& error);
  void prune() const;

  std::string stateDir_;
  std::map<std::string, std::string> lost_;
  std::map<std::string, std::vector<std::string>> companions_;
  std::string dir_;  // this start's damaged-<time>, once made
  std::vector<DamagedTable> tables_;
};

}  // namespace ModAgent
