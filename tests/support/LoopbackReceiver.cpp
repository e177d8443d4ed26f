#include "tests/support/LoopbackReceiver.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace Calyx::Test {

LoopbackReceiver::LoopbackReceiver(int af) : af_(af) {
  fd_ = socket(af, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) return;
  int const one = 1;
  sockaddr_storage addr{};
  socklen_t len = 0;
  if (af == AF_INET6) {
    setsockopt(fd_, IPPROTO_IPV6, IPV6_RECVTCLASS, &one, sizeof one);
    auto* a = reinterpret_cast<sockaddr_in6*>(&addr);
    a->sin6_family = AF_INET6;
    a->sin6_addr = in6addr_loopback;
    len = sizeof *a;
  } else {
    setsockopt(fd_, IPPROTO_IP, IP_RECVTOS, &one, sizeof one);
    auto* a = reinterpret_cast<sockaddr_in*>(&addr);
    a->sin_family = AF_INET;
    a->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    len = sizeof *a;
  }
  int const buffer = 4 << 20;
  setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
  bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&addr), len) == 0;
  len = sizeof addr;
  getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
  port_ = ntohs(af == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&addr)->sin6_port
                               : reinterpret_cast<sockaddr_in*>(&addr)->sin_port);
}

LoopbackReceiver::~LoopbackReceiver() {
  if (fd_ >= 0) close(fd_);
}

std::optional<Datagram> LoopbackReceiver::receive(int timeoutMs) {
  pollfd p{fd_, POLLIN, 0};
  if (poll(&p, 1, timeoutMs) != 1) return std::nullopt;
  Datagram d;
  d.bytes.resize(65536);
  sockaddr_storage from{};
  iovec iov{d.bytes.data(), d.bytes.size()};
  alignas(cmsghdr) char control[256];
  msghdr msg{};
  msg.msg_name = &from;
  msg.msg_namelen = sizeof from;
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;
  ssize_t const n = recvmsg(fd_, &msg, MSG_DONTWAIT);
  if (n < 0) return std::nullopt;
  d.bytes.resize(static_cast<size_t>(n));
  for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
    if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_TOS) d.tos = *CMSG_DATA(c);
    if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_TCLASS) {
      int tclass = 0;
      std::memcpy(&tclass, CMSG_DATA(c), sizeof tclass);
      d.tos = tclass;
    }
  }
  char text[INET6_ADDRSTRLEN] = {};
  void const* addr = af_ == AF_INET6
                         ? static_cast<void const*>(&reinterpret_cast<sockaddr_in6*>(&from)->sin6_addr)
                         : static_cast<void const*>(&reinterpret_cast<sockaddr_in*>(&from)->sin_addr);
  d.from = inet_ntop(af_, addr, text, sizeof text);
  return d;
}

std::vector<Datagram> LoopbackReceiver::drain() {
  std::vector<Datagram> all;
  while (auto d = receive(0)) all.push_back(std::move(*d));
  return all;
}

}  // namespace Calyx::Test
