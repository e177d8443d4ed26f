#pragma once
// The names the feature is known by outside its own code: its shared tables' names in the state directory and
// its trace handles, for the host, the tools and the operator views.

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

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

}  // namespace MirrorOnDrop
