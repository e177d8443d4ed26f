// The plug-in's entry point as a build with another report entry layout gives it: its table's version is the
// one that layout derives; nothing past the version is ever read, so every function is left out.
#include "tests/agent/plugins/OtherLayout.h"

extern "C" __attribute__((visibility("default"))) void const* mirrorOnDropPluginTable() {
  static MirrorOnDrop::PluginTable const table = [] {
    MirrorOnDrop::PluginTable t{};
    t.version = MirrorOnDrop::Test::kOtherLayoutVersion;
    return t;
  }();
  return &table;
}
