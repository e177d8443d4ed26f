#include "mirror_on_drop/MirrorOnDropSenderSm.h"

#include <cstdio>
#include <cstring>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "mirror_on_drop/MirrorOnDropTraceManager.h"
#include "platform/shm/RingTrace.h"
#include "platform/types/EthAddr.h"
#include "platform/types/PktManager.h"

namespace MirrorOnDrop {

using Calyx::IpGenAddr;
using Calyx::Ptr;
using Calyx::String;

namespace {

Calyx::TraceHandle const& trace() {
  static Calyx::TraceHandle const handle("MOD-Sender");
  return handle;
}

constexpr size_t kTypeByte = 1;

std::string hexWord(uint32_t v) {
  char text[11];
  std::snprintf(text, sizeof text, "0x%08x", v);
  return text;
}

// The level 5 description of a packet being prepared: its flow on the first line, the drop on a second line
// and the sample's Ethernet header on a third.
std::string preparingText(Report::Key const& key, bool isStop, Report::Report const& r) {
  std::string const continuation = "\n" + std::string(56, ' ');
  std::ostringstream os;
  Drop::Reason const reason = r.reason();
  uint8_t const* data = r.payload();
  os << "Preparing report packet: type = " << (isStop ? "STOP" : "START")
     << ", flow = { sIp = " << key.srcIp() << ", dIp = " << key.dstIp()
     << ", ipProto = " << ipProtoName(key.ipProto()) << ", sPort = " << key.srcPort()
     << ", dPort = " << key.dstPort() << " }," << continuation << "timestamp = " << r.timestamp().value()
     << ", drop reason = " << hexWord(reason.part0()) << " " << hexWord(reason.part1()) << " "
     << hexWord(reason.part2()) << " " << hexWord(reason.part3()) << "," << continuation
     << "packet data = { size = " << unsigned(r.dataSize());
  if (r.dataSize() >= 12) {
    os << ", sMac = " << Calyx::EthAddr::fromBytes(data + 6).stringValue()
       << ", dstMac = " << Calyx::EthAddr::fromBytes(data).stringValue();
  }
  if (r.dataSize() >= 14) os << ", ethType = 0x" << std::hex << (data[12] << 8 | data[13]) << std::dec;
  os << " }.";
  return os.str();
}

}  // namespace

// --- reactors ---

class SenderSm::ConfigReqReactor : public ConfigReq::Reactor {
 public:
  ConfigReqReactor(SenderSm& sm, Ptr<ConfigReq const> e) : Reactor(std::move(e)), sm_(sm) {}
  void handleClearCounterReq() override { sm_.handleClearCounter(); }

 private:
  SenderSm& sm_;
};

class SenderSm::FtConfigReactor : public FtConfig::Reactor {
 public:
  FtConfigReactor(SenderSm& sm, Ptr<FtConfig const> e) : Reactor(std::move(e)), sm_(sm) {}
  void handleExpConfig(String const& name) override {
    if (auto config = notifier()->expConfig(name)) {
      sm_.expConfigIs(name, std::move(config));
    } else {
      sm_.expConfigDel(name);
    }
  }

 private:
  SenderSm& sm_;
};

class SenderSm::FtStatusReactor : public FtStatus::Reactor {
 public:
  FtStatusReactor(SenderSm& sm, Ptr<FtStatus const> e) : Reactor(std::move(e)), sm_(sm) {}
  void handleActiveInterval() override { sm_.handleActiveInterval(); }

 private:
  SenderSm& sm_;
};

class SenderSm::TaskReactor : public Calyx::Task::Reactor {
 public:
  TaskReactor(SenderSm& sm, Ptr<Calyx::Task> e) : Reactor(std::move(e)), sm_(sm) {}
  void handleRun() override { sm_.report(); }

 private:
  SenderSm& sm_;
};

class SenderSm::TimerReactor : public Calyx::Timer::Reactor {
 public:
  TimerReactor(SenderSm& sm, Ptr<Calyx::Timer> e) : Reactor(std::move(e)), sm_(sm) {}
  void handleTimer() override { sm_.taskReport_->schedule(); }

 private:
  SenderSm& sm_;
};

class SenderSm::ExchangerReactor : public Exchanger::Reactor {
 public:
  ExchangerReactor(SenderSm& sm, Ptr<Exchanger> e) : Reactor(std::move(e)), sm_(sm) {}
  void handleIsStopReport() override { sm_.taskReport_->schedule(); }

 private:
  SenderSm& sm_;
};

// One exporter: keeps a zeroed status entry for each of its collectors while the collector is configured.
class SenderSm::ExpConfigReactor : public ExporterConfig::Reactor {
 public:
  ExpConfigReactor(SenderSm& sm, String name, Ptr<ExporterConfig const> config)
      : Reactor(std::move(config)), sm_(sm), name_(std::move(name)) {
    for (String const& c : collectors()) handleCollector(c);
  }
  ~ExpConfigReactor() override {
    for (String const& c : collectors()) sm_.collectorStatus_->entryDel(Collector::Key(name_, c));
  }
  void handleCollectorIpAndPort(String const& c) override { handleCollector(c); }
  void handleCollectorIp6AndPort(String const& c) override { handleCollector(c); }

  // A collector in neither collection loses its entry; a configured one gets a zeroed entry unless it has
  // one.
  void handleCollector(String const& collector) {
    MOD_TRACE(trace(), 8, "SenderSm::handleCollector(" << name_ << ", " << collector << ")");
    Collector::Key const key(name_, collector);
    if (!config().collectorIpAndPort(collector) && !config().collectorIp6AndPort(collector)) {
      sm_.collectorStatus_->entryDel(key);
      return;
    }
    if (!sm_.collectorStatus_->entry(key)) sm_.collectorStatus_->entryIs(Collector::EntryStatus(key));
  }

  String const& name() const { return name_; }
  ExporterConfig const& config() const { return *notifier(); }
  // Every collector name of both collections.
  std::set<String> collectors() const {
    std::set<String> names;
    for (auto c = config().collectorIpAndPortFirst(); c; c = config().collectorIpAndPortNext(*c))
      names.insert(*c);
    for (auto c = config().collectorIp6AndPortFirst(); c; c = config().collectorIp6AndPortNext(*c))
      names.insert(*c);
    return names;
  }

 private:
  SenderSm& sm_;
  String name_;
};

// --- life cycle ---

SenderSm::SenderSm(Ptr<ConfigReq const> configReq, Ptr<FtConfig const> hwFtConfig,
                   Ptr<FtStatus const> hwFtStatus, Ptr<Collector::Status> collectorStatus,
                   Ptr<Report::Status const> reportStatus, Ptr<Calyx::Task> taskReport,
                   Ptr<Calyx::TimerWheel> const& timerWheel, Ptr<Exchanger> exchanger,
                   Calyx::PktManager& pktManager)
    : configReq_(std::move(configReq)),
      hwFtConfig_(std::move(hwFtConfig)),
      hwFtStatus_(std::move(hwFtStatus)),
      collectorStatus_(std::move(collectorStatus)),
      reportStatus_(std::move(reportStatus)),
      taskReport_(std::move(taskReport)),
      timerReport_(timerWheel->timerNew()),
      exchanger_(std::move(exchanger)),
      pktManager_(pktManager),
      udpPam_(Calyx::make<MirrorOnDrop::UdpPam>()) {
  configReqReactor_ = std::make_unique<ConfigReqReactor>(*this, configReq_);
  ftConfigReactor_ = std::make_unique<FtConfigReactor>(*this, hwFtConfig_);
  ftStatusReactor_ = std::make_unique<FtStatusReactor>(*this, hwFtStatus_);
  taskReactor_ = std::make_unique<TaskReactor>(*this, taskReport_);
  timerReactor_ = std::make_unique<TimerReactor>(*this, timerReport_);
  exchangerReactor_ = std::make_unique<ExchangerReactor>(*this, exchanger_);
  // The handlers once, as on attaching: a standing clear request is served, the timer is brought in line with
  // the active interval, and the report task is scheduled (the Exchanger's one handler).
  handleClearCounter();
  handleActiveInterval();
  taskReport_->schedule();
  initialize();
  for (auto name = hwFtConfig_->expConfigFirst(); name; name = hwFtConfig_->expConfigNext(*name)) {
    expConfigIs(*name, hwFtConfig_->expConfig(*name));
  }
  finalize();
}

SenderSm::~SenderSm() {
  cleanup();
  exchangerReactor_.reset();
  timerReactor_.reset();
  taskReactor_.reset();
  ftStatusReactor_.reset();
  ftConfigReactor_.reset();
  configReqReactor_.reset();
  expConfigDelAll();
}

void SenderSm::initialize() {
  MOD_TRACE(trace(), 8, "SenderSm::initialize()");
  Detail::TraceManager::Scope scope;
  // Entries of collectors that are no longer configured are stale; the others keep their counters.
  std::vector<Collector::Key> stale;
  collectorStatus_->forEachEntry([&](Collector::EntryStatus const& e) {
    auto const exporter = hwFtConfig_->expConfig(e.key().exporter());
    String const collector = e.key().collector();
    if (!exporter ||
        (!exporter->collectorIpAndPort(collector) && !exporter->collectorIp6AndPort(collector))) {
      stale.push_back(e.key());
    }
  });
  for (auto const& key : stale) collectorStatus_->entryDel(key);
}

void SenderSm::finalize() {
  MOD_TRACE(trace(), 8, "SenderSm::finalize()");
  Detail::TraceManager::Scope scope;
  // The recorded time plus the current time, as it has always been done; the active interval below brings it
  // forward to one interval from now in practice.
  double const r = exchanger_->timerReportTimeMin();
  timerReport_->timeMinIs(r == 0 || r <= now() ? Calyx::kNever : r + now());
  handleActiveInterval();
}

void SenderSm::cleanup() {
  MOD_TRACE(trace(), 8, "SenderSm::cleanup()");
  collectorStatus_->entryDelAll();
  timerReport_->timeMinIs(Calyx::kNever);
}

// --- exporters and collectors ---

void SenderSm::expConfigIs(String const& name, Ptr<ExporterConfig const> config) {
  auto it = expConfig_.find(name);
  if (it == expConfig_.end()) {
    expConfig_.emplace(name, std::make_unique<ExpConfigReactor>(*this, name, std::move(config)));
    return;
  }
  if (it->second->notifier() == config.get()) return;
  // Rebinding keeps the counters of the collectors both configurations name.
  std::set<String> names = it->second->collectors();
  it->second->notifierIs(std::move(config));
  names.merge(it->second->collectors());
  for (String const& c : names) it->second->handleCollector(c);
}

void SenderSm::expConfigDel(String const& name) {
  expConfig_.erase(name);
}

void SenderSm::expConfigDelAll() {
  expConfig_.clear();
}

void SenderSm::handleClearCounter() {
  MOD_TRACE(trace(), 8, "SenderSm::handleClearCounter()");
  Detail::TraceManager::Scope scope;
  auto const& req = configReq_->clearCounterReq();
  if (req.reqTime() == 0) return;
  std::vector<Collector::Key> keys;
  collectorStatus_->forEachEntry([&](Collector::EntryStatus const& e) {
    if (req.exporterName().empty() || e.key().exporter() == req.exporterName()) keys.push_back(e.key());
  });
  for (auto const& key : keys) {
    MOD_TRACE(
        trace(), 5,
        "Clearing counters: exporter = " << key.exporter() << ", collector = " << key.collector() << ".");
    collectorStatus_->entryIs(Collector::EntryStatus(key));
  }
  exchanger_->sendErrorsClear(req.exporterName());
}

// --- pacing ---

void SenderSm::handleActiveInterval() {
  MOD_TRACE(trace(), 8, "SenderSm::handleActiveInterval()");
  Detail::TraceManager::Scope scope;
  double const t = now() + hwFtStatus_->activeInterval().seconds();
  if (timerReport_->timeMin() > t) timerReport_->timeMinIs(t);
  MOD_TRACE(trace(), 5,
            "Applying active interval: next reporting is in " << timerReport_->timeMin() - now() << "s.");
}

void SenderSm::report() {
  MOD_TRACE(trace(), 8, "SenderSm::report()");
  Detail::TraceManager::Scope scope;
  if (!timerReport_->isArmed()) {
    double const t = now() + hwFtStatus_->activeInterval().seconds();
    timerReport_->timeMinIs(t);
    exchanger_->timerReportTimeMinIs(t);
  }
  // Each sent key is taken off its batch by the dispatcher, and an emptied batch off its queue: the loops
  // end.
  if (auto const& start = exchanger_->reportStartOutbox()) {
    while (auto front = start->entryFront()) {
      if (sendReport(front, false)) return;
      if (start->entryFront() == front) break;  // nobody took the batch away: do not spin on it
    }
  }
  if (!exchanger_->isStopReport()) return;
  if (auto const& stop = exchanger_->reportStopOutbox()) {
    while (auto front = stop->entryFront()) {
      if (sendReport(front, true)) return;
      if (stop->entryFront() == front) break;
    }
  }
}

// --- sending ---

bool SenderSm::packetBuild(Report::Key const& key, bool isStop, Calyx::Pkt& pkt) {
  Report::EntryStatus const* entry = reportStatus_->entry(key);
  if (!entry) return false;
  Report::Report const& report = entry->report();
  MOD_TRACE(trace(), 5, preparingText(key, isStop, report));
  size_t const reportBytes = Report::Report::kPayloadOffset + report.dataSize();
  pkt.reset();
  uint8_t* data = pkt.headPrepend(kTypeByte + reportBytes);
  data[0] = static_cast<uint8_t>(isStop ? Report::ReportType::STOP : Report::ReportType::START);
  std::memcpy(data + kTypeByte, report.bytes(), reportBytes);
  return true;
}

bool SenderSm::sendReport(Ptr<Report::EntryOutbox> const& entry, bool isStop) {
  MOD_TRACE(trace(), 8, "SenderSm::sendReport(" << (isStop ? "STOP" : "START") << ")");
  Detail::TraceManager::Scope scope;
  Ptr<Calyx::Pkt> const pkt = pktManager_.newPkt();
  uint64_t sent = 0;
  // The dispatcher takes each announced key out of the batch inside the announcement, so the batch's first
  // key is always the next one to send: an activation costs what it sends, however many keys are left.
  while (!entry->empty()) {
    Report::Key const key = entry->front();
    if (packetBuild(key, isStop, *pkt)) {
      sendToCollectors(isStop, pkt);
    } else {
      MOD_TRACE(trace(), 1, "[ERROR]: no report entry for flow " << key << ".");
    }
    exchanger_->reportKeyIs(key);
    if (isStop) {
      exchanger_->counterSentStopReportInc(1);
    } else {
      exchanger_->counterSentStartReportInc(1);
    }
    ++sent;
    // A batch nobody drains (it left its queue meanwhile) would hand out the same key for ever.
    if (entry->entry(key)) return false;
    if (taskReport_->shouldYield() && entry->count() > 0) {
      MOD_TRACE(trace(), 3, "Yielding activity: sent reports count = " << sent << ".");
      taskReport_->workCountInc(sent);
      taskReport_->workPendingIs(entry->count());
      taskReport_->schedule();
      return true;
    }
  }
  return false;
}

void SenderSm::sendToCollectors(bool isStop, Ptr<Calyx::Pkt> const& pkt) {
  for (auto const& [name, exporter] : expConfig_) {
    MOD_TRACE(trace(), 5, " Iterating over collectors: exporter = '" << name << "'.");
    ExporterConfig const& config = exporter->config();
    for (auto c = config.collectorIpAndPortFirst(); c; c = config.collectorIpAndPortNext(*c)) {
      auto const dst = *config.collectorIpAndPort(*c);
      sendToCollector(name, *c, config.srcIpAddr(), dst.ip(), dst.port(), config.dscp(), isStop, pkt);
    }
    for (auto c = config.collectorIp6AndPortFirst(); c; c = config.collectorIp6AndPortNext(*c)) {
      auto const dst = *config.collectorIp6AndPort(*c);
      sendToCollector(name, *c, config.srcIp6Addr(), dst.ip(), dst.port(), config.dscp(), isStop, pkt);
    }
  }
}

void SenderSm::sendToCollector(String const& exporter, String const& collector, IpGenAddr const& src,
                               IpGenAddr const& dst, uint16_t port, Calyx::DscpValue dscp, bool isStop,
                               Ptr<Calyx::Pkt> const& pkt) {
  MOD_TRACE(trace(), 5,
            "  Sending report packet: sIp = " << src << ", dIp = " << dst << ", dPort = " << port << ".");
  if (!udpPam_->sendPacket(src, dst, dscp, port, pkt)) {
    int const err = udpPam_->txErrno();
    MOD_TRACE(trace(), 1,
              "[ERROR]: sending report packet failed { errno = " << err << ", message = '"
                                                                 << std::strerror(err) << "' }.");
    // The line above is the feature's own and names no collector: the count per collector is kept where the
    // agent reads its statistics, and the agent's log names the collector.
    exchanger_->sendErrorInc(exporter, collector, err);
    std::ostringstream record;
    record << "Failed to send report: errno = " << err << ", sIp = " << src << ", dIp = " << dst
           << ", dPort = " << port;
    Calyx::RingTrace::instance().record(record.str());
    return;
  }
  // The type byte is deliberately left out of the byte count.
  uint64_t const reportBytes = pkt->bytes() - kTypeByte;
  Collector::Key const key(exporter, collector);
  auto const count = [&](Collector::EntryStatus& status) {
    status.bytesIs(status.bytes() + reportBytes);
    if (isStop) {
      status.stopIs(status.stop() + 1);
    } else {
      status.startIs(status.start() + 1);
    }
  };
  collectorStatus_->entryUpdate(key, count, [&] { return Collector::EntryStatus(key); });
  MOD_TRACE(trace(), 5, "  Updating status: report packet was sent, collector = '" << collector << "'.");
}

}  // namespace MirrorOnDrop
