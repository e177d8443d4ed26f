#pragma once
// The exact-match tables: the flows the feature wants matched exactly on the interface where their drops were
// seen (Emt::Config, written by the dispatcher) and whether the hardware has each in place (Emt::Status,
// written by the exact-match adapter). Both are shared tables keyed by Emt::Key.

#include <string>

#include "mirror_on_drop/MirrorOnDropEmtRecords.h"
#include "platform/core/Ptr.h"
#include "platform/shm/SharedTable.h"
#include "platform/types/IntfId.h"

namespace MirrorOnDrop::Emt {

using Config = Calyx::SharedTable<Key, EntryConfig>;
using Status = Calyx::SharedTable<Key, EntryStatus>;

// Create the tables by name for the host's state store.
Calyx::Ptr<Config> configFactory(std::string const& name);
Calyx::Ptr<Status> statusFactory(std::string const& name);

}  // namespace MirrorOnDrop::Emt
