#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "platform/core/EventLoop.h"
#include "platform/core/TimerWheel.h"

using namespace Calyx;

namespace {

class Noted : public Object {
 public:
  Noted(std::vector<int>& log, int id) : log_(log), id_(id) {}

 protected:
  ~Noted() override { log_.push_back(id_); }

 private:
  std::vector<int>& log_;
  int id_;
};

class OnTimer : public Timer::Reactor {
 public:
  OnTimer(Ptr<Timer> t, std::function<void()> f) : Reactor(t), timer(std::move(t)), f_(std::move(f)) {}
  void handleTimer() override { f_(); }
  Ptr<Timer> timer;

 private:
  std::function<void()> f_;
};

TEST(EventLoopTest, RealLoopDeliversFdReadabilityTimersAndSignals) {
  auto loop = EventLoop::makeReal();
  auto wheel = make<TimerWheel>(*loop, 200, 525600, false, 1024);
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  std::string received;
  auto watch = loop->fdWatch(fds[0], [&] {
    char buf[16];
    ssize_t n = read(fds[0], buf, sizeof buf);
    if (n > 0) received.append(buf, static_cast<size_t>(n));
  });

  struct OnSignal : EventLoop::Reactor {
    using EventLoop::Reactor::Reactor;
    int signo = 0;
    void handleSignal(int s) override { signo = s; }
  } onSignal(loop);
  loop->signalsEnable();

  double firedAfter = -1;
  double const start = loop->now();
  OnTimer timer(wheel->timerNew(), [&] {
    firedAfter = loop->now() - start;
    ASSERT_EQ(write(fds[1], "ping", 4), 4);
    kill(getpid(), SIGHUP);
  });
  timer.timer->timeMinIs(start + 0.02);
  for (int i = 0; i < 200 && (received.empty() || onSignal.signo == 0); ++i) loop->runOnce(0.05);

  EXPECT_GE(firedAfter, 0.02);
  EXPECT_EQ(received, "ping");
  EXPECT_EQ(onSignal.signo, SIGHUP);
  watch.reset();
  close(fds[0]);
  close(fds[1]);
}

// Under load neither side starves the other: a task that keeps yielding and a descriptor that stays readable
// each get exactly one turn per loop turn (the report task and a capture in a storm).
TEST(EventLoopTest, AYieldingTaskAndADescriptorThatStaysReadableShareEveryTurn) {
  auto loop = EventLoop::makeReal();
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  ASSERT_EQ(write(fds[1], std::string(500, 'x').data(), 500), 500);
  int reads = 0;
  auto watch = loop->fdWatch(fds[0], [&] {
    char c;
    if (read(fds[0], &c, 1) == 1) ++reads;
  });
  struct Busy : Task::Reactor {
    explicit Busy(Ptr<Task> t) : Reactor(t), task(std::move(t)) {}
    void handleRun() override {
      ++runs;
      task->schedule();  // as a task does when it yields
    }
    Ptr<Task> task;
    int runs = 0;
  };
  auto const task = loop->scheduler().taskNew("busy", 3);
  Busy busy(task);
  task->schedule();
  for (int turn = 0; turn < 100; ++turn) loop->runOnce(0.0);
  EXPECT_EQ(busy.runs, 100);
  EXPECT_EQ(reads, 100);
  watch.reset();
  close(fds[0]);
  close(fds[1]);
}

TEST(EventLoopTest, DeferredDeletionRunsAtTheNextTurnInOrder) {
  auto loop = EventLoop::makeSimulated();
  std::vector<int> log;
  loop->deleteLater(make<Noted>(log, 1));
  loop->deleteLater(make<Noted>(log, 2));
  EXPECT_TRUE(log.empty());
  loop->runUntilIdle();
  EXPECT_EQ(log, (std::vector<int>{1, 2}));
}

TEST(EventLoopTest, SimulatedRunForMovesTimeWithoutSleeping) {
  auto loop = EventLoop::makeSimulated(0.0);
  auto wheel = make<TimerWheel>(*loop, 200, 525600, false, 1024);
  std::vector<double> fired;
  OnTimer timer(wheel->timerNew(), [&] { fired.push_back(loop->now()); });
  // Another timer's handler arms the first one again, an hour on.
  OnTimer rearm(wheel->timerNew(), [&] { timer.timer->timeMinIs(loop->now() + 3600); });
  timer.timer->timeMinIs(3600);
  rearm.timer->timeMinIs(3600.5);
  loop->runFor(24 * 3600);
  EXPECT_EQ(fired, (std::vector<double>{3600, 7200.5}));
  EXPECT_DOUBLE_EQ(loop->now(), 24 * 3600);
}

TEST(EventLoopTest, FirstLoopIsTheActivityManager) {
  auto loop = EventLoop::makeSimulated();
  EXPECT_EQ(EventLoop::current(), loop.get());
  auto second = EventLoop::makeSimulated();
  EXPECT_EQ(EventLoop::current(), loop.get());
}

}  // namespace
