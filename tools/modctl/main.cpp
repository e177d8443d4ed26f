// modctl: the operator's view of a Mirror-on-Drop agent. The show commands and the trace dump read the state
// directory's shared memory, so they work while the agent is down or hung; status, clear, trace set/show and
// the agent's counters in metrics ask the running agent over its control socket. See --help.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <iostream>

#include "platform/core/RingTrace.h"
#include "tools/modctl/ControlClient.h"
#include "tools/modctl/Metrics.h"
#include "tools/modctl/ModctlTables.h"

namespace {

struct Options {
  std::string stateDir = "/dev/shm/mirror-on-drop";
  std::string socket;  // empty: <stateDir>/mod-agent.sock
  bool json = false;
  size_t limit = 0;
  std::string exporter, handle, levels;
  std::string socketPath() const { return socket.empty() ? stateDir + "/mod-agent.sock" : socket; }
};

int fail(std::string const& error) {
  std::cerr << "modctl: " << error << std::endl;
  return 1;
}

int print(std::optional<Modctl::Json> const& doc, std::string const& error, bool json) {
  if (!doc) return fail(error);
  std::cout << (json ? doc->dump(2) + "\n" : Modctl::tableText(*doc));
  return 0;
}

// A request to the agent; its reply printed as JSON, or its "error" as a failure.
int ask(Options const& o, Modctl::Json const& request,
        std::function<void(Modctl::Json const&)> const& readable) {
  std::string error;
  auto reply = Modctl::controlRequest(o.socketPath(), request, error);
  if (!reply) return fail(error);
  if (!reply->value("ok", false)) return fail(reply->value("error", std::string("the agent refused")));
  if (o.json) {
    std::cout << reply->dump(2) << std::endl;
  } else {
    readable(*reply);
  }
  return 0;
}

void statusText(Modctl::Json const& r) {
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
            << c["rejected"] << "\nreports sent: START " << c["start_reports"] << ", STOP "
            << c["stop_reports"] << "\nuptime: " << int64_t(r["uptime"].get<double>()) << " s (pid "
            << r["pid"] << ")\n";
  for (auto const& d : r.value("damaged_tables", Modctl::Json::array())) {
    std::cout << "damaged at start: " << d.value("table", "") << " (" << d.value("problem", "") << "); "
              << (d["copy"].is_string() ? "copy in " + d["copy"].get<std::string>()
                                        : std::string("no copy kept"))
              << "; " << d.value("lost", "") << "\n";
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "modctl: shows what a Mirror-on-Drop agent holds and asks it to clear counters or change tracing.",
      "modctl"};
  app.require_subcommand(1);
  Options o;
  app.add_option("--state-dir", o.stateDir, "the agent's state directory (default /dev/shm/mirror-on-drop)");
  app.add_option("--socket", o.socket, "the agent's control socket (default <state-dir>/mod-agent.sock)");
  app.add_flag("--json", o.json, "print one JSON document instead of a table");

  auto* show =
      app.add_subcommand("show", "show a shared table (read from shared memory)")->require_subcommand(1);
  auto* flows =
      show->add_subcommand("flows", "flows being reported: flow, interfaces, type, timestamp, data size");
  flows->add_option("--limit", o.limit, "at most N flows");
  auto* interfaces = show->add_subcommand("interfaces", "flows per interface of their first drop");
  auto* collectors = show->add_subcommand("collectors", "bytes and reports per exporter and collector");
  auto* exactMatch =
      show->add_subcommand("exact-match", "exact-match entries requested and whether installed");
  auto* status = app.add_subcommand("status", "the feature, the active tracker and the agent's counters");
  auto* clear = app.add_subcommand("clear", "clear counters")->require_subcommand(1);
  auto* counters = clear->add_subcommand("counters", "clear the collector counters of one exporter, or all");
  counters->add_option("exporter", o.exporter, "the exporter (default: every exporter)");
  auto* trace = app.add_subcommand("trace", "trace levels and the ring trace")->require_subcommand(1);
  auto* traceSet = trace->add_subcommand("set", "set one handle's levels");
  traceSet->add_option("handle", o.handle, "a trace handle, e.g. MOD-Manager, or *")->required();
  traceSet->add_option("levels", o.levels, "levels 0-8, e.g. 0-4,8; empty: all off")->required();
  auto* traceShow = trace->add_subcommand("show", "every handle with its levels");
  auto* traceDump = trace->add_subcommand("dump", "the always-on ring trace (from the state directory)");
  auto* metrics = app.add_subcommand("metrics", "metrics in the Prometheus text format");
  try {
    app.parse(argc, argv);
  } catch (CLI::ParseError const& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    std::cerr << "modctl: " << e.what() << "\n(see modctl --help)" << std::endl;
    return 2;
  }

  std::string error;
  if (flows->parsed()) return print(Modctl::flowsRead(o.stateDir, o.limit, error), error, o.json);
  if (interfaces->parsed()) return print(Modctl::interfacesRead(o.stateDir, error), error, o.json);
  if (collectors->parsed()) return print(Modctl::collectorsRead(o.stateDir, error), error, o.json);
  if (exactMatch->parsed()) return print(Modctl::exactMatchRead(o.stateDir, error), error, o.json);
  if (status->parsed()) return ask(o, {{"command", "status"}}, statusText);
  if (counters->parsed()) {
    Modctl::Json req{{"command", "clear-counters"}};
    if (!o.exporter.empty()) req["exporter"] = o.exporter;
    return ask(o, req, [](auto const& r) {
      std::cout << "cleared: " << r["cleared"].template get<std::string>() << "\n";
    });
  }
  if (traceSet->parsed()) {
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
  if (traceDump->parsed()) {
    auto records = Calyx::RingTraceReader::read(o.stateDir + "/ring-trace", &error);
    if (!records) return fail(error);
    Modctl::Json out = Modctl::Json::array();
    for (auto const& r : *records) {
      if (o.json) {
        out.push_back({{"seq", r.seq}, {"time_ns", r.timeNs}, {"text", r.text}});
      } else {
        std::cout << r.seq << " " << r.timeNs / 1000000000 << "." << r.timeNs % 1000000000 << " " << r.text
                  << "\n";
      }
    }
    if (o.json) std::cout << out.dump(2) << std::endl;
    return 0;
  }
  if (metrics->parsed()) {
    auto const f = Modctl::flowsRead(o.stateDir, 1, error);
    auto const i = f ? Modctl::interfacesRead(o.stateDir, error) : std::nullopt;
    auto const c = i ? Modctl::collectorsRead(o.stateDir, error) : std::nullopt;
    auto const e = c ? Modctl::exactMatchRead(o.stateDir, error) : std::nullopt;
    if (!e) return fail(error);
    std::string ignored;
    auto statusReply = Modctl::controlRequest(o.socketPath(), {{"command", "status"}}, ignored);
    if (statusReply && !statusReply->value("ok", false)) statusReply.reset();
    std::cout << Modctl::metricsText(statusReply, *f, *i, *c, *e);
    return 0;
  }
  return 2;
}
