#include "mirror_on_drop/MirrorOnDropPlugin.h"

namespace {

MirrorOnDrop::PluginTable const kTable{
    .version = MirrorOnDrop::PluginTable::kVersion,
    .mountHolderFactory = &MirrorOnDrop::mountHolderFactory,
    .managerSmFactory = &MirrorOnDrop::managerSmFactory,
    .adapterSmFactory = &MirrorOnDrop::adapterSmFactory,
    .emtConfigFactory = &MirrorOnDrop::Emt::configFactory,
    .emtStatusFactory = &MirrorOnDrop::Emt::statusFactory,
    .collectorStatusFactory = &MirrorOnDrop::Collector::statusFactory,
    .reportStatusFactory = &MirrorOnDrop::Report::statusFactory,
    .collectorCountersRead = &MirrorOnDrop::Collector::countersRead,
};

}  // namespace

extern "C" __attribute__((visibility("default"))) MirrorOnDrop::PluginTable const* mirrorOnDropPluginTable() {
  return &kTable;
}
