#include "platform/io/InterfaceSimpleEthDevPamManager.h"

#include "platform/io/InMemoryPam.h"
#include "platform/io/LivePam.h"
#include "platform/io/PamTrace.h"
#include "platform/io/PcapReplayPam.h"

namespace Calyx::Interface {

class SimpleEthDevPamManager::DesiredReactor final : public PamDesiredIntfDir::Reactor {
 public:
  DesiredReactor(Ptr<PamDesiredIntfDir const> dir, SimpleEthDevPamManager& owner)
      : PamDesiredIntfDir::Reactor(std::move(dir)), owner_(owner) {}
  void handleIntfDesired(IntfId const& intfId) override { owner_.changed(intfId); }

 private:
  SimpleEthDevPamManager& owner_;
};

class SimpleEthDevPamManager::IntfStatusReactor final : public AllIntfStatusDir::Reactor {
 public:
  IntfStatusReactor(Ptr<AllIntfStatusDir const> dir, SimpleEthDevPamManager& owner)
      : AllIntfStatusDir::Reactor(std::move(dir)), owner_(owner) {}
  void handleIntfStatus(IntfId const& intfId) override { owner_.changed(intfId); }

 private:
  SimpleEthDevPamManager& owner_;
};

class SimpleEthDevPamManager::SyncReactor final : public Task::Reactor {
 public:
  SyncReactor(Ptr<Task const> task, SimpleEthDevPamManager& owner)
      : Task::Reactor(std::move(task)), owner_(owner) {}
  void handleRun() override { owner_.sync(); }

 private:
  SimpleEthDevPamManager& owner_;
};

namespace {

char const* kindName(PamBackend::Kind kind) {
  switch (kind) {
    case PamBackend::Kind::liveCapture:
      return "live capture";
    case PamBackend::Kind::pcapReplay:
      return "pcap replay";
    case PamBackend::Kind::inMemory:
      return "in-memory queue";
  }
  return "?";
}

}  // namespace

SimpleEthDevPamManager::SimpleEthDevPamManager(EventLoop& loop, Ptr<PamDesiredIntfDir> desired,
                                               Ptr<EthDevPamCollection> collection,
                                               Ptr<AllIntfStatusDir const> intfStatus)
    : loop_(&loop),
      desired_(std::move(desired)),
      collection_(std::move(collection)),
      intfStatus_(std::move(intfStatus)),
      wheel_(make<TimerWheel>(loop, 100, 600, false, 64)),
      syncTask_(loop.scheduler().taskNew("PamManager:sync", 0)),
      desiredReactor_(std::make_unique<DesiredReactor>(desired_, *this)),
      syncReactor_(std::make_unique<SyncReactor>(syncTask_, *this)) {
  if (intfStatus_) intfStatusReactor_ = std::make_unique<IntfStatusReactor>(intfStatus_, *this);
}

SimpleEthDevPamManager::~SimpleEthDevPamManager() {
  desiredReactor_.reset();
  intfStatusReactor_.reset();
  syncReactor_.reset();
  while (!opened_.empty()) close(opened_.begin()->first);
}

void SimpleEthDevPamManager::enabledIs(bool enabled) {
  if (enabled == enabled_) return;
  enabled_ = enabled;
  CALYX_TRACE(pamTrace(), 4, "Packet access manager " << (enabled ? "enabled." : "disabled."));
  changedAll();
}

PamBackend SimpleEthDevPamManager::backend(IntfId const& intfId) const {
  if (auto it = backends_.find(intfId); it != backends_.end()) return it->second;
  if (auto status = intfStatus_ ? intfStatus_->intfStatus(intfId) : std::nullopt) return status->pamBackend;
  return defaultBackend_;
}

bool SimpleEthDevPamManager::intfUp(IntfId const& intfId) const {
  auto status = intfStatus_ ? intfStatus_->intfStatus(intfId) : std::nullopt;
  return !status || status->operUp;
}

void SimpleEthDevPamManager::backendIs(IntfId const& intfId, PamBackend backend) {
  backends_[intfId] = std::move(backend);
  changed(intfId);
}

void SimpleEthDevPamManager::backendDel(IntfId const& intfId) {
  if (backends_.erase(intfId) > 0) changed(intfId);
}

void SimpleEthDevPamManager::defaultBackendIs(PamBackend backend) {
  defaultBackend_ = std::move(backend);
  changedAll();
}

Ptr<Pam> SimpleEthDevPamManager::pam(IntfId const& intfId) const {
  auto it = opened_.find(intfId);
  return it == opened_.end() ? nullptr : it->second.pam;
}

void SimpleEthDevPamManager::changed(IntfId const& intfId) {
  changed_.insert(intfId);
  syncTask_->schedule();
}

// Every interface that is desired or open may need a change.
void SimpleEthDevPamManager::changedAll() {
  for (auto intfId = desired_->intfDesiredFirst(); intfId; intfId = desired_->intfDesiredNext(*intfId)) {
    changed_.insert(*intfId);
  }
  for (auto const& [intfId, opened] : opened_) changed_.insert(intfId);
  if (!changed_.empty()) syncTask_->schedule();
}

void SimpleEthDevPamManager::sync() {
  // Publishing notifies readers, which may desire or withdraw more interfaces: take the set first.
  std::set<IntfId> changed;
  changed.swap(changed_);
  for (IntfId const& intfId : changed) syncIntf(intfId);
}

void SimpleEthDevPamManager::syncIntf(IntfId const& intfId) {
  bool const wanted = enabled_ && desired_->intfDesired(intfId) && intfUp(intfId);
  PamBackend const wantedBackend = backend(intfId);
  auto it = opened_.find(intfId);
  if (it != opened_.end() && (!wanted || !(it->second.backend == wantedBackend))) {
    close(intfId);
    it = opened_.end();
  }
  if (!wanted || it != opened_.end()) return;
  Ptr<Pam> pam = pamNew(intfId, wantedBackend);
  opened_.emplace(intfId, Opened{wantedBackend, pam});
  CALYX_TRACE(pamTrace(), 4,
              "Publishing packet access on " << intfId << " (" << kindName(wantedBackend.kind) << ").");
  collection_->intfPamIs(intfId, pam);
}

Ptr<Pam> SimpleEthDevPamManager::pamNew(IntfId const& intfId, PamBackend const& backend) {
  switch (backend.kind) {
    case PamBackend::Kind::liveCapture: {
      LivePamOptions options;
      options.device = backend.device;
      if (backend.bufferBytes > 0) options.bufferBytes = backend.bufferBytes;
      options.filter = socketFilter_;
      options.readLimit = readLimit_;
      options.bulkRead = bulkRead_;
      options.retryInterval = retryInterval_;
      return make<LivePam>(*loop_, wheel_, intfId, std::move(options));
    }
    case PamBackend::Kind::pcapReplay: {
      PcapReplayOptions options;
      options.file = backend.file;
      options.recordedPace = backend.recordedPace;
      options.filter = socketFilter_;
      options.readLimit = bulkRead_ ? readLimit_ : 1;
      options.retryInterval = retryInterval_;
      return make<PcapReplayPam>(*loop_, wheel_, intfId, std::move(options));
    }
    case PamBackend::Kind::inMemory:
      break;
  }
  return make<InMemoryPam>(intfId);
}

void SimpleEthDevPamManager::close(IntfId intfId) {
  auto it = opened_.find(intfId);
  if (it == opened_.end()) return;
  // Keep the module until readers have heard that it is gone.
  Ptr<Pam> pam = std::move(it->second.pam);
  opened_.erase(it);
  CALYX_TRACE(pamTrace(), 4, "Withdrawing packet access on " << intfId << ".");
  if (collection_->intfPam(intfId) == pam) collection_->intfPamDel(intfId);
}

}  // namespace Calyx::Interface
