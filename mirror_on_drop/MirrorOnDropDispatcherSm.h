#pragma once
// DispatcherSm: exists while one hardware flow tracker runs the feature. The manager makes it when the
// feature turns on and drops it, from a task, once it has said it is ready to go.
//
// It turns every parsed drop into per-flow report state. The receiver leaves the drop's exact-match key and
// report in the Exchanger and moves counterProcessedPacket; inside that notification the dispatcher records a
// new (flow, interface) pair: a new flow gets a Report::Status entry (START), one more flow on the interface
// it was first seen on, and a place in both active batches (START and STOP); every new pair gets an
// Emt::Config entry. A known pair changes nothing. The first drop while the age-out timer is idle arms it at
// now + 2 x the inactive timeout; an armed timer is never moved by a drop.
//
// When the sender publishes its next report time, the active START batch (if it holds a key) is queued. When
// the age-out fires, the active START and STOP batches are queued and the sender is told (a pulse of
// isStopReport). As the sender announces each sent report, the dispatcher takes the key off the head batch;
// after a STOP it also removes the flow's entry, its exact-match entries on every interface that has a
// counter and those interfaces' counts. Two asymmetries are deliberate and kept: an exact-match entry on an
// interface without a counter stays, and every interface on which the flow had an entry is counted down
// although only the first one was counted up.
//
// Overload guard (the agent's, beyond the feature's own rules): a new flow is refused while the holder's
// fcsd caps the live flows (maxFlows) and the cap is reached, and any new pair when the shared tables cannot
// grow (a full tmpfs). A refused drop changes no table, no batch and no timer; it is counted
// (Exchanger::counterRefusedFlow) and traced at level 1 at most once a second. Room comes back as flows are
// stopped.
//
// Turn-off: the manager raises isTogglingFeatureOff; the dispatcher drops the receiver, ages every flow out
// and pulses isToggleFeatureOffReady once the last STOP has gone (at once when there is no flow). A tracker
// change replaces the sender (and, when it cancels a turn-off, brings the receiver back); flows, batches and
// tables are kept across it.
//
// Decisions where the definition is open:
// - The timer wheel is held writable: the dispatcher arms its own timer on it.
// - The packet-access manager is made over the holder's interface status (AllIntfStatusDir: which interfaces
//   are up, and their backends) and the local directory's module collection (AllIntfStatusLocalDir); it owns
//   the writable directory of wishes that the receiver writes. The receiver reads the modules from that same
//   collection of the holder's.
// - The Exchanger's attributes are events and argument slots: what they hold when a dispatcher attaches
//   belongs to an earlier life (the last packet's key, a served pulse). Replaying them would record a stale
//   flow or end the feature being started, so the dispatcher reacts only to what happens after it exists.

#include <memory>
#include <string>

#include "mirror_on_drop/MirrorOnDropEmtCommon.h"
#include "mirror_on_drop/MirrorOnDropExchanger.h"
#include "mirror_on_drop/MirrorOnDropMountHolder.h"
#include "mirror_on_drop/MirrorOnDropReceiverSm.h"
#include "mirror_on_drop/MirrorOnDropReport.h"
#include "mirror_on_drop/MirrorOnDropSenderSm.h"
#include "platform/core/TimerWheel.h"
#include "platform/entity/HwFlowTrackingStatus.h"
#include "platform/io/InterfaceSimpleEthDevPamManager.h"

namespace MirrorOnDrop {

class DispatcherSm : public Calyx::Object {
 public:
  using HwStatus = Calyx::HwFlowTracking::Status;
  using PamManager = Calyx::Interface::SimpleEthDevPamManager;

  static constexpr char const* kReportTaskName = "MOD-Task:report";
  static constexpr int kReportTaskPriority = 3;
  static constexpr uint32_t kSocketReadLimit = Calyx::Pam::kDefaultReadLimit;  // 64 frames a readable event

  DispatcherSm(Calyx::Ptr<Emt::Config> emtConfig, Calyx::Ptr<Emt::Status const> emtStatus,
               Calyx::Ptr<HwStatus const> hwStatus, Calyx::Ptr<Report::Status> reportStatus,
               Calyx::Ptr<Calyx::TimerWheel> timerWheel, Calyx::Ptr<Exchanger> exchanger,
               Calyx::Ptr<MountHolder> mountHolder);

  Calyx::Ptr<Emt::Config> const& emtConfig() const { return emtConfig_; }
  Calyx::Ptr<Emt::Status const> const& emtStatus() const { return emtStatus_; }
  Calyx::Ptr<HwStatus const> const& hwStatus() const { return hwStatus_; }
  Calyx::Ptr<Report::Status> const& reportStatus() const { return reportStatus_; }
  Calyx::Ptr<Calyx::Timer const> timerAgeout() const { return timerAgeout_; }
  Calyx::Ptr<Exchanger> const& exchanger() const { return exchanger_; }
  Calyx::Ptr<MountHolder> const& mountHolder() const { return mountHolder_; }
  Calyx::Ptr<PamManager> const& pamManager() const { return pamManager_; }
  Calyx::Ptr<Report::Outbox> const& reportStartOutbox() const { return reportStartOutbox_; }
  Calyx::Ptr<Report::EntryOutbox> const& reportStartEntryOutboxActive() const {
    return reportStartEntryOutboxActive_;
  }
  Calyx::Ptr<Report::Outbox> const& reportStopOutbox() const { return reportStopOutbox_; }
  Calyx::Ptr<Report::EntryOutbox> const& reportStopEntryOutboxActive() const {
    return reportStopEntryOutboxActive_;
  }
  Calyx::Ptr<SenderSm> const& senderSm() const { return senderSm_; }
  Calyx::Ptr<ReceiverSm> const& receiverSm() const { return receiverSm_; }

  // Each replaces the reference, counting the new one up before the old one down.
  void reportStartOutboxIs(Calyx::Ptr<Report::Outbox> o) { reportStartOutbox_ = std::move(o); }
  void reportStartEntryOutboxActiveIs(Calyx::Ptr<Report::EntryOutbox> b) {
    reportStartEntryOutboxActive_ = std::move(b);
  }
  void reportStopOutboxIs(Calyx::Ptr<Report::Outbox> o) { reportStopOutbox_ = std::move(o); }
  void reportStopEntryOutboxActiveIs(Calyx::Ptr<Report::EntryOutbox> b) {
    reportStopEntryOutboxActive_ = std::move(b);
  }

  void handleProcessedPacket();
  void handleTimerReportTimeMin();
  void handleSentStartReport();
  void ageout();
  void handleSentStopReport();
  void handleInactiveIntervalUpdated();
  void handleTrackerChanged();
  void toggleOff();

  void senderSmIs(Calyx::Ptr<SenderSm::ConfigReq const> configReq,
                  Calyx::Ptr<SenderSm::FtConfig const> hwFtConfig,
                  Calyx::Ptr<SenderSm::FtStatus const> hwFtStatus,
                  Calyx::Ptr<Collector::Status> collectorStatus,
                  Calyx::Ptr<Report::Status const> reportStatus, Calyx::Ptr<Calyx::Task> task,
                  Calyx::Ptr<Calyx::TimerWheel> const& timerWheel, Calyx::Ptr<Exchanger> exchanger,
                  Calyx::PktManager& pktManager);
  void senderSmDel();
  void receiverSmIs(Calyx::Ptr<ReceiverSm::FeatureAgentCommonSmData const> fcsd,
                    Calyx::Ptr<ReceiverSm::PamDesiredIntfDir> pamDesiredIntfDir,
                    Calyx::Ptr<ReceiverSm::EthDevPamCollection const> pamCollection,
                    Calyx::Ptr<Exchanger> exchanger);
  void receiverSmDel();

  void initialize();
  void finalize();
  void cleanup();

  // The dispatcher in a trace line: "DispatcherSm" at the start of a line, elsewhere
  // "[emtConfig entries,emtStatus entries]".
  std::string traceText(bool atLineStart) const;

 protected:
  ~DispatcherSm() override;

 private:
  class TimerReactor;
  class ExchangerReactor;

  double now() const { return timerWheel_->now(); }
  // Seconds of the inactive timeout of the first tracker status in hwStatus.
  double inactiveTimeout() const;
  // The level 8 entry line of a handler.
  void traceEntry(char const* handler) const;
  static Calyx::Ptr<Report::EntryOutbox> batchNew();
  // A new report task and sender for the holder's active tracker.
  void senderSmMake();
  // The receiver over the packet-access manager's wishes and the holder's modules.
  void receiverSmMake();
  // Whether a drop of a pair not yet recorded may be recorded (newFlow: its flow is not known either); a
  // refusal is counted and traced.
  bool admitted(bool newFlow);
  // Takes the announced key off the head batch of queue, dequeuing the batch once it is empty.
  void headBatchKeyDel(Report::Outbox& queue, Report::Key const& key);

  Calyx::Ptr<Emt::Config> emtConfig_;
  Calyx::Ptr<Emt::Status const> emtStatus_;
  Calyx::Ptr<HwStatus const> hwStatus_;
  Calyx::Ptr<Report::Status> reportStatus_;
  Calyx::Ptr<Calyx::TimerWheel> timerWheel_;
  Calyx::Ptr<Calyx::Timer> timerAgeout_;
  Calyx::Ptr<Exchanger> exchanger_;
  Calyx::Ptr<MountHolder> mountHolder_;
  Calyx::Ptr<PamManager> pamManager_;
  Calyx::Ptr<Report::Outbox> reportStartOutbox_;
  Calyx::Ptr<Report::EntryOutbox> reportStartEntryOutboxActive_;
  Calyx::Ptr<Report::Outbox> reportStopOutbox_;
  Calyx::Ptr<Report::EntryOutbox> reportStopEntryOutboxActive_;
  Calyx::Ptr<SenderSm> senderSm_;
  Calyx::Ptr<ReceiverSm> receiverSm_;
  std::unique_ptr<TimerReactor> timerReactor_;
  std::unique_ptr<ExchangerReactor> exchangerReactor_;
  double refusalTracedAt_ = -Calyx::kNever;  // when a refusal was last traced
};

}  // namespace MirrorOnDrop
