// UdpPam over real sockets: datagrams go to receivers bound on loopback, which read the payload, the sender's
// address and the TOS / traffic-class byte that arrived.

#include "platform/io/UdpPam.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

#include "platform/types/PktManager.h"

using namespace Calyx;

namespace {

struct Datagram {
  std::vector<uint8_t> bytes;
  std::string from;  // source address as text
  int tos = -1;      // TOS byte (IPv4) or traffic class (IPv6) as received
};

// A datagram socket on loopback that reports what arrived, and the TOS byte it arrived with.
class LoopbackReceiver {
 public:
  explicit LoopbackReceiver(int af) : af_(af) {
    fd_ = socket(af, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int const one = 1;
    sockaddr_storage addr{};
    socklen_t len;
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
    bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&addr), len) == 0;
    len = sizeof addr;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(af == AF_INET6 ? reinterpret_cast<sockaddr_in6*>(&addr)->sin6_port
                                 : reinterpret_cast<sockaddr_in*>(&addr)->sin_port);
  }
  ~LoopbackReceiver() { close(fd_); }

  bool bound() const { return bound_; }
  uint16_t port() const { return port_; }

  // The next datagram, waiting at most two seconds for it.
  std::optional<Datagram> receive() {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, 2000) != 1) return std::nullopt;
    Datagram d;
    d.bytes.resize(2048);
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
        int tclass;
        std::memcpy(&tclass, CMSG_DATA(c), sizeof tclass);
        d.tos = tclass;
      }
    }
    char text[INET6_ADDRSTRLEN];
    void const* addr = af_ == AF_INET6
                           ? static_cast<void const*>(&reinterpret_cast<sockaddr_in6*>(&from)->sin6_addr)
                           : static_cast<void const*>(&reinterpret_cast<sockaddr_in*>(&from)->sin_addr);
    d.from = inet_ntop(af_, addr, text, sizeof text);
    return d;
  }

 private:
  int af_;
  int fd_;
  bool bound_ = false;
  uint16_t port_ = 0;
};

Ptr<Pkt> pktOf(std::vector<uint8_t> const& bytes) {
  Ptr<Pkt> p = PktManager::global().newPkt();
  p->assign(bytes.data(), bytes.size());
  return p;
}

std::vector<uint8_t> pattern(size_t n, uint8_t first) {
  std::vector<uint8_t> v(n);
  std::iota(v.begin(), v.end(), first);
  return v;
}

class UdpPamIp4Test : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(rx.bound());
    pam->modeIs(UdpPam::kModeTransmit);
    pam->txDstIpAddrIs(Ip4Addr::fromHost(INADDR_LOOPBACK));
    pam->txPortIs(rx.port());
  }
  LoopbackReceiver rx{AF_INET};
  Ptr<UdpPam> pam = make<UdpPam>("UdpPamIp4");
};

TEST_F(UdpPamIp4Test, DatagramArrivesByteExactWithItsTos) {
  auto const payload = pattern(106, 0);
  pam->txTosIs(46);
  EXPECT_EQ(pam->fd(), -1);  // opened on the first transmit
  pam->txPktIs(pktOf(payload));
  EXPECT_EQ(pam->txPkts(), 1u);
  EXPECT_EQ(pam->errno_(), 0);

  auto d = rx.receive();
  ASSERT_TRUE(d);
  EXPECT_EQ(d->bytes, payload);
  EXPECT_EQ(d->tos, 46);  // used as given, not shifted
  EXPECT_EQ(d->from, "127.0.0.1");
}

TEST_F(UdpPamIp4Test, TosFollowsEveryChangeOnOneSocket) {
  Ptr<Pkt> pkt = pktOf(pattern(26, 1));
  std::vector<int> sent = {46, 46, 0, 184, 46};
  int fd = -1;
  for (int tos : sent) {
    pam->txTosIs(static_cast<uint8_t>(tos));
    pam->txPktIs(pkt);
    if (fd == -1) fd = pam->fd();
    EXPECT_EQ(pam->fd(), fd);
  }
  EXPECT_EQ(pam->txPkts(), sent.size());
  for (int tos : sent) {
    auto d = rx.receive();
    ASSERT_TRUE(d);
    EXPECT_EQ(d->tos, tos);
  }
}

TEST_F(UdpPamIp4Test, SourceAddressIsChosenPerPacket) {
  Ptr<Pkt> pkt = pktOf(pattern(30, 7));
  for (uint32_t src : {0x7f000002u, 0x7f000001u, 0u, 0x7f000002u}) {
    pam->txSrcIpAddrIs(Ip4Addr::fromHost(src));
    pam->txPktIs(pkt);
  }
  EXPECT_EQ(pam->txPkts(), 4u);
  for (char const* want : {"127.0.0.2", "127.0.0.1", "127.0.0.1", "127.0.0.2"}) {
    auto d = rx.receive();
    ASSERT_TRUE(d);
    EXPECT_EQ(d->from, want);
  }
}

TEST_F(UdpPamIp4Test, PacketMayBeRefilledAsSoonAsTransmitReturns) {
  Ptr<Pkt> pkt = pktOf(pattern(40, 0));
  pam->txPktIs(pkt);
  pkt->reset();
  uint8_t* head = pkt->headPrepend(10);
  std::fill(head, head + 10, 0xee);
  pam->txPktIs(pkt);

  auto first = rx.receive();
  auto second = rx.receive();
  ASSERT_TRUE(first && second);
  EXPECT_EQ(first->bytes, pattern(40, 0));
  EXPECT_EQ(second->bytes, std::vector<uint8_t>(10, 0xee));
}

TEST_F(UdpPamIp4Test, RefusedTransmitKeepsCounterAndErrnoUntilTheNextSuccess) {
  Ptr<Pkt> pkt = pktOf(pattern(26, 0));
  pam->txSrcIpAddrIs(Ip4Addr::fromHost(0xc0000201));  // 192.0.2.1: not an address of this host
  pam->txPktIs(pkt);
  EXPECT_EQ(pam->txPkts(), 0u);
  EXPECT_NE(pam->errno_(), 0);
  EXPECT_EQ(pam->txErrno(), pam->errno_());
  EXPECT_EQ(pam->txErrors(), 1u);

  pam->txSrcIpAddrIs(Ip4Addr());
  pam->txPktIs(pkt);
  EXPECT_EQ(pam->txPkts(), 1u);
  EXPECT_EQ(pam->errno_(), 0);
  auto d = rx.receive();
  ASSERT_TRUE(d);
  EXPECT_EQ(d->bytes.size(), 26u);
}

TEST_F(UdpPamIp4Test, OutsideTransmitModeNothingIsSentAndNoSocketOpened) {
  pam->modeIs(UdpPam::kModeNone);
  pam->txPktIs(pktOf(pattern(26, 0)));
  EXPECT_EQ(pam->txPkts(), 0u);
  EXPECT_NE(pam->errno_(), 0);
  EXPECT_EQ(pam->fd(), -1);

  pam->modeIs(UdpPam::kModeTransmit);
  pam->txPktIs(pktOf(pattern(26, 0)));
  EXPECT_EQ(pam->txPkts(), 1u);
  EXPECT_EQ(pam->errno_(), 0);
}

class CountTx : public UdpPam::Reactor {
 public:
  using Reactor::Reactor;
  void handleTxPkts() override { ++calls; }
  int calls = 0;
};

TEST_F(UdpPamIp4Test, ReactorsHearAcceptedDatagramsOnlyWhileNotificationIsActive) {
  CountTx reactor(pam);
  Ptr<Pkt> pkt = pktOf(pattern(26, 0));
  pam->txPktIs(pkt);
  EXPECT_EQ(reactor.calls, 0);
  pam->hasNotificationActiveIs(true);
  pam->txPktIs(pkt);
  pam->txSrcIpAddrIs(Ip4Addr::fromHost(0xc0000201));
  pam->txPktIs(pkt);  // refused: no notification
  EXPECT_EQ(reactor.calls, 1);
}

class UdpPamIp6Test : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!rx.bound()) GTEST_SKIP() << "no IPv6 loopback on this host";
    pam->ipv6EnIs(true);
    pam->modeIs(UdpPam::kModeTransmit);
    pam->txDstIp6AddrIs(*Ip6Addr::parse("::1"));
    pam->txPortIs(rx.port());
  }
  LoopbackReceiver rx{AF_INET6};
  Ptr<UdpPam> pam = make<UdpPam>("UdpPamIp6");
};

TEST_F(UdpPamIp6Test, DatagramArrivesByteExactWithItsTrafficClassAndSource) {
  auto const payload = pattern(80, 3);
  pam->txTosIs(46);
  pam->txSrcIp6AddrIs(*Ip6Addr::parse("::1"));
  pam->txPktIs(pktOf(payload));
  pam->txTosIs(0);
  pam->txSrcIp6AddrIs(Ip6Addr());
  pam->txPktIs(pktOf(payload));
  EXPECT_EQ(pam->txPkts(), 2u);
  EXPECT_EQ(pam->errno_(), 0);

  for (int tos : {46, 0}) {
    auto d = rx.receive();
    ASSERT_TRUE(d);
    EXPECT_EQ(d->bytes, payload);
    EXPECT_EQ(d->tos, tos);
    EXPECT_EQ(d->from, "::1");
  }
}

TEST_F(UdpPamIp6Test, RefusedTransmitKeepsCounterAndErrno) {
  pam->txSrcIp6AddrIs(*Ip6Addr::parse("2001:db8::1"));  // not an address of this host
  pam->txPktIs(pktOf(pattern(26, 0)));
  EXPECT_EQ(pam->txPkts(), 0u);
  EXPECT_NE(pam->errno_(), 0);
}

TEST_F(UdpPamIp6Test, SwitchingFamilyReopensTheSocket) {
  pam->txPktIs(pktOf(pattern(26, 0)));
  ASSERT_GE(pam->fd(), 0);
  int domain = 0;
  socklen_t len = sizeof domain;
  getsockopt(pam->fd(), SOL_SOCKET, SO_DOMAIN, &domain, &len);
  EXPECT_EQ(domain, AF_INET6);

  LoopbackReceiver rx4(AF_INET);
  pam->ipv6EnIs(false);
  EXPECT_EQ(pam->fd(), -1);
  pam->txDstIpAddrIs(Ip4Addr::fromHost(INADDR_LOOPBACK));
  pam->txPortIs(rx4.port());
  pam->txPktIs(pktOf(pattern(27, 0)));
  EXPECT_EQ(pam->txPkts(), 2u);
  getsockopt(pam->fd(), SOL_SOCKET, SO_DOMAIN, &domain, &len);
  EXPECT_EQ(domain, AF_INET);
  auto d = rx4.receive();
  ASSERT_TRUE(d);
  EXPECT_EQ(d->bytes.size(), 27u);
}

}  // namespace
