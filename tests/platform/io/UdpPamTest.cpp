// UdpPam over real sockets: datagrams go to receivers bound on loopback, which read the payload, the sender's
// address and the TOS / traffic-class byte that arrived.

#include "platform/io/UdpPam.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <numeric>
#include <vector>

#include "platform/types/PktManager.h"
#include "tests/support/LoopbackReceiver.h"

using namespace Calyx;
using Calyx::Test::LoopbackReceiver;

namespace {

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

TEST_F(UdpPamIp4Test, DatagramsArriveByteExactWithTheTosOfTheMomentOnOneSocket) {
  auto const payload = pattern(106, 0);
  std::vector<int> const tosSent = {46, 46, 0, 184, 46};
  EXPECT_EQ(pam->fd(), -1);  // opened on the first transmit
  int fd = -1;
  for (int tos : tosSent) {
    pam->txTosIs(static_cast<uint8_t>(tos));
    pam->txPktIs(pktOf(payload));
    if (fd == -1) fd = pam->fd();
    EXPECT_EQ(pam->fd(), fd);
  }
  EXPECT_EQ(pam->txPkts(), tosSent.size());
  EXPECT_EQ(pam->errno_(), 0);
  for (int tos : tosSent) {
    auto d = rx.receive();
    ASSERT_TRUE(d);
    EXPECT_EQ(d->bytes, payload);
    EXPECT_EQ(d->tos, tos);  // used as given, not shifted
    EXPECT_EQ(d->from, "127.0.0.1");
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

TEST_F(UdpPamIp4Test, RefusedTransmitsKeepCounterAndErrnoUntilTheNextSuccess) {
  Ptr<Pkt> pkt = pktOf(pattern(26, 0));
  pam->txSrcIpAddrIs(Ip4Addr::fromHost(0xc0000201));  // 192.0.2.1: not an address of this host
  pam->txPktIs(pkt);
  EXPECT_EQ(pam->txPkts(), 0u);
  EXPECT_NE(pam->errno_(), 0);
  EXPECT_EQ(pam->txErrno(), pam->errno_());

  pam->txSrcIpAddrIs(Ip4Addr());
  pam->modeIs(UdpPam::kModeNone);  // closes the socket; nothing is sent outside transmit mode
  EXPECT_EQ(pam->fd(), -1);
  pam->txPktIs(pkt);
  EXPECT_EQ(pam->txPkts(), 0u);
  EXPECT_EQ(pam->txErrors(), 2u);

  pam->modeIs(UdpPam::kModeTransmit);
  pam->txPktIs(pkt);
  EXPECT_EQ(pam->txPkts(), 1u);
  EXPECT_EQ(pam->errno_(), 0);
  auto d = rx.receive();
  ASSERT_TRUE(d);
  EXPECT_EQ(d->bytes.size(), 26u);
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

TEST_F(UdpPamIp6Test, DatagramArrivesByteExactWithItsTrafficClassAndSourceOrIsRefused) {
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

  pam->txSrcIp6AddrIs(*Ip6Addr::parse("2001:db8::1"));  // not an address of this host
  pam->txPktIs(pktOf(payload));
  EXPECT_EQ(pam->txPkts(), 2u);
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
