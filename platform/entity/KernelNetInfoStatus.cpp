#include "platform/entity/KernelNetInfoStatus.h"

namespace Calyx::KernelNetInfo {

std::optional<KernelIntf> Status::kernelIntf(IntfId const& intfId) const {
  KernelIntf const* k = kernelIntf_.find(intfId);
  return k ? std::optional<KernelIntf>(*k) : std::nullopt;
}

void Status::kernelIntfIs(IntfId const& intfId, KernelIntf const& intf) {
  if (!kernelIntf_.is(intfId, intf)) return;
  notify(&Reactor::handleKernelIntf, intfId);
}

void Status::kernelIntfDel(IntfId const& intfId) {
  if (!kernelIntf_.del(intfId)) return;
  notify(&Reactor::handleKernelIntf, intfId);
}

void Status::kernelIntfDelAll() {
  kernelIntf_.delAll([this](IntfId const& intfId) { notify(&Reactor::handleKernelIntf, intfId); });
}

}  // namespace Calyx::KernelNetInfo
