#pragma once
// HwFlowTracking::FtStatus: the status of the active hardware flow tracker: the report intervals in force.
// Reactors hear handleActiveInterval() and handleInactiveTimeout() when those change.

#include "platform/core/Attribute.h"
#include "platform/entity/FlowTrackingActiveInterval.h"
#include "platform/entity/FlowTrackingInactiveTimeout.h"
#include "platform/types/String.h"

namespace Calyx::HwFlowTracking {

class FtStatus : public Object, public Notifier<FtStatus> {
 public:
  class Reactor : public ReactorBase<FtStatus> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleActiveInterval() {}
    virtual void handleInactiveTimeout() {}
  };

  explicit FtStatus(String name) : name_(std::move(name)) {}
  String const& name() const { return name_; }

  FlowTracking::ActiveInterval activeInterval() const { return activeInterval_; }
  void activeIntervalIs(FlowTracking::ActiveInterval v) {
    attributeIs(activeInterval_, v, &Reactor::handleActiveInterval);
  }
  FlowTracking::InactiveTimeout inactiveTimeout() const { return inactiveTimeout_; }
  void inactiveTimeoutIs(FlowTracking::InactiveTimeout v) {
    attributeIs(inactiveTimeout_, v, &Reactor::handleInactiveTimeout);
  }

 protected:
  ~FtStatus() override = default;

 private:
  String name_;
  FlowTracking::ActiveInterval activeInterval_;
  FlowTracking::InactiveTimeout inactiveTimeout_;
};

}  // namespace Calyx::HwFlowTracking
