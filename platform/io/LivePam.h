#pragma once
// LivePam: packet access on a real interface through libpcap.
//
// The capture runs in immediate mode (a frame is handed over as soon as the kernel has it), non-blocking, on
// incoming frames only, promiscuous by default (mirrored frames carry the dropped frame's MAC addresses, not
// ours), with the socket filter program compiled into the kernel so that other traffic never wakes us. Its
// selectable descriptor is watched by the EventLoop; each readable event takes at most readLimit frames (one
// when bulkRead is off). What is left stays in the kernel's ring, which keeps the descriptor readable, so the
// rest comes on the next loop turn.
//
// A capture that cannot open is never fatal to the process. A device that is down, or any other failure that
// may pass, is traced once at level 1 and tried again every retryInterval seconds (repeated failures trace at
// level 3): state retrying. A device that does not exist, or that this process may not capture on, will not
// heal by waiting: it is traced at level 1 and the module stays in state failed, not retried until open() is
// called again (an operator's reload). A capture that fails later (the interface went away) is closed and
// retried. The module exists, and may be published, while it waits or has failed.
//
// Its statistics: frames taken (rxPktsTotal), and frames the kernel dropped because the ring was full, as
// libpcap counts them, summed over every capture this module has opened.
//
// Limits: the EventLoop must outlive the module. Frames are copied out of the ring into Pkts.

#include <cstdint>
#include <memory>
#include <string>

#include "platform/core/EventLoop.h"
#include "platform/core/TimerWheel.h"
#include "platform/entity/Pam.h"

struct pcap;

namespace Calyx {

struct LivePamOptions {
  std::string device;  // the kernel's interface name; empty: the IntfId's name
  std::string filter;  // socket filter program, in pcap filter syntax; empty: no filter
  uint32_t readLimit = Pam::kDefaultReadLimit;  // frames taken per readable event
  bool bulkRead = true;                         // false: one frame per readable event
  bool promiscuous = true;
  // The kernel ring holds bufferBytes / (snapLength + overhead) frames. Mirrored frames are cut short by the
  // chip, so a small snap length buys a deep ring.
  int bufferBytes = 8 << 20;
  int snapLength = 4096;
  double retryInterval = Pam::kDefaultRetryInterval;  // seconds
};

class LivePam final : public Pam {
 public:
  enum class State : uint8_t { up, retrying, failed };
  static char const* stateText(State s);

  LivePam(EventLoop& loop, Ptr<TimerWheel> wheel, IntfId intfId, LivePamOptions options);

  LivePamOptions const& options() const { return options_; }
  std::string const& device() const { return device_; }
  bool isCapturing() const { return handle_ != nullptr; }
  State state() const { return isCapturing() ? State::up : failedForGood_ ? State::failed : State::retrying; }
  // The reason of the last failed open or capture; empty while none failed.
  std::string const& lastError() const { return lastError_; }
  uint64_t openAttempts() const { return openAttempts_; }
  // Frames the kernel dropped because the ring was full, as libpcap reports them, over every capture opened.
  uint64_t kernelDrops() const;

  // Tries to open the device now if it is not capturing (also called by the retry timer, and to try a failed
  // capture again).
  void open();

 protected:
  ~LivePam() override;

 private:
  class RetryReactor;

  bool tryOpen();
  void close();
  void failed(std::string const& what, bool permanent = false);
  void onReadable();
  uint32_t framesPerEvent() const { return options_.bulkRead ? options_.readLimit : 1; }

  EventLoop* loop_;
  LivePamOptions options_;
  std::string device_;
  pcap* handle_ = nullptr;
  std::unique_ptr<EventLoop::FdWatch> watch_;
  Ptr<Timer> retryTimer_;
  std::unique_ptr<RetryReactor> retryReactor_;
  std::string lastError_;
  bool failedForGood_ = false;
  uint64_t openAttempts_ = 0;
  uint64_t dropsOfClosed_ = 0;  // kernel drops of the captures closed so far
};

}  // namespace Calyx
