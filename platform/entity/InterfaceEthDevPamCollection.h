#pragma once
// Interface::EthDevPamCollection: the packet-access modules that are open, one per interface.
//
// Written by the packet-access manager only; read by the state machines that consume frames. Reactors hear
// handleIntfPam(intf) whenever the module of an interface appears, is replaced or goes away; they look it up
// with intfPam(intf), which is null once it is gone. A reader keeps its own Ptr to a module as long as it
// reads it.

#include "platform/core/Attribute.h"
#include "platform/entity/Pam.h"
#include "platform/types/IntfId.h"

namespace Calyx::Interface {

class EthDevPamCollection : public Object, public Notifier<EthDevPamCollection> {
 public:
  class Reactor : public ReactorBase<EthDevPamCollection> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleIntfPam(IntfId const& /*intfId*/) {}
  };

  // The interface's module, or null.
  Ptr<Pam const> intfPam(IntfId const& intfId) const { return intfPam_.value(intfId); }
  // A null module deletes the entry.
  void intfPamIs(IntfId const& intfId, Ptr<Pam const> pam) {
    intfPam_.isOrDel(*this, intfId, std::move(pam));
  }
  CALYX_COLLECTION_ACCESSORS(intfPam, IntfId);

 private:
  Collection<EthDevPamCollection, IntfId, Ptr<Pam const>> intfPam_{&Reactor::handleIntfPam};

 protected:
  ~EthDevPamCollection() override = default;
};

}  // namespace Calyx::Interface
