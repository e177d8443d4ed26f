#include "platform/entity/FlowTrackingConfigSmBase.h"

#include <vector>

namespace Calyx::FlowTracking {

// Each reactor keeps a reference to the base in a local before calling it: a sync may replace reactors.

class ConfigSmBase::ConfigReactor : public Config::Reactor {
 public:
  ConfigReactor(ConfigSmBase& base, Ptr<Config const> c) : Reactor(std::move(c)), base_(base) {}
  void handleEnabled() override { base_.handleConfigEnabled(); }
  void handleTracker(String const&) override {
    ConfigSmBase& base = base_;
    base.reactorsSync();
    base.handleFlowTrackerConfig();
  }

 private:
  ConfigSmBase& base_;
};

class ConfigSmBase::TrackerReactor : public TrackerConfig::Reactor {
 public:
  TrackerReactor(ConfigSmBase& base, Ptr<TrackerConfig const> t) : Reactor(std::move(t)), base_(base) {}
  void handleActiveInterval() override { base_.handleFlowTrackerConfig(); }
  void handleInactiveTimeout() override { base_.handleFlowTrackerConfig(); }
  void handleExporter(String const&) override {
    ConfigSmBase& base = base_;
    base.reactorsSync();
    base.handleFlowTrackerConfig();
  }

 private:
  ConfigSmBase& base_;
};

class ConfigSmBase::ExporterReactor : public ExporterConfig::Reactor {
 public:
  ExporterReactor(ConfigSmBase& base, Ptr<ExporterConfig const> e) : Reactor(std::move(e)), base_(base) {}
  void handleSrcIpAddr() override { base_.handleFlowTrackerConfig(); }
  void handleSrcIp6Addr() override { base_.handleFlowTrackerConfig(); }
  void handleDscp() override { base_.handleFlowTrackerConfig(); }
  void handleCollectorIpAndPort(String const&) override { base_.handleFlowTrackerConfig(); }
  void handleCollectorIp6AndPort(String const&) override { base_.handleFlowTrackerConfig(); }

 private:
  ConfigSmBase& base_;
};

class ConfigSmBase::CapabilitiesReactor : public Capabilities::Reactor {
 public:
  CapabilitiesReactor(ConfigSmBase& base, Ptr<Capabilities const> c) : Reactor(std::move(c)), base_(base) {}
  void handleMirrorOnDropSupported() override { base_.handleCapabilitiesSupported(); }

 private:
  ConfigSmBase& base_;
};

class ConfigSmBase::IntfReactor : public IntfStatusDir::Reactor {
 public:
  IntfReactor(ConfigSmBase& base, Ptr<IntfStatusDir const> d, bool lag)
      : Reactor(std::move(d)), base_(base), lag_(lag) {}
  void handleIntfStatus(IntfId const& intf) override {
    lag_ ? base_.handleLagIntfStatus(intf) : base_.handleEthIntfStatus(intf);
  }

 private:
  ConfigSmBase& base_;
  bool lag_;
};

ConfigSmBase::ConfigSmBase(Ptr<Config const> config, Ptr<Status> status, Ptr<HwConfig> hwConfig,
                           Ptr<Capabilities const> capabilities, Ptr<IntfStatusDir const> ethPhyIntfStatusDir,
                           Ptr<IntfStatusDir const> ethLagIntfStatusDir,
                           Ptr<IntfStatusDir const> subIntfStatusDir, Ptr<IpStatus const> ipStatus,
                           Ptr<IpStatus const> ip6Status, Ptr<VrfStatus const> allVrfStatusLocal,
                           Ptr<IntfStatusDir const> allIntfStatusDir, Ptr<TaskScheduler> scheduler)
    : config_(std::move(config)),
      status_(std::move(status)),
      hwConfig_(std::move(hwConfig)),
      capabilities_(std::move(capabilities)),
      ethPhyIntfStatusDir_(std::move(ethPhyIntfStatusDir)),
      ethLagIntfStatusDir_(std::move(ethLagIntfStatusDir)),
      subIntfStatusDir_(std::move(subIntfStatusDir)),
      ipStatus_(std::move(ipStatus)),
      ip6Status_(std::move(ip6Status)),
      allVrfStatusLocal_(std::move(allVrfStatusLocal)),
      allIntfStatusDir_(std::move(allIntfStatusDir)),
      scheduler_(std::move(scheduler)) {
  configReactor_ = std::make_unique<ConfigReactor>(*this, config_);
  capabilitiesReactor_ = std::make_unique<CapabilitiesReactor>(*this, capabilities_);
  if (ethPhyIntfStatusDir_)
    ethPhyReactor_ = std::make_unique<IntfReactor>(*this, ethPhyIntfStatusDir_, false);
  if (ethLagIntfStatusDir_) ethLagReactor_ = std::make_unique<IntfReactor>(*this, ethLagIntfStatusDir_, true);
  reactorsSync();
}

ConfigSmBase::~ConfigSmBase() = default;

void ConfigSmBase::reactorsSync() {
  for (auto it = trackers_.begin(); it != trackers_.end();) {
    bool const gone = config_->tracker(it->first).get() != it->second->notifier();
    it = gone ? trackers_.erase(it) : std::next(it);
  }
  for (auto it = exporters_.begin(); it != exporters_.end();) {
    auto const tracker = config_->tracker(it->first.first);
    bool const gone = !tracker || tracker->exporter(it->first.second).get() != it->second->notifier();
    it = gone ? exporters_.erase(it) : std::next(it);
  }
  for (auto t = config_->trackerFirst(); t; t = config_->trackerNext(*t)) {
    auto const tracker = config_->tracker(*t);
    if (!trackers_.count(*t)) trackers_.emplace(*t, std::make_unique<TrackerReactor>(*this, tracker));
    for (auto e = tracker->exporterFirst(); e; e = tracker->exporterNext(*e)) {
      auto const key = std::make_pair(*t, *e);
      if (!exporters_.count(key)) {
        exporters_.emplace(key, std::make_unique<ExporterReactor>(*this, tracker->exporter(*e)));
      }
    }
  }
}

Ptr<TrackerConfig const> ConfigSmBase::trackerWanted(Config const& config) {
  if (!config.enabled()) return nullptr;
  auto const first = config.trackerFirst();
  return first ? config.tracker(*first) : nullptr;
}

void ConfigSmBase::hwConfigTranslate(Config const& config, HwConfig& hwConfig) {
  Ptr<TrackerConfig const> const wanted = trackerWanted(config);
  // Out first, so that the hardware never holds two trackers.
  std::vector<String> leaving;
  for (auto n = hwConfig.hwFtConfigFirst(); n; n = hwConfig.hwFtConfigNext(*n)) {
    if (!wanted || *n != wanted->name()) leaving.push_back(*n);
  }
  for (String const& n : leaving) hwConfig.hwFtConfigDel(n);
  if (!wanted) return;
  if (Ptr<HwFlowTracking::FtConfig> hw = hwConfig.hwFtConfig(wanted->name())) {
    hwTrackerSync(*wanted, *hw);
  } else {
    hwConfig.hwFtConfigIs(wanted->name(), hwTrackerMake(*wanted));
  }
}

void ConfigSmBase::handleFlowTrackerConfig() {
  Ptr<Object const> const keepAlive(this);  // a reactor of hwConfig may release the agent
  hwConfigTranslate(*config_, *hwConfig_);
  Ptr<TrackerConfig const> const wanted = trackerWanted(*config_);
  for (auto t = config_->trackerFirst(); t; t = config_->trackerNext(*t)) {
    status_->trackerIs(*t, wanted && *t == wanted->name());
  }
  std::vector<String> gone;
  for (auto t = status_->trackerFirst(); t; t = status_->trackerNext(*t)) {
    if (!config_->tracker(*t)) gone.push_back(*t);
  }
  for (String const& t : gone) status_->trackerDel(t);
}

Ptr<HwFlowTracking::FtConfig> ConfigSmBase::hwTrackerMake(TrackerConfig const& tracker) {
  auto hw = make<HwFlowTracking::FtConfig>(tracker.name());
  hwTrackerSync(tracker, *hw);
  return hw;
}

void ConfigSmBase::hwTrackerSync(TrackerConfig const& tracker, HwFlowTracking::FtConfig& hw) {
  hw.activeIntervalIs(tracker.activeInterval());
  hw.inactiveTimeoutIs(tracker.inactiveTimeout());
  std::vector<String> leaving;
  for (auto e = hw.expConfigFirst(); e; e = hw.expConfigNext(*e)) {
    if (!tracker.exporter(*e)) leaving.push_back(*e);
  }
  for (String const& e : leaving) hw.expConfigDel(e);
  for (auto e = tracker.exporterFirst(); e; e = tracker.exporterNext(*e)) {
    Ptr<ExporterConfig const> const from = tracker.exporter(*e);
    if (Ptr<ExporterConfig> to = hw.expConfig(*e)) {
      hwExporterSync(*from, *to);
      continue;
    }
    auto to = make<ExporterConfig>(*e);
    hwExporterSync(*from, *to);
    hw.expConfigIs(*e, to);
  }
}

void ConfigSmBase::hwExporterSync(ExporterConfig const& from, ExporterConfig& to) {
  to.srcIpAddrIs(from.srcIpAddr());
  to.srcIp6AddrIs(from.srcIp6Addr());
  to.dscpIs(from.dscp());
  std::vector<String> leaving;
  for (auto c = to.collectorIpAndPortFirst(); c; c = to.collectorIpAndPortNext(*c)) {
    if (!from.collectorIpAndPort(*c)) leaving.push_back(*c);
  }
  for (String const& c : leaving) to.collectorIpAndPortDel(c);
  for (auto c = from.collectorIpAndPortFirst(); c; c = from.collectorIpAndPortNext(*c)) {
    to.collectorIpAndPortIs(*c, *from.collectorIpAndPort(*c));
  }
  leaving.clear();
  for (auto c = to.collectorIp6AndPortFirst(); c; c = to.collectorIp6AndPortNext(*c)) {
    if (!from.collectorIp6AndPort(*c)) leaving.push_back(*c);
  }
  for (String const& c : leaving) to.collectorIp6AndPortDel(c);
  for (auto c = from.collectorIp6AndPortFirst(); c; c = from.collectorIp6AndPortNext(*c)) {
    to.collectorIp6AndPortIs(*c, *from.collectorIp6AndPort(*c));
  }
}

}  // namespace Calyx::FlowTracking
