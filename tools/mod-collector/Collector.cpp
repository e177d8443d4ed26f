#include "tools/mod-collector/Collector.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tools/mod-collector/Duration.h"
#include "tools/mod-collector/ReportFormat.h"
#include "tools/mod-collector/StoreWriter.h"

namespace ModCollector {
namespace {

// Bursts of reports (a whole START batch at once) must not overflow the socket between two loop turns.
constexpr int kReceiveBuffer = 4 << 20;

int openSocket(ListenAddr const& a, std::string& error) {
  int const af = a.addr.ss_family;
  int const fd = socket(af, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = std::string("socket: ") + std::strerror(errno);
    return -1;
  }
  int const one = 1;
  // An IPv6 socket takes IPv6 only, so that 0.0.0.0:P and [::]:P can both be listened on.
  if (af == AF_INET6) setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one);
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof kReceiveBuffer);
  if (bind(fd, reinterpret_cast<sockaddr const*>(&a.addr), a.len) < 0) {
    error = "bind " + endpointText(a.addr) + ": " + std::strerror(errno);
    close(fd);
    return -1;
  }
  return fd;
}

// The sender's address without its port: the exporter as the store names it.
std::string sourceAddress(sockaddr_storage const& from) {
  std::string const text = endpointText(from);
  std::string const host = text.substr(0, text.rfind(':'));
  return host.front() == '[' ? host.substr(1, host.size() - 2) : host;
}

}  // namespace

Collector::Collector(Calyx::EventLoop& loop, CollectorOptions options, StoreWriter* writer)
    : loop_(loop),
      options_(std::move(options)),
      writer_(writer),
      summary_(options_.summary == SummaryMode::Flows) {}

Collector::~Collector() {
  watches_.clear();  // unwatch before the descriptors go
  for (int fd : fds_) close(fd);
}

bool Collector::listen(std::string& error) {
  for (ListenAddr const& a : options_.listen) {
    int const fd = openSocket(a, error);
    if (fd < 0) return false;
    fds_.push_back(fd);
    sockaddr_storage bound{};
    socklen_t len = sizeof bound;
    getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &len);
    std::string const collector = endpointText(bound);
    std::fprintf(stderr, "listening on %s\n", collector.c_str());
    watches_.push_back(loop_.fdWatch(fd, [this, fd, collector] { drain(fd, collector); }));
  }
  std::fflush(stderr);
  return true;
}

CollectorSummary Collector::summarySnapshot() const {
  std::lock_guard lock(summaryMutex_);
  return summary_;
}

void Collector::drain(int fd, std::string const& collector) {
  static uint8_t buf[65536];  // larger than any UDP payload, so nothing is cut
  while (!loop_.isStopped()) {
    sockaddr_storage from{};
    socklen_t fromLen = sizeof from;
    ssize_t const n =
        recvfrom(fd, buf, sizeof buf, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &fromLen);
    if (n < 0) {
      if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
        std::fprintf(stderr, "receive failed: %s\n", std::strerror(errno));
      }
      break;
    }
    datagramIs(buf, static_cast<size_t>(n), from, collector);
  }
  if (writer_) writer_->offer(rows_);
}

void Collector::datagramIs(uint8_t const* data, size_t size, sockaddr_storage const& from,
                           std::string const& collector) {
  std::string why;
  std::optional<Report> r = decodeReport(data, size, why);
  std::string const sender = endpointText(from);
  if (!r) {
    {
      std::lock_guard lock(summaryMutex_);
      summary_.rejectedAdd(why);
    }
    std::fprintf(stderr, "rejected datagram from %s: %s\n", sender.c_str(), why.c_str());
    std::fflush(stderr);
    return;
  }
  std::string source = sourceAddress(from);
  uint64_t reports = 0;
  {
    std::lock_guard lock(summaryMutex_);
    summary_.reportAdd(*r, source);
    reports = summary_.reports();
  }
  if (!options_.quiet) {
    std::string const line = options_.json ? reportJson(*r, sender) : reportLine(*r, sender);
    std::fprintf(stdout, "%s\n", line.c_str());
    std::fflush(stdout);
  }
  if (writer_) {
    uint16_t const port =
        ntohs(from.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6 const&>(from).sin6_port
                                         : reinterpret_cast<sockaddr_in const&>(from).sin_port);
    rows_.push_back(
        reportRow(data, size, std::move(*r), std::move(source), port, collector, wallClockMicros()));
  }
  if (options_.count != 0 && reports >= options_.count) loop_.stop();
}

}  // namespace ModCollector
