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
#include <set>

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

  size_t installedCount() const { return installed_.size(); }
  size_t waitingCount() const { return waiting_.size(); }
  uint32_t capacity() const { return capacity_; }

 private:
  class ConfigReactor;
  class TimerReactor;
  struct Pending {
    ExactMatchKey key;
    double due;
  };

  void handleConfig(ExactMatchKey const& key);
  void installDue();
  void install(ExactMatchKey const& key);
  void timerArm();
  char const* familyName() const;

  Ptr<ExactMatchEntryConfig const> config_;
  Ptr<ExactMatchEntryStatus> status_;
  uint32_t capacity_;
  double installDelay_;
  Ptr<TimerWheel> wheel_;
  Ptr<Timer> timer_;
  std::deque<Pending> pending_;        // waiting for their install delay, in arrival order
  std::deque<ExactMatchKey> waiting_;  // delay over, no room yet, oldest first
  std::set<ExactMatchKey> installed_;
  std::unique_ptr<ConfigReactor> configReactor_;
  std::unique_ptr<TimerReactor> timerReactor_;
};

}  // namespace Calyx::CalyxEm
