#include "mirror_on_drop/MirrorOnDropMountHolder.h"

#include "platform/core/Assert.h"

namespace MirrorOnDrop {

using Calyx::Ptr;

namespace {
// How the feature's wheel fires: each timer at its own time, not in bucket-wide batches.
constexpr bool kFireInBatches = false;
constexpr uint32_t kMaxFirePerTurn = 1024;

Calyx::EventLoop& activityManager(Ptr<Calyx::EventLoop> const& loop) {
  CALYX_ASSERT(loop, "No activity manager: the event loop must exist before the feature's timers.");
  return *loop;
}
}  // namespace

MountHolder::MountHolder(Ptr<AllIntfStatusLocalDir const> allIntfStatusLocalDir,
                         Ptr<AllIntfStatusDir const> allIntfStatusDir, Ptr<Capabilities const> capabilities,
                         Ptr<ConfigReq const> configReq, Ptr<Collector::Status> collectorStatus,
                         Ptr<Emt::Config> emtConfig, Ptr<Emt::Status const> emtStatus,
                         Ptr<FeatureAgentCommonSmData const> fcsd, Ptr<HwConfig const> hwConfig,
                         Ptr<HwStatus> hwStatus, Ptr<FtConfig const> hwFtConfig, Ptr<FtStatus> hwFtStatus,
                         Ptr<KniStatus const> kniStatus, Ptr<Report::Status> reportStatus,
                         Ptr<Calyx::TaskScheduler> scheduler, Ptr<Calyx::EventLoop> loop,
                         Calyx::PktManager& pktManager)
    : allIntfStatusLocalDir_(std::move(allIntfStatusLocalDir)),
      allIntfStatusDir_(std::move(allIntfStatusDir)),
      capabilities_(std::move(capabilities)),
      configReq_(std::move(configReq)),
      collectorStatus_(std::move(collectorStatus)),
      emtConfig_(std::move(emtConfig)),
      emtStatus_(std::move(emtStatus)),
      fcsd_(std::move(fcsd)),
      hwConfig_(std::move(hwConfig)),
      hwStatus_(std::move(hwStatus)),
      hwFtConfig_(std::move(hwFtConfig)),
      hwFtStatus_(std::move(hwFtStatus)),
      kniStatus_(std::move(kniStatus)),
      reportStatus_(std::move(reportStatus)),
      scheduler_(std::move(scheduler)),
      loop_(std::move(loop)),
      pktManager_(pktManager),
      exchanger_(Calyx::make<Exchanger>()),
      timer_(Calyx::make<Calyx::TimerWheel>(activityManager(loop_), Constant::Timer::granularity(),
                                            Constant::Timer::maxTicks(), kFireInBatches, kMaxFirePerTurn)) {}

Ptr<MountHolder> mountHolderFactory(
    Ptr<MountHolder::AllIntfStatusLocalDir const> allIntfStatusLocalDir,
    Ptr<MountHolder::AllIntfStatusDir const> allIntfStatusDir,
    Ptr<MountHolder::Capabilities const> capabilities, Ptr<MountHolder::ConfigReq const> configReq,
    Ptr<Collector::Status> collectorStatus, Ptr<Emt::Config> emtConfig, Ptr<Emt::Status const> emtStatus,
    Ptr<MountHolder::FeatureAgentCommonSmData const> fcsd, Ptr<MountHolder::HwConfig const> hwConfig,
    Ptr<MountHolder::HwStatus> hwStatus, Ptr<MountHolder::FtConfig const> hwFtConfig,
    Ptr<MountHolder::FtStatus> hwFtStatus, Ptr<MountHolder::KniStatus const> kniStatus,
    Ptr<Report::Status> reportStatus, Ptr<Calyx::TaskScheduler> scheduler, Ptr<Calyx::EventLoop> loop,
    Calyx::PktManager& pktManager) {
  return Calyx::make<MountHolder>(
      std::move(allIntfStatusLocalDir), std::move(allIntfStatusDir), std::move(capabilities),
      std::move(configReq), std::move(collectorStatus), std::move(emtConfig), std::move(emtStatus),
      std::move(fcsd), std::move(hwConfig), std::move(hwStatus), std::move(hwFtConfig), std::move(hwFtStatus),
      std::move(kniStatus), std::move(reportStatus), std::move(scheduler), std::move(loop), pktManager);
}

}  // namespace MirrorOnDrop
