#include "mirror_on_drop/MirrorOnDropAdapterSm.h"

#include <vector>

#include "mirror_on_drop/MirrorOnDropTraceManager.h"
#include "platform/core/Assert.h"

namespace MirrorOnDrop {

using Calyx::Ptr;
using Calyx::CalyxEm::ExactMatchKey;

namespace {

Calyx::TraceHandle const& trace() {
  static Calyx::TraceHandle const handle("MOD-Adapter");
  return handle;
}

}  // namespace

// --- reactors ---

class AdapterSm::EmtConfigReactor : public Emt::Config::Reactor {
 public:
  EmtConfigReactor(AdapterSm& sm, Ptr<Emt::Config const> c) : Reactor(std::move(c)), sm_(sm) {}
  void handleEntry(Emt::Key const& key) override { sm_.handleEmtConfigEntry(key); }

 private:
  AdapterSm& sm_;
};

class AdapterSm::HwStatusReactor : public ExactMatchEntryStatus::Reactor {
 public:
  HwStatusReactor(AdapterSm& sm, Ptr<ExactMatchEntryStatus const> s, bool ipv6)
      : Reactor(std::move(s)), sm_(sm), ipv6_(ipv6) {}
  void handleStatus(ExactMatchKey const& key) override {
    ipv6_ ? sm_.handleEmtStatusEntryIpv6(key) : sm_.handleEmtStatusEntryIpv4(key);
  }

 private:
  AdapterSm& sm_;
  bool ipv6_;
};

class AdapterSm::CapabilityReactor : public FlexibleUftCapabilityStatus::Reactor {
 public:
  CapabilityReactor(AdapterSm& sm, Ptr<FlexibleUftCapabilityStatus const> c)
      : Reactor(std::move(c)), sm_(sm) {}
  void handleExactMatchSupported() override { sm_.handleEmAvailable(); }

 private:
  AdapterSm& sm_;
};

class AdapterSm::MiscReactor : public CalyxMiscConfig::Reactor {
 public:
  MiscReactor(AdapterSm& sm, Ptr<CalyxMiscConfig const> c) : Reactor(std::move(c)), sm_(sm) {}
  void handleExactMatchEnabled() override { sm_.handleEmAvailable(); }

 private:
  AdapterSm& sm_;
};

// --- life cycle ---

AdapterSm::AdapterSm(Ptr<FlexibleUftCapabilityStatus const> flexibleUftCapabilityStatus,
                     Ptr<CalyxMiscConfig const> miscConfig, Ptr<Emt::Config const> emtConfig,
                     Ptr<Emt::Status> emtStatus, Ptr<ExactMatchEntryStatus const> emtStatusIpv4,
                     Ptr<ExactMatchEntryConfig> emtConfigIpv4, Ptr<ExactMatchEntryStatus const> emtStatusIpv6,
                     Ptr<ExactMatchEntryConfig> emtConfigIpv6)
    : flexibleUftCapabilityStatus_(std::move(flexibleUftCapabilityStatus)),
      miscConfig_(std::move(miscConfig)),
      emtConfig_(std::move(emtConfig)),
      emtStatus_(std::move(emtStatus)),
      emtStatusIpv4_(std::move(emtStatusIpv4)),
      emtConfigIpv4_(std::move(emtConfigIpv4)),
      emtStatusIpv6_(std::move(emtStatusIpv6)),
      emtConfigIpv6_(std::move(emtConfigIpv6)) {
  emtConfigReactor_ = std::make_unique<EmtConfigReactor>(*this, emtConfig_);
  statusIpv4Reactor_ = std::make_unique<HwStatusReactor>(*this, emtStatusIpv4_, false);
  statusIpv6Reactor_ = std::make_unique<HwStatusReactor>(*this, emtStatusIpv6_, true);
  capabilityReactor_ = std::make_unique<CapabilityReactor>(*this, flexibleUftCapabilityStatus_);
  miscReactor_ = std::make_unique<MiscReactor>(*this, miscConfig_);
  initialize();
  finalize();
}

AdapterSm::~AdapterSm() {
  cleanup();
  miscReactor_.reset();
  capabilityReactor_.reset();
  statusIpv6Reactor_.reset();
  statusIpv4Reactor_.reset();
  emtConfigReactor_.reset();
}

void AdapterSm::initialize() {
  MOD_TRACE(trace(), 8, "AdapterSm::initialize()");
  Detail::TraceManager::Scope scope;
  written_ = emAvailable();
  // Status an earlier run left for entries nobody asks for any more goes.
  std::vector<Emt::Key> stale;
  emtStatus_->forEachEntry([&](Emt::EntryStatus const& e) {
    if (!emtConfig_->entry(e.key())) stale.push_back(e.key());
  });
  for (auto const& key : stale) emtStatus_->entryDel(key);
  std::vector<Emt::Key> wanted;
  emtConfig_->forEachEntry([&](Emt::EntryConfig const& e) { wanted.push_back(e.key()); });
  for (auto const& key : wanted) handleEmtConfigEntry(key);
}

void AdapterSm::finalize() {
  MOD_TRACE(trace(), 8, "AdapterSm::finalize()");
}

void AdapterSm::cleanup() {
  MOD_TRACE(trace(), 8, "AdapterSm::cleanup()");
  Detail::TraceManager::Scope scope;
  // One flow at a time, each forgotten just before its hardware entry goes: an entry that goes makes room,
  // and the hardware may then install a waiting entry of a flow still held here, which must still be known.
  while (!configEntryInterfaceSet_.empty()) {
    FlowKey const flow = configEntryInterfaceSet_.begin()->first;
    configEntryInterfaceSet_.erase(configEntryInterfaceSet_.begin());
    if (written_) configDel(flow);
  }
  emtStatus_->entryDelAll();
}

// --- requests and hardware status ---

bool AdapterSm::emAvailable() const {
  return flexibleUftCapabilityStatus_->exactMatchSupported() && miscConfig_->exactMatchEnabled();
}

AdapterSm::EntryInterfaceSet const* AdapterSm::configEntryInterfaceSet(FlowKey const& flow) const {
  auto it = configEntryInterfaceSet_.find(flow);
  return it == configEntryInterfaceSet_.end() ? nullptr : &it->second;
}

void AdapterSm::handleEmtConfigEntry(Emt::Key const& key) {
  MOD_TRACE(trace(), 8, "AdapterSm::handleEmtConfigEntry(" << key << ")");
  Detail::TraceManager::Scope scope;
  FlowKey const& flow = key.flowKey();
  Calyx::IpGenAddr::Family const af = flow.srcIp().af();
  CALYX_ASSERT(af == key.dstIp().af(), "af == key.dstIp().af()");
  if (emtConfig_->entry(key)) {
    configEntryInterfaceSet_[flow].intfSet.insert(key.intfId());
    configIs(flow);
    return;
  }
  emtStatus_->entryDel(key);
  auto it = configEntryInterfaceSet_.find(flow);
  if (it == configEntryInterfaceSet_.end()) return;
  it->second.intfSet.erase(key.intfId());
  if (!it->second.intfSet.empty()) {
    configIs(flow);
    return;
  }
  configEntryInterfaceSet_.erase(it);
  configDel(flow);
}

void AdapterSm::handleEmtStatusEntryIpv4(ExactMatchKey const& key) {
  MOD_TRACE(trace(), 8, "AdapterSm::handleEmtStatusEntryIpv4()");
  Detail::TraceManager::Scope scope;
  handleEmtStatusEntryCommon(key, *emtStatusIpv4_);
}

void AdapterSm::handleEmtStatusEntryIpv6(ExactMatchKey const& key) {
  MOD_TRACE(trace(), 8, "AdapterSm::handleEmtStatusEntryIpv6()");
  Detail::TraceManager::Scope scope;
  handleEmtStatusEntryCommon(key, *emtStatusIpv6_);
}

void AdapterSm::handleEmtStatusEntryCommon(ExactMatchKey const& key, ExactMatchEntryStatus const& status) {
  FlowKey const flow = flowOf(key);
  if (!configEntryInterfaceSet_.count(flow)) {
    // The hardware may forget an entry nobody asks for, never install one.
    CALYX_ASSERT(!status.status(key).value_or(false), "Unexpected missing installed key");
    return;
  }
  statusSync(flow);
}

void AdapterSm::handleEmAvailable() {
  MOD_TRACE(trace(), 8, "AdapterSm::handleEmAvailable()");
  Detail::TraceManager::Scope scope;
  bool const available = emAvailable();
  if (available == written_) return;
  MOD_TRACE(trace(), 4,
            (available ? "Writing " : "Removing ")
                << configEntryInterfaceSet_.size() << " exact-match entries: exact match is "
                << (available ? "available." : "not available."));
  written_ = available;
  for (auto const& [flow, set] : configEntryInterfaceSet_) available ? configIs(flow) : configDel(flow);
  if (!available) {
    for (auto const& [flow, set] : configEntryInterfaceSet_) statusSync(flow);
  }
}

// --- helpers ---

ExactMatchKey AdapterSm::hwKey(FlowKey const& flow) {
  return ExactMatchKey{flow.ipProto(), flow.srcIp(), flow.dstIp(), flow.srcPort(), flow.dstPort()};
}

FlowKey AdapterSm::flowOf(ExactMatchKey const& key) {
  return FlowKey(key.ipProto, key.srcIp, key.dstIp, key.srcPort, key.dstPort);
}

AdapterSm::ExactMatchEntryConfig& AdapterSm::table(FlowKey const& flow) const {
  return flow.srcIp().af() == Calyx::IpGenAddr::Family::ipv6 ? *emtConfigIpv6_ : *emtConfigIpv4_;
}

AdapterSm::ExactMatchEntryStatus const& AdapterSm::statusTable(FlowKey const& flow) const {
  return flow.srcIp().af() == Calyx::IpGenAddr::Family::ipv6 ? *emtStatusIpv6_ : *emtStatusIpv4_;
}

void AdapterSm::configIs(FlowKey const& flow) {
  if (written_) {
    table(flow).configIs(hwKey(flow), {configEntryInterfaceSet_.at(flow).intfSet});
  }
  statusSync(flow);
}

void AdapterSm::configDel(FlowKey const& flow) {
  table(flow).configDel(hwKey(flow));
}

void AdapterSm::statusSync(FlowKey const& flow) {
  auto it = configEntryInterfaceSet_.find(flow);
  if (it == configEntryInterfaceSet_.end()) return;
  bool const installed = written_ && statusTable(flow).status(hwKey(flow)).value_or(false);
  for (Calyx::IntfId const& intf : it->second.intfSet) {
    emtStatus_->entryIs(Emt::EntryStatus(Emt::Key(flow, intf), installed));
  }
}

Ptr<AdapterSm> adapterSmFactory(Ptr<AdapterSm::FlexibleUftCapabilityStatus const> flexibleUftCapabilityStatus,
                                Ptr<AdapterSm::CalyxMiscConfig const> miscConfig,
                                Ptr<Emt::Config const> emtConfig, Ptr<Emt::Status> emtStatus,
                                Ptr<AdapterSm::ExactMatchEntryStatus const> emtStatusIpv4,
                                Ptr<AdapterSm::ExactMatchEntryConfig> emtConfigIpv4,
                                Ptr<AdapterSm::ExactMatchEntryStatus const> emtStatusIpv6,
                                Ptr<AdapterSm::ExactMatchEntryConfig> emtConfigIpv6) {
  return Calyx::make<AdapterSm>(std::move(flexibleUftCapabilityStatus), std::move(miscConfig),
                                std::move(emtConfig), std::move(emtStatus), std::move(emtStatusIpv4),
                                std::move(emtConfigIpv4), std::move(emtStatusIpv6), std::move(emtConfigIpv6));
}

}  // namespace MirrorOnDrop
