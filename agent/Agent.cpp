#include "agent/Agent.h"

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <sstream>
#include <tuple>

#include "agent/ConfigApply.h"
#include "agent/StateDirTrust.h"
#include "platform/core/RingTrace.h"
#include "platform/core/Trace.h"
#include "platform/core/TraceSink.h"
#include "platform/io/PcapReplayPam.h"

namespace ModAgent {

using Calyx::make;
using Calyx::Ptr;

namespace {

constexpr double kProgressEvery = 2.0;  // seconds of real time between progress lines of a replay
constexpr double kVirtualStep = 1.0;    // seconds of virtual time per turn of the replay's outer loop

void say(std::string const& line) {
  std::cerr << "mod-agent: " << line << std::endl;
}

Calyx::TraceHandle const& agentTrace() {
  static Calyx::TraceHandle const handle("MOD-Agent");
  return handle;
}

// What the loss of each of the feature's tables means, and which tables hold entries of the same flows (one
// of them set aside takes the others with it, so the fresh tables agree).
std::map<std::string, std::string> tablesLost() {
  using namespace MirrorOnDrop::TableName;
  std::string const report = kReportStatus;
  return {
      {report + ".entry", "the flows it held cannot be closed with STOP reports"},
      {report + ".entryIntf", "the per-interface counts of the flows it held are forgotten"},
      {kEmtConfig, "the exact-match entries it asked for are forgotten"},
      {kEmtStatus, "which exact-match entries were installed is read again"},
      {kCollectorStatus, "the collectors' byte and report counters start again from zero"},
      {Calyx::HwFlowTracking::StatusStore::kTableName, "the tracker an earlier run had active is forgotten"}};
}

std::map<std::string, std::vector<std::string>> tablesCompanions() {
  using namespace MirrorOnDrop::TableName;
  std::vector<std::string> const flows = {std::string(kReportStatus) + ".entry",
                                          std::string(kReportStatus) + ".entryIntf", kEmtConfig};
  std::map<std::string, std::vector<std::string>> out;
  for (auto const& t : flows) {
    for (auto const& other : flows) {
      if (other != t) out[t].push_back(other);
    }
  }
  return out;
}

}  // namespace

// The loop's signals: SIGHUP reloads, SIGINT and SIGTERM end the run.
class Agent::SignalReactor : public Calyx::EventLoop::Reactor {
 public:
  SignalReactor(Agent& agent, Ptr<Calyx::EventLoop> loop) : Reactor(std::move(loop)), agent_(agent) {}
  void handleSignal(int signo) override {
    if (signo == SIGHUP) return agent_.reload();
    say(std::string("stopping on ") + (signo == SIGINT ? "SIGINT" : "SIGTERM"));
    agent_.loop_->stop();
  }

 private:
  Agent& agent_;
};

Agent::Agent(AgentConfig config, std::string pluginPath, ConfigLoader loader)
    : config_(std::move(config)), pluginPath_(std::move(pluginPath)), loader_(std::move(loader)) {}

Agent::~Agent() {
  signalReactor_.reset();
  control_.reset();
  host_.reset();  // the feature down first: the manager's clean-up turns it off
  exactMatchTables_.clear();
  statusStore_.reset();
  mounts_ = {};
  loop_ = nullptr;
  Calyx::sharedTableCorruptionHandlerIs({});
  plugin_.reset();  // last: nothing the plug-in made may outlive its code
}

std::string Agent::pluginDefaultPath() {
  std::error_code ec;
  std::filesystem::path const self = std::filesystem::read_symlink("/proc/self/exe", ec);
  std::filesystem::path const dir = ec ? std::filesystem::path(".") : self.parent_path();
  for (auto const& candidate : {dir / "libmirror_on_drop.so", dir / "../mirror_on_drop/libmirror_on_drop.so",
                                dir / "../lib/libmirror_on_drop.so"}) {
    if (std::filesystem::exists(candidate, ec)) return candidate.lexically_normal().string();
  }
  return (dir / "libmirror_on_drop.so").string();
}

void Agent::traceApply(AgentConfig const& c) {
  std::string const error = Calyx::TraceRegistry::instance().levelsApply(c.traceLevels);
  if (!error.empty()) say("trace levels \"" + c.traceLevels + "\": " + error);
  if (c.traceOutput == "stderr") {
    Calyx::TraceRegistry::instance().sinkIs(std::make_shared<Calyx::StderrTraceSink>());
  } else {
    Calyx::TraceRegistry::instance().sinkIs(std::make_shared<Calyx::FileTraceSink>(c.traceOutput));
  }
}

int Agent::start() {
  if (std::string const why = stateDirTrust(config_.stateDir); !why.empty()) {
    say(why);
    return kExitRefused;
  }
  std::string error;
  if (!lock_.acquire(config_.stateDir, error)) {
    say(error);
    return kExitNotStarted;
  }
  // The tables and the tracker status live in the state directory.
  setenv("CALYX_STATE_DIR", config_.stateDir.c_str(), 1);
  traceApply(config_);
  if (!Calyx::RingTrace::instance().open(config_.stateDir + "/ring-trace")) {
    say("ring trace stays in memory: " + Calyx::RingTrace::instance().error());
  }
  plugin_ = Calyx::PluginLibrary::open(pluginPath_, MirrorOnDrop::PluginTable::kEntryPoint,
                                       MirrorOnDrop::PluginTable::kVersion, error);
  if (!plugin_) {
    say(error);
    return kExitNotStarted;
  }
  damaged_ = std::make_unique<DamagedState>(config_.stateDir, tablesLost(), tablesCompanions());
  Calyx::sharedTableCorruptionHandlerIs([this](Calyx::SharedTableCorruption const& c) { tableCorrupted(c); });
  bool const virtualTime = config_.replaying() && config_.replayClock == ReplayClock::virtualTime;
  loop_ = virtualTime ? Calyx::EventLoop::makeSimulated() : Calyx::EventLoop::makeReal();
  loop_->signalsEnable();
  signalReactor_ = std::make_unique<SignalReactor>(*this, loop_);

  mounts_ = MirrorOnDrop::featureMountsMake(Ptr<Calyx::TaskScheduler>(&loop_->scheduler()));
  // The chip's exact-match tables, in software on this host.
  for (auto const& [config, status, capacity] :
       {std::tuple(mounts_.emtConfigIpv4, mounts_.emtStatusIpv4, config_.exactMatchCapacityIpv4),
        std::tuple(mounts_.emtConfigIpv6, mounts_.emtStatusIpv6, config_.exactMatchCapacityIpv6)}) {
    exactMatchTables_.push_back(std::make_unique<Calyx::CalyxEm::SoftwareExactMatchTable>(
        *loop_, config, status, capacity, config_.exactMatchInstallDelay));
  }
  // What an earlier run left of the tracker status is loaded before the manager looks at it.
  statusStore_ = std::make_unique<Calyx::HwFlowTracking::StatusStore>(mounts_.hwStatus);
  tablesCheck();
  configApply(config_, mounts_);
  host_ = std::make_unique<MirrorOnDrop::FeatureHost>(plugin_->tableAs<MirrorOnDrop::PluginTable>(), mounts_);
  control_ = std::make_unique<ControlService>(*loop_, *host_, config_.stateDir, damaged_.get());
  std::string const socketPath =
      config_.controlSocket.empty() ? config_.stateDir + "/mod-agent.sock" : config_.controlSocket;
  if (!control_->open(socketPath, error)) say("no control socket: " + error);
  say(std::string("started: feature ") + (host_->featureOn() ? "on" : "off") + ", state directory " +
      config_.stateDir + (config_.replaying() ? ", replaying " + config_.replay : ""));
  return kExitClean;
}

// The feature's tables opened once before anything uses them: damage in any of them is set aside now, and the
// tables holding entries of the same flows follow it, whatever the order the feature opens them in.
void Agent::tablesCheck() {
  auto const& plugin = plugin_->tableAs<MirrorOnDrop::PluginTable>();
  using namespace MirrorOnDrop::TableName;
  auto const report = plugin.reportStatusFactory(kReportStatus);
  auto const emtConfig = plugin.emtConfigFactory(kEmtConfig);
  (void)plugin.emtStatusFactory(kEmtStatus);
  (void)plugin.collectorStatusFactory(kCollectorStatus);
  std::map<std::string, size_t> const entries = {
      {report->entryControl()->name(), report->entryCount()},
      {report->entryIntfControl()->name(), report->entryIntfCount()},
      {kEmtConfig, emtConfig->entryCount()}};
  auto const holdsEntries = [&](std::string const& table) {
    auto const it = entries.find(table);
    return it == entries.end() || it->second > 0;
  };
  for (auto const& d : damaged_->companionsSetAside(holdsEntries))
    tell(DamagedState::message(d), "Table set aside with a damaged one: " + d.table + " -> " + d.copy);
}

void Agent::tableCorrupted(Calyx::SharedTableCorruption const& c) {
  if (c.atOpen && damaged_) {
    DamagedTable const d = damaged_->setAside(c);
    tell(DamagedState::message(d), "Damaged table set aside: " + d.table + " -> " + d.copy);
    return;
  }
  // Found while running: the agent stops, as a clean exit with its own status rather than an abort, so that
  // a supervisor restarts it and the next start sets the table aside. Nothing is torn down: the feature's
  // state machines must not go on over a table that breaks its invariants.
  tell(Calyx::sharedTableCorruptionText(c) + "; stopping (exit status " + std::to_string(kExitStateDamaged) +
           "; the next start sets the table aside)",
       "Damaged table while running, stopping: " + c.table);
  std::fflush(nullptr);
  std::_Exit(kExitStateDamaged);
}

// An event the operator must hear of: on stderr, in the trace log when that is elsewhere, and in the ring.
void Agent::tell(std::string const& line, std::string const& ringLine) const {
  say(line);
  if (config_.traceOutput != "stderr") CALYX_TRACE(agentTrace(), 1, "[ERROR] " << line << ".");
  Calyx::RingTrace::instance().record(ringLine);
}

int Agent::run() {
  if (int const status = start(); status != kExitClean) return status;
  int status = kExitClean;
  if (loop_->isSimulated()) {
    status = runVirtual();
  } else {
    loop_->run();
  }
  summary();
  control_.reset();
  host_.reset();
  return status;
}

int Agent::runVirtual() {
  Calyx::MonotonicClock wall;
  nextProgress_ = wall.now() + kProgressEvery;
  while (!loop_->isStopped()) {
    loop_->runFor(kVirtualStep);
    // A capture that cannot be read does not get better while virtual time flies: retrying would go on for
    // ever.
    if (std::string const why = replayError(); !why.empty()) {
      say("cannot replay " + config_.replay + ": " + why);
      return kExitNotStarted;
    }
    // Every flow has had its STOP once its report entry is gone. Exact-match entries are not waited for: the
    // STOP bookkeeping removes a flow's entries only on interfaces that still have a flow counter, so an
    // interface whose 16-bit counter wrapped (65,536 flows) leaves entries that nothing removes.
    if (replayDone() && host_->reportStatus()->entryCount() == 0) {
      if (size_t const left = host_->emtConfig()->entryCount())
        say(std::to_string(left) +
            " exact-match entries outlive their flows' STOP reports (their interface "
            "had no flow counter left: a counter wraps at 65,536 flows)");
      break;
    }
    if (!host_->featureOn() && loop_->nextTimerDue() == Calyx::kNever) {
      say("the feature is off and nothing is left to do: ending the replay");
      break;
    }
    if (wall.now() >= nextProgress_) {
      progress();
      nextProgress_ = wall.now() + kProgressEvery;
    }
  }
  return kExitClean;
}

std::string Agent::replayError() const {
  auto const pam =
      mounts_.allIntfStatusLocalDir->pamCollection()->intfPam(Calyx::IntfId(config_.replayInterface));
  auto const* replay = dynamic_cast<Calyx::PcapReplayPam const*>(pam.get());
  if (!replay || replay->isOpen() || replay->isDone()) return {};
  return replay->lastError();
}

bool Agent::replayDone() const {
  if (!config_.replaying()) return false;
  auto const pam =
      mounts_.allIntfStatusLocalDir->pamCollection()->intfPam(Calyx::IntfId(config_.replayInterface));
  auto const* replay = dynamic_cast<Calyx::PcapReplayPam const*>(pam.get());
  return replay && replay->isDone();
}

void Agent::progress() {
  auto const& x = *host_->holder()->exchanger();
  std::ostringstream os;
  os << "replaying: " << x.counterReceivedPacket() << " frames, " << host_->reportStatus()->entryCount()
     << " live flows, " << x.counterSentStartReport() << " START and " << x.counterSentStopReport()
     << " STOP reports sent";
  if (x.counterRefusedFlow() > 0) os << ", " << x.counterRefusedFlow() << " drops of new flows refused";
  say(os.str());
}

void Agent::summary() const {
  auto const& x = *host_->holder()->exchanger();
  uint64_t bytes = 0;
  std::ostringstream collectors;
  auto const read = plugin_->tableAs<MirrorOnDrop::PluginTable>().collectorCountersRead;
  for (auto const& c : read(*host_->collectorStatus())) {
    bytes += c.bytes;
    collectors << (collectors.tellp() > 0 ? ", " : "") << c.exporter << "/" << c.collector << " " << c.bytes;
  }
  std::ostringstream os;
  os << "summary: frames received " << x.counterReceivedPacket() << ", processed "
     << x.counterProcessedPacket() << ", rejected " << x.counterReceivedPacket() - x.counterProcessedPacket()
     << "; flows " << x.counterSentStartReport() << ", flows refused " << x.counterRefusedFlow()
     << "; reports START " << x.counterSentStartReport() << ", STOP " << x.counterSentStopReport()
     << "; collector bytes " << bytes;
  if (bytes > 0) os << " (" << collectors.str() << ")";
  say(os.str());
}

void Agent::reload() {
  AgentConfig fresh;
  std::vector<std::string> errors;
  if (!loader_ || !loader_(config_.file, fresh, errors)) {
    say("reload of " + config_.file + " failed; the running configuration stays:");
    for (auto const& e : errors) std::cerr << "  " << e << std::endl;
    return;
  }
  // What the agent built at start (the state directory, the control socket, the exact-match tables) stays as
  // it is; a change there is said, not silently dropped.
  auto keep = [&](auto& freshValue, auto const& running, char const* key) {
    if (freshValue == running) return;
    say(std::string(key) + " changes take effect at the next start");
    freshValue = running;
  };
  keep(fresh.stateDir, config_.stateDir, "state_dir");
  keep(fresh.controlSocket, config_.controlSocket, "control_socket");
  keep(fresh.exactMatchCapacityIpv4, config_.exactMatchCapacityIpv4, "exact_match_capacity_ipv4");
  keep(fresh.exactMatchCapacityIpv6, config_.exactMatchCapacityIpv6, "exact_match_capacity_ipv6");
  keep(fresh.exactMatchInstallDelay, config_.exactMatchInstallDelay, "exact_match_install_delay");
  if (fresh.replaying() != config_.replaying() || fresh.replayClock != config_.replayClock) {
    say("switching between live capture and replay takes effect at the next start");
    fresh.interfaces = config_.interfaces;
    fresh.replay = config_.replay;
    fresh.replayInterface = config_.replayInterface;
    fresh.replayClock = config_.replayClock;
  }
  traceApply(fresh);
  configApply(fresh, mounts_);
  config_ = std::move(fresh);
  say("reloaded " + config_.file + ": feature " + (host_->featureOn() ? "on" : "off"));
}

}  // namespace ModAgent
