#include "platform/entity/HwFlowTrackingExporterConfig.h"

namespace Calyx::HwFlowTracking {

void ExporterConfig::srcIpAddrIs(Ip4Addr a) {
  if (a == srcIpAddr_) return;
  srcIpAddr_ = a;
  notify(&Reactor::handleSrcIpAddr);
}

void ExporterConfig::srcIp6AddrIs(Ip6Addr const& a) {
  if (a == srcIp6Addr_) return;
  srcIp6Addr_ = a;
  notify(&Reactor::handleSrcIp6Addr);
}

void ExporterConfig::dscpIs(DscpValue d) {
  if (d == dscp_) return;
  dscp_ = d;
  notify(&Reactor::handleDscp);
}

std::optional<IpAndPort> ExporterConfig::collectorIpAndPort(String const& name) const {
  IpAndPort const* c = collectorIpAndPort_.find(name);
  return c ? std::optional<IpAndPort>(*c) : std::nullopt;
}

void ExporterConfig::collectorIpAndPortIs(String const& name, IpAndPort const& collector) {
  if (!collectorIpAndPort_.is(name, collector)) return;
  notify(&Reactor::handleCollectorIpAndPort, name);
}

void ExporterConfig::collectorIpAndPortDel(String const& name) {
  if (!collectorIpAndPort_.del(name)) return;
  notify(&Reactor::handleCollectorIpAndPort, name);
}

void ExporterConfig::collectorIpAndPortDelAll() {
  collectorIpAndPort_.delAll(
      [this](String const& name) { notify(&Reactor::handleCollectorIpAndPort, name); });
}

std::optional<IpAndPort> ExporterConfig::collectorIp6AndPort(String const& name) const {
  IpAndPort const* c = collectorIp6AndPort_.find(name);
  return c ? std::optional<IpAndPort>(*c) : std::nullopt;
}

void ExporterConfig::collectorIp6AndPortIs(String const& name, IpAndPort const& collector) {
  if (!collectorIp6AndPort_.is(name, collector)) return;
  notify(&Reactor::handleCollectorIp6AndPort, name);
}

void ExporterConfig::collectorIp6AndPortDel(String const& name) {
  if (!collectorIp6AndPort_.del(name)) return;
  notify(&Reactor::handleCollectorIp6AndPort, name);
}

void ExporterConfig::collectorIp6AndPortDelAll() {
  collectorIp6AndPort_.delAll(
      [this](String const& name) { notify(&Reactor::handleCollectorIp6AndPort, name); });
}

}  // namespace Calyx::HwFlowTracking
