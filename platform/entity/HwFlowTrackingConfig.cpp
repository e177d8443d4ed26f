#include "platform/entity/HwFlowTrackingConfig.h"

namespace Calyx::HwFlowTracking {

Ptr<FtConfig const> Config::hwFtConfig(String const& name) const {
  Ptr<FtConfig> const* t = hwFtConfig_.find(name);
  return t ? Ptr<FtConfig const>(*t) : nullptr;
}

Ptr<FtConfig> Config::hwFtConfig(String const& name) {
  Ptr<FtConfig>* t = hwFtConfig_.find(name);
  return t ? *t : nullptr;
}

void Config::hwFtConfigIs(String const& name, Ptr<FtConfig> tracker) {
  if (!tracker) return hwFtConfigDel(name);
  if (!hwFtConfig_.is(name, std::move(tracker))) return;
  notify(&Reactor::handleHwFtConfig, name);
}

void Config::hwFtConfigDel(String const& name) {
  if (!hwFtConfig_.del(name)) return;
  notify(&Reactor::handleHwFtConfig, name);
}

void Config::hwFtConfigDelAll() {
  hwFtConfig_.delAll([this](String const& name) { notify(&Reactor::handleHwFtConfig, name); });
}

}  // namespace Calyx::HwFlowTracking
