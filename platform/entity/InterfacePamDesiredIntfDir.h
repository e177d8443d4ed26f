#pragma once
// Interface::PamDesiredIntfDir: the interfaces on which packet access is wanted.
//
// A state machine that wants to read an interface's frames sets its entry (intfDesiredIs(intf, true)); the
// packet-access manager reacts, opens a Pam and publishes it in EthDevPamCollection. An entry set to false,
// or deleted, withdraws the wish. Reactors hear handleIntfDesired(intf) for every key whose entry appeared,
// changed or went away.

#include "platform/core/Attribute.h"
#include "platform/types/IntfId.h"

namespace Calyx::Interface {

class PamDesiredIntfDir : public Object, public Notifier<PamDesiredIntfDir> {
 public:
  class Reactor : public ReactorBase<PamDesiredIntfDir> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleIntfDesired(IntfId const& /*intfId*/) {}
  };

  // True when the entry exists and is set.
  bool intfDesired(IntfId const& intfId) const { return intfDesired_.value(intfId); }
  bool intfDesiredHas(IntfId const& intfId) const { return intfDesired_.has(intfId); }
  void intfDesiredIs(IntfId const& intfId, bool desired) { intfDesired_.is(*this, intfId, desired); }
  CALYX_COLLECTION_ACCESSORS(intfDesired, IntfId);

 private:
  Collection<PamDesiredIntfDir, IntfId, bool> intfDesired_{&Reactor::handleIntfDesired};

 protected:
  ~PamDesiredIntfDir() override = default;
};

}  // namespace Calyx::Interface
