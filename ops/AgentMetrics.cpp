#include "ops/AgentMetrics.h"

#include "ops/PrometheusText.h"

namespace Ops {

namespace {

std::string label(std::string const& name, std::string const& value) {
  return PrometheusText::label(name, value);
}

std::string collectorLabels(Json const& c) {
  return label("exporter", c["exporter"]) + "," + label("collector", c["collector"]);
}

// The families only a running agent knows.
void agentFamilies(PrometheusText& w, Json const& status) {
  Json const& c = status["counters"];
  w.family("mod_agent_healthy", "gauge",
           "1 while every capture is up; 0 while one is retrying or has failed (modctl status says why).");
  w.sample("mod_agent_healthy", status.value("health", "ok") == "ok" ? 1 : 0);
  w.family("mod_feature_on", "gauge", "1 while the Mirror-on-Drop feature is on.");
  w.sample("mod_feature_on", status["feature"] == "on" ? 1 : 0);
  w.family("mod_frames_received_total", "counter", "Mirrored drop frames taken from packet access.");
  w.sample("mod_frames_received_total", c["received"].get<uint64_t>());
  w.family("mod_frames_processed_total", "counter", "Mirrored drop frames parsed into a flow and a report.");
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
  w.sample("mod_state_tables_set_aside_total", status.value("damaged_tables", Json::array()).size());

  Json const captures = status.value("captures", Json::array());
  w.family("mod_capture_state", "gauge",
           "Each interface's capture: 1 for the state it is in (up, retrying, failed, or off while the "
           "feature is off), 0 for the others.");
  for (auto const& k : captures) {
    for (char const* s : {"up", "retrying", "failed", "off"})
      w.sample("mod_capture_state", k["state"] == s ? 1 : 0,
               label("interface", k["interface"]) + "," + label("state", s));
  }
  w.family("mod_capture_frames_total", "counter", "Frames captured on an interface.");
  for (auto const& k : captures)
    w.sample("mod_capture_frames_total", k["frames"].get<uint64_t>(), label("interface", k["interface"]));
  w.family("mod_capture_kernel_drops_total", "counter",
           "Frames the kernel dropped on an interface because the capture's ring was full.");
  for (auto const& k : captures) {
    w.sample("mod_capture_kernel_drops_total", k["kernel_drops"].get<uint64_t>(),
             label("interface", k["interface"]));
  }
  w.family("mod_collector_send_errors_total", "counter", "Reports that could not be sent to a collector.");
  for (auto const& c : status.value("collectors", Json::array()))
    w.sample("mod_collector_send_errors_total", c["send_errors"].get<uint64_t>(), collectorLabels(c));
}

}  // namespace

std::string metricsText(AgentState state, std::optional<Json> const& status, TableCounts const& tables) {
  PrometheusText w;
  if (state != AgentState::unknown) {
    w.family("mod_agent_up", "gauge", "1 when mod-agent answered on its control socket.");
    w.sample("mod_agent_up", state == AgentState::answered ? 1 : 0);
  }
  if (status) agentFamilies(w, *status);
  w.family("mod_flows", "gauge", "Flows being reported (the report status table).");
  w.sample("mod_flows", tables.flows);
  w.family("mod_interface_flows", "gauge", "Flows being reported, by the interface of their first drop.");
  for (auto const& i : tables.interfaces)
    w.sample("mod_interface_flows", i["flows"].get<uint64_t>(), label("interface", i["interface"]));
  w.family("mod_collector_bytes_total", "counter", "Report bytes sent to a collector.");
  for (auto const& c : tables.collectors)
    w.sample("mod_collector_bytes_total", c["bytes"].get<uint64_t>(), collectorLabels(c));
  w.family("mod_collector_reports_total", "counter", "Reports sent to a collector, by type.");
  for (auto const& c : tables.collectors) {
    std::string const who = collectorLabels(c);
    w.sample("mod_collector_reports_total", c["start"].get<uint64_t>(), who + "," + label("type", "start"));
    w.sample("mod_collector_reports_total", c["stop"].get<uint64_t>(), who + "," + label("type", "stop"));
  }
  w.family("mod_exact_match_entries", "gauge", "Exact-match entries requested, by hardware state.");
  w.sample("mod_exact_match_entries", tables.exactMatchInstalled, label("state", "installed"));
  w.sample("mod_exact_match_entries", tables.exactMatch - tables.exactMatchInstalled,
           label("state", "not_installed"));
  return w.str();
}

}  // namespace Ops
