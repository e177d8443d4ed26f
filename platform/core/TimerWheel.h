#pragma once
// TimerWheel and Timer: timed work on the event loop.
//
// A Timer is an entity with one attribute, timeMin: the time at which it fires, +infinity (kNever) while
// idle. When the loop reaches that time the wheel sets timeMin back to kNever and then notifies the timer's
// reactors (handleTimer), so a handler may re-arm its own timer. A timer belongs to the object it serves:
// when its last Ptr goes the timer is cancelled.
//
// The wheel files armed timers into buckets of `granularity` milliseconds, keyed by tick; arming and
// cancelling cost one bucket look-up and an unlink. The four tuning arguments:
//   granularity    width of a bucket in milliseconds. Timers still fire at their exact time (see
//   fireInBatches);
//                  the bucket only groups them.
//   maxTicks       the wheel's horizon in buckets. A timer further out than that waits in the horizon bucket
//   and is
//                  filed again when the wheel reaches it, so far-away timers cost nothing until they come
//                  near.
//   fireInBatches  false: a timer fires on the first loop turn at or after its time. true: timers fire only
//   when their
//                  whole bucket has passed, all together (coarser, fewer wake-ups).
//   maxFirePerTurn at most this many timers fire in one loop turn; the rest fire in the next turn, after I/O,
//   so a
//                  storm of timers cannot starve the sockets.
// Due timers fire in order of their time, and in arming order for equal times.

#include <cstddef>
#include <cstdint>
#include <map>

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
  uint64_t bucket_ = 0;
  Timer* prev_ = nullptr;
  Timer* next_ = nullptr;
};

class TimerWheel : public Object {
 public:
  TimerWheel(EventLoop& loop, uint32_t granularity, uint32_t maxTicks, bool fireInBatches,
             uint32_t maxFirePerTurn);

  Clock const& clock() const { return *clock_; }
  double now() const { return clock_->now(); }
  Ptr<Timer> timerNew() { return make<Timer>(Ptr<TimerWheel>(this)); }

  // When the next timer may be due (kNever when none is armed). Never later than the true next time.
  double nextDue() const;
  // Fires the timers that are due now, at most maxFirePerTurn of them; returns how many fired.
  size_t fireDue();
  size_t armedCount() const { return armed_; }

 protected:
  ~TimerWheel() override;

 private:
  friend class Timer;
  struct Bucket {
    Timer* head = nullptr;
  };

  void file(Timer* t);
  void unfile(Timer* t);
  uint64_t tickOf(double t) const;
  bool isDue(Timer const* t, double now) const;

  Ptr<EventLoop> loop_;
  Ptr<Clock const> clock_;
  double granularitySeconds_;
  uint64_t maxTicks_;
  bool fireInBatches_;
  uint32_t maxFirePerTurn_;
  std::map<uint64_t, Bucket> buckets_;
  size_t armed_ = 0;
  uint64_t nextArmSeq_ = 0;
};

}  // namespace Calyx
