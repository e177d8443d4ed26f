#include "mirror_on_drop/MirrorOnDropManagerSm.h"

#include <sstream>

#include "mirror_on_drop/MirrorOnDropTraceManager.h"
#include "platform/core/Assert.h"
#include "platform/shm/RingTrace.h"

namespace MirrorOnDrop {

using Calyx::Ptr;
using Calyx::String;

namespace {

Calyx::TraceHandle const& trace() {
  static Calyx::TraceHandle const handle("MOD-Manager");
  return handle;
}

char const* trueFalse(bool v) {
  return v ? "TRUE" : "FALSE";
}

char const* yesNo(bool v) {
  return v ? "YES" : "NO";
}

String quoted(String const& name) {
  return "'" + name + "'";
}

}  // namespace

// --- reactors ---

class ManagerSm::HwConfigReactor : public HwConfig::Reactor {
 public:
  HwConfigReactor(ManagerSm& sm, Ptr<HwConfig const> config) : Reactor(std::move(config)), sm_(sm) {}
  void handleHwFtConfig(String const& name) override {
    if (auto config = notifier()->hwFtConfig(name)) {
      sm_.hwFtConfigIs(name, std::move(config));
    } else {
      sm_.hwFtConfigDel(name);
    }
    sm_.handleHwFtConfig(name);
  }

 private:
  ManagerSm& sm_;
};

// One per tracker of the hardware configuration: its intervals.
class ManagerSm::FtConfigReactor : public FtConfig::Reactor {
 public:
  FtConfigReactor(ManagerSm& sm, String name, Ptr<FtConfig const> config)
      : Reactor(std::move(config)), sm_(sm), name_(std::move(name)) {}
  void handleActiveInterval() override { sm_.handleReportInterval(name_); }
  void handleInactiveTimeout() override { sm_.handleReportInterval(name_); }

 private:
  ManagerSm& sm_;
  String name_;
};

class ManagerSm::TaskReactor : public Calyx::Task::Reactor {
 public:
  TaskReactor(ManagerSm& sm, Ptr<Calyx::Task> task) : Reactor(std::move(task)), sm_(sm) {}
  // Every run tears down, whatever happened since it was scheduled.
  void handleRun() override { sm_.toggleFeatureOff(); }

 private:
  ManagerSm& sm_;
};

class ManagerSm::ExchangerReactor : public Exchanger::Reactor {
 public:
  ExchangerReactor(ManagerSm& sm, Ptr<Exchanger> exchanger) : Reactor(std::move(exchanger)), sm_(sm) {}
  void handleIsToggleFeatureOffReady() override { sm_.taskToggleFeatureOff_->schedule(); }

 private:
  ManagerSm& sm_;
};

// --- life cycle ---

ManagerSm::ManagerSm(Ptr<Base::Config const> config, Ptr<Base::Status> status, Ptr<Calyx::Dir> agentDir,
                     Ptr<HwConfig> hwConfig, Ptr<Base::Capabilities const> capabilities,
                     Ptr<Base::IntfStatusDir const> ethPhyIntfStatusDir,
                     Ptr<Base::IntfStatusDir const> ethLagIntfStatusDir,
                     Ptr<Base::IntfStatusDir const> subIntfStatusDir, Ptr<Base::IpStatus const> ipStatus,
                     Ptr<Base::IpStatus const> ip6Status, Ptr<Base::VrfStatus const> allVrfStatusLocal,
                     Ptr<Base::IntfStatusDir const> allIntfStatusDir, Ptr<Calyx::TaskScheduler> scheduler,
                     Ptr<HwConfig const> hwConfigIn, Ptr<HwStatus> hwStatus, Ptr<Emt::Config> emtConfig,
                     Ptr<Report::Status> reportStatus, Ptr<Calyx::Task> taskToggleFeatureOff,
                     Ptr<Exchanger> exchanger, Ptr<MountHolder> mountHolder)
    : Base(std::move(config), std::move(status), std::move(hwConfig), std::move(capabilities),
           std::move(ethPhyIntfStatusDir), std::move(ethLagIntfStatusDir), std::move(subIntfStatusDir),
           std::move(ipStatus), std::move(ip6Status), std::move(allVrfStatusLocal),
           std::move(allIntfStatusDir), std::move(scheduler)),
      agentDir_(std::move(agentDir)),
      hwConfigIn_(std::move(hwConfigIn)),
      hwStatus_(std::move(hwStatus)),
      emtConfig_(std::move(emtConfig)),
      reportStatus_(std::move(reportStatus)),
      taskToggleFeatureOff_(std::move(taskToggleFeatureOff)),
      exchanger_(std::move(exchanger)),
      mountHolder_(std::move(mountHolder)) {
  hwConfigReactor_ = std::make_unique<HwConfigReactor>(*this, hwConfigIn_);
  taskReactor_ = std::make_unique<TaskReactor>(*this, taskToggleFeatureOff_);
  exchangerReactor_ = std::make_unique<ExchangerReactor>(*this, exchanger_);
  initialize();
  for (auto name = hwConfigIn_->hwFtConfigFirst(); name; name = hwConfigIn_->hwFtConfigNext(*name)) {
    hwFtConfigIs(*name, hwConfigIn_->hwFtConfig(*name));
  }
  finalize();
}

ManagerSm::~ManagerSm() {
  exchangerReactor_.reset();
  taskReactor_.reset();
  hwConfigReactor_.reset();
  hwFtConfigDelAll();
  cleanup();
}

void ManagerSm::initialize() {
  MOD_TRACE(trace(), 8, "ManagerSm::initialize()");
  Detail::TraceManager::Scope scope;
  // An earlier run's active tracker under another name than the configured one: the configured one takes its
  // place (its status, its intervals).
  auto const active = trackerActive();
  Ptr<FtConfig const> const configured = trackerConfigured();
  if (active && configured && capabilities()->mirrorOnDropSupported() && *active != configured->name()) {
    applyHwFtConfig(configured);
  }
}

void ManagerSm::finalize() {
  MOD_TRACE(trace(), 8, "ManagerSm::finalize()");
  Detail::TraceManager::Scope scope;
  handleFlowTrackerConfig();
  if (hwConfig()->hwFtConfigCount() > 0 && capabilities()->mirrorOnDropSupported() && !dispatcherSm_) {
    toggleFeature();
  }
  if (dispatcherSm_) return;
  bool const status = hwStatus_->hwFtStatusCount() > 0;
  bool const config = emtConfig_->entryCount() > 0;
  bool const report = reportStatus_->entryCount() > 0;
  if (!status && !config && !report) return;
  MOD_TRACE(trace(), 3,
            "Cleaning up stale state: config = " << yesNo(config) << ", status = " << yesNo(status)
                                                 << ", report = " << yesNo(report) << ".");
  emtConfig_->entryDelAll();
  reportStatus_->entryDelAll();
  hwStatus_->hwFtStatusDelAll();
}

void ManagerSm::cleanup() {
  MOD_TRACE(trace(), 8, "ManagerSm::cleanup()");
  Detail::TraceManager::Scope scope;
  toggleFeatureOff();
}

// --- following the configuration ---

void ManagerSm::handleConfigEnabled() {
  MOD_TRACE(trace(), 8, "ManagerSm::handleConfigEnabled()");
  Detail::TraceManager::Scope scope;
  handleFlowTrackerConfig();
}

void ManagerSm::hwFtConfigIs(String const& name, Ptr<FtConfig const> config) {
  auto it = hwFtConfig_.find(name);
  if (it == hwFtConfig_.end()) {
    hwFtConfig_.emplace(name, std::make_unique<FtConfigReactor>(*this, name, std::move(config)));
  } else {
    it->second->notifierIs(std::move(config));
  }
}

void ManagerSm::hwFtConfigDel(String const& name) {
  hwFtConfig_.erase(name);
}

void ManagerSm::hwFtConfigDelAll() {
  hwFtConfig_.clear();
}

void ManagerSm::handleHwFtConfig(String const& name) {
  MOD_TRACE(trace(), 8, "ManagerSm::handleHwFtConfig(" << name << ")");
  Detail::TraceManager::Scope scope;
  CALYX_ASSERT(hwConfig()->hwFtConfigCount() <= 1, "Unexpected number of trackers.");
  Ptr<FtConfig const> const fresh = trackerConfigured();
  auto const old = trackerActive();
  if (!fresh && config()->enabled() && config()->trackerCount() > 0) {
    // The base has removed the old hardware tracker and is about to add the new one.
    MOD_TRACE(trace(), 3,
              "Postponing config transition: old tracker = '"
                  << name << "', config count = " << config()->trackerCount() << ".");
    return;
  }
  if (fresh && old && fresh->name() != *old) {
    MOD_TRACE(trace(), 3,
              "Adjusting config transition: old tracker = '" << *old << "', new tracker = '" << fresh->name()
                                                             << "'.");
    CALYX_ASSERT(dispatcherSm_, "Unexpected non-existence of DispatcherSm.");
    applyHwFtConfig(fresh);
    exchanger_->isTrackerChangedPulse();
    return;
  }
  MOD_TRACE(trace(), 4,
            "Processing config transition: old tracker = "
                << (fresh ? "NONE" : quoted(name)) << ", new tracker = " << (fresh ? quoted(name) : "NONE")
                << ".");
  toggleFeature();
}

void ManagerSm::handleCapabilitiesSupported() {
  MOD_TRACE(trace(), 8, "ManagerSm::handleCapabilitiesSupported()");
  Detail::TraceManager::Scope scope;
  bool const supported = capabilities()->mirrorOnDropSupported();
  // The old value is written as the opposite of the new one: a change is what brought us here.
  MOD_TRACE(trace(), 4,
            "Processing hardware support transition: old = " << trueFalse(!supported)
                                                             << ", new = " << trueFalse(supported) << ".");
  toggleFeature();
}

void ManagerSm::handleReportInterval(String const& name) {
  MOD_TRACE(trace(), 8, "ManagerSm::handleReportInterval(" << name << ")");
  Detail::TraceManager::Scope scope;
  Ptr<Calyx::HwFlowTracking::FtStatus> const status = hwStatus_->hwFtStatus(name);
  if (!status) {
    MOD_TRACE(trace(), 3, "Postponing intervals update: status = " << trueFalse(false) << ".");
    return;
  }
  Ptr<FtConfig const> const config = hwConfigIn_->hwFtConfig(name);
  if (!config) return;
  MOD_TRACE(trace(), 4,
            "Updating intervals: active = " << config->activeInterval().seconds() << "s, inactive = "
                                            << config->inactiveTimeout().seconds() << "s.");
  status->activeIntervalIs(config->activeInterval());
  status->inactiveTimeoutIs(config->inactiveTimeout());
  exchanger_->isInactiveIntervalUpdatedPulse();
}

// --- turning on and off ---

void ManagerSm::toggleFeature() {
  MOD_TRACE(trace(), 8, "ManagerSm::toggleFeature()");
  Detail::TraceManager::Scope scope;
  auto const first = hwConfig()->hwFtConfigFirst();
  Ptr<FtConfig const> const tracker = first ? Ptr<FtConfig const>(hwConfig()->hwFtConfig(*first)) : nullptr;
  String const ftName = tracker ? quoted(tracker->name()) : String("NONE");
  bool const supported = capabilities()->mirrorOnDropSupported();
  bool const on = tracker && supported;
  bool const exists = static_cast<bool>(dispatcherSm_);
  if (on != exists) {
    MOD_TRACE(trace(), 0,
              "Turning " << (on ? "ON" : "OFF") << " Mirror-On-Drop feature: tracker = " << ftName
                         << ", hardware support = " << trueFalse(supported) << ".");
  } else {
    MOD_TRACE(trace(), 3,
              "Keeping " << (on ? "ON" : "OFF") << " Mirror-On-Drop feature: tracker = " << ftName
                         << ", hardware support = " << trueFalse(supported) << ".");
  }
  std::ostringstream record;
  record << "ftName: " << ftName << ", isSupported: " << trueFalse(supported)
         << ", dispatcherSm: " << trueFalse(exists);
  Calyx::RingTrace::instance().record(record.str());

  if (!on && exists) {
    CALYX_ASSERT(!exchanger_->isTogglingFeatureOff(), "Unexpected state.");
    exchanger_->isTogglingFeatureOffIs(true);
  } else if (on && !exists) {
    applyHwFtConfig(tracker);
    agentDir_->entryIs(kAgentName);
    CALYX_ASSERT(!dispatcherSm_, "Unexpected existence of DispatcherSm.");
    CALYX_ASSERT(!exchanger_->isTogglingFeatureOff(), "Unexpected state.");
    dispatcherSmIs(emtConfig_, mountHolder_->emtStatus(), hwStatus_, reportStatus_, mountHolder_->timer(),
                   exchanger_, mountHolder_);
  } else if (on && exists && exchanger_->isTogglingFeatureOff()) {
    // A turn-off under way is cancelled: the dispatcher hears the tracker change (and brings its receiver
    // back) before the flag is lowered.
    CALYX_ASSERT(dispatcherSm_, "Unexpected non-existence of DispatcherSm.");
    applyHwFtConfig(tracker);
    exchanger_->isTrackerChangedPulse();
    exchanger_->isTogglingFeatureOffStore(false);
  }
}

void ManagerSm::applyHwFtConfig(Ptr<FtConfig const> const& ftConfig) {
  MOD_TRACE(trace(), 8, "ManagerSm::applyHwFtConfig(" << ftConfig->name() << ")");
  Detail::TraceManager::Scope scope;
  String const& name = ftConfig->name();
  Ptr<Calyx::HwFlowTracking::FtStatus> const status = hwStatus_->hwFtStatusIs(name);
  status->activeIntervalIs(ftConfig->activeInterval());
  status->inactiveTimeoutIs(ftConfig->inactiveTimeout());
  mountHolder_->hwFtConfigIs(ftConfig);
  mountHolder_->hwFtStatusIs(status);
  bool other = false;
  for (auto n = hwStatus_->hwFtStatusFirst(); n; n = hwStatus_->hwFtStatusNext(*n)) {
    if (*n == name) continue;
    other = true;
    String const gone = *n;
    hwStatus_->hwFtStatusDel(gone);
    MOD_TRACE(trace(), 4,
              "Processing status transition: old tracker = " << quoted(gone) << ", new tracker = '" << name
                                                             << "'.");
  }
  if (!other) {
    MOD_TRACE(trace(), 4,
              "Processing status transition: old tracker = NONE, new tracker = '" << name << "'.");
  }
}

void ManagerSm::toggleFeatureOff() {
  MOD_TRACE(trace(), 8, "ManagerSm::toggleFeatureOff()");
  Detail::TraceManager::Scope scope;
  dispatcherSmDel();
  exchanger_->isTogglingFeatureOffStore(false);
  agentDir_->entryDel(kAgentName);
  mountHolder_->hwFtConfigIs(nullptr);
  mountHolder_->hwFtStatusIs(nullptr);
  hwStatus_->hwFtStatusDelAll();
}

void ManagerSm::dispatcherSmIs(Ptr<Emt::Config> emtConfig, Ptr<Emt::Status const> emtStatus,
                               Ptr<HwStatus const> hwStatus, Ptr<Report::Status> reportStatus,
                               Ptr<Calyx::TimerWheel> timerWheel, Ptr<Exchanger> exchanger,
                               Ptr<MountHolder> mountHolder) {
  dispatcherSm_ = Calyx::make<DispatcherSm>(std::move(emtConfig), std::move(emtStatus), std::move(hwStatus),
                                            std::move(reportStatus), std::move(timerWheel),
                                            std::move(exchanger), std::move(mountHolder));
}

void ManagerSm::dispatcherSmDel() {
  dispatcherSm_ = nullptr;
}

// --- helpers ---

Ptr<ManagerSm::FtConfig const> ManagerSm::trackerConfigured() const {
  auto const first = hwConfigIn_->hwFtConfigFirst();
  return first ? hwConfigIn_->hwFtConfig(*first) : nullptr;
}

std::optional<String> ManagerSm::trackerActive() const {
  return hwStatus_->hwFtStatusFirst();
}

Ptr<ManagerSm> managerSmFactory(
    Ptr<ManagerSm::Base::Config const> config, Ptr<ManagerSm::Base::Status> status, Ptr<Calyx::Dir> agentDir,
    Ptr<ManagerSm::HwConfig> hwConfig, Ptr<ManagerSm::Base::Capabilities const> capabilities,
    Ptr<ManagerSm::Base::IntfStatusDir const> ethPhyIntfStatusDir,
    Ptr<ManagerSm::Base::IntfStatusDir const> ethLagIntfStatusDir,
    Ptr<ManagerSm::Base::IntfStatusDir const> subIntfStatusDir, Ptr<ManagerSm::Base::IpStatus const> ipStatus,
    Ptr<ManagerSm::Base::IpStatus const> ip6Status, Ptr<ManagerSm::Base::VrfStatus const> allVrfStatusLocal,
    Ptr<ManagerSm::Base::IntfStatusDir const> allIntfStatusDir, Ptr<Calyx::TaskScheduler> scheduler,
    Ptr<ManagerSm::HwConfig const> hwConfigIn, Ptr<ManagerSm::HwStatus> hwStatus, Ptr<Emt::Config> emtConfig,
    Ptr<Report::Status> reportStatus, Ptr<Calyx::Task> taskToggleFeatureOff, Ptr<Exchanger> exchanger,
    Ptr<MountHolder> mountHolder) {
  return Calyx::make<ManagerSm>(
      std::move(config), std::move(status), std::move(agentDir), std::move(hwConfig), std::move(capabilities),
      std::move(ethPhyIntfStatusDir), std::move(ethLagIntfStatusDir), std::move(subIntfStatusDir),
      std::move(ipStatus), std::move(ip6Status), std::move(allVrfStatusLocal), std::move(allIntfStatusDir),
      std::move(scheduler), std::move(hwConfigIn), std::move(hwStatus), std::move(emtConfig),
      std::move(reportStatus), std::move(taskToggleFeatureOff), std::move(exchanger), std::move(mountHolder));
}

}  // namespace MirrorOnDrop
