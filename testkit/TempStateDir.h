#pragma once
// A state directory of the test's own for shared tables: made under /tmp, named in CALYX_STATE_DIR while it
// lives (the tables' default), removed with everything in it afterwards.

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace Calyx::Test {

class TempStateDir {
 public:
  TempStateDir() {
    char dir[] = "/dev/shm/calyx-state-XXXXXX";
    if (mkdtemp(dir)) path_ = dir;
    setenv("CALYX_STATE_DIR", path_.c_str(), 1);
  }
  ~TempStateDir() {
    unsetenv("CALYX_STATE_DIR");
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempStateDir(TempStateDir const&) = delete;
  TempStateDir& operator=(TempStateDir const&) = delete;

  std::string const& path() const { return path_; }
  std::string file(std::string const& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace Calyx::Test
