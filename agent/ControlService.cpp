#include "agent/ControlService.h"

#include <unistd.h>

#include <chrono>
#include <nlohmann/json.hpp>

#include "platform/core/Trace.h"

namespace ModAgent {

using nlohmann::json;

namespace {

double wallNow() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::string refusal(std::string const& why) {
  return json{{"ok", false}, {"error", why}}.dump();
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

}  // namespace

ControlService::ControlService(Calyx::EventLoop& loop, MirrorOnDrop::FeatureHost const& host,
                               std::string stateDir)
    : host_(host), stateDir_(std::move(stateDir)), started_(wallNow()), loop_(loop) {}

bool ControlService::open(std::string const& path, std::string& error) {
  socket_ = std::make_unique<Calyx::ControlSocket>(
      loop_, path, [this](std::string const& request) { return answer(request); }, refusal);
  if (socket_->open(error)) return true;
  socket_.reset();
  return false;
}

std::string ControlService::answer(std::string const& request) {
  json const req = json::parse(request, nullptr, false);
  if (req.is_discarded() || !req.is_object()) return refusal("expected one JSON object per line");
  std::string const command = req.value("command", "");
  auto const& holder = *host_.holder();
  auto const& x = *holder.exchanger();
  if (command == "status") {
    json r{{"ok", true},
           {"feature", host_.featureOn() ? "on" : "off"},
           {"pid", getpid()},
           {"state_dir", stateDir_},
           {"uptime", wallNow() - started_},
           {"counters",
            {{"received", x.counterReceivedPacket()},
             {"processed", x.counterProcessedPacket()},
             {"rejected", x.counterReceivedPacket() - x.counterProcessedPacket()},
             {"refused_flows", x.counterRefusedFlow()},
             {"start_reports", x.counterSentStartReport()},
             {"stop_reports", x.counterSentStopReport()}}}};
    if (auto const& t = holder.hwFtConfig()) {
      r["tracker"] = {{"name", t->name()},
                      {"active_interval", t->activeInterval().seconds()},
                      {"inactive_timeout", t->inactiveTimeout().seconds()}};
    } else {
      r["tracker"] = nullptr;
    }
    if (statusExtra_) statusExtra_(r);
    return r.dump();
  }
  if (command == "clear-counters") {
    if (req.contains("exporter") && !req["exporter"].is_string())
      return refusal("exporter: expected a string");
    std::string const exporter = req.value("exporter", "");
    std::string const tracker = holder.hwFtConfig() ? holder.hwFtConfig()->name() : "";
    host_.mounts().configReq->clearCounterReqIs(
        Calyx::FlowTracking::ClearCounterReq(tracker, exporter, wallNow()));
    return json{{"ok", true}, {"cleared", exporter.empty() ? "all" : exporter}}.dump();
  }
  if (command == "trace-set") {
    if (!req.contains("handle") || !req["handle"].is_string() || !req.contains("levels") ||
        !req["levels"].is_string())
      return refusal("trace-set needs \"handle\" and \"levels\" (strings)");
    std::string const setting = req["handle"].get<std::string>() + "=" + req["levels"].get<std::string>();
    std::string const why = Calyx::TraceRegistry::instance().levelsApply(setting);
    if (!why.empty()) return refusal(why);
    return json{{"ok", true}, {"applied", setting}}.dump();
  }
  if (command == "trace-show") {
    json handles = json::object();
    auto& registry = Calyx::TraceRegistry::instance();
    for (auto const& name : registry.names()) handles[name] = levelsText(registry.handle(name).levels());
    return json{{"ok", true}, {"handles", handles}}.dump();
  }
  return refusal(command.empty() ? "no \"command\"" : "unknown command \"" + command + "\"");
}

}  // namespace ModAgent
