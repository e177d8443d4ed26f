#include "agent/ControlService.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <initializer_list>
#include <string_view>

#include "platform/core/Trace.h"

namespace ModAgent {

using nlohmann::json;

namespace {

double wallNow() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// A reply line. Requests may carry bytes that are not UTF-8 and replies may quote them: those become U+FFFD
// instead of an exception.
std::string line(json const& reply) {
  return reply.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string refusal(std::string const& why) {
  return line(json{{"ok", false}, {"error", why}});
}

// A name from a request, quoted in an error: cut short, so a 64 KiB field name makes a short reply.
std::string nameQuoted(std::string_view name) {
  constexpr size_t kMax = 64;
  return "\"" + std::string(name.substr(0, kMax)) + (name.size() > kMax ? "...\"" : "\"");
}

// "0-4,8" for levels 0 to 4 and 8.
std::string levelsText(uint16_t levels) {
  std::string out;
  for (int l = 0; l <= 8;) {
    if (!(levels & (1u << l))) {
      ++l;
      continue;
    }
    int end = l;
    while (end + 1 <= 8 && (levels & (1u << (end + 1)))) ++end;
    out += (out.empty() ? "" : ",") + std::to_string(l) + (end > l ? "-" + std::to_string(end) : "");
    l = end + 1;
  }
  return out;
}

// The fields of a request other than "command": each one the command takes, each a string, the required
// ones present. Empty when they are; else the refusal's text, naming the field.
std::string fieldsCheck(json const& request, std::initializer_list<char const*> required,
                        std::initializer_list<char const*> optional = {}) {
  auto const takes = [&](std::string const& name) {
    auto const is = [&](char const* f) { return name == f; };
    return std::any_of(required.begin(), required.end(), is) ||
           std::any_of(optional.begin(), optional.end(), is);
  };
  for (auto const& [name, value] : request.items()) {
    if (name == "command") continue;
    if (!takes(name)) return nameQuoted(name) + ": unknown field";
    if (!value.is_string()) return name + ": expected a string";
  }
  for (char const* name : required) {
    if (!request.contains(name)) return std::string(name) + ": missing";
  }
  return {};
}

}  // namespace

ControlService::ControlService(Calyx::EventLoop& loop, MirrorOnDrop::FeatureHost const& host,
                               std::string stateDir, DamagedState const* damaged)
    : host_(host), stateDir_(std::move(stateDir)), damaged_(damaged), started_(wallNow()), loop_(loop) {}

bool ControlService::open(std::string const& path, std::string& error) {
  socket_ = std::make_unique<Calyx::ControlSocket>(
      loop_, path, [this](std::string const& request) { return answer(request); }, refusal);
  auto const opened = socket_->open();
  if (opened) return true;
  error = opened.error().text();
  socket_.reset();
  return false;
}

std::string ControlService::answer(std::string const& request) {
  json req;
  try {
    req = json::parse(request);
  } catch (json::exception const& e) {
    // "[json.exception.parse_error.101] parse error at line 1, column 2: ...": the position and the reason (a
    // number too large for a double is an out_of_range error of the parser's own).
    std::string_view what = e.what();
    if (auto const at = what.find("] "); at != std::string_view::npos) what.remove_prefix(at + 2);
    return refusal("expected one JSON object per line: " + std::string(what));
  }
  if (!req.is_object())
    return refusal("expected one JSON object per line, not " + std::string(req.type_name()));
  auto const found = req.find("command");
  if (found == req.end()) return refusal("command: missing");
  if (!found->is_string()) return refusal("command: expected a string");
  std::string const& command = found->get_ref<std::string const&>();
  if (command == "status") {
    if (auto const why = fieldsCheck(req, {}); !why.empty()) return refusal(why);
    return status();
  }
  if (command == "clear-counters") {
    if (auto const why = fieldsCheck(req, {}, {"exporter"}); !why.empty()) return refusal(why);
    return clearCounters(req);
  }
  if (command == "trace-set") {
    if (auto const why = fieldsCheck(req, {"handle", "levels"}); !why.empty()) return refusal(why);
    return traceSet(req);
  }
  if (command == "trace-show") {
    if (auto const why = fieldsCheck(req, {}); !why.empty()) return refusal(why);
    return traceShow();
  }
  return refusal("command: unknown command " + nameQuoted(command) +
                 " (expected status, clear-counters, trace-set or trace-show)");
}

std::string ControlService::status() const {
  MirrorOnDrop::FeatureCounters const x = host_.counters();
  json r{{"ok", true},
         {"feature", host_.featureOn() ? "on" : "off"},
         {"pid", getpid()},
         {"state_dir", stateDir_},
         {"uptime", wallNow() - started_},
         {"counters",
          {{"received", x.receivedPackets},
           {"processed", x.processedPackets},
           {"rejected", x.receivedPackets - x.processedPackets},
           {"refused_flows", x.refusedFlows},
           {"start_reports", x.startReports},
           {"stop_reports", x.stopReports}}}};
  if (auto const t = host_.activeTracker()) {
    r["tracker"] = {{"name", t->name()},
                    {"active_interval", t->activeInterval().seconds()},
                    {"inactive_timeout", t->inactiveTimeout().seconds()}};
  } else {
    r["tracker"] = nullptr;
  }
  json damaged = json::array();
  if (damaged_) {
    for (auto const& d : damaged_->tables()) {
      damaged.push_back({{"table", d.table},
                         {"problem", d.problem},
                         {"copy", d.copy.empty() ? json(nullptr) : json(d.copy)},
                         {"time", d.time},
                         {"lost", d.lost}});
    }
  }
  r["damaged_tables"] = std::move(damaged);
  if (statusExtra_) statusExtra_(r);
  return line(r);
}

std::string ControlService::clearCounters(json const& req) {
  std::string const exporter = req.value("exporter", "");
  auto const active = host_.activeTracker();
  std::string const tracker = active ? active->name() : "";
  host_.mounts().configReq->clearCounterReqIs(
      Calyx::FlowTracking::ClearCounterReq(tracker, exporter, wallNow()));
  return line(json{{"ok", true}, {"cleared", exporter.empty() ? "all" : exporter}});
}

std::string ControlService::traceSet(json const& req) {
  std::string const& handle = req["handle"].get_ref<std::string const&>();
  std::string const& levels = req["levels"].get_ref<std::string const&>();
  // The two go into one "handle=levels" setting: neither may carry a separator of its own.
  if (handle.empty() || handle.find_first_of("=,") != std::string::npos)
    return refusal("handle: " + nameQuoted(handle) + " is not a trace handle name");
  if (levels.find('=') != std::string::npos)
    return refusal("levels: " + nameQuoted(levels) + " is not a level list");
  std::string const setting = handle + "=" + levels;
  // Only the handles the agent has, as for --trace and the file's levels: a typo is said, not made a handle.
  if (std::string const unknown = MirrorOnDrop::TraceName::unknownIn(setting); !unknown.empty())
    return refusal("handle: unknown trace handle " + nameQuoted(unknown) +
                   " (handles: " + MirrorOnDrop::TraceName::list() + ", or * for all)");
  std::string const why = Calyx::TraceRegistry::instance().levelsApply(setting);
  if (!why.empty()) return refusal("levels: " + why);
  return line(json{{"ok", true}, {"applied", setting}});
}

std::string ControlService::traceShow() const {
  json handles = json::object();
  auto& registry = Calyx::TraceRegistry::instance();
  for (auto const& name : registry.names()) handles[name] = levelsText(registry.handle(name).levels());
  return line(json{{"ok", true}, {"handles", handles}});
}

}  // namespace ModAgent
