#include "tools/mod-collector/Collector.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tools/mod-collector/ReportFormat.h"

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

}  // namespace

Collector::Collector(Calyx::EventLoop& loop, CollectorOptions options)
    : loop_(loop), options_(std::move(options)) {}

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
    std::fprintf(stderr, "listening on %s\n", endpointText(bound).c_str());
    watches_.push_back(loop_.fdWatch(fd, [this, fd] { drain(fd); }));
  }
  std::fflush(stderr);
  return true;
}

void Collector::drain(int fd) {
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
      return;
    }
    datagramIs(buf, static_cast<size_t>(n), from);
  }
}

void Collector::datagramIs(uint8_t const* data, size_t size, sockaddr_storage const& from) {
  std::string why;
  std::optional<Report> r = decodeReport(data, size, why);
  std::string const sender = endpointText(from);
  if (!r) {
    summary_.rejectedAdd(why);
    std::fprintf(stderr, "rejected datagram from %s: %s\n", sender.c_str(), why.c_str());
    std::fflush(stderr);
    return;
  }
  summary_.reportAdd(*r);
  std::string const line = options_.json ? reportJson(*r, sender) : reportLine(*r, sender);
  std::fprintf(stdout, "%s\n", line.c_str());
  std::fflush(stdout);
  if (options_.count != 0 && summary_.reports() >= options_.count) loop_.stop();
}

}  // namespace ModCollector
