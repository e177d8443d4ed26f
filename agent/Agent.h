#pragma once
// Agent: one run of mod-agent. It takes the state directory (one agent per directory), sets up tracing, loads
// the plug-in, mounts the feature's entities from the configuration, starts the feature in its start-up order
// and runs the event loop:
// - live capture, or replay at the recorded pace or as fast as it can, on the real clock: until SIGINT or
//   SIGTERM;
// - replay on the virtual clock: the loop runs on simulated time that follows the capture's record times, and
//   after the last frame time moves on until every flow has had its STOP report; then it ends by itself.
// SIGHUP reads the configuration file again, applies only the differences and logs each; a file with an error
// keeps the running configuration and says why.
//
// Stopping (SIGINT, SIGTERM): the agent turns the feature off as if the hardware had withdrawn its support,
// so that the feature's own turn-off sends the STOP report of every live flow and empties its tables; it runs
// the loop until the feature is off, then tears down in the reverse order. That is bounded by stop_timeout:
// once it passes, or on a second signal, the agent ends at once as a kill -9 would, leaving the flows it has
// not stopped in the tables for the next agent (whose feature sends their STOP reports). A summary line goes
// to stderr either way: frames, flows, reports, the collectors' counters and send errors, each capture's
// frames and kernel drops, and how many flows the stop closed and how many it left.
//
// As a service: READY once the feature is up, STATUS lines, WATCHDOG pings from the event loop
// (ServiceNotify); the state directory kept to the agent and its group, and only the capability capture needs
// kept once the captures are open (Privileges); a scrape endpoint when configured (MetricsServer).
//
// The state directory is checked before anything in it is used (StateDirTrust). A table found damaged as it
// is opened is set aside (DamagedState) and the agent starts with a fresh one; damage found while running
// stops the agent at once with its own exit status, so that the next start sets the table aside.

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "agent/AgentConfig.h"
#include "agent/CaptureMonitor.h"
#include "agent/ControlService.h"
#include "agent/DamagedState.h"
#include "agent/FeatureHost.h"
#include "agent/MetricsServer.h"
#include "agent/ServiceNotify.h"
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
  enum class Stop { none, asked, abandoned };

  int start();
  bool heartbeatStart(std::string& error);
  void tablesCheck();
  void tableCorrupted(Calyx::SharedTableCorruption const& c);
  void tell(std::string const& line, std::string const& ringLine) const;
  int runVirtual();
  std::string replayError() const;
  void reload();
  void stopAsked(int signo);
  void stopGracefully();
  [[noreturn]] void leaveAsKilled();
  void heartbeat();
  void sendErrorsSay();
  bool replayDone() const;
  void progress();
  void summary() const;
  bool traceApply(AgentConfig const& c, std::string& error);
  void statusAdd(nlohmann::json& status) const;
  std::vector<std::string> problems() const;
  std::string statusLine() const;
  std::string metricsText() const;

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
  std::unique_ptr<CaptureMonitor> captures_;
  std::unique_ptr<MetricsServer> metrics_;
  ServiceNotify notify_;
  int heartbeatFd_ = -1;
  std::unique_ptr<Calyx::EventLoop::FdWatch> heartbeatWatch_;
  double nextWatchdog_ = 0;
  std::vector<std::string> problemsSaid_;
  std::map<std::pair<std::string, std::string>, uint64_t> sendErrorsSaid_;  // per collector, the count said
  double nextProgress_ = 0;

  Stop stop_ = Stop::none;
  std::string abandonedWhy_;
  bool stopRan_ = false;
  uint64_t stopLive_ = 0;         // flows live when the stop began
  uint64_t stopStopsBefore_ = 0;  // STOP reports sent before it
  double stopSeconds_ = 0;
  MirrorOnDrop::FeaturePart stopWatch_;
  std::vector<MirrorOnDrop::CollectorCounters> collectorsAtStop_;
};

}  // namespace ModAgent
