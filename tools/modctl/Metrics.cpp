#include "tools/modctl/Metrics.h"

#include <sstream>

namespace Modctl {

namespace {

class Writer {
 public:
  void family(std::string const& name, char const* type, std::string const& help) {
    os_ << "# HELP " << name << " " << help << "\n# TYPE " << name << " " << type << "\n";
  }
  template <class V>
  void sample(std::string const& name, V value, std::string const& labels = {}) {
    os_ << name << (labels.empty() ? "" : "{" + labels + "}") << " " << value << "\n";
  }
  std::string str() const { return os_.str(); }

 private:
  std::ostringstream os_;
};

// A label value, escaped as the format wants it.
std::string label(std::string const& name, std::string const& value) {
  std::string v;
  for (char c : value) {
    if (c == '\n') {
      v += "\\n";
      continue;
    }
    if (c == '\\' || c == '"') v += '\\';
    v += c;
  }
  return name + "=\"" + v + "\"";
}

}  // namespace

std::string metricsText(AgentState state, std::optional<Json> const& status, Json const& flows,
                        Json const& interfaces, Json const& collectors, Json const& exactMatch) {
  Writer w;
  if (state != AgentState::unknown) {
    w.family("mod_agent_up", "gauge", "1 when mod-agent answered on its control socket.");
    w.sample("mod_agent_up", state == AgentState::answered ? 1 : 0);
  }
  if (status) {
    Json const& c = (*status)["counters"];
    w.family("mod_feature_on", "gauge", "1 while the Mirror-on-Drop feature is on.");
    w.sample("mod_feature_on", (*status)["feature"] == "on" ? 1 : 0);
    w.family("mod_frames_received_total", "counter", "Mirrored drop frames taken from packet access.");
    w.sample("mod_frames_received_total", c["received"].get<uint64_t>());
    w.family("mod_frames_processed_total", "counter",
             "Mirrored drop frames parsed into a flow and a report.");
    w.sample("mod_frames_processed_total", c["processed"].get<uint64_t>());
    w.family("mod_frames_rejected_total", "counter", "Mirrored drop frames rejected by the parser.");
    w.sample("mod_frames_rejected_total", c["rejected"].get<uint64_t>());
    w.family("mod_flows_refused_total", "counter",
             "Drops of new flows refused: the agent's max_flows was reached or shared memory was full.");
    w.sample("mod_flows_refused_total", c.value("refused_flows", uint64_t(0)));
    w.family("mod_reports_sent_total", "counter", "Reports sent, each to every collector, by type.");
    w.sample("mod_reports_sent_total", c["start_reports"].get<uint64_t>(), label("type", "start"));
    w.sample("mod_reports_sent_total", c["stop_reports"].get<uint64_t>(), label("type", "stop"));
    w.family("mod_state_tables_set_aside_total", "counter",
             "Shared tables found damaged when the agent started, moved to a damaged-* directory.");
    w.sample("mod_state_tables_set_aside_total", status->value("damaged_tables", Json::array()).size());
  }
  w.family("mod_flows", "gauge", "Flows being reported (the report status table).");
  w.sample("mod_flows", flows["count"].get<size_t>());
  w.family("mod_interface_flows", "gauge", "Flows being reported, by the interface of their first drop.");
  for (auto const& i : interfaces["interfaces"])
    w.sample("mod_interface_flows", i["flows"].get<uint64_t>(), label("interface", i["interface"]));
  w.family("mod_collector_bytes_total", "counter", "Report bytes sent to a collector.");
  for (auto const& c : collectors["collectors"]) {
    w.sample("mod_collector_bytes_total", c["bytes"].get<uint64_t>(),
             label("exporter", c["exporter"]) + "," + label("collector", c["collector"]));
  }
  w.family("mod_collector_reports_total", "counter", "Reports sent to a collector, by type.");
  for (auto const& c : collectors["collectors"]) {
    std::string const who = label("exporter", c["exporter"]) + "," + label("collector", c["collector"]);
    w.sample("mod_collector_reports_total", c["start"].get<uint64_t>(), who + "," + label("type", "start"));
    w.sample("mod_collector_reports_total", c["stop"].get<uint64_t>(), who + "," + label("type", "stop"));
  }
  size_t installed = 0;
  for (auto const& e : exactMatch["entries"]) installed += e["installed"].get<bool>();
  w.family("mod_exact_match_entries", "gauge", "Exact-match entries requested, by hardware state.");
  w.sample("mod_exact_match_entries", installed, label("state", "installed"));
  w.sample("mod_exact_match_entries", exactMatch["count"].get<size_t>() - installed,
           label("state", "not_installed"));
  return w.str();
}

}  // namespace Modctl
