#include "platform/entity/FlowTrackingConfig.h"

namespace Calyx::FlowTracking {

void TrackerConfig::activeIntervalIs(ActiveInterval v) {
  if (v == activeInterval_) return;
  activeInterval_ = v;
  notify(&Reactor::handleActiveInterval);
}

void TrackerConfig::inactiveTimeoutIs(InactiveTimeout v) {
  if (v == inactiveTimeout_) return;
  inactiveTimeout_ = v;
  notify(&Reactor::handleInactiveTimeout);
}

Ptr<TrackerConfig::ExporterConfig const> TrackerConfig::exporter(String const& name) const {
  Ptr<ExporterConfig> const* e = exporter_.find(name);
  return e ? Ptr<ExporterConfig const>(*e) : nullptr;
}

Ptr<TrackerConfig::ExporterConfig> TrackerConfig::exporter(String const& name) {
  Ptr<ExporterConfig>* e = exporter_.find(name);
  return e ? *e : nullptr;
}

void TrackerConfig::exporterIs(String const& name, Ptr<ExporterConfig> exporter) {
  if (!exporter) return exporterDel(name);
  if (!exporter_.is(name, std::move(exporter))) return;
  notify(&Reactor::handleExporter, name);
}

void TrackerConfig::exporterDel(String const& name) {
  if (!exporter_.del(name)) return;
  notify(&Reactor::handleExporter, name);
}

void Config::enabledIs(bool enabled) {
  if (enabled == enabled_) return;
  enabled_ = enabled;
  notify(&Reactor::handleEnabled);
}

Ptr<TrackerConfig const> Config::tracker(String const& name) const {
  Ptr<TrackerConfig> const* t = tracker_.find(name);
  return t ? Ptr<TrackerConfig const>(*t) : nullptr;
}

Ptr<TrackerConfig> Config::tracker(String const& name) {
  Ptr<TrackerConfig>* t = tracker_.find(name);
  return t ? *t : nullptr;
}

void Config::trackerIs(String const& name, Ptr<TrackerConfig> tracker) {
  if (!tracker) return trackerDel(name);
  if (!tracker_.is(name, std::move(tracker))) return;
  notify(&Reactor::handleTracker, name);
}

void Config::trackerDel(String const& name) {
  if (!tracker_.del(name)) return;
  notify(&Reactor::handleTracker, name);
}

}  // namespace Calyx::FlowTracking
