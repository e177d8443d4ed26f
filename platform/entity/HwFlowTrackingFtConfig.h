#pragma once
// HwFlowTracking::FtConfig: the hardware configuration of one flow tracker: its report intervals and its
// exporters, keyed by exporter name.
//
// Reactors hear handleActiveInterval() and handleInactiveTimeout() when those change, and
// handleExpConfig(name) for every exporter that appeared, was replaced by another object or went away.
// Changes inside an exporter are heard on the exporter itself (ExporterConfig::Reactor).

#include <cstddef>
#include <optional>

#include "platform/core/Entity.h"
#include "platform/core/KeyedCollection.h"
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
  void activeIntervalIs(FlowTracking::ActiveInterval v);
  FlowTracking::InactiveTimeout inactiveTimeout() const { return inactiveTimeout_; }
  void inactiveTimeoutIs(FlowTracking::InactiveTimeout v);

  // The exporter of that name, or null. Ordered walk by name; next() stays valid across changes made during
  // the walk.
  Ptr<ExporterConfig const> expConfig(String const& name) const;
  Ptr<ExporterConfig> expConfig(String const& name);
  size_t expConfigCount() const { return expConfig_.count(); }
  std::optional<String> expConfigFirst() const { return expConfig_.first(); }
  std::optional<String> expConfigNext(String const& after) const { return expConfig_.next(after); }
  // A null exporter deletes the entry.
  void expConfigIs(String const& name, Ptr<ExporterConfig> exporter);
  void expConfigDel(String const& name);
  void expConfigDelAll();

 protected:
  ~FtConfig() override = default;

 private:
  String name_;
  FlowTracking::ActiveInterval activeInterval_;
  FlowTracking::InactiveTimeout inactiveTimeout_;
  KeyedCollection<String, Ptr<ExporterConfig>> expConfig_;
};

}  // namespace Calyx::HwFlowTracking
