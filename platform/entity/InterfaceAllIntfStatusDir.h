#pragma once
// Interface::AllIntfStatusDir: what the host knows of its interfaces, keyed by IntfId: whether each is up and
// where its frames come from. The host agent fills it from its configuration; the packet-access manager opens
// an interface's module from its backend, and only while the interface is up. Reactors hear
// handleIntfStatus(intf) for every interface whose status appeared, changed or went away.

#include "platform/core/Attribute.h"
#include "platform/entity/InterfacePamBackend.h"
#include "platform/types/IntfId.h"

namespace Calyx::Interface {

struct IntfStatus {
  bool operUp = true;
  PamBackend pamBackend;
  friend bool operator==(IntfStatus const&, IntfStatus const&) = default;
};

class AllIntfStatusDir : public Object, public Notifier<AllIntfStatusDir> {
 public:
  class Reactor : public ReactorBase<AllIntfStatusDir> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleIntfStatus(IntfId const& /*intfId*/) {}
  };

  std::optional<IntfStatus> intfStatus(IntfId const& intfId) const { return intfStatus_.get(intfId); }
  void intfStatusIs(IntfId const& intfId, IntfStatus const& status) { intfStatus_.is(*this, intfId, status); }
  CALYX_COLLECTION_ACCESSORS(intfStatus, IntfId);

 private:
  Collection<AllIntfStatusDir, IntfId, IntfStatus> intfStatus_{&Reactor::handleIntfStatus};

 protected:
  ~AllIntfStatusDir() override = default;
};

}  // namespace Calyx::Interface
