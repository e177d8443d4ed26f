// A test plug-in built once per table version (TEST_PLUGIN_VERSION); built with version 0 its entry point
// returns no table at all.
#include "TestPluginTable.h"

namespace {

char const* greeting() {
  return "hello";
}

TestPluginTable const kTable{.version = TEST_PLUGIN_VERSION, .greeting = &greeting};

}  // namespace

extern "C" __attribute__((visibility("default"))) void const* testPluginTable() {
  return TEST_PLUGIN_VERSION == 0 ? nullptr : &kTable;
}
