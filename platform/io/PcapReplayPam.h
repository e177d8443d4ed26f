#pragma once
// PcapReplayPam: packet access that plays a pcap capture file back as if its frames arrived on one interface.
//
// Two paces: as fast as possible (each loop turn takes up to readLimit frames, from a task, so timers and I/O
// still get their turns in between), or at the recorded pace (the first frame on the first loop turn, each
// later one after the same gap from the first as in the file, measured on the loop's clock, which makes
// replay exact on a simulated loop). The socket filter program is applied to the file as it would be to a
// live capture.
//
// A file that cannot be opened is traced at level 1 and tried again every retryInterval seconds. At the end
// of the file the module stays published and silent (isDone()). The file is read through a 1 MiB buffer: a
// system call per megabyte rather than per few kilobytes.

#include <cstdint>
#include <memory>
#include <string>

#include "platform/core/EventLoop.h"
#include "platform/core/Task.h"
#include "platform/core/TimerWheel.h"
#include "platform/entity/Pam.h"

struct pcap;

namespace Calyx {

struct PcapReplayOptions {
  std::string file;
  bool recordedPace = false;
  std::string filter;                                 // pcap filter syntax; empty: every frame of the file
  uint32_t readLimit = Pam::kDefaultReadLimit;        // frames taken per loop turn
  double retryInterval = Pam::kDefaultRetryInterval;  // seconds
};

class PcapReplayPam final : public Pam {
 public:
  PcapReplayPam(EventLoop& loop, Ptr<TimerWheel> wheel, IntfId intfId, PcapReplayOptions options);

  PcapReplayOptions const& options() const { return options_; }
  bool isOpen() const { return handle_ != nullptr; }
  bool isDone() const { return done_; }
  std::string const& lastError() const { return lastError_; }

  // Opens the file now if it is not open yet (also called by the retry timer).
  void open();

 protected:
  ~PcapReplayPam() override;

 private:
  class TimerReactor;
  class TaskReactor;

  void readAhead();
  void deliver();
  void nextTurn();
  bool isDue() const { return nextDueAt_ <= loop_->now(); }
  void close();

  EventLoop* loop_;
  PcapReplayOptions options_;
  pcap* handle_ = nullptr;
  std::unique_ptr<char[]> fileBuffer_;  // the open file's stdio buffer
  // The next frame of the file, read ahead so that its time is known before it is due.
  Ptr<Pkt> next_;
  double nextRecordedTime_ = 0;
  double firstRecordedTime_ = -1;
  double startTime_ = 0;
  double nextDueAt_ = 0;  // when next_ is due on the loop's clock: now, or its recorded time from the start
  bool done_ = false;
  std::string lastError_;
  Ptr<Timer> timer_;  // retries while closed; paces frames while open
  std::unique_ptr<TimerReactor> timerReactor_;
  Ptr<Task> task_;
  std::unique_ptr<TaskReactor> taskReactor_;
};

}  // namespace Calyx
