#include "agent/FeatureHost.h"

namespace MirrorOnDrop {

using Calyx::make;

FeatureMounts featureMountsMake(Calyx::Ptr<Calyx::TaskScheduler> scheduler) {
  using Family = Calyx::IpGenAddr::Family;
  return FeatureMounts{
      .config = make<Calyx::FlowTracking::Config>(),
      .status = make<Calyx::FlowTracking::Status>(),
      .agentDir = make<Calyx::Dir>("mod-agent"),
      .allIntfStatusLocalDir = make<Calyx::Interface::AllIntfStatusLocalDir>(),
      .allIntfStatusDir = make<Calyx::Interface::AllIntfStatusDir>(),
      .capabilities = make<Calyx::HwFlowTracking::Capabilities>(),
      .configReq = make<Calyx::FlowTracking::ConfigReq>(),
      .fcsd = make<Calyx::CalyxCentral::FeatureAgentCommonSmData>(),
      .hwConfig = make<Calyx::HwFlowTracking::Config>(),
      .hwStatus = make<Calyx::HwFlowTracking::Status>(),
      .kniStatus = make<Calyx::KernelNetInfo::Status>(),
      .scheduler = std::move(scheduler),
      .flexibleUftCapabilityStatus = make<Calyx::CalyxCentral::FlexibleUftCapabilityStatus>(),
      .miscConfig = make<Calyx::CalyxCentral::CalyxMiscConfig>(),
      .emtStatusIpv4 = make<Calyx::CalyxEm::ExactMatchEntryStatus>(Family::ipv4),
      .emtConfigIpv4 = make<Calyx::CalyxEm::ExactMatchEntryConfig>(Family::ipv4),
      .emtStatusIpv6 = make<Calyx::CalyxEm::ExactMatchEntryStatus>(Family::ipv6),
      .emtConfigIpv6 = make<Calyx::CalyxEm::ExactMatchEntryConfig>(Family::ipv6)};
}

FeatureHost::FeatureHost(PluginTable const& plugin, FeatureMounts mounts) : mounts_(std::move(mounts)) {
  FeatureMounts const& m = mounts_;
  emtConfig_ = plugin.emtConfigFactory(TableName::kEmtConfig);
  emtStatus_ = plugin.emtStatusFactory(TableName::kEmtStatus);
  collectorStatus_ = plugin.collectorStatusFactory(TableName::kCollectorStatus);
  reportStatus_ = plugin.reportStatusFactory(TableName::kReportStatus);
  holder_ = plugin.mountHolderFactory(
      m.allIntfStatusLocalDir, m.allIntfStatusDir, m.capabilities, m.configReq, collectorStatus_, emtConfig_,
      emtStatus_, m.fcsd, m.hwConfig, m.hwStatus, nullptr, nullptr, m.kniStatus, reportStatus_, m.scheduler);
  taskToggleFeatureOff_ = holder_->makeTask(ManagerSm::kTaskToggleFeatureOffName, kToggleFeatureOffPriority);
  manager_ = plugin.managerSmFactory(
      m.config, m.status, m.agentDir, m.hwConfig, m.capabilities, m.allIntfStatusDir, m.allIntfStatusDir,
      m.allIntfStatusDir, m.kniStatus, m.kniStatus, m.kniStatus, m.allIntfStatusDir, m.scheduler, m.hwConfig,
      m.hwStatus, emtConfig_, reportStatus_, taskToggleFeatureOff_, holder_->exchanger(), holder_);
  if (plugin.adapterSmFactory) {
    adapter_ = plugin.adapterSmFactory(m.flexibleUftCapabilityStatus, m.miscConfig, emtConfig_, emtStatus_,
                                       m.emtStatusIpv4, m.emtConfigIpv4, m.emtStatusIpv6, m.emtConfigIpv6);
  }
}

FeatureHost::~FeatureHost() {
  adapter_ = nullptr;
  manager_ = nullptr;
  taskToggleFeatureOff_ = nullptr;
  holder_ = nullptr;
  reportStatus_ = nullptr;
  collectorStatus_ = nullptr;
  emtStatus_ = nullptr;
  emtConfig_ = nullptr;
}

}  // namespace MirrorOnDrop
