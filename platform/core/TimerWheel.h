#pragma once
// TimerWheel and Timer: timed work on the event loop.
//
// A Timer is an entity with one attribute, timeMin: the time at which it fires, +infinity (kNever) while
// idle. When the loop reaches that time the wheel sets timeMin back to kNever and then notifies the timer's
// reactors (handleTimer), so a handler may re-arm its own timer. A timer belongs to the object it serves:
// when its last Ptr goes the timer is cancelled.
//
// The wheel is a ring of buckets, one per tick of `granularity` milliseconds, with an occupancy bitmap:
// arming and cancelling a timer is an unlink and a link, finding the next due bucket a scan of bitmap words.
// The four tuning arguments:
//   granularity     width of a bucket in milliseconds. Timers still fire at their exact time (see
//                   fireInBatches); the bucket only groups them.
//   maxTicks        the wheel's horizon in buckets (rounded up to a power of two from 64 to 4096). A timer
//                   further out waits in an overflow list and is filed into the ring when the wheel comes
//                   near, so far-away timers cost nothing until then.
//   fireInBatches   false: a timer fires on the first loop turn at or after its time. true: timers fire only
//                   when their whole bucket has passed, all together (coarser, fewer wake-ups).
//   maxFirePerTurn  at most this many timers fire in one loop turn; the rest fire in the next turn, after
//                   I/O, so a storm of timers cannot starve the sockets.
// Due timers fire in order of their time, and in arming order for equal times.
//
// A loop turn asks every wheel, and a simulated loop steps its clock from one due time to the next, so both
// questions are cheap when nothing changed: the wheel keeps a time before which none of its timers is due
// (fireDue() returns at once until then) and remembers nextDue() until a timer is armed, cancelled or fired.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "platform/core/Clock.h"
#include "platform/core/Entity.h"
#include "platform/core/EventLoop.h"

namespace Calyx {

class TimerWheel;

class Timer : public Object, public Notifier<Timer> {
 public:
  class Reactor : public ReactorBase<Timer> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleTimer() {}
  };

  explicit Timer(Ptr<TimerWheel> wheel);

  double timeMin() const { return timeMin_; }
  // Arms the timer at t (kNever makes it idle); notifies nothing.
  void timeMinIs(double t);
  bool isArmed() const { return timeMin_ != kNever; }
  TimerWheel& wheel() const { return *wheel_; }

 protected:
  ~Timer() override;

 private:
  friend class TimerWheel;
  Ptr<TimerWheel> wheel_;
  double timeMin_ = kNever;
  uint64_t armSeq_ = 0;  // arming order, for ties
  // Bucket membership (intrusive list; no allocation per arm).
  bool filed_ = false;
  bool inOverflow_ = false;  // in the overflow list rather than the ring
  uint64_t tick_ = 0;        // the bucket it is filed under
  Timer* prev_ = nullptr;
  Timer* next_ = nullptr;
};

class TimerWheel : public Object {
 public:
  TimerWheel(EventLoop& loop, uint32_t granularity, uint32_t maxTicks, bool fireInBatches,
             uint32_t maxFirePerTurn);

  Clock const& clock() const { return *clock_; }
  double now() const { return loop_->now(); }  // the loop's clock
  Ptr<Timer> timerNew() { return make<Timer>(Ptr<TimerWheel>(this)); }

  // When the next timer may be due (kNever when none is armed). Never later than the true next time. Inline
  // while it is remembered: a simulated loop asks every wheel at every step.
  double nextDue() const { return nextDueKnown_ ? nextDue_ : nextDueFind(); }
  // Fires the timers that are due now, at most maxFirePerTurn of them; returns how many fired.
  size_t fireDue();
  // True when no timer can be due at time t, so that fireDue() would return 0 at once: a loop turn asks
  // before it calls.
  bool isIdleAt(double t) const { return t < dueFloor_; }
  size_t armedCount() const { return armed_; }

 protected:
  ~TimerWheel() override;

 private:
  friend class Timer;
  static constexpr uint64_t kMaxRing = 4096;

  void file(Timer* t);
  void unfile(Timer* t);
  uint64_t tickOf(double t) const;
  size_t slotOf(uint64_t tick) const { return static_cast<size_t>(tick & (ring_.size() - 1)); }
  bool isDue(Timer const* t, double now) const;
  // No armed timer's time is earlier than this; it is the earliest exactly when that timer is in the ring.
  double earliestTime() const;
  double nextDueFind() const;
  // The first occupied slot at or after tick `from`, as a distance in ticks less than limit (at most one
  // turn of the ring).
  std::optional<uint64_t> occupiedAfter(uint64_t from, uint64_t limit) const;
  void collect(size_t slot, double now, std::vector<Ptr<Timer>>& due);
  void refileOverflow();

  Ptr<EventLoop> loop_;
  Ptr<Clock const> clock_;
  double granularitySeconds_;
  bool fireInBatches_;
  uint32_t maxFirePerTurn_;
  std::vector<Timer*> ring_;        // list heads; slot = tick modulo the ring size
  std::vector<uint64_t> occupied_;  // one bit per slot
  Timer* overflow_ = nullptr;       // timers beyond the ring
  uint64_t overflowMinTick_ = UINT64_MAX;
  uint64_t base_ = 0;  // the ring holds ticks [base_, base_ + ring size); earlier ones have fired
  size_t armed_ = 0;
  uint64_t nextArmSeq_ = 0;
  std::vector<Ptr<Timer>> scratch_;  // fireDue's list of due timers
  // No armed timer's time is earlier, nor the last nextDue(): kept low by every arming and every nextDue(),
  // raised only by a firing pass.
  mutable double dueFloor_ = kNever;
  mutable double nextDue_ = kNever;  // what nextDue() said, while nextDueKnown_
  mutable bool nextDueKnown_ = false;
};

}  // namespace Calyx
