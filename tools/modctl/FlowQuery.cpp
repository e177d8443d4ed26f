#include "tools/modctl/FlowQuery.h"

#include <algorithm>
#include <charconv>
#include <ctime>

#include "platform/types/IpGenAddr.h"

namespace Modctl {

namespace {

using Calyx::IpGenAddr;

bool isAddressKey(std::string const& key) {
  return key == "src_ip" || key == "dst_ip" || key == "ip";
}
bool isPortKey(std::string const& key) {
  return key == "src_port" || key == "dst_port" || key == "port";
}

std::optional<uint64_t> number(std::string const& text, uint64_t max) {
  uint64_t v = 0;
  auto const [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size() || v > max) return std::nullopt;
  return v;
}

// "10.0.0.0/8", "2001:db8::/32" or a bare address (every bit counts): the address bytes followed by the
// prefix length.
std::optional<std::vector<uint8_t>> prefixParse(std::string const& text) {
  size_t const slash = text.find('/');
  auto const addr = IpGenAddr::parse(text.substr(0, slash));
  if (!addr) return std::nullopt;
  std::vector<uint8_t> out(addr->bytes().begin(), addr->bytes().end());
  size_t const bits = out.size() * 8;
  auto const length =
      slash == std::string::npos ? std::optional<uint64_t>(bits) : number(text.substr(slash + 1), bits);
  if (!length) return std::nullopt;
  out.push_back(uint8_t(*length));
  return out;
}

bool inPrefix(std::string const& text, std::vector<uint8_t> const& prefix) {
  auto const addr = IpGenAddr::parse(text);
  if (!addr || addr->bytes().size() + 1 != prefix.size()) return false;
  size_t const bits = prefix.back();
  auto const bytes = addr->bytes();
  for (size_t i = 0; i < bits; ++i) {
    uint8_t const mask = uint8_t(0x80 >> (i % 8));
    if ((bytes[i / 8] & mask) != (prefix[i / 8] & mask)) return false;
  }
  return true;
}

// Orders two values of one column: addresses by family and bytes, numbers by value, text as text.
bool less(std::string const& key, Json const& a, Json const& b) {
  if (isAddressKey(key)) {
    auto const x = IpGenAddr::parse(a.get<std::string>());
    auto const y = IpGenAddr::parse(b.get<std::string>());
    if (x && y) return *x < *y;
  }
  if (key == "interfaces") return a.dump() < b.dump();
  return a < b;
}

}  // namespace

std::vector<std::string> const& FlowQuery::keys() {
  static std::vector<std::string> const all = {"ip_proto", "src_ip",    "dst_ip",    "src_port",  "dst_port",
                                               "type",     "timestamp", "data_size", "interfaces"};
  return all;
}

std::string FlowQuery::filterAdd(std::string const& terms) {
  for (size_t start = 0; start <= terms.size();) {
    size_t const comma = std::min(terms.find(',', start), terms.size());
    std::string const item = terms.substr(start, comma - start);
    start = comma + 1;
    size_t const eq = item.find('=');
    if (eq == std::string::npos)
      return "--filter: expected KEY=VALUE, got '" + item +
             "' (keys: ip_proto, src_ip, dst_ip, ip, src_port, dst_port, port, type, interface)";
    Term t{item.substr(0, eq), item.substr(eq + 1), nullptr, {}};
    std::string lower = t.value;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    if (isAddressKey(t.key)) {
      auto prefix = prefixParse(t.value);
      if (!prefix)
        return "--filter: " + t.key + ": expected an address or a prefix (10.0.0.0/8), got '" + t.value + "'";
      t.prefix = std::move(*prefix);
    } else if (isPortKey(t.key)) {
      auto const port = number(t.value, 65535);
      if (!port) return "--filter: " + t.key + ": expected a port from 0 to 65535, got '" + t.value + "'";
      t.number = *port;
    } else if (t.key == "ip_proto") {
      auto const proto = lower == "tcp" ? 6 : lower == "udp" ? 17 : number(t.value, 255);
      if (!proto) return "--filter: ip_proto: expected tcp, udp or a number up to 255, got '" + t.value + "'";
      t.number = *proto;
    } else if (t.key == "type") {
      if (lower != "start" && lower != "stop")
        return "--filter: type: expected START or STOP, got '" + t.value + "'";
      std::transform(lower.begin(), lower.end(), lower.begin(),
                     [](unsigned char c) { return char(std::toupper(c)); });
      t.value = lower;
    } else if (t.key != "interface") {
      return "--filter: unknown key '" + t.key +
             "' (keys: ip_proto, src_ip, dst_ip, ip, src_port, dst_port, port, type, interface)";
    }
    terms_.push_back(std::move(t));
  }
  return {};
}

std::string FlowQuery::sortIs(std::string const& key) {
  if (std::find(keys().begin(), keys().end(), key) == keys().end()) {
    std::string names;
    for (auto const& k : keys()) names += (names.empty() ? "" : ", ") + k;
    return "--sort: unknown key '" + key + "' (keys: " + names + ")";
  }
  sortKey_ = key;
  return {};
}

bool FlowQuery::matches(Json const& flow) const {
  for (auto const& t : terms_) {
    bool ok = false;
    if (t.key == "ip") {
      ok = inPrefix(flow["src_ip"], t.prefix) || inPrefix(flow["dst_ip"], t.prefix);
    } else if (isAddressKey(t.key)) {
      ok = inPrefix(flow[t.key], t.prefix);
    } else if (t.key == "port") {
      ok = flow["src_port"] == t.number || flow["dst_port"] == t.number;
    } else if (t.key == "interface") {
      auto const& names = flow["interfaces"];
      ok = std::find(names.begin(), names.end(), t.value) != names.end();
    } else if (t.key == "type") {
      ok = flow["type"] == t.value;
    } else {
      ok = flow[t.key] == t.number;
    }
    if (!ok) return false;
  }
  return true;
}

Json FlowQuery::applied(Json const& flows, bool forJson) const {
  std::vector<Json> rows;
  for (auto const& f : flows["flows"])
    if (matches(f)) rows.push_back(f);
  size_t const matching = rows.size();
  if (!sortKey_.empty()) {
    std::stable_sort(rows.begin(), rows.end(),
                     [&](Json const& a, Json const& b) { return less(sortKey_, a[sortKey_], b[sortKey_]); });
  }
  if (reverse_) std::reverse(rows.begin(), rows.end());
  if (limit_ > 0 && rows.size() > limit_) rows.resize(limit_);
  Json out = Json::array();
  for (auto& r : rows) {
    uint64_t const ns = r["timestamp"].get<uint64_t>();
    if (forJson && time_ == Time::iso) r["time"] = isoTime(ns);
    if (!forJson && time_.value_or(Time::iso) == Time::iso) r["timestamp"] = isoTime(ns);
    out.push_back(std::move(r));
  }
  Json doc;
  doc["flows"] = std::move(out);
  doc["count"] = flows["count"];
  doc["matching"] = matching;
  return doc;
}

std::string isoTime(uint64_t ns) {
  time_t const seconds = time_t(ns / 1000000000);
  tm t{};
  gmtime_r(&seconds, &t);
  char text[64];
  size_t const n = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &t);
  std::snprintf(text + n, sizeof text - n, ".%09lluZ", (unsigned long long)(ns % 1000000000));
  return text;
}

}  // namespace Modctl
