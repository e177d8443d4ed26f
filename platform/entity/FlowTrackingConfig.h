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

#include <cstddef>
#include <optional>

#include "platform/core/Entity.h"
#include "platform/core/KeyedCollection.h"
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
  void activeIntervalIs(ActiveInterval v);
  InactiveTimeout inactiveTimeout() const { return inactiveTimeout_; }
  void inactiveTimeoutIs(InactiveTimeout v);

  Ptr<ExporterConfig const> exporter(String const& name) const;
  Ptr<ExporterConfig> exporter(String const& name);
  size_t exporterCount() const { return exporter_.count(); }
  std::optional<String> exporterFirst() const { return exporter_.first(); }
  std::optional<String> exporterNext(String const& after) const { return exporter_.next(after); }
  // A null exporter deletes the entry.
  void exporterIs(String const& name, Ptr<ExporterConfig> exporter);
  void exporterDel(String const& name);

 protected:
  ~TrackerConfig() override = default;

 private:
  String name_;
  ActiveInterval activeInterval_;
  InactiveTimeout inactiveTimeout_;
  KeyedCollection<String, Ptr<ExporterConfig>> exporter_;
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
  void enabledIs(bool enabled);

  Ptr<TrackerConfig const> tracker(String const& name) const;
  Ptr<TrackerConfig> tracker(String const& name);
  size_t trackerCount() const { return tracker_.count(); }
  std::optional<String> trackerFirst() const { return tracker_.first(); }
  std::optional<String> trackerNext(String const& after) const { return tracker_.next(after); }
  // A null tracker deletes the entry.
  void trackerIs(String const& name, Ptr<TrackerConfig> tracker);
  void trackerDel(String const& name);

 private:
  bool enabled_ = false;
  KeyedCollection<String, Ptr<TrackerConfig>> tracker_;
};

}  // namespace Calyx::FlowTracking
