#include "mirror_on_drop/MirrorOnDropDispatcherSm.h"

#include <sstream>

#include "mirror_on_drop/MirrorOnDropTraceManager.h"
#include "platform/core/Assert.h"

namespace MirrorOnDrop {

using Calyx::Ptr;

namespace {

Calyx::TraceHandle const& trace() {
  static Calyx::TraceHandle const handle("MOD-Dispatcher");
  return handle;
}

}  // namespace

// --- reactors ---

class DispatcherSm::TimerReactor : public Calyx::Timer::Reactor {
 public:
  TimerReactor(DispatcherSm& sm, Ptr<Calyx::Timer> timer) : Reactor(std::move(timer)), sm_(sm) {}
  void handleTimer() override { sm_.ageout(); }

 private:
  DispatcherSm& sm_;
};

class DispatcherSm::ExchangerReactor : public Exchanger::Reactor {
 public:
  ExchangerReactor(DispatcherSm& sm, Ptr<Exchanger> exchanger) : Reactor(std::move(exchanger)), sm_(sm) {}
  void handleIsTogglingFeatureOff() override { sm_.toggleOff(); }
  void handleIsTrackerChanged() override { sm_.handleTrackerChanged(); }
  void handleIsInactiveIntervalUpdated() override { sm_.handleInactiveIntervalUpdated(); }
  void handleCounterProcessedPacket() override { sm_.handleProcessedPacket(); }
  void handleTimerReportTimeMin() override { sm_.handleTimerReportTimeMin(); }
  void handleCounterSentStartReport() override { sm_.handleSentStartReport(); }
  void handleCounterSentStopReport() override { sm_.handleSentStopReport(); }

 private:
  DispatcherSm& sm_;
};

// --- life cycle ---

DispatcherSm::DispatcherSm(Ptr<Emt::Config> emtConfig, Ptr<Emt::Status const> emtStatus,
                           Ptr<HwStatus const> hwStatus, Ptr<Report::Status> reportStatus,
                           Ptr<Calyx::TimerWheel> timerWheel, Ptr<Exchanger> exchanger,
                           Ptr<MountHolder> mountHolder)
    : emtConfig_(std::move(emtConfig)),
      emtStatus_(std::move(emtStatus)),
      hwStatus_(std::move(hwStatus)),
      reportStatus_(std::move(reportStatus)),
      timerWheel_(std::move(timerWheel)),
      timerAgeout_(timerWheel_->timerNew()),
      exchanger_(std::move(exchanger)),
      mountHolder_(std::move(mountHolder)) {
  timerReactor_ = std::make_unique<TimerReactor>(*this, timerAgeout_);
  exchangerReactor_ = std::make_unique<ExchangerReactor>(*this, exchanger_);
  Ptr<Calyx::Interface::AllIntfStatusLocalDir const> const& local = mountHolder_->allIntfStatusLocalDir();
  pamManager_ =
      Calyx::make<PamManager>(*mountHolder_->loop(), Calyx::make<Calyx::Interface::PamDesiredIntfDir>(),
                              local->pamCollection(), mountHolder_->allIntfStatusDir());

  reportStartOutboxIs(Calyx::make<Report::Outbox>());
  reportStartEntryOutboxActiveIs(batchNew());
  reportStopOutboxIs(Calyx::make<Report::Outbox>());
  reportStopEntryOutboxActiveIs(batchNew());
  // The sender drains the queues through the Exchanger: they must be these very objects.
  exchanger_->reportStartOutboxIs(reportStartOutbox_);
  exchanger_->reportStopOutboxIs(reportStopOutbox_);

  initialize();
  senderSmMake();
  receiverSmMake();
  finalize();
}

DispatcherSm::~DispatcherSm() {
  cleanup();
  exchangerReactor_.reset();
  timerReactor_.reset();
  senderSmDel();
  receiverSmDel();
  timerAgeout_->timeMinIs(Calyx::kNever);
}

void DispatcherSm::initialize() {
  traceEntry("initialize");
  Detail::TraceManager::Scope scope;
  if (pamManager_) {
    pamManager_->socketFilterIs(ReceiverSm::socketFilter());
    pamManager_->readLimitIs(kSocketReadLimit);
    pamManager_->bulkReadIs(true);
    pamManager_->enabledIs(true);
  }
  // Flows an earlier run left are stopped at the first age-out, one inactive timeout from now, and get no
  // START: their START went out in that run.
  if (reportStatus_->entryCount() > 0) {
    reportStatus_->entryControl()->forEachEntry(
        [&](Report::EntryStatus const& e) { reportStopEntryOutboxActive_->entryIs(e.key()); });
    timerAgeout_->timeMinIs(now() + inactiveTimeout());
  } else {
    timerAgeout_->timeMinIs(Calyx::kNever);
  }
}

void DispatcherSm::finalize() {
  traceEntry("finalize");
  Detail::TraceManager::Scope scope;
}

void DispatcherSm::cleanup() {
  traceEntry("cleanup");
  Detail::TraceManager::Scope scope;
  if (auto const& q = exchanger_->reportStartOutbox()) q->entryDelAll();
  if (auto const& q = exchanger_->reportStopOutbox()) q->entryDelAll();
  // The queues leave the Exchanger with the dispatcher that made them.
  if (exchanger_->reportStartOutbox() == reportStartOutbox_) exchanger_->reportStartOutboxIs(nullptr);
  if (exchanger_->reportStopOutbox() == reportStopOutbox_) exchanger_->reportStopOutboxIs(nullptr);
  reportStatus_->entryIntfDelAll();
  reportStatus_->entryDelAll();
  emtConfig_->entryDelAll();
}

// --- sub-machines ---

void DispatcherSm::senderSmIs(Ptr<SenderSm::ConfigReq const> configReq,
                              Ptr<SenderSm::FtConfig const> hwFtConfig,
                              Ptr<SenderSm::FtStatus const> hwFtStatus,
                              Ptr<Collector::Status> collectorStatus, Ptr<Report::Status const> reportStatus,
                              Ptr<Calyx::Task> task, Ptr<Calyx::TimerWheel> const& timerWheel,
                              Ptr<Exchanger> exchanger, Calyx::PktManager& pktManager) {
  senderSm_ = Calyx::make<SenderSm>(std::move(configReq), std::move(hwFtConfig), std::move(hwFtStatus),
                                    std::move(collectorStatus), std::move(reportStatus), std::move(task),
                                    timerWheel, std::move(exchanger), pktManager);
}

void DispatcherSm::senderSmDel() {
  senderSm_ = nullptr;
}

void DispatcherSm::receiverSmIs(Ptr<ReceiverSm::FeatureAgentCommonSmData const> fcsd,
                                Ptr<ReceiverSm::PamDesiredIntfDir> pamDesiredIntfDir,
                                Ptr<ReceiverSm::EthDevPamCollection const> pamCollection,
                                Ptr<Exchanger> exchanger) {
  receiverSm_ = Calyx::make<ReceiverSm>(std::move(fcsd), std::move(pamDesiredIntfDir),
                                        std::move(pamCollection), std::move(exchanger));
}

void DispatcherSm::receiverSmDel() {
  receiverSm_ = nullptr;
}

void DispatcherSm::senderSmMake() {
  MountHolder const& h = *mountHolder_;
  senderSmIs(h.configReq(), h.hwFtConfig(), h.hwFtStatus(), h.collectorStatus(), reportStatus_,
             h.makeTask(kReportTaskName, kReportTaskPriority), timerWheel_, exchanger_, h.pktManager());
}

void DispatcherSm::receiverSmMake() {
  if (!pamManager_) return;
  receiverSmIs(mountHolder_->fcsd(), pamManager_->pamDesiredIntfDir(),
               mountHolder_->allIntfStatusLocalDir()->pamCollection(), exchanger_);
}

// --- drops and START reports ---

void DispatcherSm::handleProcessedPacket() {
  traceEntry("handleProcessedPacket");
  Detail::TraceManager::Scope scope;
  Emt::Key const& emtKey = exchanger_->emtKey();
  if (!emtConfig_->entry(emtKey)) {
    Report::Key const flow(emtKey.flowKey());
    bool const newFlow = !reportStatus_->entry(flow);
    if (!admitted(newFlow)) return;
    if (newFlow) {
      reportStatus_->entryIs(Report::EntryStatus(flow, Report::ReportType::START, exchanger_->report()));
      reportStatus_->entryIntfUpdate(
          Report::Interface::Key(emtKey.intfId()),
          [](Report::Interface::Entry& e) { e.countReportIs(e.countReport() + 1); });
      reportStopEntryOutboxActive_->entryIs(flow);
      reportStartEntryOutboxActive_->entryIs(flow);
    }
    emtConfig_->entryIs(Emt::EntryConfig(emtKey));
  }
  if (!timerAgeout_->isArmed()) timerAgeout_->timeMinIs(now() + 2 * inactiveTimeout());
}

// The overload guard: a new flow past the agent's flow cap, or a new pair whose entries the tables have no
// room for, is counted and leaves no trace in any table or batch; flows already recorded go on as ever. Room
// is made before anything is written, so a pair is recorded whole or not at all.
bool DispatcherSm::admitted(bool newFlow) {
  uint64_t const maxFlows = mountHolder_->fcsd()->maxFlows();
  bool const atLimit = newFlow && maxFlows != 0 && reportStatus_->entryCount() >= maxFlows;
  // Room for the interface's counter too, whether or not it has one: a room check costs no look-up.
  if (!atLimit && emtConfig_->entryReserve(1) &&
      (!newFlow || (reportStatus_->entryReserve(1) && reportStatus_->entryIntfReserve(1))))
    return true;
  uint64_t const refused = exchanger_->counterRefusedFlowInc(1);
  // At most one line a second: a storm of refusals must not become a storm of trace lines.
  if (now() - refusalTracedAt_ >= 1.0) {
    refusalTracedAt_ = now();
    if (atLimit) {
      MOD_TRACE(trace(), 1,
                "[ERROR]: refusing new flows: the limit of " << maxFlows << " live flows is reached; "
                                                             << refused << " drops refused so far.");
    } else {
      MOD_TRACE(trace(), 1,
                "[ERROR]: refusing new flows: no room left in shared memory (" << reportStatus_->entryCount()
                                                                               << " flows held); " << refused
                                                                               << " drops refused so far.");
    }
  }
  return false;
}

void DispatcherSm::handleTimerReportTimeMin() {
  traceEntry("handleTimerReportTimeMin");
  Detail::TraceManager::Scope scope;
  if (reportStartEntryOutboxActive_->empty()) return;
  reportStartOutbox_->entryEnq(reportStartEntryOutboxActive_);
  reportStartEntryOutboxActiveIs(batchNew());
}

void DispatcherSm::handleSentStartReport() {
  traceEntry("handleSentStartReport");
  Detail::TraceManager::Scope scope;
  headBatchKeyDel(*reportStartOutbox_, exchanger_->reportKey());
}

void DispatcherSm::headBatchKeyDel(Report::Outbox& queue, Report::Key const& key) {
  Ptr<Report::EntryOutbox> const head = queue.entryFront();
  if (!head) return;
  head->entryDel(key);
  if (head->empty()) queue.entryDeq();
}

// --- age-out and STOP reports ---

void DispatcherSm::ageout() {
  traceEntry("ageout");
  Detail::TraceManager::Scope scope;
  // A START batch still being collected goes ahead of the STOP batch of the same flows.
  handleTimerReportTimeMin();
  if (!reportStopEntryOutboxActive_->empty()) {
    reportStopOutbox_->entryEnq(reportStopEntryOutboxActive_);
    reportStopEntryOutboxActiveIs(batchNew());
  }
  exchanger_->isStopReportPulse();
  timerAgeout_->timeMinIs(Calyx::kNever);
}

void DispatcherSm::handleSentStopReport() {
  traceEntry("handleSentStopReport");
  Detail::TraceManager::Scope scope;
  Report::Key const key = exchanger_->reportKey();
  Ptr<Report::EntryOutbox> const head = reportStopOutbox_->entryFront();
  if (head) head->entryDel(key);
  reportStatus_->entryDel(key);
  // Only interfaces with a counter are visited, and each one on which the flow had an entry is counted down:
  // both asymmetries are the required bookkeeping.
  for (auto intf = reportStatus_->entryIntfFirst(); intf; intf = reportStatus_->entryIntfNext(*intf)) {
    if (!emtConfig_->entryDel(Emt::Key(key, intf->intfId()))) continue;
    Report::Interface::Entry const* counter = reportStatus_->entryIntf(*intf);
    if (!counter) continue;
    if (counter->countReport() == 1) {
      reportStatus_->entryIntfDel(*intf);
    } else {
      Report::Interface::Entry lowered = *counter;
      lowered.countReportIs(static_cast<uint16_t>(lowered.countReport() - 1));
      reportStatus_->entryIntfCommit(lowered);
    }
  }
  if (head && head->empty()) reportStopOutbox_->entryDeq();
  if (reportStopOutbox_->empty()) exchanger_->isStopReportStore(false);
  if (exchanger_->isTogglingFeatureOff() && emtConfig_->entryCount() == 0) {
    CALYX_ASSERT(!receiverSm_, "Unexpected existence of ReceiverSm.");
    exchanger_->isToggleFeatureOffReadyPulse();
  }
}

void DispatcherSm::handleInactiveIntervalUpdated() {
  traceEntry("handleInactiveIntervalUpdated");
  Detail::TraceManager::Scope scope;
  if (!timerAgeout_->isArmed()) {
    MOD_TRACE(trace(), 5,
              "Postponing inactive interval application: flow count = " << emtConfig_->entryCount() << ".");
    return;
  }
  double const due = now() + 2 * inactiveTimeout();
  if (timerAgeout_->timeMin() > due) timerAgeout_->timeMinIs(due);
  MOD_TRACE(trace(), 5,
            "Applying inactive interval: next aging out is in " << timerAgeout_->timeMin() - now() << "s.");
}

void DispatcherSm::handleTrackerChanged() {
  traceEntry("handleTrackerChanged");
  Detail::TraceManager::Scope scope;
  handleInactiveIntervalUpdated();
  senderSmDel();
  senderSmMake();
  if (exchanger_->isTogglingFeatureOff()) {
    // A turn-off is being cancelled (the manager lowers the flag after this pulse): the receiver that
    // toggleOff dropped comes back.
    CALYX_ASSERT(!receiverSm_, "Unexpected existence of ReceiverSm.");
    receiverSmMake();
  }
}

void DispatcherSm::toggleOff() {
  traceEntry("toggleOff");
  Detail::TraceManager::Scope scope;
  receiverSmDel();
  if (emtConfig_->entryCount() > 0) {
    ageout();
    return;
  }
  exchanger_->isToggleFeatureOffReadyPulse();
}

// --- helpers ---

double DispatcherSm::inactiveTimeout() const {
  auto const first = hwStatus_->hwFtStatusFirst();
  Ptr<Calyx::HwFlowTracking::FtStatus const> status = first ? hwStatus_->hwFtStatus(*first) : nullptr;
  return status ? status->inactiveTimeout().seconds() : Calyx::FlowTracking::InactiveTimeout().seconds();
}

Ptr<Report::EntryOutbox> DispatcherSm::batchNew() {
  auto batch = Calyx::make<Report::EntryOutbox>();
  batch->hasNotificationActiveIs(true);
  return batch;
}

std::string DispatcherSm::traceText(bool atLineStart) const {
  if (atLineStart) return "DispatcherSm";
  std::ostringstream os;
  os << "[" << emtConfig_->entryCount() << "," << emtStatus_->entryCount() << "]";
  return os.str();
}

void DispatcherSm::traceEntry(char const* handler) const {
  MOD_TRACE(trace(), 8, traceText(true) << "::" << handler << "() " << traceText(false));
}

}  // namespace MirrorOnDrop
