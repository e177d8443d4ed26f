#pragma once
// ControlService: what the agent answers on its control socket, one JSON object per line each way.
//
//   {"command": "status"}                                   the feature, the active tracker, counters, uptime
//   {"command": "clear-counters", "exporter": "e1"}         clear one exporter's collector counters (or all)
//   {"command": "trace-set", "handle": "MOD-Manager", "levels": "0-4"}
//   {"command": "trace-show"}                               every trace handle with its levels
//
// Every reply has "ok"; a refused or malformed request gets {"ok": false, "error": "..."} and changes
// nothing.

#include <memory>
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

 private:
  MirrorOnDrop::FeatureHost const& host_;
  std::string stateDir_;
  double started_;
  std::unique_ptr<Calyx::ControlSocket> socket_;
  Calyx::EventLoop& loop_;
};

}  // namespace ModAgent
