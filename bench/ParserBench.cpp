// The drop frame parser on a realistic mix of mirrored frames (IPv4 and IPv6, TCP and UDP, zero to two 802.1Q
// tags, cut at 128 bytes), beside the least any reader must do with a frame: copy it into a packet buffer and
// hash its five-tuple read at known offsets. Both walk mixes of 1k, 10k, 100k and 1M distinct frames, so that
// the larger ones also pay for reading frames that are no longer in the cache. Compare BM_ParseMirroredFrame
// with BM_CopyAndHashBaseline of the same size and run (counter vs_baseline; see BenchSweep.h).
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "bench/BenchSweep.h"
#include "mirror_on_drop/MirrorOnDropReceiverSm.h"
#include "platform/types/Hash.h"
#include "platform/types/PktManager.h"
#include "tools/common/DropFrameBuilder.h"

using namespace MirrorOnDrop;
using namespace Calyx;

namespace {

// n frames back to back in one buffer, so that a million of them cost no more memory than their bytes.
struct FrameMix {
  std::vector<uint8_t> bytes;
  std::vector<uint32_t> offsets;  // n + 1: frame i is [offsets[i], offsets[i + 1])

  size_t size() const { return offsets.size() - 1; }
  uint8_t const* data(size_t i) const { return bytes.data() + offsets[i]; }
  size_t length(size_t i) const { return offsets[i + 1] - offsets[i]; }
};

FrameMix frameMix(size_t n) {
  std::mt19937 rng(7);
  FrameMix mix;
  mix.offsets.push_back(0);
  for (size_t i = 0; i < n; ++i) {
    DropFlow flow;
    flow.dMac = *EthAddr::parse("02:00:00:00:00:01");
    flow.sMac = *EthAddr::parse("02:00:00:00:00:02");
    for (unsigned t = 0; t < rng() % 3; ++t) flow.vlanTags.push_back(uint16_t(100 + t));
    bool const v6 = rng() % 4 == 0;
    uint8_t source[16] = {0x20, 0x01, 0x0d, 0xb8};
    for (size_t b = 0; b < 4; ++b) source[12 + b] = uint8_t(i >> (24 - 8 * b));
    flow.srcIp =
        v6 ? IpGenAddr(Ip6Addr::fromBytes(source)) : IpGenAddr(Ip4Addr::fromHost(0x0a000000 + uint32_t(i)));
    flow.dstIp = v6 ? IpGenAddr(Ip6Addr::fromBytes(std::vector<uint8_t>(16, 7).data()))
                    : IpGenAddr(Ip4Addr::fromHost(0x0a640001));
    flow.ipProto = rng() % 2 ? 6 : 17;
    flow.srcPort = uint16_t(rng());
    flow.dstPort = 443;
    auto const frame = DropFrameBuilder::dropFrame(flow, 64 + rng() % 1400, i);
    mix.bytes.insert(mix.bytes.end(), frame.begin(), frame.end());
    mix.offsets.push_back(uint32_t(mix.bytes.size()));
  }
  return mix;
}

void BM_CopyAndHashBaseline(benchmark::State& state) {
  auto const frames = frameMix(size_t(state.range(0)));
  auto pkt = PktManager::global().newPkt();
  size_t i = 0;
  uint32_t sum = 0;
  BenchSweep::CpuTimer cpu;
  for (auto _ : state) {
    pkt->assign(frames.data(i), frames.length(i));
    if (++i == frames.size()) i = 0;
    uint8_t const* p = pkt->data();
    // Untagged IPv4 offsets: the fields a parser ends up reading, without any of its checks.
    IncrementalHash h;
    h.add8(p[26 + 9]);
    h.add(p + 26 + 12, 8);
    h.add(p + 26 + 20, 4);
    sum += h.value();
  }
  BenchSweep::costReport(state, "copy+hash", cpu.seconds(), double(state.iterations()));
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

void BM_ParseMirroredFrame(benchmark::State& state) {
  auto const frames = frameMix(size_t(state.range(0)));
  auto exchanger = make<Exchanger>();
  auto receiver =
      make<ReceiverSm>(make<CalyxCentral::FeatureAgentCommonSmData>(), make<Interface::PamDesiredIntfDir>(),
                       make<Interface::EthDevPamCollection>(), exchanger);
  auto pkt = PktManager::global().newPkt();
  IntfId const intf("et1");
  size_t i = 0;
  BenchSweep::CpuTimer cpu;
  for (auto _ : state) {
    pkt->assign(frames.data(i), frames.length(i));
    if (++i == frames.size()) i = 0;
    receiver->processPacket(intf, pkt);
  }
  BenchSweep::costReport(state, "parse", cpu.seconds(), double(state.iterations()), "copy+hash");
  if (exchanger->counterProcessedPacket() != static_cast<uint64_t>(state.iterations()))
    state.SkipWithError("a frame of the mix was rejected");
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

BENCHMARK(BM_CopyAndHashBaseline)->Apply(BenchSweep::sizes);
BENCHMARK(BM_ParseMirroredFrame)->Apply(BenchSweep::sizes);

}  // namespace
