#include "platform/entity/HwFlowTrackingFtConfig.h"

namespace Calyx::HwFlowTracking {

void FtConfig::activeIntervalIs(FlowTracking::ActiveInterval v) {
  if (v == activeInterval_) return;
  activeInterval_ = v;
  notify(&Reactor::handleActiveInterval);
}

void FtConfig::inactiveTimeoutIs(FlowTracking::InactiveTimeout v) {
  if (v == inactiveTimeout_) return;
  inactiveTimeout_ = v;
  notify(&Reactor::handleInactiveTimeout);
}

Ptr<ExporterConfig const> FtConfig::expConfig(String const& name) const {
  Ptr<ExporterConfig> const* e = expConfig_.find(name);
  return e ? Ptr<ExporterConfig const>(*e) : nullptr;
}

Ptr<ExporterConfig> FtConfig::expConfig(String const& name) {
  Ptr<ExporterConfig>* e = expConfig_.find(name);
  return e ? *e : nullptr;
}

void FtConfig::expConfigIs(String const& name, Ptr<ExporterConfig> exporter) {
  if (!exporter) return expConfigDel(name);
  if (!expConfig_.is(name, std::move(exporter))) return;
  notify(&Reactor::handleExpConfig, name);
}

void FtConfig::expConfigDel(String const& name) {
  if (!expConfig_.del(name)) return;
  notify(&Reactor::handleExpConfig, name);
}

void FtConfig::expConfigDelAll() {
  expConfig_.delAll([this](String const& name) { notify(&Reactor::handleExpConfig, name); });
}

}  // namespace Calyx::HwFlowTracking
