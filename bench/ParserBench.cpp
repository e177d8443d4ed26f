// The drop frame parser on a realistic mix of mirrored frames (IPv4 and IPv6, TCP and UDP, zero to two 802.1Q
// tags, cut at 128 bytes), beside the least any reader must do with a frame: copy it into a packet buffer and
// hash its five-tuple read at known offsets. Compare BM_ParseMirroredFrame with BM_CopyAndHashBaseline of the
// same run.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "mirror_on_drop/MirrorOnDropReceiverSm.h"
#include "platform/types/Hash.h"
#include "platform/types/PktManager.h"
#include "tools/common/DropFrameBuilder.h"

using namespace MirrorOnDrop;
using namespace Calyx;

namespace {

std::vector<std::vector<uint8_t>> frameMix() {
  std::mt19937 rng(7);
  std::vector<std::vector<uint8_t>> frames;
  for (int i = 0; i < 1024; ++i) {
    DropFlow flow;
    flow.dMac = *EthAddr::parse("02:00:00:00:00:01");
    flow.sMac = *EthAddr::parse("02:00:00:00:00:02");
    for (unsigned t = 0; t < rng() % 3; ++t) flow.vlanTags.push_back(uint16_t(100 + t));
    bool const v6 = rng() % 4 == 0;
    flow.srcIp = v6 ? IpGenAddr(Ip6Addr::fromBytes(std::vector<uint8_t>(16, uint8_t(i)).data()))
                    : IpGenAddr(Ip4Addr::fromHost(0x0a000000 + uint32_t(i)));
    flow.dstIp = v6 ? IpGenAddr(Ip6Addr::fromBytes(std::vector<uint8_t>(16, 7).data()))
                    : IpGenAddr(Ip4Addr::fromHost(0x0a640001));
    flow.ipProto = rng() % 2 ? 6 : 17;
    flow.srcPort = uint16_t(rng());
    flow.dstPort = 443;
    frames.push_back(DropFrameBuilder::dropFrame(flow, 64 + rng() % 1400, i));
  }
  return frames;
}

void BM_ParseMirroredFrame(benchmark::State& state) {
  auto const frames = frameMix();
  auto exchanger = make<Exchanger>();
  auto receiver =
      make<ReceiverSm>(make<CalyxCentral::FeatureAgentCommonSmData>(), make<Interface::PamDesiredIntfDir>(),
                       make<Interface::EthDevPamCollection>(), exchanger);
  auto pkt = PktManager::global().newPkt();
  IntfId const intf("et1");
  size_t i = 0;
  for (auto _ : state) {
    auto const& f = frames[i++ & 1023];
    pkt->assign(f.data(), f.size());
    receiver->processPacket(intf, pkt);
  }
  if (exchanger->counterProcessedPacket() != static_cast<uint64_t>(state.iterations()))
    state.SkipWithError("a frame of the mix was rejected");
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

void BM_CopyAndHashBaseline(benchmark::State& state) {
  auto const frames = frameMix();
  auto pkt = PktManager::global().newPkt();
  size_t i = 0;
  uint32_t sum = 0;
  for (auto _ : state) {
    auto const& f = frames[i++ & 1023];
    pkt->assign(f.data(), f.size());
    uint8_t const* p = pkt->data();
    // Untagged IPv4 offsets: the fields a parser ends up reading, without any of its checks.
    IncrementalHash h;
    h.add8(p[26 + 9]);
    h.add(p + 26 + 12, 8);
    h.add(p + 26 + 20, 4);
    sum += h.value();
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

BENCHMARK(BM_ParseMirroredFrame);
BENCHMARK(BM_CopyAndHashBaseline);

}  // namespace
