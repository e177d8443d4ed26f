#include "tools/mod-collector/ReportDecoder.h"

#include <arpa/inet.h>

#include "platform/types/ByteOrder.h"
#include "platform/types/EtherType.h"

namespace ModCollector {
namespace {

bool isVlanEtherType(uint16_t t) {
  return t == Calyx::kEtherTypeVlan || t == 0x88a8 || t == 0x9100;  // 802.1Q, 802.1ad and the older QinQ
}

std::string addrText(int af, uint8_t const* addr) {
  char buf[INET6_ADDRSTRLEN];
  return inet_ntop(af, addr, buf, sizeof buf) ? buf : "?";
}

// A view of the sample that never reads past its end.
struct Sample {
  uint8_t const* p;
  size_t n;
  bool has(size_t off, size_t len) const { return off <= n && len <= n - off; }
};

void decodePorts(Sample s, size_t off, SampleFlow& flow) {
  if (flow.ipProto != Calyx::kIpProtoTcp && flow.ipProto != Calyx::kIpProtoUdp) return;
  if (!s.has(off, 4)) return;
  flow.srcPort = Calyx::loadBe16(s.p + off);
  flow.dstPort = Calyx::loadBe16(s.p + off + 2);
}

std::optional<SampleFlow> decodeIpv4(Sample s, size_t off) {
  if (!s.has(off, 20)) return std::nullopt;
  uint8_t const* h = s.p + off;
  size_t const ihl = size_t(h[0] & 0x0f) * 4;
  if (h[0] >> 4 != 4 || ihl < 20) return std::nullopt;
  SampleFlow flow;
  flow.ipProto = h[9];
  flow.srcIp = addrText(AF_INET, h + 12);
  flow.dstIp = addrText(AF_INET, h + 16);
  bool const laterFragment =
      (Calyx::loadBe16(h + 6) & 0x1fff) != 0;  // only the first fragment carries the ports
  if (!laterFragment) decodePorts(s, off + ihl, flow);
  return flow;
}

std::optional<SampleFlow> decodeIpv6(Sample s, size_t off) {
  if (!s.has(off, 40)) return std::nullopt;
  uint8_t const* h = s.p + off;
  if (h[0] >> 4 != 6) return std::nullopt;
  SampleFlow flow;
  flow.srcIp = addrText(AF_INET6, h + 8);
  flow.dstIp = addrText(AF_INET6, h + 24);
  uint8_t next = h[6];
  off += 40;
  // Walk the extension headers that may stand before the transport header, as far as the sample goes.
  for (;;) {
    if (next == 0 || next == 43 || next == 60) {  // hop-by-hop, routing, destination options
      if (!s.has(off, 2)) break;
      uint8_t const following = s.p[off];
      off += (size_t(s.p[off + 1]) + 1) * 8;
      next = following;
      continue;
    }
    if (next == 44) {  // fragment: ports only in the first one
      if (!s.has(off, 8)) break;
      bool const laterFragment = (Calyx::loadBe16(s.p + off + 2) & 0xfff8) != 0;
      next = s.p[off];
      off += 8;
      if (laterFragment) {
        flow.ipProto = next;
        return flow;
      }
      continue;
    }
    break;
  }
  flow.ipProto = next;
  decodePorts(s, off, flow);
  return flow;
}

void decodeSample(Sample s, Report& r) {
  if (!s.has(0, 14)) return;
  SampleEthernet eth;
  std::copy(s.p, s.p + 6, eth.dstMac.begin());
  std::copy(s.p + 6, s.p + 12, eth.srcMac.begin());
  eth.etherType = Calyx::loadBe16(s.p + 12);
  uint16_t inner = eth.etherType;
  size_t off = 14;
  while (isVlanEtherType(inner) && s.has(off, 4)) {
    eth.vlans.push_back(Calyx::loadBe16(s.p + off) & 0x0fff);
    inner = Calyx::loadBe16(s.p + off + 2);
    off += 4;
  }
  r.ethernet = std::move(eth);
  if (inner == Calyx::kEtherTypeIp4) r.flow = decodeIpv4(s, off);
  if (inner == Calyx::kEtherTypeIp6) r.flow = decodeIpv6(s, off);
}

}  // namespace

char const* reportTypeName(uint8_t type) {
  return type == 0 ? "START" : type == 1 ? "STOP" : "?";
}

std::optional<Report> decodeReport(uint8_t const* data, size_t size, std::string& why) {
  if (size < kReportHeaderSize) {
    why = "short datagram: " + std::to_string(size) + " bytes, a report has at least 26";
    return std::nullopt;
  }
  if (data[0] > 1) {
    why = "bad report type: " + std::to_string(data[0]) + ", expected 0 (START) or 1 (STOP)";
    return std::nullopt;
  }
  size_t const n = data[25];
  if (n > kMaxDataSize) {
    why = "data size too large: " + std::to_string(n) + ", at most 80";
    return std::nullopt;
  }
  if (size != kReportHeaderSize + n) {
    why = "wrong length: " + std::to_string(size) + " bytes, data size " + std::to_string(n) + " needs " +
          std::to_string(kReportHeaderSize + n);
    return std::nullopt;
  }
  Report r;
  r.type = data[0];
  r.timestamp = Calyx::loadBe64(data + 1);
  for (size_t i = 0; i < 4; ++i) r.reason[i] = Calyx::loadBe32(data + 9 + 4 * i);
  r.dataSize = static_cast<uint8_t>(n);
  decodeSample(Sample{data + kReportHeaderSize, n}, r);
  return r;
}

}  // namespace ModCollector
