#include "agent/FeatureHost.h"

namespace MirrorOnDrop {

FeatureHost::FeatureHost(PluginTable const& plugin, FeatureMounts mounts) : mounts_(std::move(mounts)) {
  FeatureMounts const& m = mounts_;
  emtConfig_ = plugin.emtConfigFactory(kEmtConfig);
  emtStatus_ = plugin.emtStatusFactory(kEmtStatus);
  collectorStatus_ = plugin.collectorStatusFactory(kCollectorStatus);
  reportStatus_ = plugin.reportStatusFactory(kReportStatus);
  holder_ = plugin.mountHolderFactory(
      m.allIntfStatusLocalDir, m.allIntfStatusDir, m.capabilities, m.configReq, collectorStatus_, emtConfig_,
      emtStatus_, m.fcsd, m.hwConfig, m.hwStatus, nullptr, nullptr, m.kniStatus, reportStatus_, m.scheduler);
  taskToggleFeatureOff_ = holder_->makeTask(ManagerSm::kTaskToggleFeatureOffName, kToggleFeatureOffPriority);
  manager_ = plugin.managerSmFactory(
      m.config, m.status, m.agentDir, m.hwConfig, m.capabilities, m.allIntfStatusDir, m.allIntfStatusDir,
      m.allIntfStatusDir, m.kniStatus, m.kniStatus, m.kniStatus, m.allIntfStatusDir, m.scheduler, m.hwConfig,
      m.hwStatus, emtConfig_, reportStatus_, taskToggleFeatureOff_, holder_->exchanger(), holder_);
}

FeatureHost::~FeatureHost() {
  manager_ = nullptr;
  taskToggleFeatureOff_ = nullptr;
  holder_ = nullptr;
  reportStatus_ = nullptr;
  collectorStatus_ = nullptr;
  emtStatus_ = nullptr;
  emtConfig_ = nullptr;
}

}  // namespace MirrorOnDrop
