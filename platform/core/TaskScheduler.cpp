#include "platform/core/TaskScheduler.h"

namespace Calyx {

TaskScheduler::TaskScheduler(double timeSlice) : timeSlice_(timeSlice) {}

bool TaskScheduler::shouldYield() const {
  if (yieldPredicate_) return yieldPredicate_();
  return running_ && sliceClock_->now() - sliceStart_ >= timeSlice_;
}

void TaskScheduler::enqueue(Task* task) {
  ready_[task->priority()].emplace_back(task);
  ++readyCount_;
}

void TaskScheduler::readyClear() {
  ReadyQueue waiting;
  waiting.swap(ready_);
  readyCount_ = 0;
  for (auto& [priority, tasks] : waiting) {
    for (auto& task : tasks) task->scheduled_ = false;
  }
}

size_t TaskScheduler::runReady() {
  // The tasks ready now are taken off the queue as one batch, so a task that schedules itself (or another
  // task) while it runs goes back on the queue for the next call: it cannot run twice here, nor keep a less
  // urgent task of the batch waiting.
  ReadyQueue batch;
  batch.swap(ready_);
  size_t ran = 0;
  for (auto& [priority, tasks] : batch) {
    while (!tasks.empty()) {
      Ptr<Task> task = std::move(tasks.front());
      tasks.pop_front();
      --readyCount_;
      Task* outer = running_;
      running_ = task.get();
      sliceStart_ = sliceClock_->now();
      task->run();
      running_ = outer;
      ++ran;
    }
  }
  return ran;
}

}  // namespace Calyx
