#include "platform/core/Task.h"

#include "platform/core/TaskScheduler.h"

namespace Calyx {

Task::Task(Ptr<TaskScheduler> scheduler, std::string name, int priority)
    : scheduler_(std::move(scheduler)), name_(std::move(name)), priority_(priority) {}

void Task::schedule() {
  if (scheduled_) return;
  scheduled_ = true;
  scheduler_->enqueue(this);
}

bool Task::shouldYield() const {
  return scheduler_->shouldYield();
}

void Task::run() {
  scheduled_ = false;
  running_ = true;
  ++runCount_;
  notify(&Reactor::handleRun);
  running_ = false;
}

}  // namespace Calyx
