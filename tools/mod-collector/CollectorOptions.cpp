#include "tools/mod-collector/CollectorOptions.h"

#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <iostream>

#include <charconv>
#include <map>

#include <cstring>
#include "tools/mod-collector/Duration.h"
#include "tools/mod-collector/Storage.h"

namespace ModCollector {
namespace {

std::optional<uint16_t> parsePort(std::string const& s) {
  unsigned v = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (ec != std::errc() || end != s.data() + s.size() || s.empty() || v > 65535) return std::nullopt;
  return static_cast<uint16_t>(v);
}

}  // namespace

std::optional<ListenAddr> parseListenAddr(std::string const& text) {
  ListenAddr out;
  if (!text.empty() && text[0] == '[') {
    size_t const close = text.find("]:");
    if (close == std::string::npos) return std::nullopt;
    auto port = parsePort(text.substr(close + 2));
    auto* sin6 = reinterpret_cast<sockaddr_in6*>(&out.addr);
    if (!port || inet_pton(AF_INET6, text.substr(1, close - 1).c_str(), &sin6->sin6_addr) != 1)
      return std::nullopt;
    sin6->sin6_family = AF_INET6;
    sin6->sin6_port = htons(*port);
    out.len = sizeof(sockaddr_in6);
    return out;
  }
  size_t const colon = text.rfind(':');
  if (colon == std::string::npos) return std::nullopt;
  auto port = parsePort(text.substr(colon + 1));
  auto* sin = reinterpret_cast<sockaddr_in*>(&out.addr);
  if (!port || inet_pton(AF_INET, text.substr(0, colon).c_str(), &sin->sin_addr) != 1) return std::nullopt;
  sin->sin_family = AF_INET;
  sin->sin_port = htons(*port);
  out.len = sizeof(sockaddr_in);
  return out;
}

std::optional<ListenAddr> parseHttpAddr(std::string const& text) {
  if (text.find(':') == std::string::npos) return parseListenAddr("127.0.0.1:" + text);
  return parseListenAddr(text);
}

std::string endpointText(sockaddr_storage const& addr) {
  char buf[INET6_ADDRSTRLEN] = "?";
  if (addr.ss_family == AF_INET6) {
    auto const& sin6 = reinterpret_cast<sockaddr_in6 const&>(addr);
    inet_ntop(AF_INET6, &sin6.sin6_addr, buf, sizeof buf);
    return "[" + std::string(buf) + "]:" + std::to_string(ntohs(sin6.sin6_port));
  }
  auto const& sin = reinterpret_cast<sockaddr_in const&>(addr);
  inet_ntop(AF_INET, &sin.sin_addr, buf, sizeof buf);
  return std::string(buf) + ":" + std::to_string(ntohs(sin.sin_port));
}

std::optional<int> parseOptions(int argc, char** argv, CollectorOptions& o) {
  CLI::App app{
      "mod-collector: receives Mirror-on-Drop report datagrams and prints one line per report on stdout.",
      "mod-collector"};
  app.footer(
      "Datagrams that are not reports are counted and reported on stderr. SIGINT or SIGTERM stop the "
      "collector; a\n"
      "summary (reports by type, rejected datagrams by reason, what was stored) goes to stderr.\n\n"
      "With --db every report is also stored: START and STOP pair into drop lives, a report that reaches\n"
      "several collectors writing into one database is stored once. `mod-collector query --help` asks the\n"
      "stored history; --http serves it as a page, a JSON API under /api/ and Prometheus metrics on "
      "/metrics.");
  std::vector<std::string> listen;
  app.add_option(
         "--listen", listen,
         "ADDR:PORT for IPv4 or [V6ADDR]:PORT for IPv6; repeatable. Port 0 picks a free port; every bound "
         "address is printed on stderr as \"listening on ADDR:PORT\".")
      ->required()
      ->check([](std::string const& text) {
        return parseListenAddr(text) ? std::string()
                                     : "bad address '" + text + "' (expected ADDR:PORT or [V6ADDR]:PORT)";
      });
  app.add_flag(
      "--json", o.json,
      "print one JSON object per report: type, timestamp, reason, data_size, dst_mac, src_mac, ethertype "
      "(number), vlans, flow {ip_proto, src_ip, dst_ip, src_port, dst_port} where the sample holds them, "
      "and from.");
  auto* quiet =
      app.add_flag("--quiet", o.quiet, "print no line per report (with --db, the database keeps them)");
  app.get_option("--json")->excludes(quiet);
  app.add_option("--count", o.count, "stop after N reports")->check(CLI::PositiveNumber);
  app.add_option("--duration", o.duration, "stop after S seconds")->check(CLI::PositiveNumber);
  std::map<std::string, SummaryMode> const summaries = {
      {"none", SummaryMode::None}, {"totals", SummaryMode::Totals}, {"flows", SummaryMode::Flows}};
  app.add_option(
         "--summary", o.summary,
         "what to print on stderr at exit: none, totals (reports by type, rejected datagrams by reason, "
         "what was stored; the default) or flows (totals, then START and STOP counts per flow)")
      ->transform(CLI::CheckedTransformer(summaries));
  app.add_option(
      "--db", o.db,
      "store every report: an SQLite file PATH (created when missing) or postgresql://USER@HOST/DB "
      "for a fleet's PostgreSQL");
  std::string retain;
  auto* retainOption = app.add_option("--retain", retain,
                                      "delete lives first seen longer ago than this, in the background (e.g. "
                                      "7d, 12h); default: keep everything")
                           ->check([](std::string const& text) {
                             return parseDuration(text)
                                        ? std::string()
                                        : "bad duration '" + text + "' (expected e.g. 12h, 7d, 2w)";
                           });
  app.add_option(
         "--queue", o.queue,
         "reports waiting to be stored at most (default 100000); beyond it they are counted as dropped")
      ->check(CLI::Range(size_t{1}, size_t{100000000}));
  std::string http;
  auto* httpOption =
      app.add_option(
             "--http", http,
             "serve the page, /api/ and /metrics on [ADDR:]PORT; a bare PORT listens on 127.0.0.1 only, "
             "so listening beyond loopback takes an explicit address (0.0.0.0:8080)")
          ->check([](std::string const& text) {
            return parseHttpAddr(text)
                       ? std::string()
                       : "bad address '" + text + "' (expected PORT, ADDR:PORT or [V6ADDR]:PORT)";
          });
  auto* dbOption = app.get_option("--db");
  retainOption->needs(dbOption);
  httpOption->needs(dbOption);
  app.get_option("--queue")->needs(dbOption);
  app.set_version_flag("--version", std::string("mod-collector ") + MOD_VERSION);
  try {
    app.parse(argc, argv);
  } catch (CLI::ParseError const& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    std::cerr << "mod-collector: " << e.what() << "\n(see mod-collector --help)" << std::endl;
    return 2;
  }
  for (auto const& text : listen) o.listen.push_back(*parseListenAddr(text));
  if (!retain.empty()) o.retainUs = parseDuration(retain);
  if (!http.empty()) o.http = parseHttpAddr(http);
  return std::nullopt;
}

}  // namespace ModCollector
