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
  // The damage is in the file an earlier writer left, found while the table was being opened: the file is
  // still at path, and the table starts empty (replacing it) when the handler returns.
  bool atOpen = false;
};

// Called when a segment header or slot breaks its invariants. A handler that returns lets the table abandon
// the operation under way.
using SharedTableCorruptionHandler = std::function<void(SharedTableCorruption const&)>;

// "SharedTable <table> (<path>) is corrupted: <problem>".
std::string sharedTableCorruptionText(SharedTableCorruption const& c);
// Writes that on stderr with "; stopping", then stops the process.
[[noreturn]] void sharedTableCorruptionStop(SharedTableCorruption const& c);

// The process's own policy for tables whose options name no handler (a plug-in's tables are made by the
// plug-in, so their host cannot pass options): set once by the host program, e.g. to set a damaged file
// aside at start. Empty (the default): sharedTableCorruptionStop. Single-threaded, like the tables.
void sharedTableCorruptionHandlerIs(SharedTableCorruptionHandler handler);
// Hands c to the process's handler, or to sharedTableCorruptionStop when there is none.
void sharedTableCorruptionReport(SharedTableCorruption const& c);

// $CALYX_STATE_DIR when set and not empty, else /dev/shm/calyx. An agent names its own (mod-agent:
// the state_dir of its configuration).
std::string sharedTableDefaultStateDir();

struct SharedTableOptions {
  std::string stateDir = sharedTableDefaultStateDir();
  size_t initialCapacity = 1024;                   // slots; rounded up to a power of two, at least 16
  SharedTableCorruptionHandler corruptionHandler;  // empty: the process's handler
};

// <stateDir>/<name>: the segment file of a table.
std::string sharedTablePath(std::string const& stateDir, std::string const& name);

// A non-fatal event of a table (start afresh, a slot dropped, publishing failed): one line on stderr.
void sharedTableTrace(std::string const& table, std::string const& line);

}  // namespace Calyx
