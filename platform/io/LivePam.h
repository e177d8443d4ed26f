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
// A device that is missing, down, or that we may not open is never fatal: one trace line at level 1, then
// another attempt every retryInterval seconds (repeated failures trace at level 3). A capture that fails
// later (the interface went away) is closed and retried the same way. The module exists, and may be
// published, while it waits.
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
  std::string device;       // the kernel's interface name; empty: the IntfId's name
  std::string filter;       // socket filter program, in pcap filter syntax; empty: no filter
  uint32_t readLimit = 64;  // frames taken per readable event
  bool bulkRead = true;     // false: one frame per readable event
  bool promiscuous = true;
  // The kernel ring holds bufferBytes / (snapLength + overhead) frames. Mirrored frames are cut short by the
  // chip, so a small snap length buys a deep ring.
  int bufferBytes = 8 << 20;
  int snapLength = 4096;
  double retryInterval = 5.0;  // seconds
};

class LivePam final : public Pam {
 public:
  LivePam(EventLoop& loop, Ptr<TimerWheel> wheel, IntfId intfId, LivePamOptions options);

  LivePamOptions const& options() const { return options_; }
  std::string const& device() const { return device_; }
  bool isCapturing() const { return handle_ != nullptr; }
  // The reason of the last failed open or capture; empty while none failed.
  std::string const& lastError() const { return lastError_; }
  uint64_t openAttempts() const { return openAttempts_; }
  // Frames the kernel dropped for this capture because the ring was full, as libpcap reports it.
  uint64_t kernelDrops() const;

  // Tries to open the device now if it is not capturing (also called by the retry timer).
  void open();

 protected:
  ~LivePam() override;

 private:
  class RetryReactor;

  bool tryOpen();
  void close();
  void failed(std::string const& what);
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
  uint64_t openAttempts_ = 0;
};

}  // namespace Calyx
