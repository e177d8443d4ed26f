// Report-sized datagrams (106 bytes) to a receiver on loopback: UdpPam::txPktIs beside a plain sendto loop on
// a socket of its own (the baseline). Compare the items_per_second of BM_UdpPamTxPkt and
// BM_UdpPamTxPktWithSource with BM_RawSendto of the same run. Each transmit sets all six transmit attributes
// first, as the feature's endpoint does. The receiver is drained (non-blocking) every 64 datagrams in every
// benchmark alike, so its buffer never fills and the drain costs the same everywhere.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "platform/io/UdpPam.h"
#include "platform/types/PktManager.h"

using namespace Calyx;

namespace {

constexpr size_t kPayload = 106;
constexpr int kDrainEvery = 64;

class Receiver {
 public:
  Receiver() {
    fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int const big = 4 << 20;
    setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof addr_;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&addr_), &len);
  }
  ~Receiver() { close(fd_); }
  sockaddr_in const& addr() const { return addr_; }
  uint16_t port() const { return ntohs(addr_.sin_port); }
  void drain() {
    std::array<uint8_t, 2048> buf;
    while (recv(fd_, buf.data(), buf.size(), MSG_DONTWAIT) > 0) {
    }
  }

 private:
  int fd_;
  sockaddr_in addr_{};
};

void BM_RawSendto(benchmark::State& state) {
  Receiver rx;
  int const fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  std::array<uint8_t, kPayload> payload{};
  int n = 0;
  for (auto _ : state) {
    ssize_t const sent = sendto(fd, payload.data(), payload.size(), 0,
                                reinterpret_cast<sockaddr const*>(&rx.addr()), sizeof rx.addr());
    benchmark::DoNotOptimize(sent);
    if (++n % kDrainEvery == 0) rx.drain();
  }
  close(fd);
  state.SetItemsProcessed(state.iterations());
}

void udpPamLoop(benchmark::State& state, Ip4Addr src) {
  Receiver rx;
  Ptr<UdpPam> pam = make<UdpPam>("UdpPamIp4");
  pam->hasNotificationActiveIs(true);
  pam->modeIs(UdpPam::kModeTransmit);
  Ptr<Pkt> pkt = PktManager::global().newPkt();
  std::array<uint8_t, kPayload> payload{};
  pkt->assign(payload.data(), payload.size());
  Ip4Addr const dst = Ip4Addr::fromHost(INADDR_LOOPBACK);
  int n = 0;
  for (auto _ : state) {
    pam->txSrcIpAddrIs(src);
    pam->txSrcIp6AddrIs(Ip6Addr());
    pam->txDstIpAddrIs(dst);
    pam->txDstIp6AddrIs(Ip6Addr());
    pam->txTosIs(46);
    pam->txPortIs(rx.port());
    pam->txPktIs(pkt);
    if (++n % kDrainEvery == 0) rx.drain();
  }
  if (pam->txPkts() != static_cast<uint64_t>(state.iterations())) state.SkipWithError("a transmit failed");
  state.SetItemsProcessed(state.iterations());
}

void BM_UdpPamTxPkt(benchmark::State& state) {
  udpPamLoop(state, Ip4Addr());
}
void BM_UdpPamTxPktWithSource(benchmark::State& state) {
  udpPamLoop(state, Ip4Addr::fromHost(INADDR_LOOPBACK));
}

BENCHMARK(BM_RawSendto);
BENCHMARK(BM_UdpPamTxPkt);
BENCHMARK(BM_UdpPamTxPktWithSource);

}  // namespace
