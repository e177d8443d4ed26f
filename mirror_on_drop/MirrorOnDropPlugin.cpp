// The plug-in's side of its boundary: the entry point's table, each function a thin adapter from the opaque
// parts and plain data the host holds to the feature's own factories and records.
#include "mirror_on_drop/MirrorOnDropPlugin.h"

#include "mirror_on_drop/MirrorOnDropAdapterSm.h"
#include "mirror_on_drop/MirrorOnDropManagerSm.h"
#include "mirror_on_drop/MirrorOnDropMountHolder.h"
#include "platform/core/Assert.h"

namespace MirrorOnDrop {
namespace {

using Calyx::Ptr;

// The part as what the host says it is; anything else is the host's fault, caught here rather than as a
// stray read. (The feature's types never leave this library, so the cast sees this library's own classes.)
template <class T>
T* partAs(FeaturePart const& part) {
  auto* typed = dynamic_cast<T*>(part.get());
  CALYX_ASSERT(typed, "The host handed the plug-in a part of another kind.");
  return typed;
}

template <class T>
Ptr<T> partPtr(FeaturePart const& part) {
  return Ptr<T>(partAs<T>(part));
}

FeaturePart emtConfigMake(std::string const& name) {
  return Emt::configFactory(name);
}
FeaturePart emtStatusMake(std::string const& name) {
  return Emt::statusFactory(name);
}
FeaturePart collectorStatusMake(std::string const& name) {
  return Collector::statusFactory(name);
}
FeaturePart reportStatusMake(std::string const& name) {
  return Report::statusFactory(name);
}

// The holder starts with no active tracker: the manager names one when it turns the feature on.
FeaturePart holderMake(FeatureMounts const& m, FeatureTables const& t) {
  return mountHolderFactory(m.allIntfStatusLocalDir, m.allIntfStatusDir, m.capabilities, m.configReq,
                            partPtr<Collector::Status>(t.collectorStatus), partPtr<Emt::Config>(t.emtConfig),
                            partPtr<Emt::Status>(t.emtStatus), m.fcsd, m.hwConfig, m.hwStatus, nullptr,
                            nullptr, m.kniStatus, partPtr<Report::Status>(t.reportStatus), m.scheduler,
                            m.loop, *m.pktManager);
}

Ptr<Calyx::Task> taskToggleFeatureOffMake(FeaturePart const& holder, int priority) {
  return partAs<MountHolder>(holder)->makeTask(ManagerSm::kTaskToggleFeatureOffName, priority);
}

// The host has one interface status directory and one kernel status for every kind the manager watches.
FeaturePart managerMake(FeatureMounts const& m, FeaturePart const& holder,
                        Ptr<Calyx::Task> taskToggleFeatureOff) {
  auto const mountHolder = partPtr<MountHolder>(holder);
  return managerSmFactory(m.config, m.status, m.agentDir, m.hwConfig, m.capabilities, m.allIntfStatusDir,
                          m.allIntfStatusDir, m.allIntfStatusDir, m.kniStatus, m.kniStatus, m.kniStatus,
                          m.allIntfStatusDir, m.scheduler, m.hwConfig, m.hwStatus, mountHolder->emtConfig(),
                          mountHolder->reportStatus(), std::move(taskToggleFeatureOff),
                          mountHolder->exchanger(), mountHolder);
}

FeaturePart adapterMake(FeatureMounts const& m, FeatureTables const& t) {
  return adapterSmFactory(m.flexibleUftCapabilityStatus, m.miscConfig, partPtr<Emt::Config>(t.emtConfig),
                          partPtr<Emt::Status>(t.emtStatus), m.emtStatusIpv4, m.emtConfigIpv4,
                          m.emtStatusIpv6, m.emtConfigIpv6);
}

bool featureOn(Calyx::Dir const& agentDir) {
  return static_cast<bool>(agentDir.entry(ManagerSm::kAgentName));
}

Exchanger const& exchangerOf(FeaturePart const& holder) {
  return *partAs<MountHolder>(holder)->exchanger();
}

FeatureCounters countersRead(FeaturePart const& holder) {
  Exchanger const& x = exchangerOf(holder);
  return {.receivedPackets = x.counterReceivedPacket(),
          .processedPackets = x.counterProcessedPacket(),
          .refusedFlows = x.counterRefusedFlow(),
          .startReports = x.counterSentStartReport(),
          .stopReports = x.counterSentStopReport()};
}

std::vector<CollectorSendErrors> sendErrorsRead(FeaturePart const& holder) {
  std::vector<CollectorSendErrors> out;
  for (auto const& [who, e] : exchangerOf(holder).sendErrors())
    out.push_back({who.first, who.second, e.count, e.lastErrno});
  return out;
}

Ptr<Calyx::HwFlowTracking::FtConfig const> activeTracker(FeaturePart const& holder) {
  return partAs<MountHolder>(holder)->hwFtConfig();
}

std::vector<CollectorCounters> collectorCountersRead(FeaturePart const& collectorStatus) {
  std::vector<CollectorCounters> out;
  partAs<Collector::Status>(collectorStatus)->forEachEntry([&](Collector::EntryStatus const& e) {
    out.push_back({e.key().exporter(), e.key().collector(), e.bytes(), e.start(), e.stop()});
  });
  return out;
}

std::vector<TableEntries> tableEntriesRead(FeaturePart const& table) {
  if (auto const* report = dynamic_cast<Report::Status const*>(table.get())) {
    return {{report->entryControl()->name(), report->entryCount()},
            {report->entryIntfControl()->name(), report->entryIntfCount()}};
  }
  if (auto const* t = dynamic_cast<Emt::Config const*>(table.get())) return {{t->name(), t->entryCount()}};
  if (auto const* t = dynamic_cast<Emt::Status const*>(table.get())) return {{t->name(), t->entryCount()}};
  auto const* t = partAs<Collector::Status>(table);
  return {{t->name(), t->entryCount()}};
}

size_t entryCount(FeaturePart const& table) {
  if (auto const* report = dynamic_cast<Report::Status const*>(table.get())) return report->entryCount();
  return tableEntriesRead(table).front().entries;
}

std::vector<InterfaceFlows> interfaceFlowsRead(FeaturePart const& reportStatus) {
  std::vector<InterfaceFlows> out;
  partAs<Report::Status>(reportStatus)
      ->entryIntfControl()
      ->forEachEntryUnordered([&](Report::Interface::Entry const& e) {
        out.push_back({std::string(e.key().intfId().name()), e.countReport()});
      });
  return out;
}

size_t exactMatchInstalledCount(FeaturePart const& emtStatus) {
  size_t installed = 0;
  partAs<Emt::Status>(emtStatus)->forEachEntryUnordered(
      [&](Emt::EntryStatus const& e) { installed += e.isInstalled(); });
  return installed;
}

class ToggleOffReadyWatch : public Calyx::Object, public Exchanger::Reactor {
 public:
  ToggleOffReadyWatch(Ptr<Exchanger> exchanger, std::function<void()> onReady)
      : Reactor(std::move(exchanger)), onReady_(std::move(onReady)) {
    handleIsToggleFeatureOffReady();
  }
  void handleIsToggleFeatureOffReady() override { onReady_(); }

 protected:
  ~ToggleOffReadyWatch() override = default;

 private:
  std::function<void()> onReady_;
};

FeaturePart toggleOffReadyWatch(FeaturePart const& holder, std::function<void()> onReady) {
  return Calyx::make<ToggleOffReadyWatch>(partAs<MountHolder>(holder)->exchanger(), std::move(onReady));
}

PluginTable const kTable{
    .version = PluginTable::kVersion,
    .emtConfigFactory = &emtConfigMake,
    .emtStatusFactory = &emtStatusMake,
    .collectorStatusFactory = &collectorStatusMake,
    .reportStatusFactory = &reportStatusMake,
    .mountHolderFactory = &holderMake,
    .taskToggleFeatureOffMake = &taskToggleFeatureOffMake,
    .managerSmFactory = &managerMake,
    .adapterSmFactory = &adapterMake,
    .featureOn = &featureOn,
    .countersRead = &countersRead,
    .sendErrorsRead = &sendErrorsRead,
    .activeTracker = &activeTracker,
    .collectorCountersRead = &collectorCountersRead,
    .entryCount = &entryCount,
    .tableEntriesRead = &tableEntriesRead,
    .interfaceFlowsRead = &interfaceFlowsRead,
    .exactMatchInstalledCount = &exactMatchInstalledCount,
    .toggleOffReadyWatch = &toggleOffReadyWatch,
};

}  // namespace
}  // namespace MirrorOnDrop

extern "C" __attribute__((visibility("default"))) void const* mirrorOnDropPluginTable() {
  return &MirrorOnDrop::kTable;
}
