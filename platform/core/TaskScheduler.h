#pragma once
// TaskScheduler: the ready queue of the event thread's tasks.
//
// Priorities: a larger value is more urgent; a ready task of higher priority runs before any of lower
// priority, and tasks of equal priority run in the order they were scheduled. One call of runReady() runs
// each task that was ready when it started at most once, so a task that reschedules itself waits for the next
// turn of the loop and I/O and timers get their turn in between.
//
// shouldYield() is true once the running task has used its time slice, measured on the slice clock: the
// monotonic clock whatever clock the loop runs on, or a clock a test gives (sliceClockIs) and moves itself.
// Tests may also replace the test with a predicate of their own (shouldYieldIs) to make a task yield at a
// chosen point.

#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <string>

#include "platform/core/Clock.h"
#include "platform/core/Ptr.h"
#include "platform/core/Task.h"

namespace Calyx {

class TaskScheduler : public Object {
 public:
  explicit TaskScheduler(double timeSlice = 0.005);

  // The platform's task factory.
  Ptr<Task> taskNew(std::string name, int priority) {
    return make<Task>(Ptr<TaskScheduler>(this), name, priority);
  }

  bool shouldYield() const;
  void shouldYieldIs(std::function<bool()> predicate) { yieldPredicate_ = std::move(predicate); }
  void sliceClockIs(Ptr<Clock const> clock) { sliceClock_ = std::move(clock); }
  double timeSlice() const { return timeSlice_; }

  // Runs every task that was ready when called, once each; returns how many ran.
  size_t runReady();
  bool hasReady() const { return readyCount_ > 0; }
  // Forgets every waiting task without running it. A waiting task holds its scheduler and the scheduler holds
  // it: the loop that owns the scheduler clears the queue when it goes, so that neither outlives it.
  void readyClear();
  size_t readyCount() const { return readyCount_; }

 private:
  friend class Task;
  void enqueue(Task* task);

  double timeSlice_;
  Ptr<Clock const> sliceClock_ = make<MonotonicClock>();
  double sliceStart_ = 0.0;
  std::function<bool()> yieldPredicate_;
  // Priority, most urgent first.
  using ReadyQueue = std::map<int, std::deque<Ptr<Task>>, std::greater<int>>;
  ReadyQueue ready_;
  size_t readyCount_ = 0;
  Task* running_ = nullptr;

 protected:
  ~TaskScheduler() override = default;
};

}  // namespace Calyx
