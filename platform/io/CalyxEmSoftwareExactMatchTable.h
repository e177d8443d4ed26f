#pragma once
// CalyxEm::SoftwareExactMatchTable: the chip's exact-match table of one address family, done in software on
// this host. It follows an ExactMatchEntryConfig and writes the matching ExactMatchEntryStatus:
// - a configured entry is installed installDelay seconds later (on the loop's timers), when the table has
//   room; until then its status says not installed;
// - an entry beyond the capacity stays uninstalled, with a trace line naming the table's occupancy and size,
//   and is installed, oldest first, as soon as room frees up;
// - a removed entry leaves the table and the status at once; a changed one (another interface set) stays as
//   it is.
// Trace handle "Calyx-ExactMatch": level 3 for a full table, 5 for every entry installed or removed.

#include <cstdint>
#include <deque>
#include <memory>
#include <unordered_map>

#include "platform/core/EventLoop.h"
#include "platform/core/TimerWheel.h"
#include "platform/entity/CalyxEmExactMatchEntry.h"

namespace Calyx::CalyxEm {

class SoftwareExactMatchTable {
 public:
  SoftwareExactMatchTable(EventLoop& loop, Ptr<ExactMatchEntryConfig const> config,
                          Ptr<ExactMatchEntryStatus> status, uint32_t capacity, double installDelay);
  ~SoftwareExactMatchTable();
  SoftwareExactMatchTable(SoftwareExactMatchTable const&) = delete;
  SoftwareExactMatchTable& operator=(SoftwareExactMatchTable const&) = delete;

  size_t installedCount() const { return installedCount_; }
  size_t waitingCount() const { return waitingCount_; }
  uint32_t capacity() const { return capacity_; }

 private:
  class ConfigReactor;
  class TimerReactor;
  enum class State : uint8_t { pending, waiting, installed };
  // Every entry the table knows, with where it stands. The queues below hold keys in arrival order and are
  // cleaned lazily: a queued key counts only while its entry is still in that state under the same ticket,
  // so that adding, removing and installing an entry never searches a queue (a storm of flows puts a
  // million entries here).
  struct Entry {
    State state;
    uint64_t ticket;
  };
  struct Queued {
    ExactMatchKey key;
    uint64_t ticket;
    double due;  // pending entries only
  };

  void handleConfig(ExactMatchKey const& key);
  void installDue();
  void install(ExactMatchKey const& key, Entry& entry);
  // The first queued key still standing in state, or nullptr; stale keys before it are dropped.
  Queued const* front(std::deque<Queued>& queue, State state);
  void compact(std::deque<Queued>& queue, State state, size_t live);
  bool isLive(Queued const& q, State state) const;
  void timerArm();
  char const* familyName() const;

  Ptr<ExactMatchEntryConfig const> config_;
  Ptr<ExactMatchEntryStatus> status_;
  uint32_t capacity_;
  double installDelay_;
  Ptr<TimerWheel> wheel_;
  Ptr<Timer> timer_;
  std::unordered_map<ExactMatchKey, Entry> entries_;
  std::deque<Queued> pending_;  // waiting for their install delay, in arrival order
  std::deque<Queued> waiting_;  // delay over, no room yet, oldest first
  uint64_t nextTicket_ = 0;
  size_t pendingCount_ = 0;
  size_t waitingCount_ = 0;
  size_t installedCount_ = 0;
  std::unique_ptr<ConfigReactor> configReactor_;
  std::unique_ptr<TimerReactor> timerReactor_;
};

}  // namespace Calyx::CalyxEm
