#pragma once
// A build of the plug-in whose report entry grew a field: everything else as the host has it.

#include "mirror_on_drop/MirrorOnDropPlugin.h"

namespace MirrorOnDrop::Test {

struct GrownEntryStatus : Report::EntryStatus {
  uint64_t firstSeen = 0;
};

inline constexpr uint32_t kOtherLayoutVersion =
    SharedRecords::Replaced<Report::EntryStatus, GrownEntryStatus>::versionOf(PluginTable::kLayoutVersion);

}  // namespace MirrorOnDrop::Test
