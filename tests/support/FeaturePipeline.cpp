#include "tests/support/FeaturePipeline.h"

#include <netinet/in.h>

#include <cstring>

#include "platform/io/InMemoryPam.h"
#include "platform/types/PktManager.h"
#include "tools/common/DropFrameBuilder.h"

namespace MirrorOnDrop::Test {

using Calyx::IpGenAddr;
using Calyx::make;
using Calyx::Ptr;
namespace HwFt = Calyx::HwFlowTracking;

FeaturePipeline::FeaturePipeline(double activeInterval, double inactiveTimeout)
    : emtConfig(Emt::configFactory("emtConfig")),
      emtStatus(Emt::statusFactory("emtStatus")),
      collectorStatus(Collector::statusFactory("collectorStatus")),
      reportStatus(Report::statusFactory("reportStatus")),
      allIntfStatusLocalDir(make<MountHolder::AllIntfStatusLocalDir>()),
      allIntfStatusDir(make<MountHolder::AllIntfStatusDir>()),
      capabilities(make<MountHolder::Capabilities>()),
      configReq(make<MountHolder::ConfigReq>()),
      fcsd(make<MountHolder::FeatureAgentCommonSmData>()),
      hwConfig(make<MountHolder::HwConfig>()),
      hwStatus(make<MountHolder::HwStatus>()),
      kniStatus(make<MountHolder::KniStatus>()),
      ftConfig(make<MountHolder::FtConfig>(kTracker)),
      exporter(make<HwFt::ExporterConfig>("e1")),
      config(make<Calyx::FlowTracking::Config>()),
      configStatus(make<Calyx::FlowTracking::Status>()),
      agentDir(make<Calyx::Dir>("mod-agent")) {
  for (auto const& intf : {kIntfA, kIntfB}) {
    fcsd->intfIs(intf);
    allIntfStatusDir->intfStatusIs(intf, {true, Calyx::Interface::PamBackend::inMemory()});
  }
  ftConfig->activeIntervalIs(Calyx::FlowTracking::ActiveInterval(uint32_t(activeInterval * 1000)));
  ftConfig->inactiveTimeoutIs(Calyx::FlowTracking::InactiveTimeout(uint32_t(inactiveTimeout * 1000)));
  exporter->srcIpAddrIs(IpGenAddr::parse("127.0.0.1")->v4());
  exporter->srcIp6AddrIs(IpGenAddr::parse("::1")->v6());
  exporter->collectorIpAndPortIs("c4", HwFt::IpAndPort(*IpGenAddr::parse("127.0.0.1"), collector4.port()));
  exporter->collectorIp6AndPortIs("c6", HwFt::IpAndPort(*IpGenAddr::parse("::1"), collector6.port()));
  ftConfig->expConfigIs("e1", exporter);
  capabilities->mirrorOnDropSupportedIs(true);
  holder = mountHolderFactory(allIntfStatusLocalDir, allIntfStatusDir, capabilities, configReq,
                              collectorStatus, emtConfig, emtStatus, fcsd, hwConfig, hwStatus, nullptr,
                              nullptr, kniStatus, reportStatus, Ptr<Calyx::TaskScheduler>(&loop->scheduler()),
                              loop, Calyx::PktManager::global());
}

FeaturePipeline::~FeaturePipeline() {
  manager = nullptr;
  dispatcher = nullptr;
  holder = nullptr;
}

void FeaturePipeline::dispatcherStart() {
  Ptr<HwFt::FtStatus> status = hwStatus->hwFtStatusIs(kTracker);
  status->activeIntervalIs(ftConfig->activeInterval());
  status->inactiveTimeoutIs(ftConfig->inactiveTimeout());
  holder->hwFtConfigIs(ftConfig);
  holder->hwFtStatusIs(status);
  dispatcher = make<DispatcherSm>(emtConfig, emtStatus, hwStatus, reportStatus, holder->timer(),
                                  holder->exchanger(), holder);
  loop->runUntilIdle();
}

void FeaturePipeline::dispatcherStop() {
  dispatcher = nullptr;
  holder->hwFtConfigIs(nullptr);
  holder->hwFtStatusIs(nullptr);
  hwStatus->hwFtStatusDelAll();
  loop->runUntilIdle();
}

Ptr<Calyx::FlowTracking::TrackerConfig> FeaturePipeline::trackerConfigure(std::string const& name,
                                                                          double activeInterval,
                                                                          double inactiveTimeout) {
  auto tracker = make<Calyx::FlowTracking::TrackerConfig>(name);
  tracker->activeIntervalIs(Calyx::FlowTracking::ActiveInterval(uint32_t(activeInterval * 1000)));
  tracker->inactiveTimeoutIs(Calyx::FlowTracking::InactiveTimeout(uint32_t(inactiveTimeout * 1000)));
  tracker->exporterIs("e1", exporter);
  config->enabledIs(true);
  config->trackerIs(name, tracker);
  return tracker;
}

void FeaturePipeline::managerStart() {
  Ptr<Calyx::Task> task = holder->makeTask(ManagerSm::kTaskToggleFeatureOffName, 5);
  manager = managerSmFactory(config, configStatus, agentDir, hwConfig, capabilities, allIntfStatusDir,
                             allIntfStatusDir, allIntfStatusDir, kniStatus, kniStatus, kniStatus,
                             allIntfStatusDir, holder->scheduler(), hwConfig, hwStatus, emtConfig,
                             reportStatus, task, holder->exchanger(), holder);
  loop->runUntilIdle();
}

void FeaturePipeline::managerStop() {
  manager = nullptr;
  loop->runUntilIdle();
}

Ptr<DispatcherSm> FeaturePipeline::activeDispatcher() const {
  if (dispatcher) return dispatcher;
  return manager ? manager->dispatcherSm() : nullptr;
}

void FeaturePipeline::drop(Calyx::IntfId const& intf, std::vector<std::vector<uint8_t>> const& frames) {
  Ptr<DispatcherSm> const d = activeDispatcher();
  Ptr<Calyx::Pam> pam = d ? d->pamManager()->pam(intf) : nullptr;
  auto* queue = dynamic_cast<Calyx::InMemoryPam*>(pam.get());
  if (!queue) return;
  std::vector<Ptr<Calyx::Pkt>> pkts;
  for (auto const& bytes : frames) {
    Ptr<Calyx::Pkt> pkt = Calyx::PktManager::global().newPkt();
    std::memcpy(pkt->headPrepend(bytes.size()), bytes.data(), bytes.size());
    pkts.push_back(std::move(pkt));
  }
  queue->enqueue(std::move(pkts));
}

std::vector<uint8_t> FeaturePipeline::frame(uint16_t n, uint64_t timestamp, bool ipv6) {
  Report::Key const f = flow(n, ipv6);
  Calyx::DropFlow drop;
  drop.dMac = *Calyx::EthAddr::parse("00:00:5e:00:53:01");
  drop.sMac = *Calyx::EthAddr::parse("00:00:5e:00:53:02");
  drop.srcIp = f.srcIp();
  drop.dstIp = f.dstIp();
  drop.ipProto = f.ipProto();
  drop.srcPort = f.srcPort();
  drop.dstPort = f.dstPort();
  return Calyx::DropFrameBuilder::dropFrame(drop, 200, timestamp);
}

Report::Key FeaturePipeline::flow(uint16_t n, bool ipv6) {
  auto const src = IpGenAddr::parse(ipv6 ? "2001:db8::1" : "10.0.0.1");
  auto const dst = IpGenAddr::parse(ipv6 ? "2001:db8::2" : "10.0.0.2");
  return Report::Key(6, *src, *dst, n, 80);
}

void FeaturePipeline::decode(std::vector<Calyx::Test::Datagram> const& datagrams,
                             std::vector<ReceivedReport>& out) {
  for (auto const& d : datagrams) {
    if (d.bytes.empty()) continue;
    ReceivedReport r;
    r.type = d.bytes[0] == 0 ? Report::ReportType::START : Report::ReportType::STOP;
    r.payload.assign(d.bytes.begin() + 1, d.bytes.end());
    size_t const n = std::min(r.payload.size(), Report::Report::kSize);
    std::memcpy(static_cast<void*>(&r.report), r.payload.data(), n);
    out.push_back(std::move(r));
  }
}

std::vector<ReceivedReport> const& FeaturePipeline::received() {
  decode(collector4.drain(), received_);
  return received_;
}

std::vector<ReceivedReport> FeaturePipeline::received6() {
  std::vector<ReceivedReport> out;
  decode(collector6.drain(), out);
  return out;
}

}  // namespace MirrorOnDrop::Test
