#pragma once
// KernelNetInfo::Status: the kernel's view of the host's interfaces, keyed by IntfId: the kernel device
// behind each interface and its index (0 while the device does not exist). The host agent fills it at
// start-up and on reload. Reactors hear handleKernelIntf(intf) for every interface whose entry appeared,
// changed or went away.

#include <cstdint>
#include <string>

#include "platform/core/Attribute.h"
#include "platform/types/IntfId.h"

namespace Calyx::KernelNetInfo {

struct KernelIntf {
  std::string deviceName;
  uint32_t ifIndex = 0;
  friend bool operator==(KernelIntf const&, KernelIntf const&) = default;
};

class Status : public Object, public Notifier<Status> {
 public:
  class Reactor : public ReactorBase<Status> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleKernelIntf(IntfId const& /*intfId*/) {}
  };

  std::optional<KernelIntf> kernelIntf(IntfId const& intfId) const { return kernelIntf_.get(intfId); }
  void kernelIntfIs(IntfId const& intfId, KernelIntf const& intf) { kernelIntf_.is(*this, intfId, intf); }
  CALYX_COLLECTION_ACCESSORS(kernelIntf, IntfId);

 private:
  Collection<Status, IntfId, KernelIntf> kernelIntf_{&Reactor::handleKernelIntf};

 protected:
  ~Status() override = default;
};

}  // namespace Calyx::KernelNetInfo
