#include "platform/core/TimerWheel.h"

#include <algorithm>
#include <bit>
#include <cmath>

#include "platform/core/EventLoop.h"

namespace Calyx {

namespace {

// Intrusive doubly-linked list of timers, by head pointer.
void listPush(Timer*& head, Timer* t, Timer* Timer::*prev, Timer* Timer::*next) {
  t->*prev = nullptr;
  t->*next = head;
  if (head) head->*prev = t;
  head = t;
}

}  // namespace

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
      fireInBatches_(fireInBatches),
      maxFirePerTurn_(std::max<uint32_t>(maxFirePerTurn, 1)) {
  uint64_t const slots = std::bit_ceil(std::clamp<uint64_t>(maxTicks, 64, kMaxRing));
  ring_.assign(slots, nullptr);
  occupied_.assign(slots / 64, 0);
  base_ = tickOf(now());
  loop_->timerWheelAdd(this);
}

// Timers hold a Ptr to their wheel, so none is armed here.
TimerWheel::~TimerWheel() {
  loop_->timerWheelDel(this);
}

uint64_t TimerWheel::tickOf(double t) const {
  // Truncating a positive number is flooring it, without a call to floor().
  double const tick = t / granularitySeconds_;
  return tick <= 0 ? 0 : static_cast<uint64_t>(tick);
}

void TimerWheel::file(Timer* t) {
  // A time already passed goes into the current bucket: it is due at once.
  t->tick_ = std::max(tickOf(t->timeMin_), base_);
  t->inOverflow_ = t->tick_ >= base_ + ring_.size();
  if (t->inOverflow_) {
    listPush(overflow_, t, &Timer::prev_, &Timer::next_);
    overflowMinTick_ = std::min(overflowMinTick_, t->tick_);
  } else {
    size_t const slot = slotOf(t->tick_);
    listPush(ring_[slot], t, &Timer::prev_, &Timer::next_);
    occupied_[slot / 64] |= uint64_t(1) << (slot % 64);
  }
  t->filed_ = true;
  ++armed_;
  dueFloor_ = std::min(dueFloor_, t->timeMin_);
  nextDueKnown_ = false;
}

void TimerWheel::unfile(Timer* t) {
  Timer*& head = t->inOverflow_ ? overflow_ : ring_[slotOf(t->tick_)];
  if (t->prev_) t->prev_->next_ = t->next_;
  if (t->next_) t->next_->prev_ = t->prev_;
  if (head == t) head = t->next_;
  if (!t->inOverflow_ && !head) {
    size_t const slot = slotOf(t->tick_);
    occupied_[slot / 64] &= ~(uint64_t(1) << (slot % 64));
  }
  // overflowMinTick_ stays a lower bound: refileOverflow() finds the true one; so does dueFloor_.
  t->prev_ = t->next_ = nullptr;
  t->filed_ = false;
  --armed_;
  nextDueKnown_ = false;
}

bool TimerWheel::isDue(Timer const* t, double now) const {
  if (fireInBatches_) return tickOf(t->timeMin_) < tickOf(now);
  return t->timeMin_ <= now;
}

std::optional<uint64_t> TimerWheel::occupiedAfter(uint64_t from, uint64_t limit) const {
  size_t const mask = ring_.size() - 1;
  size_t const start = slotOf(from);
  limit = std::min<uint64_t>(limit, ring_.size());
  // Walk the bitmap a word at a time from the start slot, round the ring at most once.
  for (uint64_t done = 0; done < limit;) {
    size_t const slot = (start + done) & mask;
    uint64_t const word = occupied_[slot / 64] >> (slot % 64);
    if (word) {
      uint64_t const distance = done + static_cast<uint64_t>(std::countr_zero(word));
      return distance < limit ? std::optional<uint64_t>(distance) : std::nullopt;
    }
    done += 64 - slot % 64;
  }
  return std::nullopt;
}

double TimerWheel::earliestTime() const {
  if (armed_ == 0) return kNever;
  // Timers in a later bucket have later times, and those beyond the ring are later than any in it: the
  // earliest is in the first occupied bucket, or, with an empty ring, no earlier than the overflow's bucket
  // ends or its own time.
  if (auto const distance = occupiedAfter(base_, ring_.size())) {
    double due = kNever;
    for (Timer const* t = ring_[slotOf(base_ + *distance)]; t; t = t->next_) due = std::min(due, t->timeMin_);
    return due;
  }
  double due = static_cast<double>(overflowMinTick_ + 1) * granularitySeconds_;
  for (Timer const* t = overflow_; t; t = t->next_) due = std::min(due, t->timeMin_);
  return due;
}

double TimerWheel::nextDueFind() const {
  double due = kNever;
  if (armed_ == 0) {
    due = kNever;
  } else if (!fireInBatches_) {
    due = earliestTime();
  } else {
    // Batches are due when their bucket has passed; overflow timers are woken for at their bucket's end at
    // the latest, and filed into the ring then.
    uint64_t tick = overflowMinTick_;
    if (auto const distance = occupiedAfter(base_, ring_.size())) tick = base_ + *distance;
    due = static_cast<double>(tick + 1) * granularitySeconds_;
  }
  nextDue_ = due;
  nextDueKnown_ = true;
  // A loop that wakes for this time must find the wheel looking, even when the time is only a wake-up to
  // file overflow timers into the ring.
  dueFloor_ = std::min(dueFloor_, due);
  return due;
}

void TimerWheel::collect(size_t slot, double now, std::vector<Ptr<Timer>>& due) {
  for (Timer* t = ring_[slot]; t;) {
    Timer* const next = t->next_;
    if (isDue(t, now)) {
      unfile(t);
      due.emplace_back(t);
    }
    t = next;
  }
}

void TimerWheel::refileOverflow() {
  Timer* t = overflow_;
  overflow_ = nullptr;
  overflowMinTick_ = UINT64_MAX;
  while (t) {
    Timer* const next = t->next_;
    t->prev_ = t->next_ = nullptr;
    t->filed_ = false;
    --armed_;
    file(t);
    t = next;
  }
}

size_t TimerWheel::fireDue() {
  double const now = this->now();
  // Nothing is due before the floor: the turn costs one comparison. Leaving base_ behind meanwhile only means
  // a longer walk of the bitmap when something is due.
  if (now < dueFloor_) return 0;
  uint64_t const nowTick = tickOf(now);
  nextDueKnown_ = false;
  // The scratch vector keeps its capacity from turn to turn; a nested call (a handler running the loop)
  // simply finds it empty and allocates its own.
  std::vector<Ptr<Timer>> due;
  due.swap(scratch_);
  if (nowTick >= base_) {
    // Every bucket from the last turn's up to now; a jump longer than the ring visits each slot once.
    uint64_t const span = std::min<uint64_t>(nowTick - base_ + 1, ring_.size());
    for (uint64_t distance = 0; distance < span; ++distance) {
      auto const next = occupiedAfter(base_ + distance, span - distance);
      if (!next) break;
      distance += *next;
      collect(slotOf(base_ + distance), now, due);
    }
    base_ = nowTick;
  }
  if (overflow_ && overflowMinTick_ < base_ + ring_.size()) {
    refileOverflow();
    collect(slotOf(base_), now, due);
  }

  // What stays armed is what the floor must stay below; arming from the handlers lowers it again.
  dueFloor_ = earliestTime();

  if (due.size() > 1) {
    std::sort(due.begin(), due.end(), [](Ptr<Timer> const& a, Ptr<Timer> const& b) {
      return a->timeMin_ != b->timeMin_ ? a->timeMin_ < b->timeMin_ : a->armSeq_ < b->armSeq_;
    });
  }
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
  due.clear();
  if (due.capacity() > scratch_.capacity()) due.swap(scratch_);
  return fired;
}

}  // namespace Calyx
