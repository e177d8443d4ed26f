#include "platform/core/TaskScheduler.h"

namespace Calyx {

TaskScheduler::TaskScheduler(double timeSlice) : timeSlice_(timeSlice) {}

bool TaskScheduler::shouldYield() const {
  if (yieldPredicate_) return yieldPredicate_();
  return running_ && sliceClock_.now() - sliceStart_ >= timeSlice_;
}

void TaskScheduler::enqueue(Task* task) {
  ready_[task->priority()].emplace_back(task);
  ++readyCount_;
}

size_t TaskScheduler::runReady() {
  size_t budget = readyCount_;
  size_t ran = 0;
  while (ran < budget && !ready_.empty()) {
    auto first = ready_.begin();
    Ptr<Task> task = std::move(first->second.front());
    first->second.pop_front();
    if (first->second.empty()) ready_.erase(first);
    --readyCount_;
    Task* outer = running_;
    running_ = task.get();
    sliceStart_ = sliceClock_.now();
    task->run();
    running_ = outer;
    ++ran;
  }
  return ran;
}

}  // namespace Calyx
