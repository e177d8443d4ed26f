#pragma once
// Exchanger: the one record through which the feature's state machines hand work to each other. No state
// machine calls another's handlers; a writer changes an attribute here and the reactors on that attribute
// hear it, at once, inside the writer's call.
//
// Three kinds of attribute:
// - one-shot event flags, raised by a pulse (a plain store of false, then the setter with true), so that
//   every raise reaches the reactors even when the flag already stood true; no code lowers them with a
//   notification;
// - argument slots (emtKey, report, reportKey), stored without notification just before a notifying counter
//   moves, and valid only while that counter's notification runs;
// - 64-bit counters that double as statistics; they count from the plug-in's start and are never reset.
// isTogglingFeatureOff is the one flag that is a state: raised with the setter, lowered by a plain store.

#include <cstdint>
#include <map>
#include <utility>

#include "mirror_on_drop/MirrorOnDropEmtCommon.h"
#include "mirror_on_drop/MirrorOnDropReport.h"
#include "mirror_on_drop/MirrorOnDropType.h"
#include "platform/core/Attribute.h"

namespace MirrorOnDrop {

class Exchanger : public Calyx::Object, public Calyx::Notifier<Exchanger> {
 public:
  class Reactor : public Calyx::ReactorBase<Exchanger> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleIsTogglingFeatureOff() {}
    virtual void handleIsTrackerChanged() {}
    virtual void handleIsInactiveIntervalUpdated() {}
    virtual void handleIsToggleFeatureOffReady() {}
    virtual void handleIsStopReport() {}
    virtual void handleCounterProcessedPacket() {}
    virtual void handleTimerReportTimeMin() {}
    virtual void handleCounterSentStartReport() {}
    virtual void handleCounterSentStopReport() {}
  };

  Exchanger() = default;

  // --- event flags ---
  bool isTogglingFeatureOff() const { return isTogglingFeatureOff_; }
  bool isTrackerChanged() const { return isTrackerChanged_; }
  bool isInactiveIntervalUpdated() const { return isInactiveIntervalUpdated_; }
  bool isToggleFeatureOffReady() const { return isToggleFeatureOffReady_; }
  bool isStopReport() const { return isStopReport_; }
  // Store, and notify only when the value changes.
  void isTogglingFeatureOffIs(bool v) {
    attributeIs(isTogglingFeatureOff_, v, &Reactor::handleIsTogglingFeatureOff);
  }
  void isTrackerChangedIs(bool v) { attributeIs(isTrackerChanged_, v, &Reactor::handleIsTrackerChanged); }
  void isInactiveIntervalUpdatedIs(bool v) {
    attributeIs(isInactiveIntervalUpdated_, v, &Reactor::handleIsInactiveIntervalUpdated);
  }
  void isToggleFeatureOffReadyIs(bool v) {
    attributeIs(isToggleFeatureOffReady_, v, &Reactor::handleIsToggleFeatureOffReady);
  }
  void isStopReportIs(bool v) { attributeIs(isStopReport_, v, &Reactor::handleIsStopReport); }
  // Plain stores, bypassing the setters: nobody is notified.
  void isTogglingFeatureOffStore(bool v) { isTogglingFeatureOff_ = v; }
  void isToggleFeatureOffReadyStore(bool v) { isToggleFeatureOffReady_ = v; }
  void isStopReportStore(bool v) { isStopReport_ = v; }
  // Pulses: every call reaches the reactors exactly once, and the flag stays true.
  void isTrackerChangedPulse() { pulse(isTrackerChanged_, &Reactor::handleIsTrackerChanged); }
  void isInactiveIntervalUpdatedPulse() {
    pulse(isInactiveIntervalUpdated_, &Reactor::handleIsInactiveIntervalUpdated);
  }
  void isToggleFeatureOffReadyPulse() {
    pulse(isToggleFeatureOffReady_, &Reactor::handleIsToggleFeatureOffReady);
  }
  void isStopReportPulse() { pulse(isStopReport_, &Reactor::handleIsStopReport); }

  // --- the dispatcher's report queues, published for the sender (no notification) ---
  Calyx::Ptr<Report::Outbox> const& reportStartOutbox() const { return reportStartOutbox_; }
  Calyx::Ptr<Report::Outbox> const& reportStopOutbox() const { return reportStopOutbox_; }
  void reportStartOutboxIs(Calyx::Ptr<Report::Outbox> o) { reportStartOutbox_ = std::move(o); }
  void reportStopOutboxIs(Calyx::Ptr<Report::Outbox> o) { reportStopOutbox_ = std::move(o); }

  // --- argument slots (no notification) ---
  Emt::Key const& emtKey() const { return emtKey_; }
  void emtKeyIs(Emt::Key const& k) { emtKey_ = k; }
  Report::Report const& report() const { return report_; }
  void reportIs(Report::Report const& r) { report_ = r; }
  // The two slots themselves, for the writer that fills them once per frame (the parser): built where they
  // stay, the key and the report are not copied in.
  Emt::Key& emtKeySlot() { return emtKey_; }
  Report::Report& reportSlot() { return report_; }
  Report::Key const& reportKey() const { return reportKey_; }
  void reportKeyIs(Report::Key const& k) { reportKey_ = k; }

  // --- counters: add modulo 2^64, notify only when the value changed, return the new value ---
  uint64_t counterReceivedPacket() const { return counterReceivedPacket_; }
  void counterReceivedPacketIs(uint64_t v) { counterReceivedPacket_ = v; }  // a statistic: never notifies
  uint64_t counterReceivedPacketInc(uint64_t n) { return counterReceivedPacket_ += n; }
  // Drops the dispatcher could not record (a new flow past the agent's flow cap, or no room left in shared
  // memory): a statistic that never notifies.
  uint64_t counterRefusedFlow() const { return counterRefusedFlow_; }
  uint64_t counterRefusedFlowInc(uint64_t n) { return counterRefusedFlow_ += n; }
  // Reports that could not be sent, per collector (exporter name, collector name), with the errno of the last
  // failure: statistics that never notify, kept here rather than in the collector's record, whose layout is
  // fixed. Cleared with the collectors' counters.
  struct SendErrors {
    uint64_t count = 0;
    int lastErrno = 0;
  };
  using SendErrorsByCollector = std::map<std::pair<Calyx::String, Calyx::String>, SendErrors>;
  SendErrorsByCollector const& sendErrors() const { return sendErrors_; }
  void sendErrorInc(Calyx::String const& exporter, Calyx::String const& collector, int err) {
    SendErrors& e = sendErrors_[{exporter, collector}];
    ++e.count;
    e.lastErrno = err;
  }
  // Every collector's, or one exporter's.
  void sendErrorsClear(Calyx::String const& exporter) {
    for (auto it = sendErrors_.begin(); it != sendErrors_.end();)
      it = exporter.empty() || it->first.first == exporter ? sendErrors_.erase(it) : std::next(it);
  }
  uint64_t counterProcessedPacket() const { return counterProcessedPacket_; }
  void counterProcessedPacketIs(uint64_t v) {
    attributeIs(counterProcessedPacket_, v, &Reactor::handleCounterProcessedPacket);
  }
  uint64_t counterProcessedPacketInc(uint64_t n) {
    return counterInc(counterProcessedPacket_, n, &Reactor::handleCounterProcessedPacket);
  }
  uint64_t counterSentStartReport() const { return counterSentStartReport_; }
  void counterSentStartReportIs(uint64_t v) {
    attributeIs(counterSentStartReport_, v, &Reactor::handleCounterSentStartReport);
  }
  uint64_t counterSentStartReportInc(uint64_t n) {
    return counterInc(counterSentStartReport_, n, &Reactor::handleCounterSentStartReport);
  }
  uint64_t counterSentStopReport() const { return counterSentStopReport_; }
  void counterSentStopReportIs(uint64_t v) {
    attributeIs(counterSentStopReport_, v, &Reactor::handleCounterSentStopReport);
  }
  uint64_t counterSentStopReportInc(uint64_t n) {
    return counterInc(counterSentStopReport_, n, &Reactor::handleCounterSentStopReport);
  }

  // --- the time the sender's report timer fires next (seconds on the timer wheel's clock) ---
  double timerReportTimeMin() const { return timerReportTimeMin_; }
  void timerReportTimeMinIs(double t) {
    attributeIs(timerReportTimeMin_, t, &Reactor::handleTimerReportTimeMin);
  }

 private:
  using Handler = void (Reactor::*)();

  // The pulse: every writer of a one-shot flag comes through here.
  void pulse(bool& flag, Handler handler) {
    flag = false;
    attributeIs(flag, true, handler);
  }

  bool isTogglingFeatureOff_ = false;
  bool isTrackerChanged_ = false;
  bool isInactiveIntervalUpdated_ = false;
  bool isToggleFeatureOffReady_ = false;
  bool isStopReport_ = false;
  Calyx::Ptr<Report::Outbox> reportStartOutbox_;
  Calyx::Ptr<Report::Outbox> reportStopOutbox_;
  Emt::Key emtKey_;
  Report::Report report_;
  uint64_t counterReceivedPacket_ = 0;
  uint64_t counterProcessedPacket_ = 0;
  uint64_t counterRefusedFlow_ = 0;
  SendErrorsByCollector sendErrors_;
  double timerReportTimeMin_ = 0.0;
  Report::Key reportKey_;
  uint64_t counterSentStartReport_ = 0;
  uint64_t counterSentStopReport_ = 0;

 protected:
  ~Exchanger() override = default;
};

}  // namespace MirrorOnDrop
