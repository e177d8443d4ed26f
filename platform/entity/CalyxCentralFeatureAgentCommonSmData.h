#pragma once
// CalyxCentral::FeatureAgentCommonSmData: what every feature agent shares, here the interfaces the agent
// wants its features to listen on (for Mirror-on-Drop: the interfaces that receive the chip's mirrored drop
// frames).
//
// The interface collection is a set keyed by IntfId: intfIs(intf) adds, intfDel(intf) removes, intf(intf)
// tells whether it is in. Reactors hear handleIntf(intf) for every key that was added or removed.

#include <cstddef>
#include <optional>

#include "platform/core/Entity.h"
#include "platform/core/KeyedCollection.h"
#include "platform/types/IntfId.h"

namespace Calyx::CalyxCentral {

class FeatureAgentCommonSmData : public Object, public Notifier<FeatureAgentCommonSmData> {
 public:
  class Reactor : public ReactorBase<FeatureAgentCommonSmData> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleIntf(IntfId const& /*intfId*/) {}
  };

  bool intf(IntfId const& intfId) const { return intf_.contains(intfId); }
  size_t intfCount() const { return intf_.count(); }
  // Ordered walk by interface name; next() stays valid across changes made during the walk.
  std::optional<IntfId> intfFirst() const { return intf_.first(); }
  std::optional<IntfId> intfNext(IntfId const& after) const { return intf_.next(after); }

  void intfIs(IntfId const& intfId);
  void intfDel(IntfId const& intfId);
  void intfDelAll();

 private:
  KeyedCollection<IntfId, bool> intf_;
};

}  // namespace Calyx::CalyxCentral
