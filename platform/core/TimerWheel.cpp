#include "platform/core/TimerWheel.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "platform/core/EventLoop.h"

namespace Calyx {

Timer::Timer(Ptr<TimerWheel> wheel) : wheel_(std::move(wheel)) {}

Timer::~Timer() {
  timeMinIs(kNever);
}

void Timer::timeMinIs(double t) {
  if (std::isnan(t)) t = kNever;
  if (filed_) wheel_->unfile(this);
  timeMin_ = t;
  if (isArmed()) {
    armSeq_ = wheel_->nextArmSeq_++;
    wheel_->file(this);
  }
}

TimerWheel::TimerWheel(EventLoop& loop, uint32_t granularity, uint32_t maxTicks, bool fireInBatches,
                       uint32_t maxFirePerTurn)
    : loop_(&loop),
      clock_(&loop.clock()),
      granularitySeconds_(std::max<uint32_t>(granularity, 1) / 1000.0),
      maxTicks_(std::max<uint32_t>(maxTicks, 1)),
      fireInBatches_(fireInBatches),
      maxFirePerTurn_(std::max<uint32_t>(maxFirePerTurn, 1)) {
  loop_->timerWheelAdd(this);
}

// Timers hold a Ptr to their wheel, so none is armed here.
TimerWheel::~TimerWheel() {
  loop_->timerWheelDel(this);
}

uint64_t TimerWheel::tickOf(double t) const {
  double const tick = std::floor(t / granularitySeconds_);
  return tick <= 0 ? 0 : static_cast<uint64_t>(tick);
}

void TimerWheel::file(Timer* t) {
  uint64_t const horizon = tickOf(now()) + maxTicks_;
  t->bucket_ = std::min(tickOf(t->timeMin_), horizon);
  Bucket& b = buckets_[t->bucket_];
  t->prev_ = nullptr;
  t->next_ = b.head;
  if (b.head) b.head->prev_ = t;
  b.head = t;
  t->filed_ = true;
  ++armed_;
}

void TimerWheel::unfile(Timer* t) {
  auto it = buckets_.find(t->bucket_);
  if (t->prev_) t->prev_->next_ = t->next_;
  if (t->next_) t->next_->prev_ = t->prev_;
  if (it->second.head == t) it->second.head = t->next_;
  if (!it->second.head) buckets_.erase(it);
  t->prev_ = t->next_ = nullptr;
  t->filed_ = false;
  --armed_;
}

bool TimerWheel::isDue(Timer const* t, double now) const {
  if (fireInBatches_) return tickOf(t->timeMin_) < tickOf(now);
  return t->timeMin_ <= now;
}

double TimerWheel::nextDue() const {
  if (buckets_.empty()) return kNever;
  auto const& [tick, bucket] = *buckets_.begin();
  // The first bucket holds the earliest timers, except for timers parked in a horizon bucket: waking at the
  // end of the first bucket at the latest re-files those and finds the true next time.
  double due = static_cast<double>(tick + 1) * granularitySeconds_;
  if (!fireInBatches_) {
    for (Timer const* t = bucket.head; t; t = t->next_) due = std::min(due, t->timeMin_);
  }
  return due;
}

size_t TimerWheel::fireDue() {
  double const now = this->now();
  uint64_t const nowTick = tickOf(now);
  std::vector<Ptr<Timer>> due;
  std::vector<Timer*> refile;
  while (!buckets_.empty() && buckets_.begin()->first <= nowTick) {
    for (Timer* t = buckets_.begin()->second.head; t; t = t->next_) {
      if (isDue(t, now)) {
        due.emplace_back(t);
      } else {
        refile.push_back(t);
      }
    }
    // Unlink the whole bucket at once; the timers in it are either fired below or filed again.
    for (Timer* t = buckets_.begin()->second.head; t;) {
      Timer* next = t->next_;
      t->prev_ = t->next_ = nullptr;
      t->filed_ = false;
      --armed_;
      t = next;
    }
    buckets_.erase(buckets_.begin());
  }
  for (Timer* t : refile) file(t);

  std::sort(due.begin(), due.end(), [](Ptr<Timer> const& a, Ptr<Timer> const& b) {
    return a->timeMin_ != b->timeMin_ ? a->timeMin_ < b->timeMin_ : a->armSeq_ < b->armSeq_;
  });
  size_t fired = 0;
  for (Ptr<Timer>& t : due) {
    // An earlier handler may have re-armed this one (it is filed again) or cancelled it (it is idle).
    if (t->filed_ || !t->isArmed()) continue;
    if (fired == maxFirePerTurn_) {
      file(t.get());  // still armed at its time: it fires next turn
      continue;
    }
    t->timeMin_ = kNever;
    ++fired;
    t->notify(&Timer::Reactor::handleTimer);
  }
  return fired;
}

}  // namespace Calyx
