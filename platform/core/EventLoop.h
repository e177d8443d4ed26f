#pragma once
// EventLoop: the one thread's driver. It runs ready tasks, fires due timers of every TimerWheel made on it,
// watches file descriptors, delivers SIGINT/SIGTERM/SIGHUP as notifications, and frees objects handed to
// deleteLater().
//
// epoll_wait is the only place the loop sleeps: timers wake it through a timerfd armed at the earliest due
// time, signals through a signalfd. On a simulated clock the loop never sleeps: runFor(seconds) moves the
// clock from one due timer to the next, running every task at each step; it polls the watched descriptors
// (without waiting) at most once per millisecond of real time while it steps, and runUntilIdle() (also at
// the end of runFor) polls them until none is readable.
//
// The first loop made in a process is the activity manager (current()): the clock the feature's timer wheel
// runs on.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "platform/core/Clock.h"
#include "platform/core/Entity.h"
#include "platform/core/TaskScheduler.h"

namespace Calyx {

class TimerWheel;

class EventLoop : public Object, public Notifier<EventLoop> {
 public:
  class Reactor : public ReactorBase<EventLoop> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleSignal(int /*signo*/) {}
  };

  // Watches one descriptor for readability while it lives. The loop must outlive its watches.
  class FdWatch {
   public:
    FdWatch(FdWatch const&) = delete;
    FdWatch& operator=(FdWatch const&) = delete;
    ~FdWatch();
    int fd() const { return fd_; }

   private:
    friend class EventLoop;
    FdWatch(EventLoop& loop, int fd, uint64_t id) : loop_(&loop), fd_(fd), id_(id) {}
    EventLoop* loop_;
    int fd_;
    uint64_t id_;
  };

  static Ptr<EventLoop> makeReal();
  static Ptr<EventLoop> makeSimulated(double startTime = 1000.0);
  static EventLoop* current();

  Clock& clock() const { return *clock_; }
  // The simulated clock directly, without a virtual call: a simulated step asks for the time many times.
  double now() const { return simulated_ ? simulated_->now() : clock_->now(); }
  bool isSimulated() const { return simulated_ != nullptr; }
  TaskScheduler& scheduler() const { return *scheduler_; }

  [[nodiscard]] std::unique_ptr<FdWatch> fdWatch(int fd, std::function<void()> onReadable);
  // Blocks SIGINT, SIGTERM and SIGHUP for the process and delivers them through handleSignal.
  void signalsEnable();
  // Keeps o alive until the start of the next loop turn; the objects are released in the order given.
  void deleteLater(Ptr<Object const> o) { doomed_.push_back(std::move(o)); }

  // Real time: runs until stop(). Simulated: runs until nothing is left to do without moving the clock.
  void run();
  void stop() { stopped_ = true; }
  bool isStopped() const { return stopped_; }
  // One turn: frees the doomed, fires due timers, runs ready tasks, then waits at most maxWait seconds for
  // I/O (less when a timer is due sooner; not at all when work is ready). Returns whether anything ran.
  bool runOnce(double maxWait);
  // Runs for the given time: on the simulated clock without sleeping, on the real clock by sleeping in
  // epoll_wait.
  void runFor(double seconds);
  // Runs until no task is ready, no timer is due and no descriptor is readable, without moving the clock.
  void runUntilIdle();

  void timerWheelAdd(TimerWheel* wheel) {
    wheels_.push_back(wheel);
    ++wheelsGeneration_;
  }
  void timerWheelDel(TimerWheel* wheel);
  double nextTimerDue() const;

 protected:
  EventLoop(Ptr<Clock> clock, SimulatedClock* simulated);
  ~EventLoop() override;

 private:
  // One turn, as runOnce; an idle turn polls the descriptors only when idlePoll is true or, on a simulated
  // clock, once the polling interval has passed.
  bool turn(double maxWait, bool idlePoll);
  // Runs one step of simulated time (turns until nothing is left to run at this time) and returns the next
  // due time.
  double step();
  bool fireTimers();
  bool pollFds(int timeoutMs);
  void armTimerFd(double due);
  void fdUnwatch(uint64_t id, int fd);
  void readSignals();

  Ptr<Clock> clock_;
  SimulatedClock* simulated_;
  Ptr<TaskScheduler> scheduler_;
  std::vector<TimerWheel*> wheels_;
  uint64_t wheelsGeneration_ = 0;  // moves whenever a wheel is added or dropped
  std::vector<Ptr<Object const>> doomed_;
  int epollFd_ = -1;
  int timerFd_ = -1;
  int signalFd_ = -1;
  double timerFdArmedAt_ = kNever;
  uint64_t nextWatchId_ = 1;
  std::map<uint64_t, std::function<void()>> watches_;
  std::unique_ptr<FdWatch> signalWatch_;
  bool stopped_ = false;
  static constexpr double kSimulatedPollInterval = 0.001;  // seconds of real time
  static constexpr uint32_t kTurnsPerClockRead = 16;       // turns between looks at the real clock
  double lastPollAt_ = 0.0;
  uint32_t turnsSinceClockRead_ = 0;
};

}  // namespace Calyx
