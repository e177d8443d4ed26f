#include "platform/io/LivePam.h"

#include <pcap/pcap.h>

#include <algorithm>

#include "platform/io/PamTrace.h"

namespace Calyx {

class LivePam::RetryReactor final : public Timer::Reactor {
 public:
  RetryReactor(Ptr<Timer const> timer, LivePam& owner) : Timer::Reactor(std::move(timer)), owner_(owner) {}
  void handleTimer() override { owner_.open(); }

 private:
  LivePam& owner_;
};

namespace {

// Describes a failed pcap call: the library's own text when it has one, else the code's meaning.
std::string pcapError(pcap_t* handle, int code) {
  std::string text = pcap_geterr(handle);
  if (text.empty()) text = pcap_statustostr(code);
  return text;
}

// Failures that waiting will not mend: the device does not exist, or this process may not capture on it.
bool permanent(int status) {
  return status == PCAP_ERROR_NO_SUCH_DEVICE || status == PCAP_ERROR_PERM_DENIED ||
         status == PCAP_ERROR_PROMISC_PERM_DENIED;
}

}  // namespace

char const* LivePam::stateText(State s) {
  switch (s) {
    case State::up:
      return "up";
    case State::retrying:
      return "retrying";
    case State::failed:
      return "failed";
  }
  return "?";
}

LivePam::LivePam(EventLoop& loop, Ptr<TimerWheel> wheel, IntfId intfId, LivePamOptions options)
    : Pam(intfId),
      loop_(&loop),
      options_(std::move(options)),
      device_(options_.device.empty() ? std::string(intfId.name()) : options_.device),
      retryTimer_(wheel->timerNew()),
      retryReactor_(std::make_unique<RetryReactor>(retryTimer_, *this)) {
  options_.readLimit = std::max<uint32_t>(options_.readLimit, 1);
  open();
}

LivePam::~LivePam() {
  retryReactor_.reset();
  retryTimer_->timeMinIs(kNever);
  close();
}

void LivePam::open() {
  if (handle_) return;
  ++openAttempts_;
  failedForGood_ = false;
  if (tryOpen()) {
    retryTimer_->timeMinIs(kNever);
    lastError_.clear();
    CALYX_TRACE(
        pamTrace(), 4,
        "Capturing on " << device_ << " for " << intfId() << ", filter \"" << options_.filter << "\".");
    return;
  }
  retryTimer_->timeMinIs(failedForGood_ ? kNever : loop_->now() + options_.retryInterval);
}

bool LivePam::tryOpen() {
  char errbuf[PCAP_ERRBUF_SIZE] = {};
  pcap_t* handle = pcap_create(device_.c_str(), errbuf);
  if (!handle) {
    failed(errbuf);
    return false;
  }
  // Settings that only tune the capture are best effort; activation and the filter are not.
  pcap_set_snaplen(handle, options_.snapLength);
  pcap_set_promisc(handle, options_.promiscuous ? 1 : 0);
  pcap_set_immediate_mode(handle, 1);
  pcap_set_buffer_size(handle, options_.bufferBytes);
  int const status = pcap_activate(handle);
  if (status < 0) {
    failed(pcapError(handle, status), permanent(status));
    pcap_close(handle);
    return false;
  }
  if (status > 0)
    CALYX_TRACE(pamTrace(), 3, "Capture on " << device_ << ": " << pcapError(handle, status) << ".");
  pcap_setdirection(handle, PCAP_D_IN);
  if (!options_.filter.empty()) {
    bpf_program program{};
    if (pcap_compile(handle, &program, options_.filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) < 0 ||
        pcap_setfilter(handle, &program) < 0) {
      failed("filter \"" + options_.filter + "\": " + pcap_geterr(handle));
      pcap_freecode(&program);
      pcap_close(handle);
      return false;
    }
    pcap_freecode(&program);
  }
  if (pcap_setnonblock(handle, 1, errbuf) < 0) {
    failed(errbuf);
    pcap_close(handle);
    return false;
  }
  int const fd = pcap_get_selectable_fd(handle);
  if (fd < 0) {
    failed("no selectable descriptor");
    pcap_close(handle);
    return false;
  }
  handle_ = handle;
  watch_ = loop_->fdWatch(fd, [this] { onReadable(); });
  return true;
}

void LivePam::failed(std::string const& what, bool permanent) {
  failedForGood_ = permanent;
  if (permanent) {
    lastError_ = what;
    CALYX_TRACE(pamTrace(), 1,
                "[ERROR] Cannot capture on " << device_ << " for " << intfId() << ": " << what
                                             << "; not retried (it will not pass by waiting).");
    return;
  }
  // The first failure of a kind is an error; the same one again while retrying is only a retry.
  int const level = what == lastError_ ? 3 : 1;
  lastError_ = what;
  CALYX_TRACE(pamTrace(), level,
              (level == 1 ? "[ERROR] " : "") << "Cannot capture on " << device_ << " for " << intfId() << ": "
                                             << what << "; retrying in " << options_.retryInterval << " s.");
}

void LivePam::close() {
  watch_.reset();
  if (!handle_) return;
  dropsOfClosed_ = kernelDrops();
  pcap_close(handle_);
  handle_ = nullptr;
}

uint64_t LivePam::kernelDrops() const {
  pcap_stat stats{};
  if (!handle_ || pcap_stats(handle_, &stats) < 0) return dropsOfClosed_;
  return dropsOfClosed_ + stats.ps_drop;
}

void LivePam::onReadable() {
  Ptr<Pam const> const keepAlive(this);  // a reactor may drop the last other reference
  auto const onFrame = [](u_char* user, pcap_pkthdr const* header, u_char const* bytes) {
    auto* self = reinterpret_cast<LivePam*>(user);
    self->rxPktEnqueue(bytes, header->caplen, self->loop_->now());
  };
  int const n =
      pcap_dispatch(handle_, static_cast<int>(framesPerEvent()), onFrame, reinterpret_cast<u_char*>(this));
  if (n < 0) {
    failed(pcapError(handle_, n));
    close();
    retryTimer_->timeMinIs(loop_->now() + options_.retryInterval);
    return;
  }
  if (n == 0) return;
  CALYX_TRACE(pamTrace(), 5, "Took " << n << " frame(s) on " << device_ << ".");
  readableNotify();
}

}  // namespace Calyx
