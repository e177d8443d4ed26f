#pragma once
// HwFlowTracking::ExporterConfig: one exporter of a hardware flow tracker: the source addresses and DSCP its
// packets leave with, and the collectors they go to, keyed by collector name, in two collections by address
// family (collectorIpAndPort for IPv4 collectors, collectorIp6AndPort for IPv6 ones). The same collector name
// may appear in both.
//
// Reactors hear handleSrcIpAddr(), handleSrcIp6Addr() and handleDscp() when those change, and
// handleCollectorIpAndPort(name) / handleCollectorIp6AndPort(name) for every collector that appeared, changed
// or went away. An all-zero source address means "let the host choose".

#include "platform/core/Attribute.h"
#include "platform/entity/HwFlowTrackingIpAndPort.h"
#include "platform/types/DscpValue.h"
#include "platform/types/IpGenAddr.h"
#include "platform/types/String.h"

namespace Calyx::HwFlowTracking {

class ExporterConfig : public Object, public Notifier<ExporterConfig> {
 public:
  class Reactor : public ReactorBase<ExporterConfig> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleSrcIpAddr() {}
    virtual void handleSrcIp6Addr() {}
    virtual void handleDscp() {}
    virtual void handleCollectorIpAndPort(String const& /*name*/) {}
    virtual void handleCollectorIp6AndPort(String const& /*name*/) {}
  };

  explicit ExporterConfig(String name) : name_(std::move(name)) {}
  String const& name() const { return name_; }

  Ip4Addr srcIpAddr() const { return srcIpAddr_; }
  void srcIpAddrIs(Ip4Addr a) { attributeIs(srcIpAddr_, a, &Reactor::handleSrcIpAddr); }
  Ip6Addr const& srcIp6Addr() const { return srcIp6Addr_; }
  void srcIp6AddrIs(Ip6Addr const& a) { attributeIs(srcIp6Addr_, a, &Reactor::handleSrcIp6Addr); }
  DscpValue dscp() const { return dscp_; }
  void dscpIs(DscpValue d) { attributeIs(dscp_, d, &Reactor::handleDscp); }

  // IPv4 collectors, ordered by name.
  std::optional<IpAndPort> collectorIpAndPort(String const& name) const {
    return collectorIpAndPort_.get(name);
  }
  void collectorIpAndPortIs(String const& name, IpAndPort const& c) {
    collectorIpAndPort_.is(*this, name, c);
  }
  CALYX_COLLECTION_ACCESSORS(collectorIpAndPort, String);

  // IPv6 collectors, the same way.
  std::optional<IpAndPort> collectorIp6AndPort(String const& name) const {
    return collectorIp6AndPort_.get(name);
  }
  void collectorIp6AndPortIs(String const& name, IpAndPort const& c) {
    collectorIp6AndPort_.is(*this, name, c);
  }
  CALYX_COLLECTION_ACCESSORS(collectorIp6AndPort, String);

 protected:
  ~ExporterConfig() override = default;

 private:
  String name_;
  Ip4Addr srcIpAddr_;
  Ip6Addr srcIp6Addr_;
  DscpValue dscp_;
  Collection<ExporterConfig, String, IpAndPort> collectorIpAndPort_{&Reactor::handleCollectorIpAndPort};
  Collection<ExporterConfig, String, IpAndPort> collectorIp6AndPort_{&Reactor::handleCollectorIp6AndPort};
};

}  // namespace Calyx::HwFlowTracking
