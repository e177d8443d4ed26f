#include "agent/FeatureHost.h"

#include <algorithm>

namespace MirrorOnDrop {

using Calyx::make;

FeatureMounts featureMountsMake(Calyx::Ptr<Calyx::EventLoop> loop) {
  using Family = Calyx::IpGenAddr::Family;
  auto scheduler = Calyx::Ptr<Calyx::TaskScheduler>(&loop->scheduler());
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
      .loop = std::move(loop),
      .scheduler = std::move(scheduler),
      .pktManager = &Calyx::PktManager::global(),
      .flexibleUftCapabilityStatus = make<Calyx::CalyxCentral::FlexibleUftCapabilityStatus>(),
      .miscConfig = make<Calyx::CalyxCentral::CalyxMiscConfig>(),
      .emtStatusIpv4 = make<Calyx::CalyxEm::ExactMatchEntryStatus>(Family::ipv4),
      .emtConfigIpv4 = make<Calyx::CalyxEm::ExactMatchEntryConfig>(Family::ipv4),
      .emtStatusIpv6 = make<Calyx::CalyxEm::ExactMatchEntryStatus>(Family::ipv6),
      .emtConfigIpv6 = make<Calyx::CalyxEm::ExactMatchEntryConfig>(Family::ipv6)};
}

FeatureHost::FeatureHost(PluginTable const& plugin, FeatureMounts mounts)
    : plugin_(plugin), mounts_(std::move(mounts)) {
  tables_ = {.emtConfig = plugin.emtConfigFactory(TableName::kEmtConfig),
             .emtStatus = plugin.emtStatusFactory(TableName::kEmtStatus),
             .collectorStatus = plugin.collectorStatusFactory(TableName::kCollectorStatus),
             .reportStatus = plugin.reportStatusFactory(TableName::kReportStatus)};
  holder_ = plugin.mountHolderFactory(mounts_, tables_);
  taskToggleFeatureOff_ = plugin.taskToggleFeatureOffMake(holder_, kToggleFeatureOffPriority);
  manager_ = plugin.managerSmFactory(mounts_, holder_, taskToggleFeatureOff_);
  if (plugin.adapterSmFactory) adapter_ = plugin.adapterSmFactory(mounts_, tables_);
}

FeatureHost::~FeatureHost() {
  adapter_ = nullptr;
  manager_ = nullptr;
  taskToggleFeatureOff_ = nullptr;
  holder_ = nullptr;
  tables_.reportStatus = nullptr;
  tables_.collectorStatus = nullptr;
  tables_.emtStatus = nullptr;
  tables_.emtConfig = nullptr;
}

FeatureTableCounts FeatureHost::tableCounts() const {
  FeatureTableCounts t;
  t.flows = flowCount();
  t.interfaces = plugin_.interfaceFlowsRead(tables_.reportStatus);
  std::sort(t.interfaces.begin(), t.interfaces.end(),
            [](auto const& a, auto const& b) { return a.interface < b.interface; });
  t.exactMatch = exactMatchCount();
  t.exactMatchInstalled = std::min(plugin_.exactMatchInstalledCount(tables_.emtStatus), t.exactMatch);
  return t;
}

}  // namespace MirrorOnDrop
