// Reports per second through SenderSm::sendReport to one and to four collectors on loopback, beside a raw
// sendto loop of the same datagrams to the same receivers. Compare BM_SendReport/N with BM_RawSendto/N of the
// same run.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "mirror_on_drop/MirrorOnDropSenderSm.h"
#include "platform/core/EventLoop.h"
#include "testkit/TempStateDir.h"

using namespace MirrorOnDrop;
using namespace Calyx;

namespace {

constexpr int kBatch = 256;

// Loopback receivers nobody reads: a full receive buffer drops datagrams, and the sender never sees it.
struct Receivers {
  explicit Receivers(int n) {
    for (int i = 0; i < n; ++i) {
      int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
      sockaddr_in a{};
      a.sin_family = AF_INET;
      a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
      socklen_t len = sizeof a;
      getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
      fds.push_back(fd);
      ports.push_back(ntohs(a.sin_port));
    }
  }
  ~Receivers() {
    for (int fd : fds) close(fd);
  }
  std::vector<sockaddr_in> addresses() const {
    std::vector<sockaddr_in> to(ports.size());
    for (size_t i = 0; i < to.size(); ++i) {
      to[i].sin_family = AF_INET;
      to[i].sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      to[i].sin_port = htons(ports[i]);
    }
    return to;
  }
  std::vector<int> fds;
  std::vector<uint16_t> ports;
};

Report::Key key(int i) {
  return Report::Key(6, IpGenAddr(Ip4Addr::fromHost(0x0a000000 + uint32_t(i))),
                     IpGenAddr(Ip4Addr::fromHost(0x0a640001)), uint16_t(i), 443);
}

Report::Report report() {
  Report::Report r(Drop::Timestamp(1), Drop::Reason(), 0);
  std::vector<uint8_t> sample(80, 0x5a);
  r.payloadIs(sample.data(), sample.size());
  return r;
}

void BM_SendReport(benchmark::State& state) {
  Test::TempStateDir stateDir;
  Receivers rx(static_cast<int>(state.range(0)));
  auto loop = EventLoop::makeSimulated();
  auto wheel = make<TimerWheel>(*loop, 200, 525600, false, 1024);
  auto exporter = make<HwFlowTracking::ExporterConfig>("exp");
  exporter->srcIpAddrIs(Ip4Addr::fromHost(0x7f000001));
  for (size_t i = 0; i < rx.ports.size(); ++i) {
    exporter->collectorIpAndPortIs("c" + std::to_string(i),
                                   HwFlowTracking::IpAndPort(Ip4Addr::fromHost(0x7f000001), rx.ports[i]));
  }
  auto config = make<HwFlowTracking::FtConfig>("t1");
  config->expConfigIs("exp", exporter);
  auto reportStatus = Report::statusFactory("reportStatus");
  auto batch = make<Report::EntryOutbox>();
  for (int i = 0; i < kBatch; ++i) {
    reportStatus->entryIs(Report::EntryStatus(key(i), Report::ReportType::START, report()));
    batch->entryIs(key(i));
  }
  auto sender = make<SenderSm>(make<FlowTracking::ConfigReq>(), config, make<HwFlowTracking::FtStatus>("t1"),
                               Collector::statusFactory("collectorStatus"), reportStatus,
                               loop->scheduler().taskNew("MOD-Task:report", 3), wheel, make<Exchanger>());
  for (auto _ : state) sender->sendReport(batch, false);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBatch);
}

void BM_RawSendto(benchmark::State& state) {
  Receivers rx(static_cast<int>(state.range(0)));
  int const fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  std::vector<uint8_t> datagram(106, 0x5a);
  std::vector<sockaddr_in> to = rx.addresses();
  for (auto _ : state) {
    for (int k = 0; k < kBatch; ++k) {
      datagram[1] = uint8_t(k);
      for (auto const& a : to) {
        sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr const*>(&a), sizeof a);
      }
    }
  }
  close(fd);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBatch);
}

void BM_RawSendmsgWithSource(benchmark::State& state) {
  Receivers rx(static_cast<int>(state.range(0)));
  int const fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  std::vector<uint8_t> datagram(106, 0x5a);
  std::vector<sockaddr_in> to = rx.addresses();
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
  for (auto _ : state) {
    for (int k = 0; k < kBatch; ++k) {
      datagram[1] = uint8_t(k);
      for (auto& a : to) {
        iovec iov{datagram.data(), datagram.size()};
        msghdr msg{};
        msg.msg_name = &a;
        msg.msg_namelen = sizeof a;
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        cmsghdr* c = CMSG_FIRSTHDR(&msg);
        c->cmsg_level = IPPROTO_IP;
        c->cmsg_type = IP_PKTINFO;
        c->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
        in_pktinfo info{};
        info.ipi_spec_dst.s_addr = htonl(INADDR_LOOPBACK);
        std::memcpy(CMSG_DATA(c), &info, sizeof info);
        sendmsg(fd, &msg, MSG_DONTWAIT);
      }
    }
  }
  close(fd);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kBatch);
}

BENCHMARK(BM_SendReport)->Arg(1)->Arg(4)->UseRealTime();
BENCHMARK(BM_RawSendto)->Arg(1)->Arg(4)->UseRealTime();
BENCHMARK(BM_RawSendmsgWithSource)->Arg(1)->Arg(4)->UseRealTime();

}  // namespace
