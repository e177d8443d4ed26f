#pragma once
// The plug-in's boundary, shared by the host and the plug-in: one extern "C" entry point,
// mirrorOnDropPluginTable(), gives the table of the plug-in's factories. The host finds it by name with
// dlsym and checks the table's version before it touches a factory; host and plug-in are built from the same
// sources, so a matching version means matching types. A factory the plug-in does not have is a null pointer,
// never a stand-in.

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "mirror_on_drop/MirrorOnDropAdapterSm.h"
#include "mirror_on_drop/MirrorOnDropCollector.h"
#include "mirror_on_drop/MirrorOnDropEmtCommon.h"
#include "mirror_on_drop/MirrorOnDropManagerSm.h"
#include "mirror_on_drop/MirrorOnDropMountHolder.h"
#include "mirror_on_drop/MirrorOnDropReport.h"
#include "platform/core/Trace.h"

namespace MirrorOnDrop {

// The shared tables' names in the state directory, as the host makes them and the tools read them
// (Report::Status publishes two: <name>.entry and <name>.entryIntf).
namespace TableName {
inline constexpr char const* kEmtConfig = "emtConfig";
inline constexpr char const* kEmtStatus = "emtStatus";
inline constexpr char const* kCollectorStatus = "collectorStatus";
inline constexpr char const* kReportStatus = "reportStatus";
}  // namespace TableName

// The trace handles of an agent hosting the plug-in: the feature's state machines, then the platform parts
// the feature drives. A handle comes into being when its code first traces, so the registry alone cannot tell
// a typo from a handle not used yet; level settings are checked against this list instead.
namespace TraceName {
inline constexpr std::array<std::string_view, 10> kAll = {
    "MOD-Manager", "MOD-Dispatcher", "MOD-Receiver",     "MOD-Sender", "MOD-Adapter",
    "Calyx-Pam",   "Calyx-Udp",      "Calyx-ExactMatch", "MOD-Agent",  "Calyx-Control"};

// The first handle a level setting ("MOD-Manager=0-4,*=0-1") names that is not in kAll, or empty ("*" is
// always known). A setting that does not parse names nothing: its own error says why.
inline std::string unknownIn(std::string_view setting) {
  Calyx::TraceRegistry scratch;  // a channel per named handle, never applied
  scratch.levelsApply(setting);
  for (auto const& name : scratch.names())
    if (std::find(kAll.begin(), kAll.end(), name) == kAll.end()) return name;
  return {};
}

// "MOD-Manager, MOD-Dispatcher, ..." for messages.
inline std::string list() {
  std::string out;
  for (auto name : kAll) out += (out.empty() ? "" : ", ") + std::string(name);
  return out;
}
}  // namespace TraceName

using MountHolderFactory = decltype(&mountHolderFactory);
using ManagerSmFactory = decltype(&managerSmFactory);
using AdapterSmFactory = decltype(&adapterSmFactory);
using EmtConfigFactory = decltype(&Emt::configFactory);
using EmtStatusFactory = decltype(&Emt::statusFactory);
using CollectorStatusFactory = decltype(&Collector::statusFactory);
using ReportStatusFactory = decltype(&Report::statusFactory);
using CollectorCountersRead = decltype(&Collector::countersRead);

struct PluginTable {
  static constexpr uint32_t kVersion = 1;
  static constexpr char const* kEntryPoint = "mirrorOnDropPluginTable";

  uint32_t version;  // first, at a fixed place: the one field a host of another version can read
  MountHolderFactory mountHolderFactory;
  ManagerSmFactory managerSmFactory;
  AdapterSmFactory adapterSmFactory;
  EmtConfigFactory emtConfigFactory;
  EmtStatusFactory emtStatusFactory;
  CollectorStatusFactory collectorStatusFactory;
  ReportStatusFactory reportStatusFactory;
  CollectorCountersRead collectorCountersRead;  // for the host's statistics
};

}  // namespace MirrorOnDrop

extern "C" MirrorOnDrop::PluginTable const* mirrorOnDropPluginTable();
