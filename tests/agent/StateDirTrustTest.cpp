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

#include "testkit/TempStateDir.h"

namespace {

namespace fs = std::filesystem;

class StateDirTrustTest : public ::testing::Test {
 protected:
  Calyx::Test::TempStateDir base;
  std::string const dir = base.file("state");  // after base
};

TEST_F(StateDirTrustTest, WhatOthersCouldChangeIsRefusedNamingPathFaultAndFix) {
  auto const file = [](std::string const& path, mode_t mode) {
    std::ofstream(path) << "x";
    chmod(path.c_str(), mode);
  };
  struct Case {
    std::function<void(std::string const&)> make;
    std::string expected;
    bool root = false;  // gives a file to nobody
  };
  std::vector<Case> const cases = {
      {[](auto const& d) { fs::create_directory(d), chmod(d.c_str(), 0777); },
       "it is writable by others (mode 0777); chmod go-w " + dir},
      {[](auto const& d) { fs::create_directory(d), chmod(d.c_str(), 0770); }, "it is writable by its group"},
      {[&](auto const& d) { fs::create_directory_symlink(base.path(), d); },
       "it is a symlink; give the real"},
      {[&](auto const& d) { file(d, 0644); }, "it is not a directory"},
      {[](auto const& d) { fs::create_directory(d), fs::create_symlink("/etc/passwd", d + "/emtConfig"); },
       dir + "/emtConfig is a symlink; remove it (rm " + dir + "/emtConfig)"},
      {[&](auto const& d) { fs::create_directory(d), file(d + "/emtStatus", 0666); },
       dir + "/emtStatus is writable by others (mode 0666)"},
      {[&](auto const& d) { fs::create_directory(d), chmod(base.path().c_str(), 0777); },
       base.path() + " (above it) is writable by others without the sticky bit"},
      {[](auto const& d) { fs::create_directory(d), (void)chown(d.c_str(), 65534, 65534); },
       "it is owned by nobody, not by root; whoever owns it decides what mod-agent reads", true},
  };
  for (auto const& c : cases) {
    if (c.root && geteuid() != 0) continue;  // only root can give a file away
    fs::remove_all(dir);
    chmod(base.path().c_str(), 0700);
    c.make(dir);
    std::string const why = ModAgent::stateDirTrust(dir);
    EXPECT_EQ(why.rfind("refusing to use the state directory " + dir + ": ", 0), 0u) << why;
    EXPECT_NE(why.find(c.expected), std::string::npos) << why;
  }
  chmod(base.path().c_str(), 0700);
}

TEST_F(StateDirTrustTest, AMissingDirectoryIsMade0750AndTheSocketsGroupMayWriteToIt) {
  mode_t const old = umask(077);
  EXPECT_EQ(ModAgent::stateDirTrust(dir + "/a"), "");
  umask(old);
  struct stat st {};
  ASSERT_EQ(stat((dir + "/a").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0750u);
  // The control socket is mode 0660 (that is how its group gets in); a parent with the sticky bit is safe.
  int const fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s/a/mod-agent.sock", dir.c_str());
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  chmod(addr.sun_path, 0660);
  chmod(dir.c_str(), 01777);
  EXPECT_EQ(ModAgent::stateDirTrust(dir + "/a"), "");
  close(fd);
}

}  // namespace
