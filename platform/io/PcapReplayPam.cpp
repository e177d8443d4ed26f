#include "platform/io/PcapReplayPam.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <cstdio>

#include "platform/io/PamTrace.h"
#include "platform/types/PktManager.h"

namespace Calyx {

class PcapReplayPam::TimerReactor final : public Timer::Reactor {
 public:
  TimerReactor(Ptr<Timer const> timer, PcapReplayPam& owner)
      : Timer::Reactor(std::move(timer)), owner_(owner) {}
  void handleTimer() override { owner_.isOpen() ? owner_.deliver() : owner_.open(); }

 private:
  PcapReplayPam& owner_;
};

class PcapReplayPam::TaskReactor final : public Task::Reactor {
 public:
  TaskReactor(Ptr<Task const> task, PcapReplayPam& owner) : Task::Reactor(std::move(task)), owner_(owner) {}
  void handleRun() override { owner_.deliver(); }

 private:
  PcapReplayPam& owner_;
};

PcapReplayPam::PcapReplayPam(EventLoop& loop, Ptr<TimerWheel> wheel, IntfId intfId, PcapReplayOptions options)
    : Pam(intfId),
      loop_(&loop),
      options_(std::move(options)),
      timer_(wheel->timerNew()),
      timerReactor_(std::make_unique<TimerReactor>(timer_, *this)),
      task_(loop.scheduler().taskNew("Pam-replay:" + std::string(intfId.name()), 0)),
      taskReactor_(std::make_unique<TaskReactor>(task_, *this)) {
  options_.readLimit = std::max<uint32_t>(options_.readLimit, 1);
  open();
}

PcapReplayPam::~PcapReplayPam() {
  taskReactor_.reset();
  timerReactor_.reset();
  timer_->timeMinIs(kNever);
  close();
}

namespace {

constexpr size_t kFileBufferSize = size_t(1) << 20;

// Opens the capture file through a stdio stream with the given buffer. A file that cannot be opened, and the
// name "-" (standard input), go to pcap_open_offline as they are, so that errors read as it words them.
pcap_t* captureOpen(std::string const& file, char* buffer, char* errbuf) {
  FILE* stream = file == "-" ? nullptr : std::fopen(file.c_str(), "rb");
  if (!stream) return pcap_open_offline(file.c_str(), errbuf);
  std::setvbuf(stream, buffer, _IOFBF, kFileBufferSize);
  pcap_t* handle = pcap_fopen_offline(stream, errbuf);
  if (!handle) std::fclose(stream);  // a stream it refused stays the caller's
  return handle;
}

}  // namespace

void PcapReplayPam::open() {
  if (handle_ || done_) return;
  char errbuf[PCAP_ERRBUF_SIZE] = {};
  if (!fileBuffer_) fileBuffer_ = std::make_unique<char[]>(kFileBufferSize);
  pcap_t* handle = captureOpen(options_.file, fileBuffer_.get(), errbuf);
  std::string error = handle ? "" : errbuf;
  if (handle && !options_.filter.empty()) {
    bpf_program program{};
    if (pcap_compile(handle, &program, options_.filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) < 0 ||
        pcap_setfilter(handle, &program) < 0) {
      error = "filter \"" + options_.filter + "\": " + pcap_geterr(handle);
    }
    pcap_freecode(&program);
  }
  if (!error.empty()) {
    if (handle) pcap_close(handle);
    int const level = error == lastError_ ? 3 : 1;
    CALYX_TRACE(pamTrace(), level,
                (level == 1 ? "[ERROR] " : "")
                    << "Cannot replay " << options_.file << " as " << intfId() << ": " << error
                    << "; retrying in " << options_.retryInterval << " s.");
    lastError_ = error;
    timer_->timeMinIs(loop_->now() + options_.retryInterval);
    return;
  }
  handle_ = handle;
  lastError_.clear();
  startTime_ = loop_->now();
  CALYX_TRACE(pamTrace(), 4,
              "Replaying " << options_.file << " as " << intfId()
                           << (options_.recordedPace ? " at the recorded pace." : " as fast as possible."));
  readAhead();
  nextTurn();
}

void PcapReplayPam::close() {
  if (!handle_) return;
  pcap_close(handle_);  // closes the stream, which is done with its buffer then
  handle_ = nullptr;
  fileBuffer_.reset();
}

void PcapReplayPam::readAhead() {
  next_ = nullptr;
  pcap_pkthdr* header = nullptr;
  u_char const* bytes = nullptr;
  int const status = pcap_next_ex(handle_, &header, &bytes);
  if (status != 1) {
    if (status != PCAP_ERROR_BREAK) {
      CALYX_TRACE(pamTrace(), 1,
                  "[ERROR] Replay of " << options_.file << " stopped: " << pcap_geterr(handle_) << ".");
    }
    CALYX_TRACE(pamTrace(), 4, "Replay of " << options_.file << " done: " << rxPktsTotal() << " frame(s).");
    done_ = true;
    close();
    return;
  }
  nextRecordedTime_ = static_cast<double>(header->ts.tv_sec) + static_cast<double>(header->ts.tv_usec) * 1e-6;
  if (firstRecordedTime_ < 0) firstRecordedTime_ = nextRecordedTime_;
  nextDueAt_ = options_.recordedPace ? startTime_ + (nextRecordedTime_ - firstRecordedTime_) : -kNever;
  next_ = PktManager::global().newPkt(header->caplen + Pkt::kDefaultHeadroom);
  next_->assign(bytes, header->caplen);
}

void PcapReplayPam::deliver() {
  Ptr<Pam const> const keepAlive(this);  // a reactor may drop the last other reference
  uint32_t taken = 0;
  while (next_ && taken < options_.readLimit && isDue()) {
    next_->rxTimestampIs(loop_->now());
    rxPktEnqueue(std::move(next_));
    ++taken;
    readAhead();
  }
  if (taken > 0) {
    CALYX_TRACE(pamTrace(), 5, "Replayed " << taken << " frame(s) as " << intfId() << ".");
    readableNotify();
  }
  nextTurn();
}

// Schedules the next delivery: the next loop turn when frames are due now, else the next frame's recorded
// time.
void PcapReplayPam::nextTurn() {
  if (!next_) return;
  if (isDue()) {
    task_->schedule();
    return;
  }
  timer_->timeMinIs(nextDueAt_);
}

}  // namespace Calyx
