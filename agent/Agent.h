#pragma once
// Agent: one run of mod-agent. It takes the state directory (one agent per directory), sets up tracing, loads
// the plug-in, mounts the feature's entities from the configuration, starts the feature in its start-up order
// and runs the event loop:
// - live capture, or replay at the recorded pace or as fast as it can, on the real clock: until SIGINT or
//   SIGTERM;
// - replay on the virtual clock: the loop runs on simulated time that follows the capture's record times, and
//   after the last frame time moves on until every flow has had its STOP report; then it ends by itself.
// SIGHUP reads the configuration file again and applies only the differences; a file with an error keeps the
// running configuration and says why. At the end the feature is torn down in the reverse order and a summary
// line goes to stderr (the collectors' counters as their table holds them then).
//
// The state directory is checked before anything in it is used (StateDirTrust). A table found damaged as it
// is opened is set aside (DamagedState) and the agent starts with a fresh one; damage found while running
// stops the agent at once with its own exit status, so that the next start sets the table aside.

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "agent/AgentConfig.h"
#include "agent/ControlService.h"
#include "agent/DamagedState.h"
#include "agent/FeatureHost.h"
#include "agent/StateDirLock.h"
#include "platform/core/EventLoop.h"
#include "platform/entity/HwFlowTrackingStatusStore.h"
#include "platform/io/CalyxEmSoftwareExactMatchTable.h"
#include "platform/io/PluginLibrary.h"

namespace ModAgent {

// Reads a configuration file; false with one message per error (FILE:LINE: KEY: what was expected).
using ConfigLoader = std::function<bool(std::string const& file, AgentConfig&, std::vector<std::string>&)>;

class Agent {
 public:
  // mod-agent's exit statuses.
  static constexpr int kExitClean = 0;         // stopped by a signal (or the replay ended) and torn down
  static constexpr int kExitNotStarted = 1;    // the plug-in, the state directory's lock or (on the virtual
                                               // clock) the capture was not to be had
  static constexpr int kExitRefused = 2;       // a bad command line or configuration, or a state directory
                                               // others can change
  static constexpr int kExitStateDamaged = 3;  // a shared table was found damaged while running: the next
                                               // start sets it aside

  Agent(AgentConfig config, std::string pluginPath, ConfigLoader loader);
  ~Agent();

  // One of the exit statuses above.
  int run();

  // Where the plug-in is looked for when none is given: beside the program, then the build tree's layout.
  static std::string pluginDefaultPath();

 private:
  class SignalReactor;

  int start();
  void tablesCheck();
  void tableCorrupted(Calyx::SharedTableCorruption const& c);
  void tell(std::string const& line, std::string const& ringLine) const;
  int runVirtual();
  std::string replayError() const;
  void reload();
  bool replayDone() const;
  void progress();
  void summary() const;
  void traceApply(AgentConfig const& c);

  AgentConfig config_;
  std::string pluginPath_;
  ConfigLoader loader_;
  StateDirLock lock_;
  std::unique_ptr<DamagedState> damaged_;
  std::unique_ptr<Calyx::PluginLibrary> plugin_;
  Calyx::Ptr<Calyx::EventLoop> loop_;
  MirrorOnDrop::FeatureMounts mounts_;
  std::unique_ptr<Calyx::HwFlowTracking::StatusStore> statusStore_;
  std::vector<std::unique_ptr<Calyx::CalyxEm::SoftwareExactMatchTable>> exactMatchTables_;
  std::unique_ptr<MirrorOnDrop::FeatureHost> host_;
  std::unique_ptr<SignalReactor> signalReactor_;
  std::unique_ptr<ControlService> control_;
  double nextProgress_ = 0;
};

}  // namespace ModAgent
