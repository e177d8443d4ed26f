#include "agent/ConfigDiff.h"

#include <functional>
#include <map>
#include <sstream>

namespace ModAgent {

namespace {

template <class T>
std::string text(T const& v) {
  std::ostringstream os;
  os << v;
  return os.str();
}
std::string text(bool v) {
  return v ? "true" : "false";
}
std::string text(std::string const& v) {
  return "\"" + v + "\"";
}
std::string text(std::vector<std::string> const& v) {
  std::string out = "[";
  for (auto const& s : v) out += (out.size() > 1 ? ", " : "") + text(s);
  return out + "]";
}
std::string where(CollectorSetting const& c) {
  std::string const host = text(c.address);
  return (c.address.af() == Calyx::IpGenAddr::Family::ipv6 ? "[" + host + "]" : host) + ":" +
         std::to_string(c.port);
}

class Differ {
 public:
  template <class T>
  void value(std::string const& key, T const& before, T const& after) {
    if (!(before == after)) out.push_back(key + " " + text(before) + " -> " + text(after));
  }
  // Items keyed by name: added, removed, or changed (by compare).
  template <class T, class Compare>
  void named(std::string const& what, std::vector<T> const& before, std::vector<T> const& after,
             Compare compare, std::function<std::string(T const&)> const& shown = {}) {
    std::map<std::string, T const*> b, a;
    for (auto const& x : before) b[x.name] = &x;
    for (auto const& x : after) a[x.name] = &x;
    for (auto const& [name, x] : a) {
      if (!b.count(name)) {
        out.push_back(what + name + " added" + (shown ? " (" + shown(*x) + ")" : ""));
      } else {
        compare(name, *b[name], *x);
      }
    }
    for (auto const& [name, x] : b) {
      if (!a.count(name)) out.push_back(what + name + " removed");
    }
  }
  std::vector<std::string> out;
};

}  // namespace

std::vector<std::string> configDiff(AgentConfig const& before, AgentConfig const& after) {
  Differ d;
  d.value("agent.state_dir", before.stateDir, after.stateDir);
  d.value("agent.control_socket", before.controlSocket, after.controlSocket);
  d.value("agent.max_flows", before.maxFlows, after.maxFlows);
  d.value("agent.stop_timeout", before.stopTimeout, after.stopTimeout);
  d.value("agent.group", before.group, after.group);
  d.value("hardware.mirror_on_drop", before.mirrorOnDrop, after.mirrorOnDrop);
  d.value("hardware.exact_match", before.exactMatch, after.exactMatch);
  d.value("hardware.exact_match_capacity_ipv4", before.exactMatchCapacityIpv4, after.exactMatchCapacityIpv4);
  d.value("hardware.exact_match_capacity_ipv6", before.exactMatchCapacityIpv6, after.exactMatchCapacityIpv6);
  d.value("hardware.exact_match_install_delay", before.exactMatchInstallDelay, after.exactMatchInstallDelay);
  d.value("capture.interfaces", before.interfaces, after.interfaces);
  d.value("capture.replay", before.replay, after.replay);
  d.value("capture.replay_interface", before.replayInterface, after.replayInterface);
  d.value("capture.buffer_size", before.captureBufferBytes, after.captureBufferBytes);
  d.value("metrics.listen", before.metricsListen, after.metricsListen);
  d.value("flow_tracking.enabled", before.flowTrackingEnabled, after.flowTrackingEnabled);
  d.named<TrackerSetting>(
      "tracker ", before.trackers, after.trackers,
      [&](std::string const& name, auto const& b, auto const& a) {
        d.value("tracker " + name + " active_interval (ms)", b.activeIntervalMs, a.activeIntervalMs);
        d.value("tracker " + name + " inactive_timeout (ms)", b.inactiveTimeoutMs, a.inactiveTimeoutMs);
        d.named<ExporterSetting>(
            "exporter ", b.exporters, a.exporters, [&](std::string const& e, auto const& eb, auto const& ea) {
              d.value("exporter " + e + " source_ipv4", text(eb.sourceIpv4), text(ea.sourceIpv4));
              d.value("exporter " + e + " source_ipv6", text(eb.sourceIpv6), text(ea.sourceIpv6));
              d.value("exporter " + e + " dscp", int(eb.dscp), int(ea.dscp));
              d.named<CollectorSetting>(
                  "collector " + e + "/", eb.collectors, ea.collectors,
                  [&](std::string const& c, auto const& cb, auto const& ca) {
                    d.value("collector " + e + "/" + c, where(cb), where(ca));
                  },
                  where);
            });
      });
  d.value("trace.levels", before.traceLevels, after.traceLevels);
  d.value("trace.output", before.traceOutput, after.traceOutput);
  return d.out;
}

}  // namespace ModAgent
