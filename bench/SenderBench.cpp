// Reports per second through SenderSm::sendReport to one and to four collectors on loopback, beside raw loops
// of the same datagrams to the same receivers: sendto, and sendmsg with the source address as ancillary data
// (what the UDP endpoint does, so the baseline of the ratio). Batches of 1k, 10k, 100k and 1M flows: an
// activation must cost what it sends, however large its batch (counter vs_smallest). Compare
// BM_SendReport/N/C with BM_RawSendmsgWithSource/N/C of the same run (counter vs_baseline; see BenchSweep.h):
// a ratio of items per second of 0.9 is a vs_baseline of about 1.1.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "bench/BenchSweep.h"
#include "mirror_on_drop/MirrorOnDropSenderSm.h"
#include "platform/core/EventLoop.h"
#include "platform/types/PktManager.h"
#include "testkit/TempStateDir.h"

using namespace MirrorOnDrop;
using namespace Calyx;

namespace {

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

Report::Key key(int64_t i) {
  return Report::Key(6, IpGenAddr(Ip4Addr::fromHost(0x0a000000 + uint32_t(i >> 16))),
                     IpGenAddr(Ip4Addr::fromHost(0x0a640001)), uint16_t(i), 443);
}

Report::Report report() {
  Report::Report r(Drop::Timestamp(1), Drop::Reason(), 0);
  std::vector<uint8_t> sample(80, 0x5a);
  r.payloadIs(sample.data(), sample.size());
  return r;
}

// The dispatcher's part of the hand-over: each key the sender announces leaves its batch at once.
class BatchDrain : public Exchanger::Reactor {
 public:
  BatchDrain(Ptr<Exchanger> const& exchanger, Ptr<Report::EntryOutbox> batch)
      : Reactor(exchanger), exchanger_(exchanger), batch_(std::move(batch)) {}
  void handleCounterSentStartReport() override { batch_->entryDel(exchanger_->reportKey()); }

 private:
  Ptr<Exchanger> exchanger_;
  Ptr<Report::EntryOutbox> batch_;
};

void BM_RawSendto(benchmark::State& state) {
  int64_t const flows = state.range(0);
  Receivers rx(static_cast<int>(state.range(1)));
  int const fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  std::vector<uint8_t> datagram(106, 0x5a);
  std::vector<sockaddr_in> to = rx.addresses();
  BenchSweep::CpuTimer cpu;
  for (auto _ : state) {
    for (int64_t k = 0; k < flows; ++k) {
      datagram[1] = uint8_t(k);
      for (auto const& a : to) {
        sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr const*>(&a), sizeof a);
      }
    }
  }
  BenchSweep::costReport(state, "sendto/" + std::to_string(to.size()), cpu.seconds(),
                         double(state.iterations() * flows));
  close(fd);
  state.SetItemsProcessed(state.iterations() * flows);
}

void BM_RawSendmsgWithSource(benchmark::State& state) {
  int64_t const flows = state.range(0);
  Receivers rx(static_cast<int>(state.range(1)));
  int const fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  std::vector<uint8_t> datagram(106, 0x5a);
  std::vector<sockaddr_in> to = rx.addresses();
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
  BenchSweep::CpuTimer cpu;
  for (auto _ : state) {
    for (int64_t k = 0; k < flows; ++k) {
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
  BenchSweep::costReport(state, "sendmsg/" + std::to_string(to.size()), cpu.seconds(),
                         double(state.iterations() * flows));
  close(fd);
  state.SetItemsProcessed(state.iterations() * flows);
}

void BM_SendReport(benchmark::State& state) {
  int64_t const flows = state.range(0);
  Test::TempStateDir stateDir;
  Receivers rx(static_cast<int>(state.range(1)));
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
  Report::Report const sample = report();
  for (int64_t i = 0; i < flows; ++i)
    reportStatus->entryIs(Report::EntryStatus(key(i), Report::ReportType::START, sample));
  auto exchanger = make<Exchanger>();
  auto batch = make<Report::EntryOutbox>();
  BatchDrain drain(exchanger, batch);
  auto sender =
      make<SenderSm>(make<FlowTracking::ConfigReq>(), config, make<HwFlowTracking::FtStatus>("t1"),
                     Collector::statusFactory("collectorStatus"), reportStatus,
                     loop->scheduler().taskNew("MOD-Task:report", 3), wheel, exchanger, PktManager::global());
  BenchSweep::CpuTimer cpu;
  for (auto _ : state) {
    state.PauseTiming();
    cpu.pause();
    for (int64_t i = 0; i < flows; ++i) batch->entryIs(key(i));
    cpu.resume();
    state.ResumeTiming();
    sender->sendReport(batch, false);
  }
  BenchSweep::costReport(state, "sendReport/" + std::to_string(rx.ports.size()), cpu.seconds(),
                         double(state.iterations() * flows), "sendmsg/" + std::to_string(rx.ports.size()));
  if (!batch->empty()) state.SkipWithError("the batch was not drained");
  state.SetItemsProcessed(state.iterations() * flows);
}

void sizesAndCollectors(benchmark::internal::Benchmark* b) {
  for (int64_t collectors : {1, 4}) {
    for (int64_t n : BenchSweep::kSizes) b->Args({n, collectors});
  }
}

BENCHMARK(BM_RawSendto)->Apply(sizesAndCollectors)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RawSendmsgWithSource)->Apply(sizesAndCollectors)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SendReport)->Apply(sizesAndCollectors)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
