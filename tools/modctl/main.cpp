// modctl: the operator's view of a Mirror-on-Drop agent. The show commands and the trace dump read the state
// directory's shared memory, so they work while the agent is down or hung; status, clear, trace set/show and
// the agent's counters in metrics ask the running agent over its control socket. See --help.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>
#include <map>
#include <set>

#include "mirror_on_drop/MirrorOnDropNames.h"
#include "ops/AgentMetrics.h"
#include "ops/TableViews.h"
#include "platform/shm/RingTrace.h"
#include "tools/modctl/ControlClient.h"
#include "tools/modctl/FlowQuery.h"

namespace {

using Modctl::ControlFailure;
using Modctl::Json;

// Exit statuses, as systemctl and LSB scripts give them for status: 3 "not running", 4 "status unknown"
// (here: this user may not ask).
constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr int kNotRunning = 3;
constexpr int kDenied = 4;

struct Options {
  std::string stateDir = "/dev/shm/mirror-on-drop";
  std::string socket;  // empty: <stateDir>/mod-agent.sock
  bool json = false;
  std::string exporter, handle, levels;
  std::string socketPath() const { return socket.empty() ? stateDir + "/mod-agent.sock" : socket; }
};

int fail(std::string const& error, int status = kFailed) {
  std::cerr << "modctl: " << error << std::endl;
  return status;
}

int usage(std::string const& command, std::string const& error) {
  std::cerr << command << ": " << error << "\n(see " << command << " --help)" << std::endl;
  return kUsage;
}

int print(std::optional<Json> const& doc, std::string const& error, bool json) {
  if (!doc) return fail(error);
  std::cout << (json ? doc->dump(2) + "\n" : Ops::tableText(*doc));
  return 0;
}

int failureStatus(ControlFailure f) {
  if (f == ControlFailure::notRunning) return kNotRunning;
  return f == ControlFailure::denied ? kDenied : kFailed;
}

// A request to the agent; its reply printed as JSON, or readably, or its "error" as a failure.
int ask(Options const& o, Json const& request, std::function<void(Json const&)> const& readable) {
  auto const r = Modctl::controlRequest(o.socketPath(), request);
  if (!r.reply) return fail(r.error, failureStatus(r.failure));
  if (!r.reply->value("ok", false)) return fail(r.reply->value("error", std::string("the agent refused")));
  if (o.json) {
    std::cout << r.reply->dump(2) << std::endl;
  } else {
    readable(*r.reply);
  }
  return 0;
}

void statusText(Json const& r) {
  // Said first and plainly: an agent that runs is not always an agent that works.
  if (r.value("health", "ok") == "ok") {
    std::cout << "health: ok\n";
  } else {
    for (auto const& p : r["problems"]) std::cout << "health: DEGRADED: " << p.get<std::string>() << "\n";
  }
  if (r.value("stopping", false)) std::cout << "stopping: closing the live flows\n";
  std::cout << "feature: " << r["feature"].get<std::string>() << "\n";
  if (r["tracker"].is_null()) {
    std::cout << "tracker: none\n";
  } else {
    std::cout << "tracker: " << r["tracker"]["name"].get<std::string>() << " (active interval "
              << r["tracker"]["active_interval"].get<double>() << " s, inactive timeout "
              << r["tracker"]["inactive_timeout"].get<double>() << " s)\n";
  }
  auto const& c = r["counters"];
  std::cout << "frames: received " << c["received"] << ", processed " << c["processed"] << ", rejected "
            << c["rejected"] << "\nflows refused: " << c.value("refused_flows", 0) << "\nreports sent: START "
            << c["start_reports"] << ", STOP " << c["stop_reports"] << "\n";
  for (auto const& k : r.value("captures", Json::array())) {
    std::cout << "capture: " << k["interface"].get<std::string>() << " " << k["state"].get<std::string>();
    if (!k["reason"].get<std::string>().empty()) std::cout << " (" << k["reason"].get<std::string>() << ")";
    std::cout << ", frames " << k["frames"] << ", kernel drops " << k["kernel_drops"] << "\n";
  }
  std::cout << "uptime: " << int64_t(r["uptime"].get<double>()) << " s (pid " << r["pid"] << ")\n";
  for (auto const& d : r.value("damaged_tables", Json::array())) {
    std::cout << "damaged at start: " << d.value("table", "") << " (" << d.value("problem", "") << "); "
              << (d["copy"].is_string() ? "copy in " + d["copy"].get<std::string>()
                                        : std::string("no copy kept"))
              << "; " << d.value("lost", "") << "\n";
  }
}

// The collectors' table, with each collector's send errors when the agent can tell them: they are the
// agent's statistics, not the table's (null while it cannot be asked).
std::optional<Json> collectorsWithErrors(Options const& o, std::string& error) {
  auto doc = Ops::collectorsRead(o.stateDir, error);
  if (!doc) return doc;
  auto const r = Modctl::controlRequest(o.socketPath(), {{"command", "status"}}, 1000);
  Json const known = r.reply ? r.reply->value("collectors", Json::array()) : Json::array();
  for (auto& row : (*doc)["collectors"]) {
    row["send_errors"] = nullptr;
    for (auto const& k : known) {
      if (k["exporter"] == row["exporter"] && k["collector"] == row["collector"])
        row["send_errors"] = k["send_errors"];
    }
  }
  return doc;
}

std::string names(CLI::App const& group) {
  std::string out;
  for (auto const* sub : group.get_subcommands([](CLI::App const*) { return true; }))
    out += (out.empty() ? "" : ", ") + sub->get_name();
  return out;
}

// Every option and subcommand is parsed by CLI11 with extras allowed, so that what it does not know comes
// back here and is named in the error, in the command's own words, with exit status 2.
std::optional<int> leftoversRefused(CLI::App& app) {
  CLI::App const* leaf = &app;
  std::string command = "modctl";
  for (auto subs = app.get_subcommands(); !subs.empty(); subs = leaf->get_subcommands()) {
    leaf = subs.front();
    command += " " + leaf->get_name();
  }
  std::vector<std::string> const left = app.remaining(true);
  bool const isGroup = !leaf->get_subcommands([](CLI::App const*) { return true; }).empty();
  if (!left.empty() && left.front().rfind('-', 0) == 0)
    return usage(command, "unknown option '" + left.front() + "'");
  if (isGroup && left.empty()) return usage(command, "a command is needed: " + names(*leaf));
  if (isGroup)
    return usage(command, "unknown command '" + left.front() + "' (commands: " + names(*leaf) + ")");
  if (left.empty()) return std::nullopt;
  return usage(command, "unexpected argument '" + left.front() + "'");
}

// The exporter must have collectors in the counter table, or there is nothing to clear: a typo.
std::optional<int> exporterRefused(Options const& o) {
  std::string error;
  auto const table = Ops::collectorsRead(o.stateDir, error);
  if (o.exporter.empty() || !table) return std::nullopt;  // unreadable here: the agent decides
  std::set<std::string> known;
  for (auto const& c : (*table)["collectors"]) known.insert(c["exporter"].get<std::string>());
  if (known.count(o.exporter)) return std::nullopt;
  std::string list;
  for (auto const& e : known) list += (list.empty() ? "" : ", ") + e;
  return usage("modctl clear counters", "no exporter '" + o.exporter + "' has collectors (exporters: " +
                                            (list.empty() ? "none" : list) + ")");
}

int traceDump(Options const& o, std::optional<Modctl::FlowQuery::Time> time) {
  std::string error;
  auto records = Calyx::RingTraceReader::read(o.stateDir + "/ring-trace", &error);
  if (!records) return fail(error);
  bool const iso = time.value_or(Modctl::FlowQuery::Time::iso) == Modctl::FlowQuery::Time::iso;
  Json out = Json::array();
  for (auto const& r : *records) {
    if (o.json) {
      Json j{{"seq", r.seq}, {"time_ns", r.timeNs}, {"text", r.text}};
      if (time == Modctl::FlowQuery::Time::iso) j["time"] = Modctl::isoTime(r.timeNs);
      out.push_back(std::move(j));
      continue;
    }
    char ns[32];
    std::snprintf(ns, sizeof ns, "%llu.%09llu", (unsigned long long)(r.timeNs / 1000000000),
                  (unsigned long long)(r.timeNs % 1000000000));
    std::cout << r.seq << " " << (iso ? Modctl::isoTime(r.timeNs) : ns) << " " << r.text << "\n";
  }
  if (o.json) std::cout << Json{{"records", out}, {"count", out.size()}}.dump(2) << std::endl;
  return 0;
}

int metrics(Options const& o) {
  auto const r = Modctl::controlRequest(o.socketPath(), {{"command", "status"}});
  auto state =
      r.reply && r.reply->value("ok", false) ? Ops::AgentState::answered : Ops::AgentState::notRunning;
  if (r.failure == ControlFailure::denied) {
    // Whether the agent runs is unknown to this user: no mod_agent_up rather than a false alarm.
    state = Ops::AgentState::unknown;
    std::cerr << "modctl: metrics: the agent's counters and mod_agent_up are left out: " << r.error
              << std::endl;
  }
  std::string error;
  auto const tables = Ops::tableCountsRead(o.stateDir, error);
  if (!tables) return fail(error);
  std::cout << Ops::metricsText(state, r.reply, *tables);
  return 0;
}

std::string const kFooter = R"(Options may come anywhere: modctl status --json, modctl --json status.

Examples:
  modctl status
  modctl show flows --filter ip_proto=udp,src_ip=10.0.0.0/8 --sort timestamp --reverse --limit 10
  modctl --state-dir /dev/shm/mod-demo show collectors --json
  modctl clear counters e1
  modctl trace set MOD-Dispatcher 0-4
  modctl metrics > /var/lib/node_exporter/textfile/mod.prom

Exit status: 0 done; 1 failed (a table or the agent could not be read); 2 bad command line; for what asks the
agent: 3 mod-agent is not running, 4 permission denied on its control socket (whether it runs is unknown).)";

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "modctl: shows what a Mirror-on-Drop agent holds and asks it to clear counters or change tracing.",
      "modctl"};
  // Subcommands made from here on inherit both: modctl's own options are taken after a subcommand too, and
  // what CLI11 does not know comes back to leftoversRefused.
  app.fallthrough();
  app.allow_extras();
  Options o;
  app.add_option("--state-dir", o.stateDir, "the agent's state directory (default /dev/shm/mirror-on-drop)")
      ->type_name("DIR");
  app.add_option("--socket", o.socket, "the agent's control socket (default <state-dir>/mod-agent.sock)")
      ->type_name("PATH");
  app.add_flag("--json", o.json, "print one JSON object instead of text (every command but metrics)");

  Modctl::FlowQuery query;
  std::vector<std::string> filters;
  std::string sortKey;
  bool reverse = false;
  size_t limit = 0;
  std::string timeText;
  auto const timeOption = [&](CLI::App* command) {
    command
        ->add_option("--time", timeText,
                     "timestamps as iso (UTC dates, the default) or ns (nanoseconds since the epoch, as the "
                     "chip gives them)")
        ->check(CLI::IsMember({"iso", "ns"}));
  };

  auto* show = app.add_subcommand("show", "show a shared table (read from shared memory)");
  auto* flows =
      show->add_subcommand("flows", "flows being reported: flow, interfaces, type, timestamp, data size");
  flows
      ->add_option(
          "--filter", filters,
          "KEY=VALUE[,KEY=VALUE...]: only flows where every term holds; keys ip_proto (tcp, udp or a "
          "number), src_ip, dst_ip, ip (either; an address or a prefix such as 10.0.0.0/8), "
          "src_port, dst_port, port (either), type (START or STOP), interface")
      ->type_name("KEY=VALUE,...");
  flows
      ->add_option("--sort", sortKey,
                   "order by a column: ip_proto, src_ip, dst_ip, src_port, dst_port, type, "
                   "timestamp, data_size or interfaces (default: the flow key)")
      ->type_name("KEY");
  flows->add_flag("-r,--reverse", reverse, "reverse the order");
  flows->add_option("--limit", limit, "at most N flows (after --filter and --sort)")->type_name("N");
  timeOption(flows);
  auto* interfaces = show->add_subcommand("interfaces", "flows per interface of their first drop");
  auto* collectors = show->add_subcommand(
      "collectors", "bytes, reports and send errors per exporter and collector (errors: from the agent)");
  auto* exactMatch =
      show->add_subcommand("exact-match", "exact-match entries requested and whether installed");
  auto* status = app.add_subcommand("status", "the feature, the active tracker and the agent's counters");
  auto* clear = app.add_subcommand("clear", "clear counters");
  auto* counters = clear->add_subcommand("counters", "clear the collector counters of one exporter, or all");
  counters->add_option("exporter", o.exporter, "the exporter (default: every exporter)");
  auto* trace = app.add_subcommand("trace", "trace levels and the ring trace");
  auto* traceSet = trace->add_subcommand("set", "set one handle's levels");
  traceSet
      ->add_option("handle", o.handle,
                   "a trace handle (" + MirrorOnDrop::TraceName::list() + ") or * for all")
      ->required();
  traceSet->add_option("levels", o.levels, "levels 0-8, e.g. 0-4,8; \"\": all off")->required();
  auto* traceShow = trace->add_subcommand("show", "every handle the agent has used, with its levels");
  auto* traceDumpCommand =
      trace->add_subcommand("dump", "the always-on ring trace (from the state directory)");
  timeOption(traceDumpCommand);
  auto* metricsCommand = app.add_subcommand(
      "metrics", "metrics in the Prometheus text format (for a node exporter's textfile collector)");
  app.footer(kFooter);  // set last: subcommands made before it do not repeat it
  app.set_version_flag("--version", std::string("modctl ") + MOD_VERSION);
  try {
    app.parse(argc, argv);
  } catch (CLI::ParseError const& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    return usage("modctl", e.what());
  }
  if (auto refused = leftoversRefused(app)) return *refused;
  std::optional<Modctl::FlowQuery::Time> time;
  if (!timeText.empty()) time = timeText == "ns" ? Modctl::FlowQuery::Time::ns : Modctl::FlowQuery::Time::iso;

  if (flows->parsed()) {
    for (auto const& f : filters) {
      if (auto why = query.filterAdd(f); !why.empty()) return usage("modctl show flows", why);
    }
    if (!sortKey.empty()) {
      if (auto why = query.sortIs(sortKey); !why.empty()) return usage("modctl show flows", why);
    }
    query.reverseIs(reverse);
    query.limitIs(limit);
    if (time) query.timeIs(*time);
    std::string error;
    auto const doc = Ops::flowsRead(o.stateDir, error);
    return print(doc ? std::optional<Json>(query.applied(*doc, o.json)) : std::nullopt, error, o.json);
  }
  std::string error;
  if (interfaces->parsed()) return print(Ops::interfacesRead(o.stateDir, error), error, o.json);
  if (collectors->parsed()) return print(collectorsWithErrors(o, error), error, o.json);
  if (exactMatch->parsed()) return print(Ops::exactMatchRead(o.stateDir, error), error, o.json);
  if (status->parsed()) return ask(o, {{"command", "status"}}, statusText);
  if (counters->parsed()) {
    if (auto refused = exporterRefused(o)) return *refused;
    Json req{{"command", "clear-counters"}};
    if (!o.exporter.empty()) req["exporter"] = o.exporter;
    return ask(o, req, [](auto const& r) {
      std::cout << "cleared: " << r["cleared"].template get<std::string>() << "\n";
    });
  }
  if (traceSet->parsed()) {
    std::string const setting = o.handle + "=" + o.levels;
    if (auto unknown = MirrorOnDrop::TraceName::unknownIn(setting); !unknown.empty())
      return usage("modctl trace set", "unknown trace handle '" + unknown + "' (handles: " +
                                           MirrorOnDrop::TraceName::list() + ", or * for all)");
    return ask(o, {{"command", "trace-set"}, {"handle", o.handle}, {"levels", o.levels}}, [](auto const& r) {
      std::cout << "applied: " << r["applied"].template get<std::string>() << "\n";
    });
  }
  if (traceShow->parsed()) {
    return ask(o, {{"command", "trace-show"}}, [](auto const& r) {
      for (auto const& [name, levels] : r["handles"].items()) {
        std::cout << name << "=" << levels.template get<std::string>() << "\n";
      }
    });
  }
  if (traceDumpCommand->parsed()) return traceDump(o, time);
  if (metricsCommand->parsed()) {
    if (o.json)
      return usage(
          "modctl metrics",
          "--json does not apply: metrics are the Prometheus text format (modctl status --json gives "
          "the agent's counters as JSON)");
    return metrics(o);
  }
  return usage("modctl", "a command is needed: " + names(app));
}
