#pragma once
// HwFlowTracking::Config: the hardware flow-tracking configuration: one FtConfig per tracker, keyed by
// tracker name. Reactors hear handleHwFtConfig(name) for every tracker that appeared, was replaced by another
// object or went away; changes inside a tracker are heard on the tracker (FtConfig::Reactor).

#include "platform/core/Attribute.h"
#include "platform/entity/HwFlowTrackingFtConfig.h"
#include "platform/types/String.h"

namespace Calyx::HwFlowTracking {

class Config : public Object, public Notifier<Config> {
 public:
  class Reactor : public ReactorBase<Config> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleHwFtConfig(String const& /*name*/) {}
  };

  // The tracker of that name, or null. Ordered walk by name.
  Ptr<FtConfig const> hwFtConfig(String const& name) const { return hwFtConfig_.value(name); }
  Ptr<FtConfig> hwFtConfig(String const& name) { return hwFtConfig_.value(name); }
  // A null tracker deletes the entry.
  void hwFtConfigIs(String const& name, Ptr<FtConfig> tracker) {
    hwFtConfig_.isOrDel(*this, name, std::move(tracker));
  }
  CALYX_COLLECTION_ACCESSORS(hwFtConfig, String);

 private:
  Collection<Config, String, Ptr<FtConfig>> hwFtConfig_{&Reactor::handleHwFtConfig};

 protected:
  ~Config() override = default;
};

}  // namespace Calyx::HwFlowTracking
