#include "platform/entity/HwFlowTrackingStatus.h"

namespace Calyx::HwFlowTracking {

Ptr<FtStatus const> Status::hwFtStatus(String const& name) const {
  Ptr<FtStatus> const* s = hwFtStatus_.find(name);
  return s ? Ptr<FtStatus const>(*s) : nullptr;
}

Ptr<FtStatus> Status::hwFtStatus(String const& name) {
  Ptr<FtStatus>* s = hwFtStatus_.find(name);
  return s ? *s : nullptr;
}

Ptr<FtStatus> Status::hwFtStatusIs(String const& name) {
  if (Ptr<FtStatus> existing = hwFtStatus(name)) return existing;
  Ptr<FtStatus> created = make<FtStatus>(name);
  hwFtStatus_.is(name, created);
  notify(&Reactor::handleHwFtStatus, name);
  return created;
}

void Status::hwFtStatusDel(String const& name) {
  if (!hwFtStatus_.del(name)) return;
  notify(&Reactor::handleHwFtStatus, name);
}

void Status::hwFtStatusDelAll() {
  hwFtStatus_.delAll([this](String const& name) { notify(&Reactor::handleHwFtStatus, name); });
}

}  // namespace Calyx::HwFlowTracking
