#pragma once
// ControlService: what the agent answers on its control socket, one JSON object per line each way.
//
//   {"command": "status"}                                   the feature, the active tracker, counters,
//   uptime,
//                                                           and what the host adds (statusExtraIs)
//   {"command": "clear-counters", "exporter": "e1"}         clear one exporter's collector counters (or all)
//   {"command": "trace-set", "handle": "MOD-Manager", "levels": "0-4"}
//   {"command": "trace-show"}                               every trace handle with its levels
//
// Every reply has "ok"; a refused or malformed request gets {"ok": false, "error": "..."} and changes
// nothing.

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "agent/FeatureHost.h"
#include "platform/io/ControlSocket.h"

namespace ModAgent {

class ControlService {
 public:
  ControlService(Calyx::EventLoop& loop, MirrorOnDrop::FeatureHost const& host, std::string stateDir);

  // Opens the socket at path; false with error set.
  bool open(std::string const& path, std::string& error);
  std::string answer(std::string const& request);
  // What the host adds to every status reply (its captures, health, send errors).
  void statusExtraIs(std::function<void(nlohmann::json&)> extra) { statusExtra_ = std::move(extra); }

 private:
  MirrorOnDrop::FeatureHost const& host_;
  std::string stateDir_;
  double started_;
  std::unique_ptr<Calyx::ControlSocket> socket_;
  Calyx::EventLoop& loop_;
  std::function<void(nlohmann::json&)> statusExtra_;
};

}  // namespace ModAgent
