#include "tools/mod-collector/CollectorOptions.h"

#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <iostream>

#include <charconv>
#include <cstring>

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
      "summary (reports by type and by flow, rejected datagrams by reason) goes to stderr.");
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
  app.add_option("--count", o.count, "stop after N reports")->check(CLI::PositiveNumber);
  app.add_option("--duration", o.duration, "stop after S seconds")->check(CLI::PositiveNumber);
  try {
    app.parse(argc, argv);
  } catch (CLI::ParseError const& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    std::cerr << "mod-collector: " << e.what() << "\n(see mod-collector --help)" << std::endl;
    return 2;
  }
  for (auto const& text : listen) o.listen.push_back(*parseListenAddr(text));
  return std::nullopt;
}

}  // namespace ModCollector
