#pragma once
// PluginLibrary: a plug-in loaded into the host's process. open() loads a shared library by path (dlopen),
// finds its one extern "C" entry point by name (dlsym), calls it and checks that the table it returns starts
// with the version the host was built for. Every failure is an error text that names the file: the library is
// missing or cannot be loaded (the loader's own reason), has no such entry point, returns no table, or has
// another version. Nothing aborts. The library stays loaded while the PluginLibrary lives; what it made must
// be released before then.

#include <cstdint>
#include <memory>
#include <string>

namespace Calyx {

class PluginLibrary {
 public:
  // The loaded library and its table, or the error.
  static std::unique_ptr<PluginLibrary> open(std::string const& path, char const* entryPoint,
                                             uint32_t version, std::string& error);
  ~PluginLibrary();
  PluginLibrary(PluginLibrary const&) = delete;
  PluginLibrary& operator=(PluginLibrary const&) = delete;

  std::string const& path() const { return path_; }
  // The table the entry point returned; its first field is the version checked.
  void const* table() const { return table_; }
  template <class Table>
  Table const& tableAs() const {
    return *static_cast<Table const*>(table_);
  }

 private:
  PluginLibrary(std::string path, void* handle, void const* table)
      : path_(std::move(path)), handle_(handle), table_(table) {}
  std::string path_;
  void* handle_;
  void const* table_;
};

}  // namespace Calyx
