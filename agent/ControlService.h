#pragma once
// ControlService: what the agent answers on its control socket, one JSON object per line each way.
//
//   {"command": "status"}                                   the feature, the active tracker, counters,
//                                                           uptime, tables set aside at start as damaged,
//                                                           and what the host adds (statusExtraIs)
//   {"command": "clear-counters", "exporter": "e1"}         clear one exporter's collector counters (or all)
//   {"command": "trace-set", "handle": "MOD-Manager", "levels": "0-4"}
//   {"command": "trace-show"}                               every trace handle with its levels
//
// Every reply has "ok"; a refused or malformed request gets {"ok": false, "error": "..."} and changes
// nothing. Every field is checked for its type before it is used, and a field a command does not take is
// refused, each naming the field ("command: expected a string", "colour: unknown field"), so answer() throws
// for no request; should anything below it throw all the same, the control socket turns that into an error
// reply and a trace line.

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "agent/DamagedState.h"
#include "agent/FeatureHost.h"
#include "platform/io/ControlSocket.h"

namespace ModAgent {

class ControlService {
 public:
  // damaged: the tables set aside at start, shown by status; may be null.
  ControlService(Calyx::EventLoop& loop, MirrorOnDrop::FeatureHost const& host, std::string stateDir,
                 DamagedState const* damaged = nullptr);

  // Opens the socket at path; false with error set.
  bool open(std::string const& path, std::string& error);
  // The reply line to one request line.
  std::string answer(std::string const& request);
  // What the host adds to every status reply (its captures, health, send errors).
  void statusExtraIs(std::function<void(nlohmann::json&)> extra) { statusExtra_ = std::move(extra); }

 private:
  std::string status() const;
  std::string clearCounters(nlohmann::json const& request);
  std::string traceSet(nlohmann::json const& request);
  std::string traceShow() const;

  MirrorOnDrop::FeatureHost const& host_;
  std::string stateDir_;
  DamagedState const* damaged_;
  double started_;
  std::unique_ptr<Calyx::ControlSocket> socket_;
  Calyx::EventLoop& loop_;
  std::function<void(nlohmann::json&)> statusExtra_;
};

}  // namespace ModAgent
