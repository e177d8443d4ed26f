#pragma once
// HwFlowTracking::StatusStore: keeps the hardware flow-tracking status (which tracker is active, with which
// intervals) in a shared table of the state directory, as the feature's own tables are kept, so that it
// survives a crash of the agent. That is how a restarted agent's manager recognises the run before it.
//
// On construction it loads what the table holds into the Status entity (before anything reacts to it); from
// then on it follows the entity: a tracker status created or deleted, an interval changed, and writes the
// table. One store per Status.

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "platform/entity/HwFlowTrackingStatus.h"
#include "platform/shm/SharedTable.h"

namespace Calyx::HwFlowTracking {

// A tracker's name in fixed storage, so that it can live in a shared slot.
struct StoredTrackerName {
  static constexpr size_t kMax = 128;
  uint32_t length = 0;
  char bytes[kMax] = {};

  static StoredTrackerName of(std::string const& name);
  std::string name() const { return std::string(bytes, length > kMax ? kMax : length); }
  bool operator==(StoredTrackerName const& o) const;
  bool operator<(StoredTrackerName const& o) const { return name() < o.name(); }
};

struct StoredTrackerStatus {
  StoredTrackerName trackerName;
  uint32_t activeIntervalMs = 0;
  uint32_t inactiveTimeoutMs = 0;

  StoredTrackerName key() const { return trackerName; }
  bool operator==(StoredTrackerStatus const&) const = default;
  bool sound(std::string& problem) const;
};

}  // namespace Calyx::HwFlowTracking

template <>
struct std::hash<Calyx::HwFlowTracking::StoredTrackerName> {
  size_t operator()(Calyx::HwFlowTracking::StoredTrackerName const& n) const noexcept;
};

namespace Calyx::HwFlowTracking {

class StatusStore {
 public:
  using Table = SharedTable<StoredTrackerName, StoredTrackerStatus>;
  static constexpr char const* kTableName = "hwFtStatus";

  StatusStore(Ptr<Status> status, SharedTableOptions options = {});
  ~StatusStore();
  StatusStore(StatusStore const&) = delete;
  StatusStore& operator=(StatusStore const&) = delete;

  Ptr<Table const> table() const { return table_; }

 private:
  class StatusReactor;
  class FtStatusReactor;

  void trackerChanged(String const& name);
  void write(FtStatus const& s);

  Ptr<Status> status_;
  Ptr<Table> table_;
  std::unique_ptr<StatusReactor> statusReactor_;
  std::map<String, std::unique_ptr<FtStatusReactor>> trackers_;
};

}  // namespace Calyx::HwFlowTracking
