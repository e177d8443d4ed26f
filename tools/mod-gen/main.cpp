// mod-gen: crafts mirrored drop frames into a pcap file or onto an interface. See --help.

#include <chrono>
#include <cmath>
#include <cstdio>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "ModGenOptions.h"
#include "platform/io/PcapFileWriter.h"
#include "platform/io/PcapFrameSender.h"
#include "tools/common/DropFrameBuilder.h"

namespace {

using Calyx::DropFlow;
using Calyx::DropFrameBuilder;
using ModGen::Mix;
using ModGen::ModGenOptions;

struct Summary {
  uint64_t frames = 0;
  uint64_t wellFormed = 0;
  uint64_t malformed = 0;
  uint64_t ipv4 = 0;
  uint64_t ipv6 = 0;
  uint64_t tcp = 0;
  uint64_t udp = 0;
  uint64_t tags[3] = {};
  uint64_t bytes = 0;
};

// Draws from the generator by plain modulo, so that a seed gives the same frames with any standard library.
uint64_t draw(std::mt19937_64& rng, uint64_t n) {
  return n == 0 ? 0 : rng() % n;
}

Calyx::EthAddr randomMac(std::mt19937_64& rng) {
  Calyx::EthAddr mac;
  for (auto& b : mac.bytes) b = uint8_t(draw(rng, 256));
  mac.bytes[0] = uint8_t((mac.bytes[0] & 0xfc) | 0x02);  // unicast, locally administered
  return mac;
}

Calyx::IpGenAddr randomAddr(std::mt19937_64& rng, bool v6) {
  if (!v6) return Calyx::Ip4Addr::fromHost(0x0a000000u | uint32_t(draw(rng, 1u << 24)));  // 10.0.0.0/8
  Calyx::Ip6Addr a;
  a.bytes = {0x20, 0x01, 0x0d, 0xb8};  // 2001:db8::/32
  for (size_t i = 4; i < 16; ++i) a.bytes[i] = uint8_t(draw(rng, 256));
  return a;
}

// Mixed families alternate, so that any two flows in a row cover both.
bool isV6(Mix family, uint64_t index) {
  if (family == Mix::mixed) return index % 2 == 1;
  return family == Mix::second;
}

// N flows that differ in their five-tuple.
std::vector<DropFlow> flowsMake(ModGenOptions const& o, std::mt19937_64& rng) {
  std::vector<DropFlow> flows;
  std::set<std::tuple<Calyx::IpGenAddr, Calyx::IpGenAddr, uint8_t, uint16_t, uint16_t>> seen;
  while (flows.size() < o.flows) {
    uint64_t const i = flows.size();
    DropFlow f;
    f.dMac = randomMac(rng);
    f.sMac = randomMac(rng);
    int const tags = o.vlanTags >= 0 ? o.vlanTags : int(draw(rng, 3));
    for (int t = 0; t < tags; ++t) f.vlanTags.push_back(uint16_t(1 + draw(rng, 4094)));
    bool const v6 = isV6(o.family, i);
    f.srcIp = randomAddr(rng, v6);
    f.dstIp = randomAddr(rng, v6);
    f.ipProto = o.proto == Mix::mixed ? (draw(rng, 2) ? 17 : 6) : (o.proto == Mix::second ? 17 : 6);
    f.srcPort = uint16_t(1024 + draw(rng, 64512));
    f.dstPort = uint16_t(1 + draw(rng, 65535));
    if (seen.emplace(f.srcIp, f.dstIp, f.ipProto, f.srcPort, f.dstPort).second) flows.push_back(std::move(f));
  }
  return flows;
}

// Where frames go: a file or an interface, paced by the rate.
class Output {
 public:
  explicit Output(ModGenOptions const& o) : o_(o) {}

  bool open() {
    if (!o_.out.empty()) return writer_.open(o_.out);
    started_ = std::chrono::steady_clock::now();
    return sender_.open(o_.interface);
  }
  std::string error() const { return o_.out.empty() ? sender_.error() : writer_.error(); }

  bool put(std::vector<uint8_t> const& frame, uint64_t index) {
    double const offset = o_.rate > 0 ? double(index) / o_.rate : 0.0;
    if (!o_.out.empty()) return writer_.write(frame, o_.startTime + offset);
    if (o_.rate > 0) std::this_thread::sleep_until(started_ + std::chrono::duration<double>(offset));
    return sender_.send(frame);
  }
  bool close() { return o_.out.empty() || writer_.close(); }

 private:
  ModGenOptions const& o_;
  Calyx::PcapFileWriter writer_;
  Calyx::PcapFrameSender sender_;
  std::chrono::steady_clock::time_point started_;
};

// The header timestamp of the index-th frame: its capture time in nanoseconds. Summed in whole units, as a
// double of nanoseconds since the epoch would round away the last digits (1700000000002000128).
uint64_t timestampOf(ModGenOptions const& o, uint64_t index) {
  double const offset = o.rate > 0 ? double(index) / o.rate : 0.0;
  return uint64_t(std::llround(o.startTime * 1e6)) * 1000 + uint64_t(std::llround(offset * 1e9));
}

void count(Summary& s, DropFlow const& f, size_t bytes) {
  ++s.frames;
  s.bytes += bytes;
  (f.srcIp.isV6() ? s.ipv6 : s.ipv4) += 1;
  (f.ipProto == 17 ? s.udp : s.tcp) += 1;
  s.tags[std::min<size_t>(f.vlanTags.size(), 2)] += 1;
}

int run(ModGenOptions const& o, uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::vector<DropFlow> const flows = flowsMake(o, rng);
  Output output(o);
  if (!output.open()) {
    std::fprintf(stderr, "mod-gen: %s\n", output.error().c_str());
    return 1;
  }
  Summary s;
  uint64_t index = 0;
  auto const emit = [&](std::vector<uint8_t> const& frame) {
    if (output.put(frame, index++)) return true;
    std::fprintf(stderr, "mod-gen: %s\n", output.error().c_str());
    return false;
  };
  for (uint64_t round = 0; round < o.dropsPerFlow; ++round) {
    for (DropFlow const& f : flows) {
      size_t const size = o.sizeMin + size_t(draw(rng, o.sizeMax - o.sizeMin + 1));
      auto const frame = DropFrameBuilder::dropFrame(f, size, timestampOf(o, index), o.cut);
      if (!emit(frame)) return 1;
      count(s, f, frame.size());
      ++s.wellFormed;
    }
  }
  for (auto kind : o.malformed) {
    for (uint64_t n = 0; n < o.malformedCount; ++n) {
      auto const frame =
          DropFrameBuilder::malformedFrame(kind, flows[n % flows.size()], timestampOf(o, index));
      if (!emit(frame)) return 1;
      ++s.frames;
      ++s.malformed;
      s.bytes += frame.size();
    }
  }
  if (!output.close()) {
    std::fprintf(stderr, "mod-gen: %s\n", output.error().c_str());
    return 1;
  }
  std::fprintf(
      stderr,
      "mod-gen: %s %llu frame(s), %llu bytes, %s %s: %llu flow(s) x %llu drop(s) (ipv4 %llu, ipv6 %llu; "
      "tcp %llu, udp %llu; 0/1/2 tags %llu/%llu/%llu), %llu malformed; seed %llu.\n",
      o.out.empty() ? "sent" : "wrote", (unsigned long long)s.frames, (unsigned long long)s.bytes,
      o.out.empty() ? "on" : "to", o.out.empty() ? o.interface.c_str() : o.out.c_str(),
      (unsigned long long)o.flows, (unsigned long long)o.dropsPerFlow, (unsigned long long)s.ipv4,
      (unsigned long long)s.ipv6, (unsigned long long)s.tcp, (unsigned long long)s.udp,
      (unsigned long long)s.tags[0], (unsigned long long)s.tags[1], (unsigned long long)s.tags[2],
      (unsigned long long)s.malformed, (unsigned long long)seed);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  ModGenOptions options;
  if (auto done = ModGen::modGenOptionsParse(argc, argv, options)) return *done;
  uint64_t const seed = options.seed ? *options.seed : std::random_device()();
  return run(options, seed);
}
