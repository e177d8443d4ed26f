// The state directory is used only when nobody but the agent's user can change what is in it: each way
// another user could is refused with a message naming the path, the fault and the fix.
#include "agent/StateDirTrust.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "testkit/TempStateDir.h"

namespace {

namespace fs = std::filesystem;
constexpr uid_t kNobody = 65534;

class StateDirTrustTest : public ::testing::Test {
 protected:
  void touch(std::string const& name, mode_t mode = 0644) {
    std::ofstream(dir + "/" + name) << "x";
    chmod((dir + "/" + name).c_str(), mode);
  }
  Calyx::Test::TempStateDir base;
  std::string const dir = base.file("state");  // after base
};

TEST_F(StateDirTrustTest, WhatOthersCouldChangeIsRefusedNamingPathFaultAndFix) {
  struct Case {
    std::string name;
    std::function<void(std::string const&)> make;
    std::string expected;
    bool root = false;  // needs another user
  };
  std::string const other = base.file("elsewhere");
  fs::create_directory(other);
  std::vector<Case> const cases = {
      {"open to all", [](auto const& d) { fs::create_directory(d), chmod(d.c_str(), 0777); },
       "it is writable by others (mode 0777); chmod go-w " + dir},
      {"open to its group", [](auto const& d) { fs::create_directory(d), chmod(d.c_str(), 0770); },
       "it is writable by its group (mode 0770)"},
      {"a symlink", [&](auto const& d) { fs::create_directory_symlink(other, d); },
       "it is a symlink; give the real directory"},
      {"a file", [](auto const& d) { std::ofstream(d) << "x"; }, "it is not a directory"},
      {"a table that is a symlink",
       [](auto const& d) { fs::create_directory(d), fs::create_symlink("/etc/passwd", d + "/emtConfig"); },
       dir + "/emtConfig is a symlink; remove it (rm " + dir + "/emtConfig)"},
      {"a table others may write",
       [](auto const& d) {
         fs::create_directory(d);
         std::ofstream(d + "/reportStatus.entry") << "x";
         chmod((d + "/reportStatus.entry").c_str(), 0666);
       },
       dir + "/reportStatus.entry is writable by others (mode 0666)"},
      {"a parent open to all",
       [&](auto const& d) { fs::create_directory(d), chmod(base.path().c_str(), 0777); },
       base.path() + " (above it) is writable by others without the sticky bit (mode 0777)"},
      {"made by another user",
       [](auto const& d) {
         fs::create_directory(d), chmod(d.c_str(), 0777), (void)chown(d.c_str(), kNobody, kNobody);
       },
       "it is owned by nobody, not by root; whoever owns it decides what mod-agent reads", true},
      {"a table of another user",
       [](auto const& d) {
         fs::create_directory(d);
         std::ofstream(d + "/collectorStatus") << "x";
         (void)chown((d + "/collectorStatus").c_str(), kNobody, kNobody);
       },
       dir + "/collectorStatus is owned by nobody", true},
  };
  for (auto const& c : cases) {
    if (c.root && geteuid() != 0) {
      std::cout << "skipped \"" << c.name << "\": giving a file to another user needs root\n";
      continue;
    }
    fs::remove_all(dir);
    chmod(base.path().c_str(), 0700);
    c.make(dir);
    std::string const why = ModAgent::stateDirTrust(dir);
    EXPECT_EQ(why.rfind("refusing to use the state directory " + dir + ": ", 0), 0u) << c.name << ": " << why;
    EXPECT_NE(why.find(c.expected), std::string::npos) << c.name << ": " << why;
  }
  chmod(base.path().c_str(), 0700);
}

TEST_F(StateDirTrustTest, AMissingDirectoryIsMadeWithMode0750WhateverTheUmask) {
  mode_t const old = umask(077);
  std::string const deeper = dir + "/a/b";
  EXPECT_EQ(ModAgent::stateDirTrust(deeper), "");
  umask(old);
  struct stat st {};
  ASSERT_EQ(stat(deeper.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0750u);
}

TEST_F(StateDirTrustTest, WhatOnlyTheAgentCanChangeIsTrusted) {
  fs::create_directory(dir);
  chmod(dir.c_str(), 0750);
  touch("reportStatus.entry");
  fs::create_directory(dir + "/damaged-20240101T000000Z");
  chmod((dir + "/damaged-20240101T000000Z").c_str(), 0750);
  // The control socket's group may write to it: that is how the group is let in.
  int const fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s/mod-agent.sock", dir.c_str());
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  chmod(addr.sun_path, 0660);
  // A parent anyone may write to is fine with the sticky bit, like /dev/shm and /tmp.
  chmod(base.path().c_str(), 01777);
  EXPECT_EQ(ModAgent::stateDirTrust(dir), "");
  chmod(base.path().c_str(), 0700);
  close(fd);
}

}  // namespace
