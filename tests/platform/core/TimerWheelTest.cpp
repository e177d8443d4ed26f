#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/core/EventLoop.h"
#include "platform/core/TimerWheel.h"

using namespace Calyx;

namespace {

class Recorder : public Timer::Reactor {
 public:
  Recorder(Ptr<Timer> t, std::vector<std::string>& log, std::string name)
      : Reactor(t), timer(std::move(t)), log_(log), name_(std::move(name)) {}
  void handleTimer() override {
    log_.push_back(name_);
    if (action) action();
  }
  Ptr<Timer> timer;
  std::function<void()> action;

 private:
  std::vector<std::string>& log_;
  std::string name_;
};

class TimerWheelTest : public ::testing::Test {
 protected:
  Ptr<EventLoop> loop = EventLoop::makeSimulated(100.0);
  Ptr<TimerWheel> wheel = make<TimerWheel>(*loop, 200, 525600, false, 1024);
  std::vector<std::string> log;
  std::unique_ptr<Recorder> timer(std::string name, Ptr<TimerWheel> w = nullptr) {
    return std::make_unique<Recorder>((w ? w : wheel)->timerNew(), log, std::move(name));
  }
};

TEST_F(TimerWheelTest, DueTimersFireInTimeThenArmingOrder) {
  auto a = timer("a"), b = timer("b"), c = timer("c"), d = timer("d");
  a->timer->timeMinIs(103.0);
  b->timer->timeMinIs(101.05);  // same 200 ms bucket as c, but later
  c->timer->timeMinIs(101.01);
  d->timer->timeMinIs(103.0);  // ties with a: armed later, fires later
  loop->runFor(10);
  EXPECT_EQ(log, (std::vector<std::string>{"c", "b", "a", "d"}));
  EXPECT_EQ(wheel->armedCount(), 0u);
}

TEST_F(TimerWheelTest, FiresAtItsExactTimeAndGoesIdle) {
  auto a = timer("a");
  double firedAt = 0;
  a->action = [&] { firedAt = loop->now(); };
  a->timer->timeMinIs(100.37);
  loop->runFor(0.369);
  EXPECT_TRUE(log.empty());
  loop->runFor(1);
  EXPECT_DOUBLE_EQ(firedAt, 100.37);
  EXPECT_EQ(a->timer->timeMin(), kNever);
}

TEST_F(TimerWheelTest, ReArmedFromItsOwnHandler) {
  auto a = timer("a");
  a->action = [&] {
    if (log.size() < 3) a->timer->timeMinIs(loop->now() + 1);
  };
  a->timer->timeMinIs(101);
  loop->runFor(10);
  EXPECT_EQ(log.size(), 3u);
  EXPECT_FALSE(a->timer->isArmed());
}

TEST_F(TimerWheelTest, HandlerCancelsOrMovesAnotherDueTimer) {
  auto a = timer("a"), b = timer("b"), c = timer("c");
  a->timer->timeMinIs(101);
  b->timer->timeMinIs(101.1);
  c->timer->timeMinIs(101.2);
  a->action = [&] {
    b->timer->timeMinIs(kNever);
    c->timer->timeMinIs(105);
  };
  loop->runFor(2);
  EXPECT_EQ(log, (std::vector<std::string>{"a"}));
  loop->runFor(5);
  EXPECT_EQ(log, (std::vector<std::string>{"a", "c"}));
}

TEST_F(TimerWheelTest, DroppingTheTimerCancelsIt) {
  auto a = timer("a");
  a->timer->timeMinIs(101);
  a.reset();
  EXPECT_EQ(wheel->armedCount(), 0u);
  loop->runFor(5);
  EXPECT_TRUE(log.empty());
}

TEST_F(TimerWheelTest, TimersBeyondTheHorizonWaitAndFireOnTime) {
  auto small = make<TimerWheel>(*loop, 200, 4, false, 1024);  // an 0.8 s horizon
  auto a = timer("a", small), b = timer("b", small);
  a->timer->timeMinIs(150);
  b->timer->timeMinIs(100.5);
  double firedAt = 0;
  a->action = [&] { firedAt = loop->now(); };
  loop->runFor(100);
  EXPECT_EQ(log, (std::vector<std::string>{"b", "a"}));
  EXPECT_DOUBLE_EQ(firedAt, 150);
}

// A wheel with nothing due is not looked at, so its ring can fall far behind the clock: timers armed then,
// near and beyond the ring's horizon, still fire at their times.
TEST_F(TimerWheelTest, ArmedAfterALongIdleSpellFiresOnTime) {
  auto small = make<TimerWheel>(*loop, 200, 64, false, 1024);  // a 12.8 s horizon
  auto a = timer("a", small), b = timer("b", small), c = timer("c", small);
  std::vector<double> at;
  for (auto* t : {&a, &b, &c}) (*t)->action = [&] { at.push_back(loop->now()); };
  loop->runFor(1000);
  a->timer->timeMinIs(loop->now() + 0.3);
  b->timer->timeMinIs(loop->now() + 30);
  loop->runFor(10);
  c->timer->timeMinIs(loop->now() + 1);
  loop->runFor(100);
  EXPECT_EQ(log, (std::vector<std::string>{"a", "c", "b"}));
  EXPECT_EQ(at, (std::vector<double>{1100.3, 1111, 1130}));
}

// A cancelled timer beyond the horizon leaves the wheel waking early for it; the loop must still move on to
// the timer that remains, not spin at the stale wake-up.
TEST_F(TimerWheelTest, CancelledTimerBeyondTheHorizonLeavesNoStall) {
  auto small = make<TimerWheel>(*loop, 200, 64, false, 1024);
  auto a = timer("a", small), b = timer("b", small);
  a->timer->timeMinIs(150);
  b->timer->timeMinIs(400);
  a->timer->timeMinIs(kNever);
  double firedAt = 0;
  b->action = [&] { firedAt = loop->now(); };
  loop->runFor(1000);
  EXPECT_EQ(log, (std::vector<std::string>{"b"}));
  EXPECT_DOUBLE_EQ(firedAt, 400);
}

TEST_F(TimerWheelTest, FiresAtMostTheTurnLimitPerTurn) {
  auto limited = make<TimerWheel>(*loop, 200, 1000, false, 2);
  auto a = timer("a", limited), b = timer("b", limited), c = timer("c", limited);
  for (auto* t : {&a, &b, &c}) (*t)->timer->timeMinIs(101);
  dynamic_cast<SimulatedClock&>(loop->clock()).nowIs(101);
  EXPECT_EQ(limited->fireDue(), 2u);
  EXPECT_EQ(limited->fireDue(), 1u);
  EXPECT_EQ(log, (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(TimerWheelTest, BatchedWheelFiresWhenTheBucketHasPassed) {
  auto batched = make<TimerWheel>(*loop, 1000, 1000, true, 1024);
  auto a = timer("a", batched);
  a->timer->timeMinIs(100.2);
  loop->runFor(0.5);
  EXPECT_TRUE(log.empty());
  loop->runFor(0.6);
  EXPECT_EQ(log.size(), 1u);
}

}  // namespace
