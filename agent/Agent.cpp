#include "agent/Agent.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <sstream>
#include <tuple>

#include "agent/ConfigApply.h"
#include "agent/ConfigDiff.h"
#include "agent/Privileges.h"
#include "agent/StateDirTrust.h"
#include "ops/AgentMetrics.h"
#include "platform/core/Trace.h"
#include "platform/core/TraceSink.h"
#include "platform/io/PcapReplayPam.h"
#include "platform/shm/RingTrace.h"

namespace ModAgent {

using Calyx::make;
using Calyx::Ptr;

namespace {

constexpr double kProgressEvery = 2.0;  // seconds of real time between progress lines of a replay
constexpr double kVirtualStep = 1.0;    // seconds of virtual time per turn of the replay's outer loop
constexpr double kHeartbeat = 1.0;      // seconds of real time between two looks at the agent's health

// One record per line, with the wall-clock time: "2026-11-25T08:56:00.173579Z mod-agent: ...".
void say(std::string const& line) {
  char stamp[40];
  size_t const n = Calyx::isoTimeNow(stamp, sizeof stamp);
  std::string text;
  for (char c : line) text += c == '\n' ? std::string("\\n") : std::string(1, c);
  std::cerr << std::string_view(stamp, n) << " mod-agent: " << text << std::endl;
}

std::string seconds(double s) {
  std::ostringstream os;
  os << s << " s";
  return os.str();
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
    agent_.stopAsked(signo);
  }

 private:
  Agent& agent_;
};

Agent::Agent(AgentConfig config, std::string pluginPath, ConfigLoader loader)
    : config_(std::move(config)), pluginPath_(std::move(pluginPath)), loader_(std::move(loader)) {}

Agent::~Agent() {
  signalReactor_.reset();
  stopWatch_ = nullptr;
  metrics_.reset();  // its threads ask the control service for the status
  heartbeatWatch_.reset();
  if (heartbeatFd_ >= 0) close(heartbeatFd_);
  control_.reset();
  captures_.reset();
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
  // Beside the program, the build tree's layout, an install's (bin/ beside lib/mirror-on-drop/), a flat lib/.
  for (auto const& candidate :
       {dir / "libmirror_on_drop.so", dir / "../mirror_on_drop/libmirror_on_drop.so",
        dir / "../lib/mirror-on-drop/libmirror_on_drop.so", dir / "../lib/libmirror_on_drop.so"}) {
    if (std::filesystem::exists(candidate, ec)) return candidate.lexically_normal().string();
  }
  return (dir / "libmirror_on_drop.so").string();
}

// The sink is made first: a file that cannot be opened changes nothing and is an error.
bool Agent::traceApply(AgentConfig const& c, std::string& error) {
  std::shared_ptr<Calyx::TraceSink> sink;
  if (c.traceOutput == "stderr") {
    sink = std::make_shared<Calyx::StderrTraceSink>();
  } else {
    auto file = std::make_shared<Calyx::FileTraceSink>(c.traceOutput);
    if (!file->isOpen()) {
      error = c.file + ": trace.output: " + file->error();
      return false;
    }
    sink = std::move(file);
  }
  std::string const why = Calyx::TraceRegistry::instance().levelsApply(c.traceLevels);
  if (!why.empty()) say("trace levels \"" + c.traceLevels + "\": " + why);
  Calyx::TraceRegistry::instance().sinkIs(std::move(sink));
  return true;
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
  if (!stateDirAccessApply(config_.stateDir, config_.group, error)) {
    say(error);
    return kExitNotStarted;
  }
  // The tables and the tracker status live in the state directory.
  setenv("CALYX_STATE_DIR", config_.stateDir.c_str(), 1);
  if (!traceApply(config_, error)) {
    say(error);
    return kExitNotStarted;
  }
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

  mounts_ = MirrorOnDrop::featureMountsMake(loop_);
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
  captures_ = std::make_unique<CaptureMonitor>(mounts_.allIntfStatusLocalDir->pamCollection());
  captures_->interfacesIs(config_.replaying() ? std::vector<std::string>{config_.replayInterface}
                                              : config_.interfaces);
  configApply(config_, mounts_);
  hwConfigPresetForRename(mounts_);
  host_ = std::make_unique<MirrorOnDrop::FeatureHost>(plugin_->tableAs<MirrorOnDrop::PluginTable>(), mounts_);
  control_ = std::make_unique<ControlService>(*loop_, *host_, config_.stateDir, damaged_.get());
  control_->statusExtraIs([this](nlohmann::json& status) { statusAdd(status); });
  std::string const socketPath =
      config_.controlSocket.empty() ? config_.stateDir + "/mod-agent.sock" : config_.controlSocket;
  if (!control_->open(socketPath, error)) say("no control socket: " + error);
  if (!config_.metricsListen.empty()) {
    metrics_ = std::make_unique<MetricsServer>(*loop_, [this] { return metricsText(); });
    if (!metrics_->open(config_.metricsListen, error)) {
      say(error);
      return kExitNotStarted;
    }
  }
  if (!heartbeatStart(error)) {
    say(error);
    return kExitNotStarted;
  }
  say(std::string("started: feature ") + (host_->featureOn() ? "on" : "off") + ", state directory " +
      config_.stateDir + (config_.replaying() ? ", replaying " + config_.replay : "") +
      (metrics_ ? ", metrics at " + metrics_->url() : ""));
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
  std::map<std::string, size_t> entries;
  for (auto const& table : {report, emtConfig})
    for (auto const& e : plugin.tableEntriesRead(table)) entries[e.table] = e.entries;
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

// The heartbeat: a timerfd the loop watches, on the real clock whatever clock the loop runs on, so that the
// watchdog pings stop when the loop does.
bool Agent::heartbeatStart(std::string& error) {
  double const every =
      notify_.watchdogEvery() > 0 ? std::min(kHeartbeat, notify_.watchdogEvery()) : kHeartbeat;
  heartbeatFd_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  auto const ns = static_cast<long long>(every * 1e9);
  itimerspec const period{{ns / 1000000000, ns % 1000000000}, {ns / 1000000000, ns % 1000000000}};
  if (heartbeatFd_ < 0 || timerfd_settime(heartbeatFd_, 0, &period, nullptr) != 0) {
    error = std::string("heartbeat timer: ") + std::strerror(errno);
    return false;
  }
  heartbeatWatch_ = loop_->fdWatch(heartbeatFd_, [this] {
    uint64_t expirations = 0;
    (void)read(heartbeatFd_, &expirations, sizeof expirations);
    heartbeat();
  });
  return true;
}

// Once a second: the watchdog ping when one is due, the health said when it changes, the service status.
void Agent::heartbeat() {
  if (notify_.watchdogEvery() > 0 && Calyx::MonotonicClock::seconds() >= nextWatchdog_) {
    notify_.watchdog();
    nextWatchdog_ = Calyx::MonotonicClock::seconds() + notify_.watchdogEvery();
  }
  std::vector<std::string> const now = problems();
  for (auto const& p : now) {
    if (std::find(problemsSaid_.begin(), problemsSaid_.end(), p) == problemsSaid_.end())
      say("degraded: " + p);
  }
  if (now.empty() && !problemsSaid_.empty()) say("healthy again: every capture is up");
  problemsSaid_ = now;
  sendErrorsSay();
  if (stop_ == Stop::none) notify_.status(statusLine());
}

// Collectors whose sends failed since the last heartbeat, each named with how many and why: one line a second
// at most per collector, however many reports failed.
void Agent::sendErrorsSay() {
  if (!host_) return;
  for (auto const& e : host_->sendErrors()) {
    uint64_t& said = sendErrorsSaid_[{e.exporter, e.collector}];
    if (e.count < said) said = 0;  // cleared meanwhile
    if (e.count == said) continue;
    say("collector " + e.exporter + "/" + e.collector + ": " + std::to_string(e.count - said) +
        " report sends failed (" + std::strerror(e.lastErrno) + "), " + std::to_string(e.count) + " in all");
    said = e.count;
  }
}

// The scrape's text, from what this agent holds: its status reply and its own tables' counts (the same the
// tables publish in shared memory), in the renderer modctl uses. The interface and exact-match counts walk
// their tables' slots once, comparing no keys.
std::string Agent::metricsText() const {
  MirrorOnDrop::FeatureTableCounts const counts = host_->tableCounts();
  Ops::TableCounts t;
  t.flows = counts.flows;
  for (auto const& i : counts.interfaces)
    t.interfaces.push_back({{"interface", i.interface}, {"flows", i.flows}});
  for (auto const& c : host_->collectors()) {
    t.collectors.push_back({{"exporter", c.exporter},
                            {"collector", c.collector},
                            {"bytes", c.bytes},
                            {"start", c.start},
                            {"stop", c.stop}});
  }
  t.exactMatch = counts.exactMatch;
  t.exactMatchInstalled = counts.exactMatchInstalled;
  auto const status = Ops::Json::parse(control_->answer(R"({"command": "status"})"));
  return Ops::metricsText(Ops::AgentState::answered, status, t);
}

std::vector<std::string> Agent::problems() const {
  if (!host_ || !host_->featureOn()) return {};
  return captures_->problems();
}

std::string Agent::statusLine() const {
  std::vector<std::string> const p = problems();
  std::ostringstream os;
  if (!p.empty())
    os << "degraded: " << p.front() << (p.size() > 1 ? " (and more: modctl status)" : "") << "; ";
  os << "feature " << (host_->featureOn() ? "on" : "off") << ", " << host_->flowCount() << " flows";
  return os.str();
}

// What the agent adds to the feature's status: its health, captures, collectors' send errors, its stop.
void Agent::statusAdd(nlohmann::json& status) const {
  std::vector<std::string> const p = problems();
  status["health"] = p.empty() ? "ok" : "degraded";
  status["problems"] = p;
  status["captures"] = captures_->json();
  auto const errors = host_->sendErrors();
  nlohmann::json collectors = nlohmann::json::array();
  for (auto const& c : host_->collectors()) {
    auto const it = std::find_if(errors.begin(), errors.end(), [&](auto const& e) {
      return e.exporter == c.exporter && e.collector == c.collector;
    });
    bool const failed = it != errors.end();
    collectors.push_back({{"exporter", c.exporter},
                          {"collector", c.collector},
                          {"send_errors", failed ? it->count : 0},
                          {"last_error", failed ? std::strerror(it->lastErrno) : ""}});
  }
  status["collectors"] = collectors;
  status["stopping"] = stop_ != Stop::none;
  status["capabilities"] = capabilitiesText();
}

int Agent::run() {
  if (int const status = start(); status != kExitClean) return status;
  if (!loop_->isSimulated()) loop_->runOnce(0);  // the captures open on the loop's first turn
  std::string error;
  std::string const reduced = capabilitiesReduce(!config_.replaying(), error);
  if (!error.empty()) say(error);
  if (!reduced.empty()) say("capabilities: " + reduced);
  notify_.ready(statusLine());
  int status = kExitClean;
  if (loop_->isSimulated()) {
    status = runVirtual();
  } else {
    loop_->run();
  }
  if (stop_ != Stop::none) stopGracefully();
  summary();
  if (stop_ == Stop::abandoned) leaveAsKilled();
  metrics_.reset();
  control_.reset();
  host_.reset();
  return status;
}

void Agent::stopAsked(int signo) {
  std::string const name = signo == SIGINT ? "SIGINT" : "SIGTERM";
  if (stop_ == Stop::none) {
    stop_ = Stop::asked;
    say("stopping on " + name);
  } else if (stop_ == Stop::asked) {
    stop_ = Stop::abandoned;
    abandonedWhy_ = "a second " + name;
    say("a second " + name + ": stopping at once");
  }
  loop_->stop();
}

// The feature's own turn-off, as if the hardware withdrew its support: the dispatcher ages every flow out,
// the sender sends their STOP reports (after any START still due), and the manager deletes the dispatcher
// once no flow is left. An interface whose 16-bit flow counter wrapped (65,536 flows) keeps exact-match
// entries that nothing removes, and then the turn-off never completes: the deadline ends it.
void Agent::stopGracefully() {
  stopRan_ = true;
  stopLive_ = host_->flowCount();
  stopStopsBefore_ = host_->counters().stopReports;
  double const began = Calyx::MonotonicClock::seconds();
  double const deadline = began + config_.stopTimeout;
  notify_.stopping("stopping: closing " + std::to_string(stopLive_) + " flows");
  // The collectors' counters once the last STOP report is out (the turn-off is ready), since the turn-off
  // then ends with the sender's clean-up emptying the collector table before the summary can read it.
  stopWatch_ = host_->toggleOffReadyWatch([this] {
    if (auto counters = host_->collectors(); !counters.empty()) collectorsAtStop_ = std::move(counters);
  });
  if (host_->featureOn()) {
    say("stopping: turning the feature off to close " + std::to_string(stopLive_) + " live flows (at most " +
        seconds(config_.stopTimeout) + ")");
    mounts_.capabilities->mirrorOnDropSupportedIs(false);
  }
  while (host_->featureOn() && stop_ != Stop::abandoned) {
    double const left = deadline - Calyx::MonotonicClock::seconds();
    if (left <= 0) {
      stop_ = Stop::abandoned;
      abandonedWhy_ = "stop_timeout (" + seconds(config_.stopTimeout) + ") passed";
      break;
    }
    if (loop_->isSimulated()) {
      loop_->runFor(0.05);
    } else {
      loop_->runOnce(std::min(left, 0.1));
    }
  }
  stopSeconds_ = Calyx::MonotonicClock::seconds() - began;
  stopWatch_ = nullptr;
}

// As a kill -9 ends it: no clean-up runs, so the feature's clean-up does not empty the tables; the kernel
// keeps their shared memory, closes every descriptor and releases the state directory's lock. The next agent
// on the directory sends the STOP reports of the flows left.
void Agent::leaveAsKilled() {
  std::cerr.flush();
  std::fflush(nullptr);
  _exit(0);
}

int Agent::runVirtual() {
  nextProgress_ = Calyx::MonotonicClock::seconds() + kProgressEvery;
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
    if (replayDone() && host_->flowCount() == 0) {
      if (size_t const left = host_->exactMatchCount())
        say(std::to_string(left) +
            " exact-match entries outlive their flows' STOP reports (their interface "
            "had no flow counter left: a counter wraps at 65,536 flows)");
      break;
    }
    if (!host_->featureOn() && loop_->nextTimerDue() == Calyx::kNever) {
      say("the feature is off and nothing is left to do: ending the replay");
      break;
    }
    if (Calyx::MonotonicClock::seconds() >= nextProgress_) {
      progress();
      nextProgress_ = Calyx::MonotonicClock::seconds() + kProgressEvery;
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
  MirrorOnDrop::FeatureCounters const x = host_->counters();
  std::ostringstream os;
  os << "replaying: " << x.receivedPackets << " frames, " << host_->flowCount() << " live flows, "
     << x.startReports << " START and " << x.stopReports << " STOP reports sent";
  if (x.refusedFlows > 0) os << ", " << x.refusedFlows << " drops of new flows refused";
  say(os.str());
}

void Agent::summary() const {
  MirrorOnDrop::FeatureCounters const x = host_->counters();
  uint64_t bytes = 0, sendErrors = 0;
  std::ostringstream collectors, failed;
  auto counters = host_->collectors();
  if (counters.empty() && stopRan_) counters = collectorsAtStop_;
  for (auto const& c : counters) {
    bytes += c.bytes;
    collectors << (collectors.tellp() > 0 ? ", " : "") << c.exporter << "/" << c.collector << " " << c.bytes;
  }
  for (auto const& e : host_->sendErrors()) {
    sendErrors += e.count;
    failed << (failed.tellp() > 0 ? ", " : "") << e.exporter << "/" << e.collector << " " << e.count << " ("
           << std::strerror(e.lastErrno) << ")";
  }
  std::ostringstream os;
  os << "summary: frames received " << x.receivedPackets << ", processed " << x.processedPackets
     << ", rejected " << x.receivedPackets - x.processedPackets << "; flows " << x.startReports
     << ", flows refused " << x.refusedFlows << "; reports START " << x.startReports << ", STOP "
     << x.stopReports << "; collector bytes " << bytes;
  if (bytes > 0) os << " (" << collectors.str() << ")";
  os << "; send errors " << sendErrors;
  if (sendErrors > 0) os << " (" << failed.str() << ")";
  if (std::string const c = captures_->summary(); !c.empty()) os << "; capture " << c;
  if (stopRan_) {
    uint64_t const closed = x.stopReports - stopStopsBefore_;
    uint64_t const left = stop_ == Stop::abandoned ? host_->flowCount() : 0;
    os << "; stop: " << closed << " flows closed, " << left << " left";
    if (stop_ == Stop::abandoned) {
      os << " (" << abandonedWhy_ << "; the next agent on " << config_.stateDir
         << " sends their STOP reports";
      if (size_t const entries = host_->exactMatchCount())
        os << "; " << entries << " exact-match entries left";
      os << ")";
    } else {
      os << " (" << stopSeconds_ << " s)";
    }
  }
  say(os.str());
}

void Agent::reload() {
  if (stop_ != Stop::none) return say("SIGHUP ignored: the agent is stopping");
  AgentConfig fresh;
  std::vector<std::string> errors;
  if (!loader_ || !loader_(config_.file, fresh, errors)) {
    for (auto const& e : errors)
      say("reload of " + config_.file + " failed; the running configuration stays: " + e);
    if (errors.empty()) say("reload of " + config_.file + " failed; the running configuration stays");
    return;
  }
  notify_.reloading();
  // What the agent built at start (the state directory, the control socket, the exact-match tables, the
  // scrape endpoint) stays as it is; a change there is said, not silently dropped.
  auto keep = [&](auto& freshValue, auto const& running, char const* key) {
    if (freshValue == running) return;
    say(std::string(key) + " changes take effect at the next start");
    freshValue = running;
  };
  keep(fresh.stateDir, config_.stateDir, "state_dir");
  keep(fresh.controlSocket, config_.controlSocket, "control_socket");
  keep(fresh.group, config_.group, "group");
  keep(fresh.exactMatchCapacityIpv4, config_.exactMatchCapacityIpv4, "exact_match_capacity_ipv4");
  keep(fresh.exactMatchCapacityIpv6, config_.exactMatchCapacityIpv6, "exact_match_capacity_ipv6");
  keep(fresh.exactMatchInstallDelay, config_.exactMatchInstallDelay, "exact_match_install_delay");
  keep(fresh.metricsListen, config_.metricsListen, "metrics.listen");
  if (fresh.replaying() != config_.replaying() || fresh.replayClock != config_.replayClock) {
    say("switching between live capture and replay takes effect at the next start");
    fresh.interfaces = config_.interfaces;
    fresh.replay = config_.replay;
    fresh.replayInterface = config_.replayInterface;
    fresh.replayClock = config_.replayClock;
  }
  std::string error;
  if (!traceApply(fresh, error)) {
    say("reload of " + config_.file + " failed; the running configuration stays: " + error);
    notify_.reloaded(statusLine());
    return;
  }
  std::vector<std::string> const changes = configDiff(config_, fresh);
  configApply(fresh, mounts_);
  config_ = std::move(fresh);
  captures_->interfacesIs(config_.replaying() ? std::vector<std::string>{config_.replayInterface}
                                              : config_.interfaces);
  captures_->failedRetry();
  for (auto const& c : changes) say("reload: " + c);
  say("reloaded " + config_.file + ": " +
      (changes.empty() ? std::string("nothing changed") : std::to_string(changes.size()) + " changes") +
      ", feature " + (host_->featureOn() ? "on" : "off"));
  notify_.reloaded(statusLine());
}

}  // namespace ModAgent
