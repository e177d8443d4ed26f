#include "tools/mod-collector/ReportFormat.h"

#include <cstdio>
#include <nlohmann/json.hpp>

namespace ModCollector {
namespace {

std::string hex4(uint16_t v) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "0x%04x", v);
  return buf;
}

std::string hostPort(std::string const& ip, uint16_t port) {
  bool const v6 = ip.find(':') != std::string::npos;
  return (v6 ? "[" + ip + "]" : ip) + ":" + std::to_string(port);
}

}  // namespace

std::string macText(std::array<uint8_t, 6> const& m) {
  char buf[18];
  std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
  return buf;
}

std::string protoName(uint8_t p) {
  if (p == 6) return "TCP";
  if (p == 17) return "UDP";
  return "proto " + std::to_string(p);
}

std::string vlansText(std::vector<uint16_t> const& vlans) {
  std::string s;
  for (size_t i = 0; i < vlans.size(); ++i) s += (i ? "," : "") + std::to_string(vlans[i]);
  return s;
}

std::string reasonText(std::array<uint32_t, 4> const& w) {
  char buf[40];
  std::snprintf(buf, sizeof buf, "0x%08x%08x%08x%08x", w[0], w[1], w[2], w[3]);
  return buf;
}

std::string reasonText(Report const& r) {
  return reasonText(r.reason);
}

std::string flowText(SampleFlow const& f) {
  return protoName(f.ipProto) + " " + hostPort(f.srcIp, f.srcPort) + " -> " + hostPort(f.dstIp, f.dstPort);
}

std::string reportJson(Report const& r, std::string const& from) {
  nlohmann::ordered_json j;
  j["type"] = reportTypeName(r.type);
  j["timestamp"] = r.timestamp;
  j["reason"] = reasonText(r);
  j["data_size"] = r.dataSize;
  if (r.ethernet) {
    SampleEthernet const& e = *r.ethernet;
    j["dst_mac"] = macText(e.dstMac);
    j["src_mac"] = macText(e.srcMac);
    j["ethertype"] = e.etherType;
    j["vlans"] = e.vlans;
  }
  if (r.flow) {
    SampleFlow const& f = *r.flow;
    j["flow"] = {{"ip_proto", f.ipProto},
                 {"src_ip", f.srcIp},
                 {"dst_ip", f.dstIp},
                 {"src_port", f.srcPort},
                 {"dst_port", f.dstPort}};
  }
  j["from"] = from;
  return j.dump();
}

std::string reportLine(Report const& r, std::string const& from) {
  std::string s = std::string(reportTypeName(r.type)) + (r.type == 0 ? " " : "  ") +
                  "ts=" + std::to_string(r.timestamp) + " reason=" + reasonText(r) +
                  " size=" + std::to_string(r.dataSize) + " from=" + from;
  if (r.ethernet) {
    SampleEthernet const& e = *r.ethernet;
    s += " dmac=" + macText(e.dstMac) + " smac=" + macText(e.srcMac) + " ethertype=" + hex4(e.etherType);
    if (!e.vlans.empty()) s += " vlans=" + vlansText(e.vlans);
  }
  if (r.flow) s += " flow=" + flowText(*r.flow);
  return s;
}

}  // namespace ModCollector
