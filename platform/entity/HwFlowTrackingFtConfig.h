#pragma once
// HwFlowTracking::FtConfig: the hardware configuration of one flow tracker: its report intervals and its
// exporters, keyed by exporter name.
//
// Reactors hear handleActiveInterval() and handleInactiveTimeout() when those change, and
// handleExpConfig(name) for every exporter that appeared, was replaced by another object or went away.
// Changes inside an exporter are heard on the exporter itself (ExporterConfig::Reactor).

#include "platform/core/Attribute.h"
#include "platform/entity/FlowTrackingActiveInterval.h"
#include "platform/entity/FlowTrackingInactiveTimeout.h"
#include "platform/entity/HwFlowTrackingExporterConfig.h"
#include "platform/types/String.h"

namespace Calyx::HwFlowTracking {

class FtConfig : public Object, public Notifier<FtConfig> {
 public:
  class Reactor : public ReactorBase<FtConfig> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleActiveInterval() {}
    virtual void handleInactiveTimeout() {}
    virtual void handleExpConfig(String const& /*name*/) {}
  };

  explicit FtConfig(String name) : name_(std::move(name)) {}
  String const& name() const { return name_; }

  FlowTracking::ActiveInterval activeInterval() const { return activeInterval_; }
  void activeIntervalIs(FlowTracking::ActiveInterval v) {
    attributeIs(activeInterval_, v, &Reactor::handleActiveInterval);
  }
  FlowTracking::InactiveTimeout inactiveTimeout() const { return inactiveTimeout_; }
  void inactiveTimeoutIs(FlowTracking::InactiveTimeout v) {
    attributeIs(inactiveTimeout_, v, &Reactor::handleInactiveTimeout);
  }

  // The exporter of that name, or null; ordered by name.
  Ptr<ExporterConfig const> expConfig(String const& name) const { return expConfig_.value(name); }
  Ptr<ExporterConfig> expConfig(String const& name) { return expConfig_.value(name); }
  // A null exporter deletes the entry.
  void expConfigIs(String const& name, Ptr<ExporterConfig> e) {
    expConfig_.isOrDel(*this, name, std::move(e));
  }
  CALYX_COLLECTION_ACCESSORS(expConfig, String);

 protected:
  ~FtConfig() override = default;

 private:
  String name_;
  FlowTracking::ActiveInterval activeInterval_;
  FlowTracking::InactiveTimeout inactiveTimeout_;
  Collection<FtConfig, String, Ptr<ExporterConfig>> expConfig_{&Reactor::handleExpConfig};
};

}  // namespace Calyx::HwFlowTracking
