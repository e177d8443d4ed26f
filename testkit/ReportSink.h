#pragma once
// ReportSink: a collector for storms. A datagram socket on 127.0.0.1 (a free port) drained by a thread of its
// own, so that a burst of hundreds of thousands of reports is taken off the socket as it arrives rather than
// overflowing its buffer. It counts datagrams and, when asked to tally, keeps for every distinct report (the
// datagram after its type byte) the types it arrived with, in order ("S" for START, "P" for STOP).
//
//   ReportSink sink(true);
//   ... run the agent with a collector at 127.0.0.1:<sink.port()> ...
//   sink.settle();                  // until nothing has arrived for a while
//   for (auto const& [report, types] : sink.tally()) ...

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace Calyx::Test {

class ReportSink {
 public:
  explicit ReportSink(bool tally) : tally_(tally) {
    fd_ = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    // As much buffer as the system allows (root may go past rmem_max), so the thread's pauses lose nothing.
    int const buffer = 64 << 20;
    if (::setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof buffer) != 0)
      ::setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    bound_ = ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), len) == 0 &&
             ::getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len) == 0;
    port_ = ntohs(addr.sin_port);
    if (bound_) thread_ = std::thread([this] { drain(); });
  }
  ~ReportSink() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    if (fd_ >= 0) ::close(fd_);
  }
  ReportSink(ReportSink const&) = delete;
  ReportSink& operator=(ReportSink const&) = delete;

  bool bound() const { return bound_; }
  uint16_t port() const { return port_; }
  uint64_t datagrams() const { return datagrams_; }

  // Waits until no datagram has arrived for quietMs (at most timeoutMs in all).
  void settle(int quietMs = 300, int timeoutMs = 30000) const {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    uint64_t seen = datagrams_;
    while (std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(quietMs));
      if (datagrams_ == seen) return;
      seen = datagrams_;
    }
  }
  // Per distinct report, its types in arrival order. Only with tally on.
  std::unordered_map<std::string, std::string> tally() const {
    std::lock_guard const lock(mutex_);
    return reports_;
  }

 private:
  void drain() {
    constexpr unsigned kBatch = 64;
    constexpr size_t kSize = 2048;  // a report is at most 1 + 25 + 80 bytes
    std::vector<char> space(kBatch * kSize);
    char* buffers[kBatch];
    for (unsigned i = 0; i < kBatch; ++i) buffers[i] = space.data() + i * kSize;
    mmsghdr messages[kBatch];
    iovec iovs[kBatch];
    while (!stop_) {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, 50) != 1) continue;
      for (unsigned i = 0; i < kBatch; ++i) {
        iovs[i] = {buffers[i], kSize};
        messages[i] = {};
        messages[i].msg_hdr.msg_iov = &iovs[i];
        messages[i].msg_hdr.msg_iovlen = 1;
      }
      int const n = ::recvmmsg(fd_, messages, kBatch, MSG_DONTWAIT, nullptr);
      if (n <= 0) continue;
      if (tally_) {
        std::lock_guard const lock(mutex_);
        for (int i = 0; i < n; ++i) {
          unsigned const len = messages[i].msg_len;
          if (len < 1) continue;
          reports_[std::string(buffers[i] + 1, len - 1)] += buffers[i][0] == 0 ? 'S' : 'P';
        }
      }
      datagrams_ += unsigned(n);
    }
  }

  bool tally_;
  int fd_ = -1;
  bool bound_ = false;
  uint16_t port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<uint64_t> datagrams_{0};
  mutable std::mutex mutex_;
  std::unordered_map<std::string, std::string> reports_;
  std::thread thread_;
};

}  // namespace Calyx::Test
