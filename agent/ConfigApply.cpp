#include "agent/ConfigApply.h"

#include <net/if.h>

#include <set>
#include <vector>

namespace ModAgent {

using Calyx::IntfId;
using Calyx::make;
using Calyx::Ptr;
using Calyx::String;
namespace FT = Calyx::FlowTracking;
namespace HwFt = Calyx::HwFlowTracking;

namespace {

// The interfaces the feature listens on, each with where its frames come from.
std::vector<std::pair<IntfId, Calyx::Interface::PamBackend>> capturedInterfaces(AgentConfig const& c) {
  std::vector<std::pair<IntfId, Calyx::Interface::PamBackend>> out;
  if (c.replaying()) {
    bool const paced = c.replayClock != ReplayClock::max;
    out.emplace_back(IntfId(c.replayInterface), Calyx::Interface::PamBackend::pcapReplay(c.replay, paced));
    return out;
  }
  for (auto const& name : c.interfaces)
    out.emplace_back(IntfId(name), Calyx::Interface::PamBackend::liveCapture(name));
  return out;
}

void interfacesApply(AgentConfig const& c, MirrorOnDrop::FeatureMounts const& m) {
  std::set<IntfId> wanted;
  for (auto const& [intf, backend] : capturedInterfaces(c)) {
    wanted.insert(intf);
    m.allIntfStatusDir->intfStatusIs(intf, {true, backend});
    std::string const device = backend.kind == Calyx::Interface::PamBackend::Kind::liveCapture
                                   ? std::string(intf.name())
                                   : std::string();
    m.kniStatus->kernelIntfIs(intf, {device, device.empty() ? 0u : if_nametoindex(device.c_str())});
    m.fcsd->intfIs(intf);
  }
  std::vector<IntfId> gone;
  for (auto i = m.fcsd->intfFirst(); i; i = m.fcsd->intfNext(*i)) {
    if (!wanted.count(*i)) gone.push_back(*i);
  }
  for (auto const& intf : gone) {
    m.fcsd->intfDel(intf);
    m.allIntfStatusDir->intfStatusDel(intf);
    m.kniStatus->kernelIntfDel(intf);
  }
}

void exporterApply(ExporterSetting const& s, HwFt::ExporterConfig& e) {
  e.srcIpAddrIs(s.sourceIpv4.af() == Calyx::IpGenAddr::Family::ipv4 ? s.sourceIpv4.v4() : Calyx::Ip4Addr());
  e.srcIp6AddrIs(s.sourceIpv6.af() == Calyx::IpGenAddr::Family::ipv6 ? s.sourceIpv6.v6() : Calyx::Ip6Addr());
  e.dscpIs(Calyx::DscpValue(s.dscp));
  std::set<String> v4, v6;
  for (auto const& c : s.collectors) {
    HwFt::IpAndPort const where(c.address, c.port);
    if (c.address.af() == Calyx::IpGenAddr::Family::ipv6) {
      v6.insert(c.name);
      e.collectorIp6AndPortIs(c.name, where);
    } else {
      v4.insert(c.name);
      e.collectorIpAndPortIs(c.name, where);
    }
  }
  std::vector<String> gone;
  for (auto c = e.collectorIpAndPortFirst(); c; c = e.collectorIpAndPortNext(*c)) {
    if (!v4.count(*c)) gone.push_back(*c);
  }
  for (auto const& c : gone) e.collectorIpAndPortDel(c);
  gone.clear();
  for (auto c = e.collectorIp6AndPortFirst(); c; c = e.collectorIp6AndPortNext(*c)) {
    if (!v6.count(*c)) gone.push_back(*c);
  }
  for (auto const& c : gone) e.collectorIp6AndPortDel(c);
}

void trackerApply(TrackerSetting const& s, FT::TrackerConfig& t) {
  t.activeIntervalIs(FT::ActiveInterval(s.activeIntervalMs));
  t.inactiveTimeoutIs(FT::InactiveTimeout(s.inactiveTimeoutMs));
  std::set<String> wanted;
  for (auto const& es : s.exporters) {
    wanted.insert(es.name);
    if (Ptr<HwFt::ExporterConfig> e = t.exporter(es.name)) {
      exporterApply(es, *e);
    } else {
      auto made = make<HwFt::ExporterConfig>(es.name);
      exporterApply(es, *made);
      t.exporterIs(es.name, made);
    }
  }
  std::vector<String> gone;
  for (auto e = t.exporterFirst(); e; e = t.exporterNext(*e)) {
    if (!wanted.count(*e)) gone.push_back(*e);
  }
  for (auto const& e : gone) t.exporterDel(e);
}

void trackersApply(AgentConfig const& c, FT::Config& config) {
  std::set<String> wanted;
  for (auto const& ts : c.trackers) {
    wanted.insert(ts.name);
    if (Ptr<FT::TrackerConfig> t = config.tracker(ts.name)) {
      trackerApply(ts, *t);
    } else {
      auto made = make<FT::TrackerConfig>(ts.name);
      trackerApply(ts, *made);
      config.trackerIs(ts.name, made);
    }
  }
  std::vector<String> gone;
  for (auto t = config.trackerFirst(); t; t = config.trackerNext(*t)) {
    if (!wanted.count(*t)) gone.push_back(*t);
  }
  for (auto const& t : gone) config.trackerDel(t);
}

}  // namespace

void configApply(AgentConfig const& c, MirrorOnDrop::FeatureMounts const& m) {
  m.fcsd->maxFlowsIs(c.maxFlows);
  interfacesApply(c, m);
  if (!c.flowTrackingEnabled) m.config->enabledIs(false);
  trackersApply(c, *m.config);
  if (c.flowTrackingEnabled) m.config->enabledIs(true);
  m.capabilities->mirrorOnDropSupportedIs(c.mirrorOnDrop);
  // The chip's exact-match support; this host has no operator switch of its own for it.
  m.miscConfig->exactMatchEnabledIs(true);
  m.flexibleUftCapabilityStatus->exactMatchSupportedIs(c.exactMatch);
}

}  // namespace ModAgent
