#pragma once
// FlowTracking::ConfigSmBase: the reactor that turns the user's flow-tracking configuration into the hardware
// flow-tracking configuration, for a feature agent that derives from it.
//
// The hardware runs one tracker at a time: with flow tracking enabled, hwConfig holds the first configured
// tracker by name (its intervals and exporters copied into hardware objects); disabled, or with no tracker,
// it holds none. A tracker that is renamed or replaced leaves the hardware before the new one enters, so a
// reactor on hwConfig sees "no tracker", then "the new tracker". A hardware tracker or exporter enters fully
// built; changes to one already in hardware go through its setters (intervals, sources, DSCP, each
// collector), so its reactors see each real transition. Status says which configured tracker the hardware
// runs.
//
// The derived agent hears, through its overrides: handleConfigEnabled() when the enabled flag changes (it is
// expected to call handleFlowTrackerConfig()), handleCapabilitiesSupported() when the hardware's support for
// the feature changes, and the interface handlers. The base never calls an override from its constructor:
// the derived class runs the first translation itself, by calling handleFlowTrackerConfig() once built.
//
// On this host the IP, IPv6 and VRF state an agent may consult is the kernel's view (KernelNetInfo::Status).

#include <map>
#include <memory>
#include <utility>

#include "platform/core/TaskScheduler.h"
#include "platform/entity/FlowTrackingConfig.h"
#include "platform/entity/FlowTrackingStatus.h"
#include "platform/entity/HwFlowTrackingCapabilities.h"
#include "platform/entity/HwFlowTrackingConfig.h"
#include "platform/entity/InterfaceAllIntfStatusDir.h"
#include "platform/entity/KernelNetInfoStatus.h"

namespace Calyx::FlowTracking {

class ConfigSmBase : public Object {
 public:
  using Config = FlowTracking::Config;
  using Status = FlowTracking::Status;
  using HwConfig = HwFlowTracking::Config;
  using Capabilities = HwFlowTracking::Capabilities;
  using IntfStatusDir = Interface::AllIntfStatusDir;
  using IpStatus = KernelNetInfo::Status;
  using VrfStatus = KernelNetInfo::Status;

  ConfigSmBase(Ptr<Config const> config, Ptr<Status> status, Ptr<HwConfig> hwConfig,
               Ptr<Capabilities const> capabilities, Ptr<IntfStatusDir const> ethPhyIntfStatusDir,
               Ptr<IntfStatusDir const> ethLagIntfStatusDir, Ptr<IntfStatusDir const> subIntfStatusDir,
               Ptr<IpStatus const> ipStatus, Ptr<IpStatus const> ip6Status,
               Ptr<VrfStatus const> allVrfStatusLocal, Ptr<IntfStatusDir const> allIntfStatusDir,
               Ptr<TaskScheduler> scheduler);

  Ptr<Config const> const& config() const { return config_; }
  Ptr<Status> const& status() const { return status_; }
  Ptr<HwConfig> const& hwConfig() const { return hwConfig_; }
  Ptr<Capabilities const> const& capabilities() const { return capabilities_; }
  Ptr<TaskScheduler> const& scheduler() const { return scheduler_; }

  // Brings hwConfig and status in line with the configuration.
  void handleFlowTrackerConfig();
  // The hardware half of that, on its own: what a host presents as the hardware configuration an agent
  // finds when it is built.
  static void hwConfigTranslate(Config const& config, HwConfig& hwConfig);
  // The tracker the hardware should run: the first configured one by name while enabled.
  static Ptr<TrackerConfig const> trackerWanted(Config const& config);

  virtual std::string agentName() const = 0;
  virtual void handleConfigEnabled() {}
  virtual void handleCapabilitiesSupported() {}
  virtual void handleEthIntfStatus(IntfId const&) {}
  virtual void handleLagIntfStatus(IntfId const&) {}
  virtual void handleFlowTrackerIntfConfig(IntfId const&) {}
  virtual void handleFlowTrackerIntfConfig() {}

 protected:
  ~ConfigSmBase() override;

 private:
  class ConfigReactor;
  class TrackerReactor;
  class ExporterReactor;
  class CapabilitiesReactor;
  class IntfReactor;
  using ExporterConfig = HwFlowTracking::ExporterConfig;

  // Follows every tracker and exporter of the configuration with a reactor.
  void reactorsSync();
  static Ptr<HwFlowTracking::FtConfig> hwTrackerMake(TrackerConfig const& tracker);
  static void hwTrackerSync(TrackerConfig const& tracker, HwFlowTracking::FtConfig& hw);
  static void hwExporterSync(ExporterConfig const& from, ExporterConfig& to);

  Ptr<Config const> config_;
  Ptr<Status> status_;
  Ptr<HwConfig> hwConfig_;
  Ptr<Capabilities const> capabilities_;
  Ptr<IntfStatusDir const> ethPhyIntfStatusDir_;
  Ptr<IntfStatusDir const> ethLagIntfStatusDir_;
  Ptr<IntfStatusDir const> subIntfStatusDir_;
  Ptr<IpStatus const> ipStatus_;
  Ptr<IpStatus const> ip6Status_;
  Ptr<VrfStatus const> allVrfStatusLocal_;
  Ptr<IntfStatusDir const> allIntfStatusDir_;
  Ptr<TaskScheduler> scheduler_;
  std::unique_ptr<ConfigReactor> configReactor_;
  std::unique_ptr<CapabilitiesReactor> capabilitiesReactor_;
  std::unique_ptr<IntfReactor> ethPhyReactor_;
  std::unique_ptr<IntfReactor> ethLagReactor_;
  std::map<String, std::unique_ptr<TrackerReactor>> trackers_;
  std::map<std::pair<String, String>, std::unique_ptr<ExporterReactor>> exporters_;
};

}  // namespace Calyx::FlowTracking
