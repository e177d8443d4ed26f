#include "platform/entity/InterfaceAllIntfStatusDir.h"

namespace Calyx::Interface {

std::optional<IntfStatus> AllIntfStatusDir::intfStatus(IntfId const& intfId) const {
  IntfStatus const* s = intfStatus_.find(intfId);
  return s ? std::optional<IntfStatus>(*s) : std::nullopt;
}

void AllIntfStatusDir::intfStatusIs(IntfId const& intfId, IntfStatus const& status) {
  if (!intfStatus_.is(intfId, status)) return;
  notify(&Reactor::handleIntfStatus, intfId);
}

void AllIntfStatusDir::intfStatusDel(IntfId const& intfId) {
  if (!intfStatus_.del(intfId)) return;
  notify(&Reactor::handleIntfStatus, intfId);
}

void AllIntfStatusDir::intfStatusDelAll() {
  intfStatus_.delAll([this](IntfId const& intfId) { notify(&Reactor::handleIntfStatus, intfId); });
}

}  // namespace Calyx::Interface
