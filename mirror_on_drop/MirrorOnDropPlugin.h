#pragma once
// The plug-in's boundary, shared by the host and the plug-in: one extern "C" entry point,
// mirrorOnDropPluginTable(), gives the table of what a host may do with the feature. The host finds it by
// name with dlsym and checks the table's version before it touches anything else.
//
// The host never sees the feature's classes. What a factory makes (a shared table, the MountHolder, the
// manager, the exact-match adapter) comes back as a FeaturePart: a counted object the host keeps alive, hands
// back to the table's functions and drops in its tear-down order. What the host tells of the feature (on or
// off, its counters, what its tables hold) comes back as plain data. A function the plug-in does not have is
// a null pointer, never a stand-in.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "mirror_on_drop/MirrorOnDropCollectorRecords.h"
#include "mirror_on_drop/MirrorOnDropEmtRecords.h"
#include "mirror_on_drop/MirrorOnDropFeatureMounts.h"
#include "mirror_on_drop/MirrorOnDropNames.h"
#include "mirror_on_drop/MirrorOnDropRecordLayout.h"
#include "mirror_on_drop/MirrorOnDropReportRecords.h"
#include "platform/core/Task.h"
#include "platform/entity/HwFlowTrackingFtConfig.h"

namespace MirrorOnDrop {

// A part of the running feature, opaque to the host.
using FeaturePart = Calyx::Ptr<Calyx::Object>;

// The four shared tables, as the host opened them through the table's factories.
struct FeatureTables {
  FeaturePart emtConfig;
  FeaturePart emtStatus;
  FeaturePart collectorStatus;
  FeaturePart reportStatus;
};

// The feature's counters since the plug-in started; never reset.
struct FeatureCounters {
  uint64_t receivedPackets = 0;
  uint64_t processedPackets = 0;
  uint64_t refusedFlows = 0;
  uint64_t startReports = 0;
  uint64_t stopReports = 0;
};

// One collector's row of the collector table.
struct CollectorCounters {
  std::string exporter;
  std::string collector;
  uint64_t bytes = 0;
  uint64_t start = 0;
  uint64_t stop = 0;
};

// Reports to one collector that could not be sent, with the errno of the last failure.
struct CollectorSendErrors {
  std::string exporter;
  std::string collector;
  uint64_t count = 0;
  int lastErrno = 0;
};

// The live flows seen on one interface.
struct InterfaceFlows {
  std::string interface;
  uint64_t flows = 0;
};

// What one shared table holds, by the name it has in the state directory.
struct TableEntries {
  std::string table;
  size_t entries = 0;
};

// Every record the host and the plug-in share through the tables, key then value per table.
using SharedRecords =
    Layout::RecordSet<Report::Key, Report::EntryStatus, Report::Interface::Key, Report::Interface::Entry,
                      Collector::Key, Collector::EntryStatus, Emt::Key, Emt::EntryConfig, Emt::EntryStatus>;

struct PluginTable {
  // The table's own layout: bump it when a field below is added, removed or changes its type, or when a type
  // it passes changes (FeatureMounts, the plain-data rows above).
  static constexpr uint32_t kLayoutVersion = 3;
  // A host and a plug-in agree on this only if they agree on the table and on every shared record.
  static constexpr uint32_t kVersion = SharedRecords::versionOf(kLayoutVersion);
  static constexpr char const* kEntryPoint = "mirrorOnDropPluginTable";

  uint32_t version;  // first, at a fixed place: the one field a host of another version can read

  // Start-up, in this order: the shared tables (each by its name), the holder (which makes the feature's
  // exchange record and its timer wheel on the mounted loop), the manager's turn-off task, the manager (whose
  // construction may turn the feature on at once), the exact-match adapter. Tear-down drops them in reverse.
  FeaturePart (*emtConfigFactory)(std::string const& name);
  FeaturePart (*emtStatusFactory)(std::string const& name);
  FeaturePart (*collectorStatusFactory)(std::string const& name);
  FeaturePart (*reportStatusFactory)(std::string const& name);
  FeaturePart (*mountHolderFactory)(FeatureMounts const& mounts, FeatureTables const& tables);
  Calyx::Ptr<Calyx::Task> (*taskToggleFeatureOffMake)(FeaturePart const& holder, int priority);
  FeaturePart (*managerSmFactory)(FeatureMounts const& mounts, FeaturePart const& holder,
                                  Calyx::Ptr<Calyx::Task> taskToggleFeatureOff);
  FeaturePart (*adapterSmFactory)(FeatureMounts const& mounts, FeatureTables const& tables);

  // What the host reads, each from the part named.
  bool (*featureOn)(Calyx::Dir const& agentDir);
  FeatureCounters (*countersRead)(FeaturePart const& holder);
  std::vector<CollectorSendErrors> (*sendErrorsRead)(FeaturePart const& holder);
  // The active tracker's configuration while the feature is on, else null.
  Calyx::Ptr<Calyx::HwFlowTracking::FtConfig const> (*activeTracker)(FeaturePart const& holder);
  std::vector<CollectorCounters> (*collectorCountersRead)(FeaturePart const& collectorStatus);  // key order
  // Flows in the report table, requests in the exact-match configuration, rows of any other table.
  size_t (*entryCount)(FeaturePart const& table);
  // Every table a shared table publishes (the report table has two) with its entries.
  std::vector<TableEntries> (*tableEntriesRead)(FeaturePart const& table);
  std::vector<InterfaceFlows> (*interfaceFlowsRead)(FeaturePart const& reportStatus);  // unordered
  size_t (*exactMatchInstalledCount)(FeaturePart const& emtStatus);

  // Calls onReady once now and then each time a turn-off has sent its last STOP report (the sender's
  // clean-up empties the collector table right after), until the returned part is dropped.
  FeaturePart (*toggleOffReadyWatch)(FeaturePart const& holder, std::function<void()> onReady);
};

}  // namespace MirrorOnDrop

// The PluginTable, returned untyped: the loader calls every entry point as a function returning void const*.
extern "C" void const* mirrorOnDropPluginTable();
