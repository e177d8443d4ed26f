#include "agent/StateDirLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

namespace ModAgent {

StateDirLock::~StateDirLock() {
  if (fd_ >= 0) close(fd_);
}

bool StateDirLock::acquire(std::string const& dir, std::string& error) {
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  if (ec) {
    error = "cannot make the state directory " + dir + ": " + ec.message();
    return false;
  }
  std::string const path = dir + "/mod-agent.lock";
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640);
  if (fd < 0) {
    error = "cannot open " + path + ": " + std::strerror(errno);
    return false;
  }
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    char holder[32] = {};
    ssize_t const n = pread(fd, holder, sizeof holder - 1, 0);
    std::string pid = n > 0 ? std::string(holder, size_t(n)) : "unknown";
    while (!pid.empty() && (pid.back() == '\n' || pid.back() == ' ')) pid.pop_back();
    error = "the state directory " + dir + " is in use by another mod-agent (pid " + pid +
            "); stop it or give this one another --state-dir";
    close(fd);
    return false;
  }
  std::string const mine = std::to_string(getpid()) + "\n";
  if (ftruncate(fd, 0) != 0 || pwrite(fd, mine.data(), mine.size(), 0) < 0) {
    error = "cannot write " + path + ": " + std::strerror(errno);
    close(fd);
    return false;
  }
  fd_ = fd;
  return true;
}

}  // namespace ModAgent
