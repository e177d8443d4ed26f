#include "tools/mod-collector/ReportFormat.h"

#include <cstdio>

namespace ModCollector {
namespace {

std::string macText(std::array<uint8_t, 6> const& m) {
  char buf[18];
  std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
  return buf;
}

std::string hex4(uint16_t v) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "0x%04x", v);
  return buf;
}

std::string protoName(uint8_t p) {
  if (p == 6) return "TCP";
  if (p == 17) return "UDP";
  return "proto " + std::to_string(p);
}

// Addresses, MACs and the sender come from inet_ntop and our own formatting: they never hold characters that
// JSON would need escaped.
std::string quoted(std::string const& s) {
  return "\"" + s + "\"";
}

std::string hostPort(std::string const& ip, uint16_t port) {
  bool const v6 = ip.find(':') != std::string::npos;
  return (v6 ? "[" + ip + "]" : ip) + ":" + std::to_string(port);
}

}  // namespace

std::string reasonText(Report const& r) {
  char buf[40];
  std::snprintf(buf, sizeof buf, "0x%08x%08x%08x%08x", r.reason[0], r.reason[1], r.reason[2], r.reason[3]);
  return buf;
}

std::string flowText(SampleFlow const& f) {
  return protoName(f.ipProto) + " " + hostPort(f.srcIp, f.srcPort) + " -> " + hostPort(f.dstIp, f.dstPort);
}

std::string reportJson(Report const& r, std::string const& from) {
  std::string s = "{\"type\":" + quoted(reportTypeName(r.type)) +
                  ",\"timestamp\":" + std::to_string(r.timestamp) + ",\"reason\":" + quoted(reasonText(r)) +
                  ",\"data_size\":" + std::to_string(r.dataSize);
  if (r.ethernet) {
    SampleEthernet const& e = *r.ethernet;
    s += ",\"dst_mac\":" + quoted(macText(e.dstMac)) + ",\"src_mac\":" + quoted(macText(e.srcMac)) +
         ",\"ethertype\":" + std::to_string(e.etherType) + ",\"vlans\":[";
    for (size_t i = 0; i < e.vlans.size(); ++i) s += (i ? "," : "") + std::to_string(e.vlans[i]);
    s += "]";
  }
  if (r.flow) {
    SampleFlow const& f = *r.flow;
    s += ",\"flow\":{\"ip_proto\":" + std::to_string(f.ipProto) + ",\"src_ip\":" + quoted(f.srcIp) +
         ",\"dst_ip\":" + quoted(f.dstIp) + ",\"src_port\":" + std::to_string(f.srcPort) +
         ",\"dst_port\":" + std::to_string(f.dstPort) + "}";
  }
  s += ",\"from\":" + quoted(from) + "}";
  return s;
}

std::string reportLine(Report const& r, std::string const& from) {
  std::string s = std::string(reportTypeName(r.type)) + (r.type == 0 ? " " : "  ") +
                  "ts=" + std::to_string(r.timestamp) + " reason=" + reasonText(r) +
                  " size=" + std::to_string(r.dataSize) + " from=" + from;
  if (r.ethernet) {
    SampleEthernet const& e = *r.ethernet;
    s += " dmac=" + macText(e.dstMac) + " smac=" + macText(e.srcMac) + " ethertype=" + hex4(e.etherType);
    if (!e.vlans.empty()) {
      s += " vlans=";
      for (size_t i = 0; i < e.vlans.size(); ++i) s += (i ? "," : "") + std::to_string(e.vlans[i]);
    }
  }
  if (r.flow) s += " flow=" + flowText(*r.flow);
  return s;
}

}  // namespace ModCollector
