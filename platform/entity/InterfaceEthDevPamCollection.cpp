#include "platform/entity/InterfaceEthDevPamCollection.h"

namespace Calyx::Interface {

Ptr<Pam const> EthDevPamCollection::intfPam(IntfId const& intfId) const {
  Ptr<Pam const> const* pam = intfPam_.find(intfId);
  return pam ? *pam : nullptr;
}

void EthDevPamCollection::intfPamIs(IntfId const& intfId, Ptr<Pam const> pam) {
  if (!pam) {
    intfPamDel(intfId);
    return;
  }
  if (!intfPam_.is(intfId, std::move(pam))) return;
  notify(&Reactor::handleIntfPam, intfId);
}

void EthDevPamCollection::intfPamDel(IntfId const& intfId) {
  if (!intfPam_.del(intfId)) return;
  notify(&Reactor::handleIntfPam, intfId);
}

void EthDevPamCollection::intfPamDelAll() {
  intfPam_.delAll([this](IntfId const& intfId) { notify(&Reactor::handleIntfPam, intfId); });
}

}  // namespace Calyx::Interface
