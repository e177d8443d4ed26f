#pragma once
// The collector status table: for every collector of every exporter the feature sends to, how many report
// bytes, START reports and STOP reports went out successfully. The sender is its only writer; show commands
// and other agents read it from shared memory.

#include <string>

#include "mirror_on_drop/MirrorOnDropCollectorRecords.h"
#include "platform/core/Ptr.h"
#include "platform/shm/SharedTable.h"
#include "platform/types/String.h"

namespace MirrorOnDrop::Collector {

using Status = Calyx::SharedTable<Key, EntryStatus>;

Calyx::Ptr<Status> statusFactory(std::string const& name);

}  // namespace MirrorOnDrop::Collector
