#pragma once
// SharedTableOptions: where a shared table's segment lives, how large it starts, and who hears about
// corruption.
//
// The state directory holds one segment file per table, named by the table. It defaults to $CALYX_STATE_DIR,
// else /dev/shm/calyx (tmpfs, so a MAP_SHARED mapping of the file is real shared memory that
// outlives the process until the machine reboots).

#include <cstddef>
#include <functional>
#include <string>

namespace Calyx {

// What a corruption handler is told: the table, its segment file, and what broke.
struct SharedTableCorruption {
  std::string table;
  std::string path;
  std::string problem;
};

// Called when a segment header or slot breaks its invariants. The default writes one line to stderr naming
// the table and the problem, then stops the process. A handler that returns lets the table abandon the
// operation under way.
using SharedTableCorruptionHandler = std::function<void(SharedTableCorruption const&)>;

[[noreturn]] void sharedTableCorruptionStop(SharedTableCorruption const& c);

// $CALYX_STATE_DIR when set and not empty, else /dev/shm/calyx. An agent names its own (mod-agent:
// the state_dir of its configuration).
std::string sharedTableDefaultStateDir();

struct SharedTableOptions {
  std::string stateDir = sharedTableDefaultStateDir();
  size_t initialCapacity = 1024;  // slots; rounded up to a power of two, at least 16
  SharedTableCorruptionHandler corruptionHandler = sharedTableCorruptionStop;
};

// <stateDir>/<name>: the segment file of a table.
std::string sharedTablePath(std::string const& stateDir, std::string const& name);

// A non-fatal event of a table (start afresh, a slot dropped, publishing failed): one line on stderr.
void sharedTableTrace(std::string const& table, std::string const& line);

}  // namespace Calyx
