#pragma once
// Task: deferred, cooperative work on the event thread.
//
// A task is made by name and priority on a TaskScheduler. schedule() puts it on the ready queue (once:
// scheduling a task that is already waiting changes nothing); when the scheduler runs it, it notifies its
// reactors (handleRun). A long job checks shouldYield() between units of work and, when told to, records what
// it did (workCountInc), declares what is left (workPendingIs), schedules itself again and returns; it then
// runs after the tasks that were already waiting.

#include <cstdint>
#include <string>

#include "platform/core/Entity.h"

namespace Calyx {

class TaskScheduler;

class Task : public Object, public Notifier<Task> {
 public:
  class Reactor : public ReactorBase<Task> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleRun() {}
  };

  Task(Ptr<TaskScheduler> scheduler, std::string name, int priority);

  std::string const& name() const { return name_; }
  int priority() const { return priority_; }

  void schedule();
  bool isScheduled() const { return scheduled_; }
  bool isRunning() const { return running_; }
  bool shouldYield() const;

  uint64_t runCount() const { return runCount_; }
  uint64_t workCount() const { return workCount_; }
  void workCountInc(uint64_t n) { workCount_ += n; }
  uint64_t workPending() const { return workPending_; }
  void workPendingIs(uint64_t n) { workPending_ = n; }

 private:
  friend class TaskScheduler;
  void run();

  Ptr<TaskScheduler> scheduler_;
  std::string name_;
  int priority_;
  bool scheduled_ = false;
  bool running_ = false;
  uint64_t runCount_ = 0;
  uint64_t workCount_ = 0;
  uint64_t workPending_ = 0;

 protected:
  ~Task() override = default;
};

}  // namespace Calyx
