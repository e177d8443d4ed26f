#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/core/EventLoop.h"

using namespace Calyx;

namespace {

class Runner : public Task::Reactor {
 public:
  Runner(Ptr<Task> t, std::vector<std::string>& log) : Reactor(t), task(std::move(t)), log_(log) {}
  void handleRun() override {
    log_.push_back(task->name());
    if (action) action();
  }
  Ptr<Task> task;
  std::function<void()> action;

 private:
  std::vector<std::string>& log_;
};

class TaskSchedulerTest : public ::testing::Test {
 protected:
  Ptr<EventLoop> loop = EventLoop::makeSimulated();
  TaskScheduler& scheduler = loop->scheduler();
  std::vector<std::string> log;
  std::unique_ptr<Runner> task(std::string name, int priority) {
    return std::make_unique<Runner>(scheduler.taskNew(std::move(name), priority), log);
  }
};

TEST_F(TaskSchedulerTest, HigherPriorityFirstThenScheduleOrder) {
  auto low = task("low", 1), a = task("a", 3), b = task("b", 3), high = task("high", 7);
  low->task->schedule();
  b->task->schedule();
  a->task->schedule();
  high->task->schedule();
  a->task->schedule();  // already waiting: no second run
  loop->runUntilIdle();
  EXPECT_EQ(log, (std::vector<std::string>{"high", "b", "a", "low"}));
}

TEST_F(TaskSchedulerTest, YieldingTaskRunsAgainAfterTheOthers) {
  auto drain = task("drain", 3), other = task("other", 3);
  int left = 5;
  scheduler.shouldYieldIs([&] { return left % 2 == 1; });  // yield after every other unit of work
  drain->action = [&] {
    uint64_t done = 0;
    while (left > 0) {
      --left;
      ++done;
      if (drain->task->shouldYield() && left > 0) {
        drain->task->workCountInc(done);
        drain->task->workPendingIs(static_cast<uint64_t>(left));
        drain->task->schedule();
        return;
      }
    }
    drain->task->workPendingIs(0);
  };
  drain->task->schedule();
  other->task->schedule();
  loop->runUntilIdle();
  EXPECT_EQ(log, (std::vector<std::string>{"drain", "other", "drain", "drain"}));
  EXPECT_EQ(drain->task->workCount(), 4u);
  EXPECT_EQ(drain->task->workPending(), 0u);
  EXPECT_EQ(drain->task->runCount(), 3u);
}

TEST_F(TaskSchedulerTest, ShouldYieldFollowsTheTimeSliceOfTheRunningTask) {
  auto const slice = make<SimulatedClock>();
  scheduler.sliceClockIs(slice);
  auto slow = task("slow", 1);
  bool yieldedBefore = true, yieldedJustBefore = true, yieldedAfter = false;
  slow->action = [&] {
    yieldedBefore = slow->task->shouldYield();
    slice->advance(scheduler.timeSlice() * 0.99);
    yieldedJustBefore = slow->task->shouldYield();
    slice->advance(scheduler.timeSlice() * 0.02);
    yieldedAfter = slow->task->shouldYield();
  };
  EXPECT_FALSE(scheduler.shouldYield());  // no task runs
  slow->task->schedule();
  loop->runUntilIdle();
  EXPECT_FALSE(yieldedBefore);
  EXPECT_FALSE(yieldedJustBefore);
  EXPECT_TRUE(yieldedAfter);
  // The next task gets a slice of its own.
  bool nextYielded = true;
  slow->action = [&] { nextYielded = slow->task->shouldYield(); };
  slow->task->schedule();
  loop->runUntilIdle();
  EXPECT_FALSE(nextYielded);
}

// The hazard: a more urgent task that schedules itself again while it runs must wait for the next call, not
// run twice in this one and starve a less urgent task that was ready when the call started.
TEST_F(TaskSchedulerTest, SelfReschedulingUrgentTaskRunsOncePerCallAndStarvesNobody) {
  auto storm = task("storm", 7), low = task("low", 1);
  storm->action = [&] { storm->task->schedule(); };
  storm->task->schedule();
  low->task->schedule();
  EXPECT_EQ(scheduler.runReady(), 2u);
  EXPECT_EQ(log, (std::vector<std::string>{"storm", "low"}));
  EXPECT_EQ(scheduler.runReady(), 1u);
  EXPECT_EQ(log.back(), "storm");
  EXPECT_TRUE(storm->task->isScheduled());
}

TEST_F(TaskSchedulerTest, TaskDroppedWhileWaitingRunsNobody) {
  auto t = task("gone", 1);
  t->task->schedule();
  t.reset();
  EXPECT_NO_FATAL_FAILURE(loop->runUntilIdle());
  EXPECT_TRUE(log.empty());
}

}  // namespace
