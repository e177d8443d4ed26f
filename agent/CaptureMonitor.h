#pragma once
// CaptureMonitor: each configured interface's capture as the operator sees it: its state (up; retrying, with
// the reason; failed for good, with the reason; off while the feature is off and nothing captures), the
// frames it took and the frames the kernel dropped because the capture's ring was full. The packet-access
// modules come and go with the feature (and with reloads); the monitor watches the collection they are
// published in and adds a module's counts to its interface's totals when the module is withdrawn, so the
// totals only grow over the agent's life, as counters should.
//
// A replayed capture file is "up" with its frames; only live capture has kernel drops and failures.

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "platform/entity/InterfaceEthDevPamCollection.h"

namespace ModAgent {

struct CaptureHealth {
  std::string interface;
  std::string device;  // live capture: the kernel's name; empty for a replay
  std::string state;   // up, retrying, failed, off
  std::string reason;  // why it is retrying or failed
  uint64_t frames = 0;
  uint64_t kernelDrops = 0;
};

class CaptureMonitor {
 public:
  explicit CaptureMonitor(Calyx::Ptr<Calyx::Interface::EthDevPamCollection const> collection);
  ~CaptureMonitor();

  // The interfaces the configuration names, in its order (called at start and on every reload).
  void interfacesIs(std::vector<std::string> const& names);
  std::vector<CaptureHealth> captures() const;
  // What keeps the agent from being healthy: one plain sentence per capture not up (while the feature is
  // on, so that its captures should be).
  std::vector<std::string> problems() const;
  // Tries every capture that failed for good once more (after a reload: the operator may have fixed it).
  void failedRetry();

  nlohmann::json json() const;
  std::string summary() const;  // "eth1 up: frames 10, kernel drops 0; ..."

 private:
  class CollectionReactor;
  struct Totals {
    uint64_t frames = 0;
    uint64_t kernelDrops = 0;
    std::string lastState;  // of the module last withdrawn, and why when it was not up
    std::string lastReason;
  };

  void pamChanged(Calyx::IntfId const& intf);
  CaptureHealth health(std::string const& name) const;

  Calyx::Ptr<Calyx::Interface::EthDevPamCollection const> collection_;
  std::unique_ptr<CollectionReactor> reactor_;
  std::vector<std::string> interfaces_;
  std::map<Calyx::IntfId, Calyx::Ptr<Calyx::Pam const>> current_;
  std::map<Calyx::IntfId, Totals> withdrawn_;
};

}  // namespace ModAgent
