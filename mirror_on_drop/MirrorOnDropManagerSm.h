#pragma once
// ManagerSm: decides when the feature is on. The feature is on exactly while one DispatcherSm exists, and it
// should be on while the hardware flow-tracking configuration holds a tracker and the hardware supports the
// feature.
//
// The flow-tracking configuration base translates the user's configuration into the hardware configuration
// (one tracker at most); the manager follows the hardware configuration (hwConfig_in), the capability and
// each tracker's intervals:
// - turning on: the tracker becomes the active one (its status in hwStatus, its configuration and status in
//   the MountHolder), the entity "CalyxMirror" appears in the agent's directory, a dispatcher is made;
// - turning off is a handshake: the manager raises isTogglingFeatureOff, the dispatcher stops receiving and
//   sends the pending STOP reports, then pulses isToggleFeatureOffReady; only then does the task
//   "MOD-Task:toggleFeatureOff" drop the dispatcher, the entity and the active tracker, so nothing is
//   destroyed inside its own handler. A turn-on while the turn-off is under way cancels it;
// - a renamed tracker keeps the feature on: the status moves to the new name and the dispatcher replaces its
//   sender; an interval change is copied into the active tracker's status.
// At construction it recognises an earlier run by what it left (a tracker status, flows, exact-match
// entries): with the feature still configured the new dispatcher takes the flows over; otherwise the stale
// state goes.
//
// The Exchanger's isToggleFeatureOffReady is an event: the manager does not replay it when its reactor
// attaches (a stale pulse would tear down the feature it is starting).

#include <map>
#include <memory>
#include <string>

#include "mirror_on_drop/MirrorOnDropDispatcherSm.h"
#include "mirror_on_drop/MirrorOnDropMountHolder.h"
#include "platform/entity/Dir.h"
#include "platform/entity/FlowTrackingConfigSmBase.h"

namespace MirrorOnDrop {

class ManagerSm : public Calyx::FlowTracking::ConfigSmBase {
 public:
  using Base = Calyx::FlowTracking::ConfigSmBase;
  using HwConfig = Calyx::HwFlowTracking::Config;
  using HwStatus = Calyx::HwFlowTracking::Status;
  using FtConfig = Calyx::HwFlowTracking::FtConfig;

  static constexpr char const* kAgentName = "CalyxMirror";
  static constexpr char const* kTaskToggleFeatureOffName = "MOD-Task:toggleFeatureOff";

  ManagerSm(Calyx::Ptr<Base::Config const> config, Calyx::Ptr<Base::Status> status,
            Calyx::Ptr<Calyx::Dir> agentDir, Calyx::Ptr<HwConfig> hwConfig,
            Calyx::Ptr<Base::Capabilities const> capabilities,
            Calyx::Ptr<Base::IntfStatusDir const> ethPhyIntfStatusDir,
            Calyx::Ptr<Base::IntfStatusDir const> ethLagIntfStatusDir,
            Calyx::Ptr<Base::IntfStatusDir const> subIntfStatusDir, Calyx::Ptr<Base::IpStatus const> ipStatus,
            Calyx::Ptr<Base::IpStatus const> ip6Status, Calyx::Ptr<Base::VrfStatus const> allVrfStatusLocal,
            Calyx::Ptr<Base::IntfStatusDir const> allIntfStatusDir,
            Calyx::Ptr<Calyx::TaskScheduler> scheduler, Calyx::Ptr<HwConfig const> hwConfigIn,
            Calyx::Ptr<HwStatus> hwStatus, Calyx::Ptr<Emt::Config> emtConfig,
            Calyx::Ptr<Report::Status> reportStatus, Calyx::Ptr<Calyx::Task> taskToggleFeatureOff,
            Calyx::Ptr<Exchanger> exchanger, Calyx::Ptr<MountHolder> mountHolder);

  Calyx::Ptr<Calyx::Dir> const& agentDir() const { return agentDir_; }
  Calyx::Ptr<HwConfig const> const& hwConfigIn() const { return hwConfigIn_; }
  Calyx::Ptr<HwStatus> const& hwStatus() const { return hwStatus_; }
  Calyx::Ptr<Emt::Config> const& emtConfig() const { return emtConfig_; }
  Calyx::Ptr<Report::Status> const& reportStatus() const { return reportStatus_; }
  Calyx::Ptr<Calyx::Task> const& taskToggleFeatureOff() const { return taskToggleFeatureOff_; }
  Calyx::Ptr<Exchanger> const& exchanger() const { return exchanger_; }
  Calyx::Ptr<MountHolder> const& mountHolder() const { return mountHolder_; }
  Calyx::Ptr<DispatcherSm> const& dispatcherSm() const { return dispatcherSm_; }
  size_t hwFtConfigCount() const { return hwFtConfig_.size(); }

  std::string agentName() const override { return kAgentName; }
  void handleConfigEnabled() override;
  void handleCapabilitiesSupported() override;
  // The feature does not follow interfaces through the base.
  void handleEthIntfStatus(Calyx::IntfId const&) override {}
  void handleLagIntfStatus(Calyx::IntfId const&) override {}
  void handleFlowTrackerIntfConfig(Calyx::IntfId const&) override {}
  void handleFlowTrackerIntfConfig() override {}

  void hwFtConfigIs(Calyx::String const& name, Calyx::Ptr<FtConfig const> config);
  void hwFtConfigDel(Calyx::String const& name);
  void hwFtConfigDelAll();
  void handleHwFtConfig(Calyx::String const& name);
  void handleReportInterval(Calyx::String const& name);
  void toggleFeature();
  void applyHwFtConfig(Calyx::Ptr<FtConfig const> const& ftConfig);
  void toggleFeatureOff();
  void dispatcherSmIs(Calyx::Ptr<Emt::Config> emtConfig, Calyx::Ptr<Emt::Status const> emtStatus,
                      Calyx::Ptr<HwStatus const> hwStatus, Calyx::Ptr<Report::Status> reportStatus,
                      Calyx::Ptr<Calyx::TimerWheel> timerWheel, Calyx::Ptr<Exchanger> exchanger,
                      Calyx::Ptr<MountHolder> mountHolder);
  void dispatcherSmDel();

  void initialize();
  void finalize();
  void cleanup();

 protected:
  ~ManagerSm() override;

 private:
  class HwConfigReactor;
  class FtConfigReactor;
  class TaskReactor;
  class ExchangerReactor;

  // The first tracker of the hardware configuration the manager reacts to, and the first with a status.
  Calyx::Ptr<FtConfig const> trackerConfigured() const;
  std::optional<Calyx::String> trackerActive() const;

  Calyx::Ptr<Calyx::Dir> agentDir_;
  Calyx::Ptr<HwConfig const> hwConfigIn_;
  Calyx::Ptr<HwStatus> hwStatus_;
  Calyx::Ptr<Emt::Config> emtConfig_;
  Calyx::Ptr<Report::Status> reportStatus_;
  Calyx::Ptr<Calyx::Task> taskToggleFeatureOff_;
  Calyx::Ptr<Exchanger> exchanger_;
  Calyx::Ptr<MountHolder> mountHolder_;
  Calyx::Ptr<DispatcherSm> dispatcherSm_;
  std::unique_ptr<HwConfigReactor> hwConfigReactor_;
  std::unique_ptr<TaskReactor> taskReactor_;
  std::unique_ptr<ExchangerReactor> exchangerReactor_;
  std::map<Calyx::String, std::unique_ptr<FtConfigReactor>> hwFtConfig_;
};

Calyx::Ptr<ManagerSm> managerSmFactory(
    Calyx::Ptr<ManagerSm::Base::Config const> config, Calyx::Ptr<ManagerSm::Base::Status> status,
    Calyx::Ptr<Calyx::Dir> agentDir, Calyx::Ptr<ManagerSm::HwConfig> hwConfig,
    Calyx::Ptr<ManagerSm::Base::Capabilities const> capabilities,
    Calyx::Ptr<ManagerSm::Base::IntfStatusDir const> ethPhyIntfStatusDir,
    Calyx::Ptr<ManagerSm::Base::IntfStatusDir const> ethLagIntfStatusDir,
    Calyx::Ptr<ManagerSm::Base::IntfStatusDir const> subIntfStatusDir,
    Calyx::Ptr<ManagerSm::Base::IpStatus const> ipStatus,
    Calyx::Ptr<ManagerSm::Base::IpStatus const> ip6Status,
    Calyx::Ptr<ManagerSm::Base::VrfStatus const> allVrfStatusLocal,
    Calyx::Ptr<ManagerSm::Base::IntfStatusDir const> allIntfStatusDir,
    Calyx::Ptr<Calyx::TaskScheduler> scheduler, Calyx::Ptr<ManagerSm::HwConfig const> hwConfigIn,
    Calyx::Ptr<ManagerSm::HwStatus> hwStatus, Calyx::Ptr<Emt::Config> emtConfig,
    Calyx::Ptr<Report::Status> reportStatus, Calyx::Ptr<Calyx::Task> taskToggleFeatureOff,
    Calyx::Ptr<Exchanger> exchanger, Calyx::Ptr<MountHolder> mountHolder);

}  // namespace MirrorOnDrop
