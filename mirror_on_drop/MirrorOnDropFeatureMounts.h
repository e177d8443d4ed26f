#pragma once
// FeatureMounts: what the host mounts for the feature and hands it at start-up, every reference set. Besides
// the state store's entities, the host hands over the event loop that drives the feature, the loop's task
// scheduler and the packet pool: the feature makes its timer wheel and its tasks on them and takes its report
// packets from the pool, and never looks for a loop or a pool of its own.

#include "platform/core/EventLoop.h"
#include "platform/core/TaskScheduler.h"
#include "platform/entity/CalyxCentralExactMatchSettings.h"
#include "platform/entity/CalyxCentralFeatureAgentCommonSmData.h"
#include "platform/entity/CalyxEmExactMatchEntry.h"
#include "platform/entity/Dir.h"
#include "platform/entity/FlowTrackingConfig.h"
#include "platform/entity/FlowTrackingConfigReq.h"
#include "platform/entity/FlowTrackingStatus.h"
#include "platform/entity/HwFlowTrackingCapabilities.h"
#include "platform/entity/HwFlowTrackingConfig.h"
#include "platform/entity/HwFlowTrackingStatus.h"
#include "platform/entity/InterfaceAllIntfStatusDir.h"
#include "platform/entity/InterfaceAllIntfStatusLocalDir.h"
#include "platform/entity/KernelNetInfoStatus.h"
#include "platform/types/PktManager.h"

namespace MirrorOnDrop {

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
  Calyx::Ptr<Calyx::EventLoop> loop;
  Calyx::Ptr<Calyx::TaskScheduler> scheduler;  // the loop's
  Calyx::PktManager* pktManager = nullptr;     // outlives the feature
  // The chip's exact-match tables and what decides whether they may be used.
  Calyx::Ptr<Calyx::CalyxCentral::FlexibleUftCapabilityStatus> flexibleUftCapabilityStatus;
  Calyx::Ptr<Calyx::CalyxCentral::CalyxMiscConfig> miscConfig;
  Calyx::Ptr<Calyx::CalyxEm::ExactMatchEntryStatus> emtStatusIpv4;
  Calyx::Ptr<Calyx::CalyxEm::ExactMatchEntryConfig> emtConfigIpv4;
  Calyx::Ptr<Calyx::CalyxEm::ExactMatchEntryStatus> emtStatusIpv6;
  Calyx::Ptr<Calyx::CalyxEm::ExactMatchEntryConfig> emtConfigIpv6;
};

}  // namespace MirrorOnDrop
