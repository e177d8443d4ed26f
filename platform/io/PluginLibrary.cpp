#include "platform/io/PluginLibrary.h"

#include <dlfcn.h>

#include <cstring>

namespace Calyx {

std::unique_ptr<PluginLibrary> PluginLibrary::open(std::string const& path, char const* entryPoint,
                                                   uint32_t version, std::string& error) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) {
    char const* why = dlerror();
    error = "cannot load the plug-in " + path + ": " + (why ? why : "unknown reason");
    return nullptr;
  }
  dlerror();
  void* symbol = dlsym(handle, entryPoint);
  if (!symbol) {
    error = "the plug-in " + path + " has no entry point " + entryPoint;
    dlclose(handle);
    return nullptr;
  }
  using Entry = void const* (*)();
  Entry entry;
  std::memcpy(&entry, &symbol, sizeof entry);
  void const* table = entry();
  if (!table) {
    error = "the plug-in " + path + " returned no table from " + entryPoint;
    dlclose(handle);
    return nullptr;
  }
  uint32_t found;
  std::memcpy(&found, table, sizeof found);
  if (found != version) {
    error = "the plug-in " + path + " has plug-in table version " + std::to_string(found) +
            ", this host needs " + std::to_string(version);
    dlclose(handle);
    return nullptr;
  }
  return std::unique_ptr<PluginLibrary>(new PluginLibrary(path, handle, table));
}

PluginLibrary::~PluginLibrary() {
  dlclose(handle_);
}

}  // namespace Calyx
