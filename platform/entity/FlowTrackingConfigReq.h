#pragma once
// FlowTracking::ConfigReq: requests made to flow tracking from outside its configuration, here the
// clear-counter request. Reactors hear handleClearCounterReq() each time the request value changes; a
// repeated request differs by its time, so it is heard again.

#include "platform/core/Attribute.h"
#include "platform/entity/FlowTrackingClearCounterReq.h"

namespace Calyx::FlowTracking {

class ConfigReq : public Object, public Notifier<ConfigReq> {
 public:
  class Reactor : public ReactorBase<ConfigReq> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleClearCounterReq() {}
  };

  ClearCounterReq const& clearCounterReq() const { return clearCounterReq_; }
  void clearCounterReqIs(ClearCounterReq const& req) {
    attributeIs(clearCounterReq_, req, &Reactor::handleClearCounterReq);
  }

 private:
  ClearCounterReq clearCounterReq_;

 protected:
  ~ConfigReq() override = default;
};

}  // namespace Calyx::FlowTracking
