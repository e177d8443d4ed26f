#include "agent/ConfigApply.h"

#include <net/if.h>

#include <set>
#include <vector>

#include "platform/entity/FlowTrackingConfigSmBase.h"

namespace ModAgent {

using Calyx::IntfId;
using Calyx::make;
using Calyx::Ptr;
using Calyx::String;
namespace FT = Calyx::FlowTracking;
namespace HwFt = Calyx::HwFlowTracking;

namespace {

// Brings a keyed collection in line with the wanted keys: every member whose key is not wanted goes (the walk
// first, then the deletes: a collection is not changed under its own walk).
template <class K>
void keepOnly(std::set<K> const& wanted, auto first, auto next, auto del) {
  std::vector<K> gone;
  for (auto k = first(); k; k = next(*k)) {
    if (!wanted.count(*k)) gone.push_back(*k);
  }
  for (auto const& k : gone) del(k);
}

// The member a setting names, brought in line with it: the one found, or one made, filled in and then added
// (so that its reactors first hear it whole).
template <class T, class Setting>
void applyOrMake(Setting const& setting, Ptr<T> found, auto apply, auto add) {
  if (found) return apply(setting, *found);
  auto made = make<T>(setting.name);
  apply(setting, *made);
  add(setting.name, made);
}

// The interfaces the feature listens on, each with where its frames come from.
std::vector<std::pair<IntfId, Calyx::Interface::PamBackend>> capturedInterfaces(AgentConfig const& c) {
  std::vector<std::pair<IntfId, Calyx::Interface::PamBackend>> out;
  if (c.replaying()) {
    bool const paced = c.replayClock != ReplayClock::max;
    out.emplace_back(IntfId(c.replayInterface), Calyx::Interface::PamBackend::pcapReplay(c.replay, paced));
    return out;
  }
  for (auto const& name : c.interfaces)
    out.emplace_back(IntfId(name), Calyx::Interface::PamBackend::liveCapture(name, c.captureBufferBytes));
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
  keepOnly(
      wanted, [&] { return m.fcsd->intfFirst(); }, [&](IntfId const& i) { return m.fcsd->intfNext(i); },
      [&](IntfId const& intf) {
        m.fcsd->intfDel(intf);
        m.allIntfStatusDir->intfStatusDel(intf);
        m.kniStatus->kernelIntfDel(intf);
      });
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
  keepOnly(
      v4, [&] { return e.collectorIpAndPortFirst(); },
      [&](String const& c) { return e.collectorIpAndPortNext(c); },
      [&](String const& c) { e.collectorIpAndPortDel(c); });
  keepOnly(
      v6, [&] { return e.collectorIp6AndPortFirst(); },
      [&](String const& c) { return e.collectorIp6AndPortNext(c); },
      [&](String const& c) { e.collectorIp6AndPortDel(c); });
}

void trackerApply(TrackerSetting const& s, FT::TrackerConfig& t) {
  t.activeIntervalIs(FT::ActiveInterval(s.activeIntervalMs));
  t.inactiveTimeoutIs(FT::InactiveTimeout(s.inactiveTimeoutMs));
  std::set<String> wanted;
  for (auto const& es : s.exporters) {
    wanted.insert(es.name);
    applyOrMake(es, t.exporter(es.name), exporterApply,
                [&](String const& name, Ptr<HwFt::ExporterConfig> const& e) { t.exporterIs(name, e); });
  }
  keepOnly(
      wanted, [&] { return t.exporterFirst(); }, [&](String const& e) { return t.exporterNext(e); },
      [&](String const& e) { t.exporterDel(e); });
}

void trackersApply(AgentConfig const& c, FT::Config& config) {
  std::set<String> wanted;
  for (auto const& ts : c.trackers) {
    wanted.insert(ts.name);
    applyOrMake(ts, config.tracker(ts.name), trackerApply,
                [&](String const& name, Ptr<FT::TrackerConfig> const& t) { config.trackerIs(name, t); });
  }
  keepOnly(
      wanted, [&] { return config.trackerFirst(); }, [&](String const& t) { return config.trackerNext(t); },
      [&](String const& t) { config.trackerDel(t); });
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

void hwConfigPresetForRename(MirrorOnDrop::FeatureMounts const& m) {
  using Base = Calyx::FlowTracking::ConfigSmBase;
  auto const wanted = Base::trackerWanted(*m.config);
  bool renamed = false;
  for (auto n = m.hwStatus->hwFtStatusFirst(); n; n = m.hwStatus->hwFtStatusNext(*n))
    renamed = renamed || !wanted || *n != wanted->name();
  if (renamed) Base::hwConfigTranslate(*m.config, *m.hwConfig);
}

}  // namespace ModAgent
