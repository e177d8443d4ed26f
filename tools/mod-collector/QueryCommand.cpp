#include "tools/mod-collector/QueryCommand.h"

#include <CLI/CLI.hpp>
#include <iostream>

#include "tools/mod-collector/Duration.h"
#include "tools/mod-collector/QueryAnswer.h"

namespace ModCollector {
namespace {

struct Args {
  std::string db;
  bool json = false;
  bool explain = false;
  std::string subject;
  QueryOptions options;
};

// Adds an option whose text goes into the question's options under key, when given.
void optionInto(CLI::App* app, Args& a, std::string const& flag, std::string const& key,
                std::string const& help) {
  app->add_option_function<std::string>(
      flag, [&a, key](std::string const& v) { a.options[key] = v; }, help);
}

}  // namespace

int queryMain(int argc, char** argv) {
  CLI::App app{"mod-collector query: asks the drop history a collector stored with --db.",
               "mod-collector query"};
  app.footer(
      "Times are UTC. A life is one flow's drop episode on one switch: its START report, then its STOP "
      "report\n"
      "(open while no STOP has arrived). DURATION: a number and s, m, h, d or w (90s, 15m, 1h, 7d).");
  app.require_subcommand(1);
  Args a;
  app.add_option("--db", a.db, "the database: an SQLite file or postgresql://USER@HOST/DB")->required();
  app.add_flag("--json", a.json, "print the answer as one JSON document (what the page's /api/ serves)");
  app.add_flag("--explain", a.explain, "print the engine's plan for the query on stderr first");

  auto* top = app.add_subcommand("top", "the flows, reasons, sources or protocols with the most lives");
  std::string what;
  top->add_option("what", what, "flows, reasons, sources or protocols")
      ->required()
      ->check(CLI::IsMember({"flows", "reasons", "sources", "protocols"}));
  optionInto(top, a, "--since", "since", "only lives first seen within this DURATION (default: all)");
  optionInto(top, a, "--limit", "limit", "at most N rows (default 10)");
  optionInto(top, a, "--by", "by", "order by lives (the default) or reports");

  auto* lives = app.add_subcommand("lives", "drop lives, the newest first");
  lives->add_flag_callback(
      "--open", [&a] { a.options["open"] = "1"; }, "only lives whose STOP has not arrived");
  optionInto(lives, a, "--source", "source", "only lives reported by this exporter address");
  optionInto(lives, a, "--flow", "flow",
             "only flows matching FILTER: terms such as tcp, udp, proto=N, ADDR, src=ADDR, dst=ADDR, PORT, "
             "sport=N, dport=N, all of which must hold (\"10.0.0.1 tcp dport=443\")");
  optionInto(lives, a, "--since", "since", "only lives first seen within this DURATION");
  optionInto(lives, a, "--limit", "limit", "at most N lives (default 50)");

  auto* timeline = app.add_subcommand("timeline", "new lives per step");
  optionInto(timeline, a, "--since", "since", "the window, back from now (default 1h)");
  optionInto(timeline, a, "--step", "step", "the step (default 1m); at most 1000 steps");

  for (auto* sub : {top, lives, timeline}) sub->fallthrough();  // --db, --json and --explain go anywhere
  try {
    app.parse(argc - 1, argv + 1);
  } catch (CLI::ParseError const& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    std::cerr << "mod-collector query: " << e.what() << "\n(see mod-collector query --help)" << std::endl;
    return 2;
  }
  a.subject = top->parsed() ? "top " + what : lives->parsed() ? "lives" : "timeline";
  Query query;
  try {
    query = parseQuery(a.subject, a.options, wallClockMicros());
  } catch (std::invalid_argument const& e) {
    std::cerr << "mod-collector query: " << e.what() << std::endl;
    return 2;
  }
  try {
    std::unique_ptr<Storage> storage = openStorage(a.db, OpenMode::Read);
    if (a.explain) std::cerr << storage->explain(querySql(query));
    if (a.json) {
      std::cout << answerJson(*storage, query).dump(2) << std::endl;
    } else {
      std::cout << answerTable(*storage, query) << std::flush;
    }
  } catch (StorageError const& e) {
    std::cerr << "mod-collector query: " << e.what() << std::endl;
    return 1;
  }
  return 0;
}

}  // namespace ModCollector
