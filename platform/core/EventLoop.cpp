#include "platform/core/EventLoop.h"

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <string>

#include "platform/core/TimerWheel.h"

namespace Calyx {
namespace {

EventLoop* activityManager = nullptr;
constexpr uint64_t kTimerFdId = 0;  // watch ids start at 1

void throwErrno(char const* what) {
  throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
}

}  // namespace

Ptr<EventLoop> EventLoop::makeReal() {
  return Ptr<EventLoop>::adopt(new EventLoop(make<MonotonicClock>(), nullptr));
}

Ptr<EventLoop> EventLoop::makeSimulated(double startTime) {
  auto clock = make<SimulatedClock>(startTime);
  SimulatedClock* raw = clock.get();
  return Ptr<EventLoop>::adopt(new EventLoop(std::move(clock), raw));
}

EventLoop* EventLoop::current() {
  return activityManager;
}

EventLoop::EventLoop(Ptr<Clock> clock, SimulatedClock* simulated)
    : clock_(std::move(clock)), simulated_(simulated), scheduler_(make<TaskScheduler>()) {
  epollFd_ = epoll_create1(EPOLL_CLOEXEC);
  if (epollFd_ < 0) throwErrno("epoll_create1");
  if (!simulated_) {
    timerFd_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (timerFd_ < 0) throwErrno("timerfd_create");
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = kTimerFdId;
    if (epoll_ctl(epollFd_, EPOLL_CTL_ADD, timerFd_, &ev) < 0) throwErrno("epoll_ctl");
  }
  if (!activityManager) activityManager = this;
}

EventLoop::~EventLoop() {
  if (activityManager == this) activityManager = nullptr;
  scheduler_->readyClear();
  signalWatch_.reset();
  for (auto& o : doomed_) o.reset();
  if (signalFd_ >= 0) close(signalFd_);
  if (timerFd_ >= 0) close(timerFd_);
  if (epollFd_ >= 0) close(epollFd_);
}

std::unique_ptr<EventLoop::FdWatch> EventLoop::fdWatch(int fd, std::function<void()> onReadable) {
  uint64_t const id = nextWatchId_++;
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.u64 = id;
  if (epoll_ctl(epollFd_, EPOLL_CTL_ADD, fd, &ev) < 0) throwErrno("epoll_ctl(ADD)");
  watches_.emplace(id, std::move(onReadable));
  return std::unique_ptr<FdWatch>(new FdWatch(*this, fd, id));
}

EventLoop::FdWatch::~FdWatch() {
  loop_->fdUnwatch(id_, fd_);
}

void EventLoop::fdUnwatch(uint64_t id, int fd) {
  // The descriptor may be closed already, which removed it from the epoll set by itself.
  epoll_ctl(epollFd_, EPOLL_CTL_DEL, fd, nullptr);
  watches_.erase(id);
}

void EventLoop::signalsEnable() {
  if (signalFd_ >= 0) return;
  sigset_t set;
  sigemptyset(&set);
  for (int s : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set, s);
  if (sigprocmask(SIG_BLOCK, &set, nullptr) < 0) throwErrno("sigprocmask");
  // A signal whose disposition is "ignore" is discarded before it could be queued for the signalfd (a program
  // started in the background of a non-interactive shell ignores SIGINT): restore the default, which the
  // block above keeps from ever running.
  for (int s : {SIGINT, SIGTERM, SIGHUP}) std::signal(s, SIG_DFL);
  signalFd_ = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
  if (signalFd_ < 0) throwErrno("signalfd");
  signalWatch_ = fdWatch(signalFd_, [this] { readSignals(); });
}

void EventLoop::readSignals() {
  signalfd_siginfo info{};
  while (read(signalFd_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    notify(&Reactor::handleSignal, static_cast<int>(info.ssi_signo));
  }
}

void EventLoop::timerWheelDel(TimerWheel* wheel) {
  std::erase(wheels_, wheel);
  ++wheelsGeneration_;
}

double EventLoop::nextTimerDue() const {
  double due = kNever;
  for (TimerWheel const* w : wheels_) due = std::min(due, w->nextDue());
  return due;
}

bool EventLoop::fireTimers() {
  // A handler may make or drop a wheel: walk the wheels there were at the start, and skip those dropped
  // meanwhile (looked for only once the list changed). A wheel with nothing due is not called at all.
  constexpr size_t kInline = 8;
  TimerWheel* inlineCopy[kInline];
  std::vector<TimerWheel*> heapCopy;
  size_t const count = wheels_.size();
  TimerWheel** wheels = inlineCopy;
  if (count > kInline) {
    heapCopy = wheels_;
    wheels = heapCopy.data();
  } else {
    std::copy(wheels_.begin(), wheels_.end(), inlineCopy);
  }
  uint64_t const generation = wheelsGeneration_;
  size_t fired = 0;
  for (size_t i = 0; i < count; ++i) {
    TimerWheel* const w = wheels[i];
    if (generation != wheelsGeneration_ && std::find(wheels_.begin(), wheels_.end(), w) == wheels_.end())
      continue;
    if (w->isIdleAt(now())) continue;
    fired += w->fireDue();
  }
  return fired > 0;
}

void EventLoop::armTimerFd(double due) {
  if (due == timerFdArmedAt_) return;
  itimerspec when{};
  if (due != kNever) {
    double const at = std::max(due, 1e-9);
    when.it_value.tv_sec = static_cast<time_t>(at);
    when.it_value.tv_nsec = static_cast<long>((at - std::floor(at)) * 1e9);
    if (when.it_value.tv_sec == 0 && when.it_value.tv_nsec == 0) when.it_value.tv_nsec = 1;
  }
  timerfd_settime(timerFd_, TFD_TIMER_ABSTIME, &when, nullptr);
  timerFdArmedAt_ = due;
}

bool EventLoop::pollFds(int timeoutMs) {
  epoll_event events[64];
  int const n = epoll_wait(epollFd_, events, 64, timeoutMs);
  if (n < 0) {
    if (errno == EINTR) return false;
    throwErrno("epoll_wait");
  }
  bool ran = false;
  for (int i = 0; i < n; ++i) {
    uint64_t const id = events[i].data.u64;
    if (id == kTimerFdId) {
      uint64_t expirations;
      while (read(timerFd_, &expirations, sizeof expirations) > 0) {
      }
      timerFdArmedAt_ = kNever;
      continue;
    }
    // An earlier callback of this batch may have dropped the watch: look it up afresh, and call a copy so
    // that the callback may drop its own watch.
    auto it = watches_.find(id);
    if (it == watches_.end()) continue;
    auto callback = it->second;
    callback();
    ran = true;
  }
  return ran;
}

bool EventLoop::runOnce(double maxWait) {
  return turn(maxWait, true);
}

bool EventLoop::turn(double maxWait, bool idlePoll) {
  bool ran = false;
  if (!doomed_.empty()) {
    auto doomed = std::move(doomed_);
    doomed_.clear();
    for (auto& o : doomed) o.reset();
    ran = true;
  }
  ran |= fireTimers();
  if (scheduler_->hasReady()) ran |= scheduler_->runReady() > 0;

  int timeoutMs = 0;
  if (!simulated_ && !scheduler_->hasReady() && doomed_.empty()) {
    armTimerFd(nextTimerDue());
    timeoutMs = maxWait == kNever ? -1 : static_cast<int>(std::ceil(std::max(maxWait, 0.0) * 1000.0));
  }
  // Simulated time races ahead of real time: while it keeps finding work, and while runFor steps it, the real
  // descriptors (signals, sockets) are looked at once per millisecond of real time rather than once per turn,
  // and the real clock itself only every few turns. An idle turn of runUntilIdle always looks, so that it
  // ends only when no descriptor is readable.
  if (simulated_) {
    if (ran || !idlePoll) {
      if (++turnsSinceClockRead_ < kTurnsPerClockRead) return ran;
      turnsSinceClockRead_ = 0;
      if (MonotonicClock::seconds() - lastPollAt_ < kSimulatedPollInterval) return ran;
    }
    lastPollAt_ = MonotonicClock::seconds();
    turnsSinceClockRead_ = 0;
  }
  ran |= pollFds(timeoutMs);
  return ran;
}

void EventLoop::run() {
  stopped_ = false;
  if (simulated_) {
    runUntilIdle();
    return;
  }
  while (!stopped_) runOnce(kNever);
}

void EventLoop::runUntilIdle() {
  // Real descriptors are polled without waiting, so this ends once nothing is left that can run now.
  while (runOnce(0.0)) {
  }
}

void EventLoop::runFor(double seconds) {
  double const end = now() + seconds;
  if (!simulated_) {
    stopped_ = false;
    while (!stopped_ && now() < end) runOnce(end - now());
    return;
  }
  runUntilIdle();
  for (double due = nextTimerDue(); due <= end;) {
    simulated_->nowIs(due);
    double const next = step();
    // A due time that does not move forward would spin; a wheel always fires or re-files what is due.
    if (next <= due && due <= now()) simulated_->nowIs(std::nextafter(now(), kNever));
    due = next;
  }
  simulated_->nowIs(end);
  runUntilIdle();
}

double EventLoop::step() {
  // Turns until one finds nothing to do, or until nothing is left that a further turn could run now (no
  // object to free, no ready task, no timer due): the turn that would only find that out is saved. The
  // descriptors are looked at by the polling interval only; the runUntilIdle at the end of runFor looks in
  // full.
  for (;;) {
    bool const ran = turn(0.0, false);
    double const next = nextTimerDue();
    if (!ran || (doomed_.empty() && !scheduler_->hasReady() && next > now())) return next;
  }
}

}  // namespace Calyx
