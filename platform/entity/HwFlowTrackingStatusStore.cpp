#include "platform/entity/HwFlowTrackingStatusStore.h"

#include <cstring>

#include "platform/types/Hash.h"

namespace Calyx::HwFlowTracking {

StoredTrackerName StoredTrackerName::of(std::string const& name) {
  StoredTrackerName n;
  n.length = uint32_t(std::min(name.size(), kMax));
  std::memcpy(n.bytes, name.data(), n.length);
  return n;
}

bool StoredTrackerName::operator==(StoredTrackerName const& o) const {
  return length == o.length && length <= kMax && std::memcmp(bytes, o.bytes, length) == 0;
}

bool StoredTrackerStatus::sound(std::string& problem) const {
  if (trackerName.length <= StoredTrackerName::kMax) return true;
  problem = "tracker name length " + std::to_string(trackerName.length) + " exceeds 128";
  return false;
}

class StatusStore::StatusReactor : public Status::Reactor {
 public:
  StatusReactor(StatusStore& store, Ptr<Status const> status) : Reactor(std::move(status)), store_(store) {}
  void handleHwFtStatus(String const& name) override { store_.trackerChanged(name); }

 private:
  StatusStore& store_;
};

class StatusStore::FtStatusReactor : public FtStatus::Reactor {
 public:
  FtStatusReactor(StatusStore& store, Ptr<FtStatus const> status)
      : Reactor(std::move(status)), store_(store) {}
  void handleActiveInterval() override { store_.write(*notifier()); }
  void handleInactiveTimeout() override { store_.write(*notifier()); }

 private:
  StatusStore& store_;
};

StatusStore::StatusStore(Ptr<Status> status, SharedTableOptions options)
    : status_(std::move(status)), table_(make<Table>(kTableName, std::move(options))) {
  // What an earlier run left, into the entity first; then the entity leads.
  table_->forEachEntry([&](StoredTrackerStatus const& stored) {
    Ptr<FtStatus> s = status_->hwFtStatusIs(stored.trackerName.name());
    s->activeIntervalIs(FlowTracking::ActiveInterval(stored.activeIntervalMs));
    s->inactiveTimeoutIs(FlowTracking::InactiveTimeout(stored.inactiveTimeoutMs));
  });
  statusReactor_ = std::make_unique<StatusReactor>(*this, status_);
  for (auto name = status_->hwFtStatusFirst(); name; name = status_->hwFtStatusNext(*name))
    trackerChanged(*name);
}

StatusStore::~StatusStore() {
  statusReactor_.reset();
  trackers_.clear();
}

void StatusStore::trackerChanged(String const& name) {
  Ptr<FtStatus const> const s = status_->hwFtStatus(name);
  if (!s) {
    trackers_.erase(name);
    table_->entryDel(StoredTrackerName::of(name));
    return;
  }
  trackers_[name] = std::make_unique<FtStatusReactor>(*this, s);
  write(*s);
}

void StatusStore::write(FtStatus const& s) {
  StoredTrackerStatus stored;
  stored.trackerName = StoredTrackerName::of(s.name());
  stored.activeIntervalMs = s.activeInterval().milliseconds();
  stored.inactiveTimeoutMs = s.inactiveTimeout().milliseconds();
  table_->entryIs(stored);
}

}  // namespace Calyx::HwFlowTracking

size_t std::hash<Calyx::HwFlowTracking::StoredTrackerName>::operator()(
    Calyx::HwFlowTracking::StoredTrackerName const& n) const noexcept {
  return Calyx::stringHash(n.name());
}
