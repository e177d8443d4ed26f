#include "tools/mod-collector/CollectorOptions.h"

#include <arpa/inet.h>

#include <charconv>
#include <cmath>
#include <cstring>

namespace ModCollector {
namespace {

std::optional<uint16_t> parsePort(std::string const& s) {
  unsigned v = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (ec != std::errc() || end != s.data() + s.size() || s.empty() || v > 65535) return std::nullopt;
  return static_cast<uint16_t>(v);
}

std::optional<uint64_t> parseCount(std::string const& s) {
  uint64_t v = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (ec != std::errc() || end != s.data() + s.size() || s.empty() || v == 0) return std::nullopt;
  return v;
}

std::optional<double> parseSeconds(std::string const& s) {
  char* end = nullptr;
  double const v = std::strtod(s.c_str(), &end);
  if (s.empty() || *end != '\0' || !std::isfinite(v) || v <= 0) return std::nullopt;
  return v;
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

std::optional<CollectorOptions> parseOptions(int argc, char** argv, std::string& error) {
  CollectorOptions o;
  for (int i = 1; i < argc; ++i) {
    std::string const arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      o.help = true;
      return o;
    }
    if (arg == "--json") {
      o.json = true;
      continue;
    }
    if (arg != "--listen" && arg != "--count" && arg != "--duration") {
      error = "unknown option '" + arg + "'";
      return std::nullopt;
    }
    if (i + 1 >= argc) {
      error = arg + " needs a value";
      return std::nullopt;
    }
    std::string const value = argv[++i];
    if (arg == "--listen") {
      auto addr = parseListenAddr(value);
      if (!addr) {
        error = "--listen: bad address '" + value + "' (expected ADDR:PORT or [V6ADDR]:PORT)";
        return std::nullopt;
      }
      o.listen.push_back(*addr);
    } else if (arg == "--count") {
      auto n = parseCount(value);
      if (!n) {
        error = "--count: expected a positive integer, got '" + value + "'";
        return std::nullopt;
      }
      o.count = *n;
    } else {
      auto s = parseSeconds(value);
      if (!s) {
        error = "--duration: expected a positive number of seconds, got '" + value + "'";
        return std::nullopt;
      }
      o.duration = *s;
    }
  }
  if (o.listen.empty()) {
    error = "at least one --listen ADDR:PORT is needed";
    return std::nullopt;
  }
  return o;
}

char const* usageText() {
  return "usage: mod-collector --listen ADDR:PORT [--listen [V6ADDR]:PORT ...] [--json] [--count N] "
         "[--duration S]\n"
         "\n"
         "Receives Mirror-on-Drop report datagrams and prints one line per report on stdout.\n"
         "\n"
         "  --listen ADDR:PORT   listen on this IPv4 address, or [V6ADDR]:PORT for IPv6; repeatable.\n"
         "                       Port 0 picks a free port; every bound address is printed on stderr\n"
         "                       as \"listening on ADDR:PORT\".\n"
         "  --json               print one JSON object per report: type, timestamp, reason, data_size,\n"
         "                       dst_mac, src_mac, ethertype (number), vlans, flow {ip_proto, src_ip,\n"
         "                       dst_ip, src_port, dst_port} where the sample holds them, and from.\n"
         "  --count N            stop after N reports.\n"
         "  --duration S         stop after S seconds.\n"
         "  --help               show this text.\n"
         "\n"
         "Datagrams that are not reports are counted and reported on stderr. SIGINT or SIGTERM stop the\n"
         "collector; a summary (reports by type and by flow, rejected datagrams by reason) goes to stderr.\n";
}

}  // namespace ModCollector
