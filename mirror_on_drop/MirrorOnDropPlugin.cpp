#include "mirror_on_drop/MirrorOnDropPlugin.h"

namespace {

MirrorOnDrop::PluginTable const kTable{
    MirrorOnDrop::PluginTable::kVersion,     &MirrorOnDrop::mountHolderFactory,
    &MirrorOnDrop::managerSmFactory,         nullptr,
    &MirrorOnDrop::Emt::configFactory,       &MirrorOnDrop::Emt::statusFactory,
    &MirrorOnDrop::Collector::statusFactory, &MirrorOnDrop::Report::statusFactory,
};

}  // namespace

extern "C" __attribute__((visibility("default"))) MirrorOnDrop::PluginTable const* mirrorOnDropPluginTable() {
  return &kTable;
}
