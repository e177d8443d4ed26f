#pragma once
// The table the loader's test plug-ins hand out: the version the loader checks, then a function that can only
// be called while the library is still loaded.

#include <cstdint>

struct TestPluginTable {
  uint32_t version;
  char const* (*greeting)();
  static constexpr char const* kEntryPoint = "testPluginTable";
};
