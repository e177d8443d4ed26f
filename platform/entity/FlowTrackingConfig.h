#pragma once
// FlowTracking::Config: the user's flow-tracking configuration: whether flow tracking is enabled, and the
// trackers by name, each with its report intervals and its exporters by name. An exporter (source addresses,
// DSCP, collectors by name in an IPv4 and an IPv6 collection) has the same shape as the hardware's, so the
// hardware's ExporterConfig serves as the user's too: the configuration base copies it, field by field, into
// the hardware configuration.
//
// Reactors hear handleEnabled() and handleTracker(name) on the configuration, and handleActiveInterval(),
// handleInactiveTimeout() and handleExporter(name) on a tracker; changes inside an exporter are heard on the
// exporter.

#include "platform/core/Attribute.h"
#include "platform/entity/FlowTrackingActiveInterval.h"
#include "platform/entity/FlowTrackingInactiveTimeout.h"
#include "platform/entity/HwFlowTrackingExporterConfig.h"
#include "platform/types/String.h"

namespace Calyx::FlowTracking {

class TrackerConfig : public Object, public Notifier<TrackerConfig> {
 public:
  class Reactor : public ReactorBase<TrackerConfig> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleActiveInterval() {}
    virtual void handleInactiveTimeout() {}
    virtual void handleExporter(String const& /*name*/) {}
  };
  using ExporterConfig = HwFlowTracking::ExporterConfig;

  explicit TrackerConfig(String name) : name_(std::move(name)) {}
  String const& name() const { return name_; }

  ActiveInterval activeInterval() const { return activeInterval_; }
  void activeIntervalIs(ActiveInterval v) { attributeIs(activeInterval_, v, &Reactor::handleActiveInterval); }
  InactiveTimeout inactiveTimeout() const { return inactiveTimeout_; }
  void inactiveTimeoutIs(InactiveTimeout v) {
    attributeIs(inactiveTimeout_, v, &Reactor::handleInactiveTimeout);
  }

  Ptr<ExporterConfig const> exporter(String const& name) const { return exporter_.value(name); }
  Ptr<ExporterConfig> exporter(String const& name) { return exporter_.value(name); }
  // A null exporter deletes the entry.
  void exporterIs(String const& name, Ptr<ExporterConfig> e) { exporter_.isOrDel(*this, name, std::move(e)); }
  CALYX_COLLECTION_ACCESSORS(exporter, String);

 protected:
  ~TrackerConfig() override = default;

 private:
  String name_;
  ActiveInterval activeInterval_;
  InactiveTimeout inactiveTimeout_;
  Collection<TrackerConfig, String, Ptr<ExporterConfig>> exporter_{&Reactor::handleExporter};
};

class Config : public Object, public Notifier<Config> {
 public:
  class Reactor : public ReactorBase<Config> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleEnabled() {}
    virtual void handleTracker(String const& /*name*/) {}
  };

  bool enabled() const { return enabled_; }
  void enabledIs(bool enabled) { attributeIs(enabled_, enabled, &Reactor::handleEnabled); }

  Ptr<TrackerConfig const> tracker(String const& name) const { return tracker_.value(name); }
  Ptr<TrackerConfig> tracker(String const& name) { return tracker_.value(name); }
  // A null tracker deletes the entry.
  void trackerIs(String const& name, Ptr<TrackerConfig> t) { tracker_.isOrDel(*this, name, std::move(t)); }
  CALYX_COLLECTION_ACCESSORS(tracker, String);

 private:
  bool enabled_ = false;
  Collection<Config, String, Ptr<TrackerConfig>> tracker_{&Reactor::handleTracker};

 protected:
  ~Config() override = default;
};

}  // namespace Calyx::FlowTracking
