#pragma once
// CalyxCentral::FeatureAgentCommonSmData: what every feature agent shares, here the interfaces the agent
// wants its features to listen on (for Mirror-on-Drop: the interfaces that receive the chip's mirrored drop
// frames) and the agent's overload guard: maxFlows, the most flows a feature keeps state for at once (0: no
// cap). It is the agent's limit, not the feature's configuration: a feature past it refuses new flows and
// counts them.
//
// The interface collection is a set keyed by IntfId: intfIs(intf) adds, intfDel(intf) removes, intf(intf)
// tells whether it is in. Reactors hear handleIntf(intf) for every key that was added or removed.

#include <cstdint>

#include "platform/core/Attribute.h"
#include "platform/types/IntfId.h"

namespace Calyx::CalyxCentral {

class FeatureAgentCommonSmData : public Object, public Notifier<FeatureAgentCommonSmData> {
 public:
  class Reactor : public ReactorBase<FeatureAgentCommonSmData> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleIntf(IntfId const& /*intfId*/) {}
    virtual void handleMaxFlows() {}
  };

  bool intf(IntfId const& intfId) const { return intf_.has(intfId); }
  void intfIs(IntfId const& intfId) { intf_.is(*this, intfId, true); }
  CALYX_COLLECTION_ACCESSORS(intf, IntfId);

  uint64_t maxFlows() const { return maxFlows_; }
  void maxFlowsIs(uint64_t n) { attributeIs(maxFlows_, n, &Reactor::handleMaxFlows); }

 private:
  Collection<FeatureAgentCommonSmData, IntfId, bool> intf_{&Reactor::handleIntf};
  uint64_t maxFlows_ = 0;

 protected:
  ~FeatureAgentCommonSmData() override = default;
};

}  // namespace Calyx::CalyxCentral
