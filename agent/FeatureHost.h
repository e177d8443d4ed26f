#pragma once
// FeatureHost: the host's side of the plug-in. Given the plug-in's table and the entities the host mounted
// for the feature, it brings the feature up in its start-up order and down in the reverse:
//   up:   the four shared tables (through the plug-in's table factories), the MountHolder (which makes the
//         Exchanger and the feature's timer wheel), the task "MOD-Task:toggleFeatureOff", the ManagerSm
//         (whose construction may turn the feature on at once), the exact-match adapter when the plug-in has
//         one;
//   down: the adapter, the manager (its clean-up turns the feature off at once), the task, the holder, the
//         tables.
// It lives in the host because only the host knows both the platform and the plug-in's table; the platform
// below knows no feature.

#include <string>

#include "mirror_on_drop/MirrorOnDropPlugin.h"
#include "platform/entity/Dir.h"
#include "platform/entity/FlowTrackingConfig.h"
#include "platform/entity/FlowTrackingStatus.h"

namespace MirrorOnDrop {

// What the host mounts for the feature. Every reference must be set.
struct FeatureMounts {
  Calyx::Ptr<Calyx::FlowTracking::Config> config;
  Calyx::Ptr<Calyx::FlowTracking::Status> status;
  Calyx::Ptr<Calyx::Dir> agentDir;
  Calyx::Ptr<Calyx::Interface::AllIntfStatusLocalDir> allIntfStatusLocalDir;
  Calyx::Ptr<Calyx::Interface::AllIntfStatusDir> allIntfStatusDir;
  Calyx::Ptr<Calyx::HwFlowTracking::Capabilities> capabilities;
  Calyx::Ptr<Calyx::FlowTracking::ConfigReq> configReq;
  Calyx::Ptr<Calyx::CalyxCentral::FeatureAgentCommonSmData> fcsd;
  Calyx::Ptr<Calyx::HwFlowTracking::Config> hwConfig;
  Calyx::Ptr<Calyx::HwFlowTracking::Status> hwStatus;
  Calyx::Ptr<Calyx::KernelNetInfo::Status> kniStatus;
  Calyx::Ptr<Calyx::TaskScheduler> scheduler;
  // The chip's exact-match tables and what decides whether they may be used.
  Calyx::Ptr<Calyx::CalyxCentral::FlexibleUftCapabilityStatus> flexibleUftCapabilityStatus;
  Calyx::Ptr<Calyx::CalyxCentral::CalyxMiscConfig> miscConfig;
  Calyx::Ptr<Calyx::CalyxEm::ExactMatchEntryStatus> emtStatusIpv4;
  Calyx::Ptr<Calyx::CalyxEm::ExactMatchEntryConfig> emtConfigIpv4;
  Calyx::Ptr<Calyx::CalyxEm::ExactMatchEntryStatus> emtStatusIpv6;
  Calyx::Ptr<Calyx::CalyxEm::ExactMatchEntryConfig> emtConfigIpv6;
};

// Every mounted entity made afresh, empty, for a scheduler.
FeatureMounts featureMountsMake(Calyx::Ptr<Calyx::TaskScheduler> scheduler);

class FeatureHost {
 public:
  static constexpr int kToggleFeatureOffPriority = 5;
  FeatureHost(PluginTable const& plugin, FeatureMounts mounts);
  ~FeatureHost();
  FeatureHost(FeatureHost const&) = delete;
  FeatureHost& operator=(FeatureHost const&) = delete;

  FeatureMounts const& mounts() const { return mounts_; }
  Calyx::Ptr<Emt::Config> const& emtConfig() const { return emtConfig_; }
  Calyx::Ptr<Emt::Status> const& emtStatus() const { return emtStatus_; }
  Calyx::Ptr<Collector::Status> const& collectorStatus() const { return collectorStatus_; }
  Calyx::Ptr<Report::Status> const& reportStatus() const { return reportStatus_; }
  Calyx::Ptr<MountHolder> const& holder() const { return holder_; }
  Calyx::Ptr<ManagerSm> const& manager() const { return manager_; }
  Calyx::Ptr<AdapterSm> const& adapter() const { return adapter_; }
  // The feature is on: its entity is in the agent's directory.
  bool featureOn() const { return static_cast<bool>(mounts_.agentDir->entry(ManagerSm::kAgentName)); }

 private:
  FeatureMounts mounts_;
  Calyx::Ptr<Emt::Config> emtConfig_;
  Calyx::Ptr<Emt::Status> emtStatus_;
  Calyx::Ptr<Collector::Status> collectorStatus_;
  Calyx::Ptr<Report::Status> reportStatus_;
  Calyx::Ptr<MountHolder> holder_;
  Calyx::Ptr<Calyx::Task> taskToggleFeatureOff_;
  Calyx::Ptr<ManagerSm> manager_;
  Calyx::Ptr<AdapterSm> adapter_;
};

}  // namespace MirrorOnDrop
