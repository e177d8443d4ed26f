#include "platform/entity/InterfacePamDesiredIntfDir.h"

namespace Calyx::Interface {

bool PamDesiredIntfDir::intfDesired(IntfId const& intfId) const {
  bool const* desired = intfDesired_.find(intfId);
  return desired && *desired;
}

void PamDesiredIntfDir::intfDesiredIs(IntfId const& intfId, bool desired) {
  if (!intfDesired_.is(intfId, desired)) return;
  notify(&Reactor::handleIntfDesired, intfId);
}

void PamDesiredIntfDir::intfDesiredDel(IntfId const& intfId) {
  if (!intfDesired_.del(intfId)) return;
  notify(&Reactor::handleIntfDesired, intfId);
}

void PamDesiredIntfDir::intfDesiredDelAll() {
  intfDesired_.delAll([this](IntfId const& intfId) { notify(&Reactor::handleIntfDesired, intfId); });
}

}  // namespace Calyx::Interface
