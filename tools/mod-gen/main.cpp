// mod-gen: crafts mirrored drop frames into a pcap file or onto an interface, or the report datagrams the
// agent would send for them into a pcap file or to a collector. See --help.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "ModGenOptions.h"
#include "mirror_on_drop/MirrorOnDropType.h"
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
  uint64_t start = 0;  // reports
  uint64_t stop = 0;
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

// A UDP socket connected to the collector a report goes to.
class CollectorSocket {
 public:
  ~CollectorSocket() {
    if (fd_ >= 0) close(fd_);
  }
  bool open(std::string const& endpoint) {
    sockaddr_storage addr{};
    socklen_t len = 0;
    ModGen::collectorAddrParse(endpoint, addr, len);  // checked with the command line
    fd_ = socket(addr.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0 || connect(fd_, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
      error_ = "cannot send to " + endpoint + ": " + std::strerror(errno);
      return false;
    }
    endpoint_ = endpoint;
    return true;
  }
  bool send(std::span<uint8_t const> datagram) {
    if (::send(fd_, datagram.data(), datagram.size(), 0) == ssize_t(datagram.size())) return true;
    error_ = "cannot send to " + endpoint_ + ": " + std::strerror(errno);
    return false;
  }
  std::string const& error() const { return error_; }

 private:
  int fd_ = -1;
  std::string endpoint_;
  std::string error_;
};

// Where frames go: a file, an interface or a collector, paced by the rate.
class Output {
 public:
  explicit Output(ModGenOptions const& o) : o_(o) {}

  bool open() {
    started_ = std::chrono::steady_clock::now();
    if (!o_.out.empty()) return writer_.open(o_.out);
    if (!o_.collector.empty()) return collector_.open(o_.collector);
    return sender_.open(o_.interface);
  }
  std::string error() const {
    if (!o_.out.empty()) return writer_.error();
    return o_.collector.empty() ? sender_.error() : collector_.error();
  }
  std::string where() const {
    if (!o_.out.empty()) return "to " + o_.out;
    return (o_.collector.empty() ? "on " : "to ") + (o_.collector.empty() ? o_.interface : o_.collector);
  }

  // A frame (or, to a collector, a datagram) with its index in the output.
  bool put(std::vector<uint8_t> const& frame, uint64_t index) {
    double const offset = o_.rate > 0 ? double(index) / o_.rate : 0.0;
    if (!o_.out.empty()) return writer_.write(frame, o_.startTime + offset);
    if (o_.rate > 0) std::this_thread::sleep_until(started_ + std::chrono::duration<double>(offset));
    return o_.collector.empty() ? sender_.send(frame) : collector_.send(frame);
  }
  bool close() { return o_.out.empty() || writer_.close(); }

 private:
  ModGenOptions const& o_;
  Calyx::PcapFileWriter writer_;
  Calyx::PcapFrameSender sender_;
  CollectorSocket collector_;
  std::chrono::steady_clock::time_point started_;
};

// The header timestamp of the index-th frame: its capture time in nanoseconds. Summed in whole units, as a
// double of nanoseconds since the epoch would round away the last digits (1700000000002000128).
uint64_t timestampOf(ModGenOptions const& o, uint64_t index) {
  double const offset = o.rate > 0 ? double(index) / o.rate : 0.0;
  return uint64_t(std::llround(o.startTime * 1e6)) * 1000 + uint64_t(std::llround(offset * 1e9));
}

// One well-formed frame (or one flow's report) of flow f.
void count(Summary& s, DropFlow const& f) {
  ++s.frames;
  (f.srcIp.isV6() ? s.ipv6 : s.ipv4) += 1;
  (f.ipProto == 17 ? s.udp : s.tcp) += 1;
  s.tags[std::min<size_t>(f.vlanTags.size(), 2)] += 1;
}

// The well-formed drops, then the malformed frames. False when the output failed (said on stderr).
bool framesEmit(ModGenOptions const& o, std::vector<DropFlow> const& flows, std::mt19937_64& rng, Summary& s,
                std::function<bool(std::vector<uint8_t> const&, uint64_t)> const& emit) {
  for (uint64_t round = 0; round < o.dropsPerFlow; ++round) {
    for (DropFlow const& f : flows) {
      size_t const size = o.sizeMin + size_t(draw(rng, o.sizeMax - o.sizeMin + 1));
      auto const frame = DropFrameBuilder::dropFrame(f, size, timestampOf(o, s.frames), o.cut);
      if (!emit(frame, frame.size())) return false;
      count(s, f);
      ++s.wellFormed;
    }
  }
  for (auto kind : o.malformed) {
    for (uint64_t n = 0; n < o.malformedCount; ++n) {
      auto const frame =
          DropFrameBuilder::malformedFrame(kind, flows[n % flows.size()], timestampOf(o, s.frames));
      if (!emit(frame, frame.size())) return false;
      ++s.frames;
      ++s.malformed;
    }
  }
  return true;
}

// The report packets the agent would send for each flow's first drop: every START, then every STOP (the same
// report again). In a capture file each is a UDP datagram from 192.0.2.1 to 192.0.2.2 (documentation
// addresses); to a collector, the datagram's payload.
bool reportsEmit(ModGenOptions const& o, std::vector<DropFlow> const& flows, std::mt19937_64& rng, Summary& s,
                 std::function<bool(std::vector<uint8_t> const&, uint64_t)> const& emit) {
  using MirrorOnDrop::Report::Report;
  std::vector<Report> reports;
  for (size_t i = 0; i < flows.size(); ++i) {
    size_t const size = o.sizeMin + size_t(draw(rng, o.sizeMax - o.sizeMin + 1));
    auto const dropped = DropFrameBuilder::droppedFrame(flows[i], size);
    ModGen::Reason const& w = o.reasons[i % o.reasons.size()];
    reports.emplace_back(MirrorOnDrop::Drop::Timestamp(timestampOf(o, i)),
                         MirrorOnDrop::Drop::Reason(w[0], w[1], w[2], w[3]), 0);
    reports.back().payloadIs(dropped.data(), dropped.size());
  }
  DropFlow datagram;
  datagram.srcIp = Calyx::Ip4Addr::fromHost(0xc0000201);
  datagram.dstIp = Calyx::Ip4Addr::fromHost(0xc0000202);
  datagram.srcPort = 40000;
  datagram.dstPort = o.reportPort;
  for (uint8_t type : {uint8_t(0), uint8_t(1)}) {
    for (size_t i = 0; i < flows.size(); ++i) {
      Report const& r = reports[i];
      // The type byte, then the stored report up to the end of its sample.
      std::vector<uint8_t> packet(1 + Report::kPayloadOffset + r.dataSize());
      packet[0] = type;
      std::copy(r.bytes(), r.bytes() + packet.size() - 1, packet.begin() + 1);
      bool const sent = o.collector.empty()
                            ? emit(DropFrameBuilder::udpDatagram(datagram, packet), packet.size())
                            : emit(packet, packet.size());
      if (!sent) return false;
      if (type == 0) count(s, flows[i]);
      ++(type == 0 ? s.start : s.stop);
    }
  }
  return true;
}

std::string reasonText(ModGen::Reason const& r) {
  char text[40];
  std::snprintf(text, sizeof text, "0x%08x%08x%08x%08x", r[0], r[1], r[2], r[3]);
  return text;
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
  auto const emit = [&](std::vector<uint8_t> const& frame, uint64_t bytes) {
    s.bytes += bytes;
    if (output.put(frame, index++)) return true;
    std::fprintf(stderr, "mod-gen: %s\n", output.error().c_str());
    return false;
  };
  if (!(o.reports ? reportsEmit : framesEmit)(o, flows, rng, s, emit)) return 1;
  if (!output.close()) {
    std::fprintf(stderr, "mod-gen: %s\n", output.error().c_str());
    return 1;
  }
  char mix[160];
  std::snprintf(mix, sizeof mix, "ipv4 %llu, ipv6 %llu; tcp %llu, udp %llu; 0/1/2 tags %llu/%llu/%llu",
                (unsigned long long)s.ipv4, (unsigned long long)s.ipv6, (unsigned long long)s.tcp,
                (unsigned long long)s.udp, (unsigned long long)s.tags[0], (unsigned long long)s.tags[1],
                (unsigned long long)s.tags[2]);
  std::string const verb = o.out.empty() ? "sent" : "wrote";
  if (o.reports) {
    std::string reasons;
    for (auto const& r : o.reasons) reasons += (reasons.empty() ? "" : ",") + reasonText(r);
    std::fprintf(stderr,
                 "mod-gen: %s %llu report(s) (START %llu, STOP %llu), %llu bytes, %s: %llu flow(s) (%s), "
                 "reason %s; seed %llu.\n",
                 verb.c_str(), (unsigned long long)(s.start + s.stop), (unsigned long long)s.start,
                 (unsigned long long)s.stop, (unsigned long long)s.bytes, output.where().c_str(),
                 (unsigned long long)o.flows, mix, reasons.c_str(), (unsigned long long)seed);
    return 0;
  }
  std::fprintf(stderr,
               "mod-gen: %s %llu frame(s), %llu bytes, %s: %llu flow(s) x %llu drop(s) (%s), %llu malformed; "
               "seed %llu.\n",
               verb.c_str(), (unsigned long long)s.frames, (unsigned long long)s.bytes,
               output.where().c_str(), (unsigned long long)o.flows, (unsigned long long)o.dropsPerFlow, mix,
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
