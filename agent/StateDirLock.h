#pragma once
// StateDirLock: one agent per state directory. Two agents writing the same shared tables would each take the
// other's segments over; the second one is refused instead, with the first one's process id. The lock is an
// flock on <dir>/mod-agent.lock, so the kernel drops it when its holder dies (even by SIGKILL), and a
// restarted agent gets it at once.

#include <string>

namespace ModAgent {

class StateDirLock {
 public:
  StateDirLock() = default;
  ~StateDirLock();
  StateDirLock(StateDirLock const&) = delete;
  StateDirLock& operator=(StateDirLock const&) = delete;

  // Makes the directory if needed and takes the lock; false with error set when that fails or another agent
  // holds it.
  bool acquire(std::string const& dir, std::string& error);

 private:
  int fd_ = -1;
};

}  // namespace ModAgent
