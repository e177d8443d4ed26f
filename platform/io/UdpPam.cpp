#include "platform/io/UdpPam.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/core/Trace.h"

namespace Calyx {
namespace {

// Levels: 1 failed transmits and sockets that cannot be opened, 4 sockets opened and closed.
TraceHandle const& udpTrace() {
  static TraceHandle const handle("Calyx-Udp");
  return handle;
}

// Room for the larger of the two source-address records.
union ControlBuffer {
  cmsghdr align;
  char bytes[CMSG_SPACE(sizeof(in6_pktinfo))];
};

// Fills the source-address record; returns the control length, 0 when the kernel is to choose the source.
size_t pktInfoFill(msghdr& msg, ControlBuffer& control, bool ipv6, Ip4Addr src4, Ip6Addr const& src6) {
  if (ipv6 ? src6.isZero() : src4.isZero()) return 0;
  std::memset(&control, 0, sizeof control);
  msg.msg_control = control.bytes;
  msg.msg_controllen = sizeof control.bytes;
  cmsghdr* c = CMSG_FIRSTHDR(&msg);
  if (ipv6) {
    in6_pktinfo info{};
    std::memcpy(&info.ipi6_addr, src6.bytes.data(), 16);
    c->cmsg_level = IPPROTO_IPV6;
    c->cmsg_type = IPV6_PKTINFO;
    c->cmsg_len = CMSG_LEN(sizeof info);
    std::memcpy(CMSG_DATA(c), &info, sizeof info);
    return CMSG_SPACE(sizeof info);
  }
  in_pktinfo info{};
  std::memcpy(&info.ipi_spec_dst, src4.bytes.data(), 4);  // the source of an outgoing datagram
  c->cmsg_level = IPPROTO_IP;
  c->cmsg_type = IP_PKTINFO;
  c->cmsg_len = CMSG_LEN(sizeof info);
  std::memcpy(CMSG_DATA(c), &info, sizeof info);
  return CMSG_SPACE(sizeof info);
}

}  // namespace

UdpPam::UdpPam(String name) : name_(std::move(name)) {}

UdpPam::~UdpPam() {
  socketClose();
}

void UdpPam::modeIs(uint8_t mode) {
  if (mode == mode_) return;
  mode_ = mode;
  if (mode_ != kModeTransmit) socketClose();
}

void UdpPam::ipv6EnIs(bool enabled) {
  if (enabled == ipv6En_) return;
  ipv6En_ = enabled;
  socketClose();  // the socket is of the other family now
}

void UdpPam::socketClose() {
  if (!fd_.valid()) return;
  fd_.reset();
  CALYX_TRACE(udpTrace(), 4, "UdpPam '" << name_ << "': socket closed.");
}

SysResult<void> UdpPam::socketReady() {
  if (fd_.valid()) return {};
  int const fd = socket(ipv6En_ ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return sysErrno("socket", "socket");
  fd_.reset(fd);
  socketTos_ = 0;
  CALYX_TRACE(udpTrace(), 4,
              "UdpPam '" << name_ << "': socket opened, family = " << (ipv6En_ ? "IPv6" : "IPv4") << ".");
  return {};
}

SysResult<void> UdpPam::tosApply() {
  if (txTos_ == socketTos_) return {};
  int const value = txTos_;
  int const rc = ipv6En_ ? setsockopt(fd_.get(), IPPROTO_IPV6, IPV6_TCLASS, &value, sizeof value)
                         : setsockopt(fd_.get(), IPPROTO_IP, IP_TOS, &value, sizeof value);
  if (rc < 0) return sysErrno("setsockopt", "setsockopt(tos)");
  socketTos_ = txTos_;
  return {};
}

// The context of a failure names what failed ("sendmsg", "transmit (no packet)"); errno is kept for txErrno.
void UdpPam::txFailed(SysError const& failure) {
  lastErrno_ = failure.code;
  ++txErrors_;
  CALYX_TRACE(udpTrace(), 1,
              "UdpPam '" << name_ << "': " << failure.context << " failed: errno = " << failure.code << " ("
                         << std::strerror(failure.code) << ")"
                         << ", dIp = " << (ipv6En_ ? txDstIp6Addr_.stringValue() : txDstIpAddr_.stringValue())
                         << ", dPort = " << txPort_ << ".");
}

void UdpPam::txPktIs(Ptr<Pkt> const& pkt) {
  if (!pkt) return txFailed({EINVAL, "transmit (no packet)"});
  if (mode_ != kModeTransmit) return txFailed({EOPNOTSUPP, "transmit (not in transmit mode)"});
  if (auto const ready = socketReady(); !ready) return txFailed(ready.error());
  if (auto const tos = tosApply(); !tos) return txFailed(tos.error());

  sockaddr_in dst4{};
  sockaddr_in6 dst6{};
  msghdr msg{};
  if (ipv6En_) {
    dst6.sin6_family = AF_INET6;
    dst6.sin6_port = htons(txPort_);
    std::memcpy(&dst6.sin6_addr, txDstIp6Addr_.bytes.data(), 16);
    msg.msg_name = &dst6;
    msg.msg_namelen = sizeof dst6;
  } else {
    dst4.sin_family = AF_INET;
    dst4.sin_port = htons(txPort_);
    std::memcpy(&dst4.sin_addr, txDstIpAddr_.bytes.data(), 4);
    msg.msg_name = &dst4;
    msg.msg_namelen = sizeof dst4;
  }
  iovec iov{pkt->data(), pkt->bytes()};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  ControlBuffer control;
  msg.msg_controllen = pktInfoFill(msg, control, ipv6En_, txSrcIpAddr_, txSrcIp6Addr_);
  if (msg.msg_controllen == 0) msg.msg_control = nullptr;

  if (sendmsg(fd_.get(), &msg, MSG_DONTWAIT | MSG_NOSIGNAL) < 0)
    return txFailed(sysErrno("sendmsg", "sendmsg"));
  lastErrno_ = 0;
  ++txPkts_;
  if (hasNotificationActive_) notify(&Reactor::handleTxPkts);
}

}  // namespace Calyx
