// The feature's receive road: frames into an in-memory packet access module, the receiver and its parser, the
// dispatcher and its shared tables. Compare in the same run:
// - BM_KnownFlowDrops/N (drops of N flows the dispatcher already holds, 1k to 1M) with BM_KnownFlowBaseline/N
//   (copy the frame into a packet and look its five-tuple up in a std::unordered_map of the same flows): the
//   counters vs_baseline and vs_smallest (see BenchSweep.h);
// - BM_NewFlows/N (bursts of N first drops into a fresh dispatcher: a Report::Status entry, an interface
//   counter and an Emt::Config entry each, all published in shared memory, the tables growing with the burst as in a
//   storm) with BM_NewFlowBaseline/N (the same keys inserted into a fresh std::unordered_map), the same
//   counters;
// - BM_SharedMemoryPerFlow: bytes of the tables' segment files per live flow (counter bytes_per_flow).
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <unordered_map>
#include <vector>

#include "bench/BenchSweep.h"
#include "mirror_on_drop/MirrorOnDropDispatcherSm.h"
#include "platform/io/InMemoryPam.h"
#include "platform/types/PktManager.h"
#include "tools/common/DropFrameBuilder.h"

using namespace MirrorOnDrop;
using namespace Calyx;

namespace {

constexpr size_t kBatch = 64;  // frames per readable event, as live capture reads them
IntfId const kIntf("Ethernet1");

// Flow n: TCP from 10.(n >> 16).x.x, port n & 0xffff, to 10.100.0.1:443.
DropFlow flowOf(uint32_t n) {
  DropFlow f;
  f.dMac = *EthAddr::parse("02:00:00:00:00:01");
  f.sMac = *EthAddr::parse("02:00:00:00:00:02");
  f.srcIp = IpGenAddr(Ip4Addr::fromHost(0x0a000000 + (n >> 16)));
  f.dstIp = IpGenAddr(Ip4Addr::fromHost(0x0a640001));
  f.srcPort = uint16_t(n);
  f.dstPort = 443;
  return f;
}

std::vector<std::vector<uint8_t>> framesOf(uint32_t first, uint32_t count) {
  std::vector<std::vector<uint8_t>> frames;
  frames.reserve(count);
  for (uint32_t n = first; n < first + count; ++n)
    frames.push_back(DropFrameBuilder::dropFrame(flowOf(n), 200, n));
  return frames;
}

// The dispatcher over its real tables in a state directory of its own, fed through an in-memory module.
class Rig {
 public:
  Rig() {
    char dir[] = "/dev/shm/calyx-bench-XXXXXX";
    if (mkdtemp(dir)) stateDir_ = dir;
    setenv("CALYX_STATE_DIR", stateDir_.c_str(), 1);
    auto statusDir = make<Interface::AllIntfStatusDir>();
    statusDir->intfStatusIs(kIntf, {true, Interface::PamBackend::inMemory()});
    auto fcsd = make<CalyxCentral::FeatureAgentCommonSmData>();
    fcsd->intfIs(kIntf);
    auto ftConfig = make<HwFlowTracking::FtConfig>("t1");
    auto ftStatus = hwStatus_->hwFtStatusIs("t1");
    holder_ = mountHolderFactory(make<Interface::AllIntfStatusLocalDir>(), statusDir,
                                 make<HwFlowTracking::Capabilities>(), make<FlowTracking::ConfigReq>(),
                                 Collector::statusFactory("collectorStatus"), Emt::configFactory("emtConfig"),
                                 Emt::statusFactory("emtStatus"), fcsd, make<HwFlowTracking::Config>(),
                                 hwStatus_, ftConfig, ftStatus, make<KernelNetInfo::Status>(),
                                 Report::statusFactory("reportStatus"),
                                 Ptr<TaskScheduler>(&loop_->scheduler()), loop_, PktManager::global());
    start();
  }
  ~Rig() {
    dispatcher_ = nullptr;
    holder_ = nullptr;
    unsetenv("CALYX_STATE_DIR");
    std::error_code ignored;
    std::filesystem::remove_all(stateDir_, ignored);
  }

  // A fresh dispatcher: the old one's clean-up empties every table.
  void start() {
    dispatcher_ = nullptr;
    dispatcher_ =
        make<DispatcherSm>(holder_->emtConfig(), holder_->emtStatus(), hwStatus_, holder_->reportStatus(),
                           holder_->timer(), holder_->exchanger(), holder_);
    loop_->runUntilIdle();
    pam_ = dynamic_cast<InMemoryPam*>(dispatcher_->pamManager()->pam(kIntf).get());
  }

  // Copies the frames into packets and delivers them in readable events of kBatch frames.
  void drop(std::vector<std::vector<uint8_t>> const& frames, size_t from, size_t count) {
    std::vector<Ptr<Pkt>> batch;
    for (size_t i = from; i < from + count; ++i) {
      Ptr<Pkt> pkt = PktManager::global().newPkt();
      pkt->assign(frames[i].data(), frames[i].size());
      batch.push_back(std::move(pkt));
      if (batch.size() == kBatch) pam_->enqueue(std::exchange(batch, {}));
    }
    if (!batch.empty()) pam_->enqueue(std::move(batch));
  }

  size_t flows() const { return holder_->reportStatus()->entryCount(); }
  uint64_t processed() const { return holder_->exchanger()->counterProcessedPacket(); }
  // Bytes of every table segment in the state directory.
  uint64_t sharedBytes() const {
    uint64_t total = 0;
    for (auto const& f : std::filesystem::directory_iterator(stateDir_)) {
      struct stat st {};
      if (::stat(f.path().c_str(), &st) == 0) total += uint64_t(st.st_size);
    }
    return total;
  }

 private:
  std::string stateDir_;
  Ptr<EventLoop> loop_ = EventLoop::makeSimulated();
  Ptr<HwFlowTracking::Status> hwStatus_ = make<HwFlowTracking::Status>();
  Ptr<MountHolder> holder_;
  Ptr<DispatcherSm> dispatcher_;
  InMemoryPam* pam_ = nullptr;
};

// The five-tuple as the baselines key it.
struct Tuple {
  uint8_t proto;
  uint32_t src, dst;
  uint16_t sport, dport;
  bool operator==(Tuple const&) const = default;
};
struct TupleHash {
  size_t operator()(Tuple const& t) const {
    return std::hash<uint64_t>()((uint64_t(t.src) << 32 | t.dst) ^ (uint64_t(t.sport) << 16 | t.dport) ^
                                 t.proto);
  }
};
// Untagged IPv4 offsets in a mirrored frame: 14 bytes of outer Ethernet, 12 of header.
Tuple tupleAt(uint8_t const* p) {
  uint8_t const* ip = p + 26;
  uint32_t src, dst;
  std::memcpy(&src, ip + 12, 4);
  std::memcpy(&dst, ip + 16, 4);
  return Tuple{ip[9], src, dst, uint16_t(ip[20] << 8 | ip[21]), uint16_t(ip[22] << 8 | ip[23])};
}

void BM_KnownFlowBaseline(benchmark::State& state) {
  auto const frames = framesOf(0, uint32_t(state.range(0)));
  std::unordered_map<Tuple, uint32_t, TupleHash> flows;
  for (auto const& f : frames) flows.emplace(tupleAt(f.data()), 0);
  size_t at = 0;
  uint64_t hits = 0;
  BenchSweep::CpuTimer cpu;
  for (auto _ : state) {
    for (size_t i = at; i < at + kBatch; ++i) {
      Ptr<Pkt> pkt = PktManager::global().newPkt();
      pkt->assign(frames[i].data(), frames[i].size());
      hits += flows.count(tupleAt(pkt->data()));
    }
    at = (at + kBatch) % (frames.size() - kBatch);
  }
  BenchSweep::costReport(state, "known-flow baseline", cpu.seconds(), double(state.iterations() * kBatch));
  benchmark::DoNotOptimize(hits);
  state.SetItemsProcessed(int64_t(state.iterations() * kBatch));
}

void BM_KnownFlowDrops(benchmark::State& state) {
  auto const frames = framesOf(0, uint32_t(state.range(0)));
  Rig rig;
  rig.drop(frames, 0, frames.size());
  uint64_t const before = rig.processed();
  size_t at = 0;
  BenchSweep::CpuTimer cpu;
  for (auto _ : state) {
    rig.drop(frames, at, kBatch);
    at = (at + kBatch) % (frames.size() - kBatch);
  }
  BenchSweep::costReport(state, "known-flow drops", cpu.seconds(), double(state.iterations() * kBatch),
                         "known-flow baseline");
  if (rig.flows() != frames.size() || rig.processed() - before != uint64_t(state.iterations()) * kBatch)
    state.SkipWithError("frames were rejected or flows appeared");
  state.SetItemsProcessed(int64_t(state.iterations() * kBatch));
}

// Bursts of n new flows, one drop each, into a fresh dispatcher whose tables start at their initial size and
// grow with the burst, as in a storm.
void BM_NewFlows(benchmark::State& state) {
  uint32_t const n = uint32_t(state.range(0));
  auto const frames = framesOf(0, n);
  Rig rig;
  BenchSweep::CpuTimer cpu;
  for (auto _ : state) {
    rig.drop(frames, 0, frames.size());
    cpu.pause();
    if (rig.flows() != n) state.SkipWithError("not every frame became a flow");
    rig.start();
    cpu.resume();
  }
  BenchSweep::costReport(state, "new flows", cpu.seconds(), double(state.iterations() * n),
                         "new-flow baseline");
  state.SetItemsProcessed(int64_t(state.iterations() * n));
}

void BM_NewFlowBaseline(benchmark::State& state) {
  uint32_t const n = uint32_t(state.range(0));
  auto const frames = framesOf(0, n);
  BenchSweep::CpuTimer cpu;
  for (auto _ : state) {
    std::unordered_map<Tuple, uint32_t, TupleHash> flows;
    for (auto const& f : frames) {
      Ptr<Pkt> pkt = PktManager::global().newPkt();
      pkt->assign(f.data(), f.size());
      flows.emplace(tupleAt(pkt->data()), 1);
    }
    benchmark::DoNotOptimize(flows);
  }
  BenchSweep::costReport(state, "new-flow baseline", cpu.seconds(), double(state.iterations() * n));
  state.SetItemsProcessed(int64_t(state.iterations() * n));
}

void BM_SharedMemoryPerFlow(benchmark::State& state) {
  uint32_t const n = uint32_t(state.range(0));
  Rig rig;
  for (auto _ : state) {
    uint32_t constexpr kChunk = 100000;  // frames are made a chunk at a time to bound the bench's own memory
    for (uint32_t first = 0; first < n; first += kChunk) {
      auto const frames = framesOf(first, std::min(kChunk, n - first));
      rig.drop(frames, 0, frames.size());
    }
  }
  if (rig.flows() != n) state.SkipWithError("not every frame became a flow");
  state.counters["bytes_per_flow"] = double(rig.sharedBytes()) / n;
}

BENCHMARK(BM_KnownFlowBaseline)->Apply(BenchSweep::sizes);
BENCHMARK(BM_KnownFlowDrops)->Apply(BenchSweep::sizes);
BENCHMARK(BM_NewFlowBaseline)->Apply(BenchSweep::sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_NewFlows)->Apply(BenchSweep::sizes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SharedMemoryPerFlow)->Arg(100000)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
