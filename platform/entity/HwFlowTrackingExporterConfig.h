#pragma once
// HwFlowTracking::ExporterConfig: one exporter of a hardware flow tracker: the source addresses and DSCP its
// packets leave with, and the collectors they go to, keyed by collector name, in two collections by address
// family (collectorIpAndPort for IPv4 collectors, collectorIp6AndPort for IPv6 ones). The same collector name
// may appear in both.
//
// Reactors hear handleSrcIpAddr(), handleSrcIp6Addr() and handleDscp() when those change, and
// handleCollectorIpAndPort(name) / handleCollectorIp6AndPort(name) for every collector that appeared, changed
// or went away. An all-zero source address means "let the host choose".

#include <cstddef>
#include <optional>

#include "platform/core/Entity.h"
#include "platform/core/KeyedCollection.h"
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
  void srcIpAddrIs(Ip4Addr a);
  Ip6Addr const& srcIp6Addr() const { return srcIp6Addr_; }
  void srcIp6AddrIs(Ip6Addr const& a);
  DscpValue dscp() const { return dscp_; }
  void dscpIs(DscpValue d);

  // IPv4 collectors. Ordered walk by name; next() stays valid across changes made during the walk.
  std::optional<IpAndPort> collectorIpAndPort(String const& name) const;
  size_t collectorIpAndPortCount() const { return collectorIpAndPort_.count(); }
  std::optional<String> collectorIpAndPortFirst() const { return collectorIpAndPort_.first(); }
  std::optional<String> collectorIpAndPortNext(String const& after) const {
    return collectorIpAndPort_.next(after);
  }
  void collectorIpAndPortIs(String const& name, IpAndPort const& collector);
  void collectorIpAndPortDel(String const& name);
  void collectorIpAndPortDelAll();

  // IPv6 collectors, the same way.
  std::optional<IpAndPort> collectorIp6AndPort(String const& name) const;
  size_t collectorIp6AndPortCount() const { return collectorIp6AndPort_.count(); }
  std::optional<String> collectorIp6AndPortFirst() const { return collectorIp6AndPort_.first(); }
  std::optional<String> collectorIp6AndPortNext(String const& after) const {
    return collectorIp6AndPort_.next(after);
  }
  void collectorIp6AndPortIs(String const& name, IpAndPort const& collector);
  void collectorIp6AndPortDel(String const& name);
  void collectorIp6AndPortDelAll();

 protected:
  ~ExporterConfig() override = default;

 private:
  String name_;
  Ip4Addr srcIpAddr_;
  Ip6Addr srcIp6Addr_;
  DscpValue dscp_;
  KeyedCollection<String, IpAndPort> collectorIpAndPort_;
  KeyedCollection<String, IpAndPort> collectorIp6AndPort_;
};

}  // namespace Calyx::HwFlowTracking
