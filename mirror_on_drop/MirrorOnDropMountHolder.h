#pragma once
// MountHolder: everything the feature's state machines need from the host, in one counted object: the
// entities the host mounted for the feature, the Exchanger through which the state machines hand work to each
// other, and the feature's timer wheel. The state machines hold it, so it outlives them all.
//
// The mounted references are fixed for the holder's life, except hwFtConfig and hwFtStatus: plain
// references without notification, which the manager points at the active tracker's configuration and status
// while the feature is on and empties when it turns off.
//
// The host hands over the event loop that drives the feature (its activity manager) and the packet pool with
// the other mounts: the feature's timer wheel runs on that loop's clock, the dispatcher opens its packet
// access there, and the sender takes its report packets from that pool; the feature never looks for a loop
// or a pool of its own. The wheel has the feature's tuning: 200 ms buckets, a horizon of
// 525600 buckets, every timer fired at its exact time, at most 1024 timers fired per loop turn.

#include <string>

#include "mirror_on_drop/MirrorOnDropCollector.h"
#include "mirror_on_drop/MirrorOnDropEmtCommon.h"
#include "mirror_on_drop/MirrorOnDropExchanger.h"
#include "mirror_on_drop/MirrorOnDropReport.h"
#include "platform/core/EventLoop.h"
#include "platform/core/Task.h"
#include "platform/core/TaskScheduler.h"
#include "platform/core/TimerWheel.h"
#include "platform/entity/CalyxCentralFeatureAgentCommonSmData.h"
#include "platform/entity/FlowTrackingConfigReq.h"
#include "platform/entity/HwFlowTrackingCapabilities.h"
#include "platform/entity/HwFlowTrackingConfig.h"
#include "platform/entity/HwFlowTrackingStatus.h"
#include "platform/entity/InterfaceAllIntfStatusDir.h"
#include "platform/entity/InterfaceAllIntfStatusLocalDir.h"
#include "platform/entity/KernelNetInfoStatus.h"
#include "platform/types/PktManager.h"

namespace MirrorOnDrop {

class MountHolder : public Calyx::Object {
 public:
  using AllIntfStatusLocalDir = Calyx::Interface::AllIntfStatusLocalDir;
  using AllIntfStatusDir = Calyx::Interface::AllIntfStatusDir;
  using Capabilities = Calyx::HwFlowTracking::Capabilities;
  using ConfigReq = Calyx::FlowTracking::ConfigReq;
  using FeatureAgentCommonSmData = Calyx::CalyxCentral::FeatureAgentCommonSmData;
  using HwConfig = Calyx::HwFlowTracking::Config;
  using HwStatus = Calyx::HwFlowTracking::Status;
  using FtConfig = Calyx::HwFlowTracking::FtConfig;
  using FtStatus = Calyx::HwFlowTracking::FtStatus;
  using KniStatus = Calyx::KernelNetInfo::Status;

  MountHolder(Calyx::Ptr<AllIntfStatusLocalDir const> allIntfStatusLocalDir,
              Calyx::Ptr<AllIntfStatusDir const> allIntfStatusDir,
              Calyx::Ptr<Capabilities const> capabilities, Calyx::Ptr<ConfigReq const> configReq,
              Calyx::Ptr<Collector::Status> collectorStatus, Calyx::Ptr<Emt::Config> emtConfig,
              Calyx::Ptr<Emt::Status const> emtStatus, Calyx::Ptr<FeatureAgentCommonSmData const> fcsd,
              Calyx::Ptr<HwConfig const> hwConfig, Calyx::Ptr<HwStatus> hwStatus,
              Calyx::Ptr<FtConfig const> hwFtConfig, Calyx::Ptr<FtStatus> hwFtStatus,
              Calyx::Ptr<KniStatus const> kniStatus, Calyx::Ptr<Report::Status> reportStatus,
              Calyx::Ptr<Calyx::TaskScheduler> scheduler, Calyx::Ptr<Calyx::EventLoop> loop,
              Calyx::PktManager& pktManager);

  Calyx::Ptr<AllIntfStatusLocalDir const> const& allIntfStatusLocalDir() const {
    return allIntfStatusLocalDir_;
  }
  Calyx::Ptr<AllIntfStatusDir const> const& allIntfStatusDir() const { return allIntfStatusDir_; }
  Calyx::Ptr<Capabilities const> const& capabilities() const { return capabilities_; }
  Calyx::Ptr<ConfigReq const> const& configReq() const { return configReq_; }
  Calyx::Ptr<Collector::Status> const& collectorStatus() const { return collectorStatus_; }
  Calyx::Ptr<Emt::Config> const& emtConfig() const { return emtConfig_; }
  Calyx::Ptr<Emt::Status const> const& emtStatus() const { return emtStatus_; }
  Calyx::Ptr<FeatureAgentCommonSmData const> const& fcsd() const { return fcsd_; }
  Calyx::Ptr<HwConfig const> const& hwConfig() const { return hwConfig_; }
  Calyx::Ptr<HwStatus> const& hwStatus() const { return hwStatus_; }
  Calyx::Ptr<FtConfig const> const& hwFtConfig() const { return hwFtConfig_; }
  Calyx::Ptr<FtStatus> const& hwFtStatus() const { return hwFtStatus_; }
  Calyx::Ptr<KniStatus const> const& kniStatus() const { return kniStatus_; }
  Calyx::Ptr<Report::Status> const& reportStatus() const { return reportStatus_; }
  Calyx::Ptr<Calyx::TaskScheduler> const& scheduler() const { return scheduler_; }
  Calyx::Ptr<Calyx::EventLoop> const& loop() const { return loop_; }
  Calyx::PktManager& pktManager() const { return pktManager_; }
  Calyx::Ptr<Exchanger> const& exchanger() const { return exchanger_; }
  Calyx::Ptr<Calyx::TimerWheel> const& timer() const { return timer_; }

  // Plain stores, no notification; storing the same reference again changes nothing.
  void hwFtConfigIs(Calyx::Ptr<FtConfig const> config) { hwFtConfig_ = std::move(config); }
  void hwFtStatusIs(Calyx::Ptr<FtStatus> status) { hwFtStatus_ = std::move(status); }

  // A task of the given name and priority on the holder's scheduler. Inline: the host calls it across the
  // plug-in boundary without linking the plug-in.
  Calyx::Ptr<Calyx::Task> makeTask(std::string const& taskName, int priority) const {
    return scheduler_->taskNew(taskName, priority);
  }

 protected:
  ~MountHolder() override = default;

 private:
  Calyx::Ptr<AllIntfStatusLocalDir const> allIntfStatusLocalDir_;
  Calyx::Ptr<AllIntfStatusDir const> allIntfStatusDir_;
  Calyx::Ptr<Capabilities const> capabilities_;
  Calyx::Ptr<ConfigReq const> configReq_;
  Calyx::Ptr<Collector::Status> collectorStatus_;
  Calyx::Ptr<Emt::Config> emtConfig_;
  Calyx::Ptr<Emt::Status const> emtStatus_;
  Calyx::Ptr<FeatureAgentCommonSmData const> fcsd_;
  Calyx::Ptr<HwConfig const> hwConfig_;
  Calyx::Ptr<HwStatus> hwStatus_;
  Calyx::Ptr<FtConfig const> hwFtConfig_;
  Calyx::Ptr<FtStatus> hwFtStatus_;
  Calyx::Ptr<KniStatus const> kniStatus_;
  Calyx::Ptr<Report::Status> reportStatus_;
  Calyx::Ptr<Calyx::TaskScheduler> scheduler_;
  Calyx::Ptr<Calyx::EventLoop> loop_;
  Calyx::PktManager& pktManager_;
  Calyx::Ptr<Exchanger> exchanger_;
  Calyx::Ptr<Calyx::TimerWheel> timer_;
};

Calyx::Ptr<MountHolder> mountHolderFactory(
    Calyx::Ptr<MountHolder::AllIntfStatusLocalDir const> allIntfStatusLocalDir,
    Calyx::Ptr<MountHolder::AllIntfStatusDir const> allIntfStatusDir,
    Calyx::Ptr<MountHolder::Capabilities const> capabilities,
    Calyx::Ptr<MountHolder::ConfigReq const> configReq, Calyx::Ptr<Collector::Status> collectorStatus,
    Calyx::Ptr<Emt::Config> emtConfig, Calyx::Ptr<Emt::Status const> emtStatus,
    Calyx::Ptr<MountHolder::FeatureAgentCommonSmData const> fcsd,
    Calyx::Ptr<MountHolder::HwConfig const> hwConfig, Calyx::Ptr<MountHolder::HwStatus> hwStatus,
    Calyx::Ptr<MountHolder::FtConfig const> hwFtConfig, Calyx::Ptr<MountHolder::FtStatus> hwFtStatus,
    Calyx::Ptr<MountHolder::KniStatus const> kniStatus, Calyx::Ptr<Report::Status> reportStatus,
    Calyx::Ptr<Calyx::TaskScheduler> scheduler, Calyx::Ptr<Calyx::EventLoop> loop,
    Calyx::PktManager& pktManager);

}  // namespace MirrorOnDrop
