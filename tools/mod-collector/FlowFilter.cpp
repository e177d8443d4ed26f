#include "tools/mod-collector/FlowFilter.h"

#include <arpa/inet.h>

#include <charconv>
#include <map>

namespace ModCollector {
namespace {

// The address in its usual text form ("2001:DB8::01" -> "2001:db8::1"), as the collector stores it.
std::optional<std::string> canonicalAddress(std::string const& text) {
  unsigned char bytes[16];
  char buf[INET6_ADDRSTRLEN];
  for (int af : {AF_INET, AF_INET6}) {
    if (inet_pton(af, text.c_str(), bytes) == 1 && inet_ntop(af, bytes, buf, sizeof buf)) return buf;
  }
  return std::nullopt;
}

std::optional<int64_t> number(std::string const& text, int64_t max) {
  int64_t v = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (ec != std::errc() || end != text.data() + text.size() || v < 0 || v > max) return std::nullopt;
  return v;
}

}  // namespace

std::optional<FlowFilter> FlowFilter::parse(std::string const& text, std::string& error) {
  static std::map<std::string, int64_t> const protocols = {
      {"tcp", 6}, {"udp", 17}, {"icmp", 1}, {"icmpv6", 58}};
  FlowFilter filter;
  std::string term;
  auto add = [&](std::string const& t) -> bool {
    if (t.empty()) return true;
    size_t const eq = t.find('=');
    std::string const key = eq == std::string::npos ? "" : t.substr(0, eq);
    std::string const value = eq == std::string::npos ? t : t.substr(eq + 1);
    if (key.empty() && protocols.count(t)) {
      filter.terms.push_back({{"ip_proto"}, protocols.at(t)});
      return true;
    }
    if (key == "proto") {
      auto p = protocols.count(value) ? std::optional(protocols.at(value)) : number(value, 255);
      if (!p) return false;
      filter.terms.push_back({{"ip_proto"}, *p});
      return true;
    }
    if (key.empty() || key == "ip" || key == "src" || key == "dst") {
      if (auto addr = canonicalAddress(value)) {
        std::vector<char const*> cols = key == "src"   ? std::vector<char const*>{"src_ip"}
                                        : key == "dst" ? std::vector<char const*>{"dst_ip"}
                                                       : std::vector<char const*>{"src_ip", "dst_ip"};
        filter.terms.push_back({cols, *addr});
        return true;
      }
      if (!key.empty()) return false;
    }
    if (key.empty() || key == "port" || key == "sport" || key == "dport") {
      auto port = number(value, 65535);
      if (!port) return false;
      std::vector<char const*> cols = key == "sport"   ? std::vector<char const*>{"src_port"}
                                      : key == "dport" ? std::vector<char const*>{"dst_port"}
                                                       : std::vector<char const*>{"src_port", "dst_port"};
      filter.terms.push_back({cols, *port});
      return true;
    }
    return false;
  };
  for (size_t i = 0; i <= text.size(); ++i) {
    char const c = i < text.size() ? text[i] : ' ';
    if (c != ' ' && c != ',' && c != '\t') {
      term += c;
      continue;
    }
    if (!add(term)) {
      error = "bad flow filter term '" + term +
              "' (expected tcp, udp, proto=N, an address, ip=/src=/dst=ADDR, a port, port=/sport=/dport=N)";
      return std::nullopt;
    }
    term.clear();
  }
  if (filter.terms.empty()) {
    error = "empty flow filter";
    return std::nullopt;
  }
  return filter;
}

std::string FlowFilter::sql(std::vector<SqlValue>& params) const {
  std::string s;
  for (Term const& t : terms) {
    s += s.empty() ? "(" : " AND (";
    for (size_t i = 0; i < t.columns.size(); ++i) {
      s += std::string(i ? " OR " : "") + "f." + t.columns[i] + " = ?";
      params.push_back(t.value);
    }
    s += ")";
  }
  return s;
}

}  // namespace ModCollector
