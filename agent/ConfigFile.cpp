#include "agent/ConfigFile.h"

#include <grp.h>
#include <sys/stat.h>
#include <toml++/toml.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <sstream>
#include <string_view>

#include "agent/TomlGuard.h"
#include "mirror_on_drop/MirrorOnDropNames.h"
#include "platform/core/Trace.h"
#include "platform/types/IntfId.h"

namespace ModAgent {

namespace {

constexpr size_t kNameMax = 128;  // tracker, exporter and collector names: the collector table's key storage

// Walks one parsed document, collecting errors with their place. Tables are walked in key order, not in
// the file's, so the errors are put in line order when the walk is done (sorted()).
class Reader {
 public:
  explicit Reader(std::string file) : file_(std::move(file)) {}

  void error(toml::node const& at, std::string const& key, std::string const& what) {
    size_t const line = at.source().begin.line;
    found_.emplace_back(line, file_ + ":" + std::to_string(line) + ": " + key + ": " + what);
  }

  std::vector<std::string> sorted() {
    std::stable_sort(found_.begin(), found_.end(),
                     [](auto const& a, auto const& b) { return a.first < b.first; });
    std::vector<std::string> out;
    for (auto& f : found_) out.push_back(std::move(f.second));
    return out;
  }

  // Each key of the table in turn, with its dotted path; keys not in known are errors.
  void keys(toml::table const& table, std::string const& path,
            std::map<std::string, std::function<void(toml::node const&, std::string const&)>> const& known) {
    for (auto const& [k, v] : table) {
      std::string const key = join(path, std::string(k.str()));
      auto it = known.find(std::string(k.str()));
      if (it == known.end()) {
        error(v, key, "unknown key (expected one of " + names(known) + ")");
        continue;
      }
      it->second(v, key);
    }
  }

  std::optional<bool> boolean(toml::node const& n, std::string const& key) {
    if (auto v = n.value<bool>(); n.is_boolean() && v) return *v;
    error(n, key, "expected true or false");
    return std::nullopt;
  }
  std::optional<std::string> string(toml::node const& n, std::string const& key) {
    if (n.is_string()) return *n.value<std::string>();
    error(n, key, "expected a string");
    return std::nullopt;
  }
  std::optional<int64_t> integer(toml::node const& n, std::string const& key, int64_t min, int64_t max) {
    if (!n.is_integer()) {
      error(n, key, "expected a whole number from " + std::to_string(min) + " to " + std::to_string(max));
      return std::nullopt;
    }
    int64_t const v = *n.value<int64_t>();
    if (v < min || v > max) {
      error(n, key,
            std::to_string(v) + " is out of range (expected " + std::to_string(min) + " to " +
                std::to_string(max) + ")");
      return std::nullopt;
    }
    return v;
  }
  // Seconds, integer or not.
  std::optional<double> seconds(toml::node const& n, std::string const& key) {
    if (!n.is_number()) {
      error(n, key, "expected a number of seconds");
      return std::nullopt;
    }
    return *n.value<double>();
  }
  // A positive interval in whole milliseconds.
  std::optional<uint32_t> interval(toml::node const& n, std::string const& key) {
    auto s = seconds(n, key);
    if (!s) return std::nullopt;
    double const ms = std::round(*s * 1000.0);
    if (!(ms >= 1.0) || ms > double(std::numeric_limits<uint32_t>::max())) {
      error(n, key, "expected a positive number of seconds (at least 0.001), got " + toml_text(n));
      return std::nullopt;
    }
    return uint32_t(ms);
  }
  toml::table const* table(toml::node const& n, std::string const& key) {
    if (auto const* t = n.as_table()) return t;
    error(n, key, "expected a table");
    return nullptr;
  }
  std::optional<std::string> name(toml::node const& at, std::string const& key, std::string_view name) {
    if (name.empty() || name.size() > kNameMax) {
      error(at, key, "names must be 1 to 128 bytes long (this one has " + std::to_string(name.size()) + ")");
      return std::nullopt;
    }
    return std::string(name);
  }
  std::optional<std::string> intfName(toml::node const& n, std::string const& key) {
    auto s = string(n, key);
    if (!s) return std::nullopt;
    Calyx::String why;
    if (!Calyx::IntfId::parse(*s, &why)) {
      error(n, key, "bad interface name \"" + *s + "\": " + why);
      return std::nullopt;
    }
    return s;
  }
  std::optional<Calyx::IpGenAddr> address(toml::node const& n, std::string const& key,
                                          Calyx::IpGenAddr::Family family) {
    auto s = string(n, key);
    if (!s) return std::nullopt;
    auto a = Calyx::IpGenAddr::parse(*s);
    if (!a || a->af() != family) {
      error(n, key,
            "\"" + *s + "\" is not an " + (family == Calyx::IpGenAddr::Family::ipv4 ? "IPv4" : "IPv6") +
                " address");
      return std::nullopt;
    }
    return a;
  }
  // "A.B.C.D:PORT" or "[IPv6]:PORT", the port from minPort to 65535.
  std::optional<std::pair<Calyx::IpGenAddr, uint16_t>> hostPort(toml::node const& n, std::string const& key,
                                                                long minPort) {
    auto s = string(n, key);
    if (!s) return std::nullopt;
    std::string host, port;
    if (!s->empty() && (*s)[0] == '[') {
      auto const close = s->find("]:");
      if (close != std::string::npos) host = s->substr(1, close - 1), port = s->substr(close + 2);
    } else if (auto const colon = s->rfind(':'); colon != std::string::npos) {
      host = s->substr(0, colon), port = s->substr(colon + 1);
    }
    if (host.empty() || port.empty()) {
      error(n, key, "expected \"A.B.C.D:PORT\" or \"[IPv6]:PORT\", got \"" + *s + "\"");
      return std::nullopt;
    }
    auto a = Calyx::IpGenAddr::parse(host);
    if (!a) {
      error(n, key, "\"" + host + "\" is not an IPv4 or IPv6 address");
      return std::nullopt;
    }
    char* end = nullptr;
    long const p = std::strtol(port.c_str(), &end, 10);
    if (*end != '\0' || p < minPort || p > 65535) {
      error(n, key,
            "port \"" + port + "\" is out of range (expected " + std::to_string(minPort) + " to 65535)");
      return std::nullopt;
    }
    return std::pair(*a, uint16_t(p));
  }
  std::optional<CollectorSetting> collector(toml::node const& n, std::string const& key,
                                            std::string const& name) {
    auto const where = hostPort(n, key, 1);
    if (!where) return std::nullopt;
    return CollectorSetting{name, where->first, where->second};
  }

  static std::string join(std::string const& path, std::string const& key) {
    return path.empty() ? key : path + "." + key;
  }

 private:
  static std::string names(
      std::map<std::string, std::function<void(toml::node const&, std::string const&)>> const& known) {
    std::string out;
    for (auto const& [k, _] : known) out += (out.empty() ? "" : ", ") + k;
    return out;
  }
  static std::string toml_text(toml::node const& n) {
    std::ostringstream os;
    if (auto v = n.value<double>()) os << *v;
    return os.str();
  }

  std::string file_;
  std::vector<std::pair<size_t, std::string>> found_;  // line, message
};

bool groupExists(std::string const& name) {
  group g{};
  group* found = nullptr;
  std::vector<char> buffer(16384);
  return getgrnam_r(name.c_str(), &g, buffer.data(), buffer.size(), &found) == 0 && found;
}

// A trace file must be one the agent can append to: an existing file it may write, or a new one in a
// directory it may write. Checked without making the file.
std::string traceOutputCheck(std::string const& output) {
  if (output == "stderr") return {};
  if (output.empty()) return "expected \"stderr\" or a file path";
  if (access(output.c_str(), F_OK) == 0) {
    struct stat st {};
    if (stat(output.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return output + " is a directory";
    if (access(output.c_str(), W_OK) == 0) return {};
    return "cannot write " + output + ": " + std::strerror(errno);
  }
  std::string const dir = std::filesystem::path(output).parent_path().string();
  std::string const where = dir.empty() ? "." : dir;
  if (access(where.c_str(), W_OK) == 0) return {};
  return "cannot make " + output + ": " + where + ": " + std::strerror(errno);
}

using Handlers = std::map<std::string, std::function<void(toml::node const&, std::string const&)>>;

void exporterRead(Reader& r, toml::table const& t, std::string const& path, ExporterSetting& e) {
  r.keys(t, path,
         Handlers{{"source_ipv4",
                   [&](auto const& n, auto const& k) {
                     if (auto a = r.address(n, k, Calyx::IpGenAddr::Family::ipv4)) e.sourceIpv4 = *a;
                   }},
                  {"source_ipv6",
                   [&](auto const& n, auto const& k) {
                     if (auto a = r.address(n, k, Calyx::IpGenAddr::Family::ipv6)) e.sourceIpv6 = *a;
                   }},
                  {"dscp",
                   [&](auto const& n, auto const& k) {
                     if (auto v = r.integer(n, k, 0, 63)) e.dscp = uint8_t(*v);
                   }},
                  {"collectors", [&](auto const& n, auto const& k) {
                     auto const* c = r.table(n, k);
                     if (!c) return;
                     for (auto const& [name, where] : *c) {
                       std::string const key = Reader::join(k, std::string(name.str()));
                       if (!r.name(where, key, name.str())) continue;
                       if (auto s = r.collector(where, key, std::string(name.str())))
                         e.collectors.push_back(*s);
                     }
                   }}});
}

void trackerRead(Reader& r, toml::table const& t, std::string const& path, TrackerSetting& tr) {
  bool active = false, inactive = false;
  r.keys(t, path,
         Handlers{{"active_interval",
                   [&](auto const& n, auto const& k) {
                     active = true;
                     if (auto v = r.interval(n, k)) tr.activeIntervalMs = *v;
                   }},
                  {"inactive_timeout",
                   [&](auto const& n, auto const& k) {
                     inactive = true;
                     if (auto v = r.interval(n, k)) tr.inactiveTimeoutMs = *v;
                   }},
                  {"exporters", [&](auto const& n, auto const& k) {
                     auto const* ex = r.table(n, k);
                     if (!ex) return;
                     for (auto const& [name, body] : *ex) {
                       std::string const key = Reader::join(k, std::string(name.str()));
                       auto const* bt = r.table(body, key);
                       if (!bt || !r.name(body, key, name.str())) continue;
                       ExporterSetting e;
                       e.name = std::string(name.str());
                       exporterRead(r, *bt, key, e);
                       tr.exporters.push_back(std::move(e));
                     }
                   }}});
  if (!active) r.error(t, path + ".active_interval", "missing (expected a positive number of seconds)");
  if (!inactive) r.error(t, path + ".inactive_timeout", "missing (expected a positive number of seconds)");
}

void flowTrackingRead(Reader& r, toml::table const& t, std::string const& path, AgentConfig& c) {
  r.keys(t, path,
         Handlers{{"enabled",
                   [&](auto const& n, auto const& k) {
                     if (auto v = r.boolean(n, k)) c.flowTrackingEnabled = *v;
                   }},
                  {"trackers", [&](auto const& n, auto const& k) {
                     auto const* trackers = r.table(n, k);
                     if (!trackers) return;
                     for (auto const& [name, body] : *trackers) {
                       std::string const key = Reader::join(k, std::string(name.str()));
                       if (!c.trackers.empty()) {
                         r.error(body, key,
                                 "a second tracker: this hardware runs one tracker at a time (\"" +
                                     c.trackers.front().name + "\" is already configured)");
                         continue;
                       }
                       auto const* bt = r.table(body, key);
                       if (!bt || !r.name(body, key, name.str())) continue;
                       TrackerSetting tr;
                       tr.name = std::string(name.str());
                       trackerRead(r, *bt, key, tr);
                       c.trackers.push_back(std::move(tr));
                     }
                   }}});
}

void documentRead(Reader& r, toml::table const& doc, AgentConfig& c) {
  toml::node const* captureAt = nullptr;
  bool clockGiven = false;
  bool replayIntfGiven = false;
  r.keys(
      doc, "",
      Handlers{
          {"agent",
           [&](auto const& n, auto const& k) {
             if (auto const* t = r.table(n, k)) {
               r.keys(*t, k,
                      Handlers{{"state_dir",
                                [&](auto const& v, auto const& kk) {
                                  if (auto s = r.string(v, kk)) c.stateDir = *s;
                                }},
                               {"control_socket",
                                [&](auto const& v, auto const& kk) {
                                  if (auto s = r.string(v, kk)) c.controlSocket = *s;
                                }},
                               {"max_flows",
                                [&](auto const& v, auto const& kk) {
                                  if (auto i = r.integer(v, kk, 0, int64_t(1) << 40))
                                    c.maxFlows = uint64_t(*i);
                                }},
                               {"stop_timeout",
                                [&](auto const& v, auto const& kk) {
                                  auto s = r.seconds(v, kk);
                                  if (s && (*s < 0 || *s > 3600))
                                    return r.error(v, kk, "expected 0 to 3600 seconds");
                                  if (s) c.stopTimeout = *s;
                                }},
                               {"group", [&](auto const& v, auto const& kk) {
                                  auto s = r.string(v, kk);
                                  if (!s) return;
                                  if (!groupExists(*s))
                                    return r.error(v, kk, "no group \"" + *s + "\" on this host");
                                  c.group = *s;
                                }}});
             }
           }},
          {"hardware",
           [&](auto const& n, auto const& k) {
             if (auto const* t = r.table(n, k)) {
               int64_t const maxEntries = 1 << 24;
               r.keys(*t, k,
                      Handlers{{"mirror_on_drop",
                                [&](auto const& v, auto const& kk) {
                                  if (auto b = r.boolean(v, kk)) c.mirrorOnDrop = *b;
                                }},
                               {"exact_match",
                                [&](auto const& v, auto const& kk) {
                                  if (auto b = r.boolean(v, kk)) c.exactMatch = *b;
                                }},
                               {"exact_match_capacity_ipv4",
                                [&](auto const& v, auto const& kk) {
                                  if (auto i = r.integer(v, kk, 0, maxEntries))
                                    c.exactMatchCapacityIpv4 = uint32_t(*i);
                                }},
                               {"exact_match_capacity_ipv6",
                                [&](auto const& v, auto const& kk) {
                                  if (auto i = r.integer(v, kk, 0, maxEntries))
                                    c.exactMatchCapacityIpv6 = uint32_t(*i);
                                }},
                               {"exact_match_install_delay", [&](auto const& v, auto const& kk) {
                                  auto s = r.seconds(v, kk);
                                  if (s && *s < 0) r.error(v, kk, "expected zero or more seconds");
                                  if (s && *s >= 0) c.exactMatchInstallDelay = *s;
                                }}});
             }
           }},
          {"capture",
           [&](auto const& n, auto const& k) {
             auto const* t = r.table(n, k);
             if (!t) return;
             captureAt = &n;
             r.keys(
                 *t, k,
                 Handlers{
                     {"interfaces",
                      [&](auto const& v, auto const& kk) {
                        auto const* a = v.as_array();
                        if (!a) return r.error(v, kk, "expected a list of interface names");
                        for (auto const& item : *a) {
                          if (auto s = r.intfName(item, kk)) c.interfaces.push_back(*s);
                        }
                      }},
                     {"replay",
                      [&](auto const& v, auto const& kk) {
                        if (auto s = r.string(v, kk)) c.replay = *s;
                      }},
                     {"buffer_size",
                      [&](auto const& v, auto const& kk) {
                        if (auto i = r.integer(v, kk, int64_t(64) << 10, int64_t(1) << 30))
                          c.captureBufferBytes = int(*i);
                      }},
                     {"replay_interface",
                      [&](auto const& v, auto const& kk) {
                        replayIntfGiven = true;
                        if (auto s = r.intfName(v, kk)) c.replayInterface = *s;
                      }},
                     {"replay_clock", [&](auto const& v, auto const& kk) {
                        clockGiven = true;
                        auto s = r.string(v, kk);
                        if (!s) return;
                        if (*s == "virtual") {
                          c.replayClock = ReplayClock::virtualTime;
                        } else if (*s == "recorded") {
                          c.replayClock = ReplayClock::recorded;
                        } else if (*s == "max") {
                          c.replayClock = ReplayClock::max;
                        } else {
                          r.error(
                              v, kk,
                              "\"" + *s +
                                  "\" is not a replay clock (expected \"virtual\", \"recorded\" or \"max\")");
                        }
                      }}});
             if (!c.interfaces.empty() && !c.replay.empty()) {
               r.error(n, k, "give either interfaces (live capture) or replay (a capture file), not both");
             }
             if (!c.replay.empty() && !replayIntfGiven) {
               r.error(n, k + ".replay_interface",
                       "missing: replay needs the interface its frames arrive on");
             }
             if (c.replay.empty() && (clockGiven || replayIntfGiven)) {
               r.error(n, k + ".replay", "missing: replay_interface and replay_clock go with replay");
             }
           }},
          {"flow_tracking",
           [&](auto const& n, auto const& k) {
             if (auto const* t = r.table(n, k)) flowTrackingRead(r, *t, k, c);
           }},
          {"metrics",
           [&](auto const& n, auto const& k) {
             if (auto const* t = r.table(n, k)) {
               r.keys(*t, k, Handlers{{"listen", [&](auto const& v, auto const& kk) {
                                         if (r.hostPort(v, kk, 0))
                                           c.metricsListen = *v.template value<std::string>();
                                       }}});
             }
           }},
          {"trace",
           [&](auto const& n, auto const& k) {
             if (auto const* t = r.table(n, k)) {
               r.keys(*t, k,
                      Handlers{{"levels",
                                [&](auto const& v, auto const& kk) {
                                  auto s = r.string(v, kk);
                                  if (!s) return;
                                  std::string const why = ConfigFile::traceLevelsCheck(*s);
                                  if (!why.empty()) return r.error(v, kk, why);
                                  c.traceLevels = *s;
                                }},
                               {"output", [&](auto const& v, auto const& kk) {
                                  auto s = r.string(v, kk);
                                  if (!s) return;
                                  if (std::string const why = traceOutputCheck(*s); !why.empty())
                                    return r.error(v, kk, why);
                                  c.traceOutput = *s;
                                }}});
             }
           }},
      });
  if (c.interfaces.empty() && c.replay.empty()) {
    r.error(captureAt ? *captureAt : static_cast<toml::node const&>(doc), "capture",
            "expected interfaces = [...] (live capture) or replay = \"FILE\" (a capture file)");
  }
}

}  // namespace

bool ConfigFile::parse(std::string const& text, std::string const& file, AgentConfig& config,
                       std::vector<std::string>& errors) {
  errors.clear();
  if (auto const bad = tomlTextRefused(text)) {
    errors.push_back(file + ":" + std::to_string(bad->line) + ": " + bad->what);
    return false;
  }
  toml::table doc;
  try {
    doc = toml::parse(text, file);
  } catch (toml::parse_error const& e) {
    errors.push_back(file + ":" + std::to_string(e.source().begin.line) + ": " +
                     std::string(e.description()));
    return false;
  }
  AgentConfig c;
  c.file = file;
  Reader r(file);
  documentRead(r, doc, c);
  errors = r.sorted();
  if (!errors.empty()) return false;
  config = std::move(c);
  return true;
}

std::string ConfigFile::traceLevelsCheck(std::string const& setting) {
  Calyx::TraceRegistry scratch;  // checked, not applied
  if (std::string why = scratch.levelsApply(setting); !why.empty()) return why;
  std::string const unknown = MirrorOnDrop::TraceName::unknownIn(setting);
  if (unknown.empty()) return {};
  return "unknown trace handle \"" + unknown + "\" (handles: " + MirrorOnDrop::TraceName::list() +
         ", or * for all)";
}

bool ConfigFile::load(std::string const& file, AgentConfig& config, std::vector<std::string>& errors) {
  // A device or a pipe would be read for ever (/dev/zero) or block (a FIFO nobody writes).
  std::error_code ec;
  if (!std::filesystem::is_regular_file(file, ec)) {
    errors = {file + ": not a regular file"};
    return false;
  }
  std::ifstream in(file);
  if (!in) {
    errors = {file + ": cannot read the configuration file"};
    return false;
  }
  std::ostringstream text;
  text << in.rdbuf();
  return parse(text.str(), file, config, errors);
}

}  // namespace ModAgent
