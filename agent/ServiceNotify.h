#pragma once
// ServiceNotify: what the agent tells its service manager (systemd, Type=notify) through $NOTIFY_SOCKET:
// READY=1 once the feature is up, STATUS= lines an operator reads in `systemctl status`, STOPPING=1 when a
// stop begins, RELOADING=1 around a reload, and WATCHDOG=1 at half the interval the manager asks for
// ($WATCHDOG_USEC), sent from the event loop so that a stuck loop stops the pings. Without $NOTIFY_SOCKET
// every call does nothing.

#include <cstdint>
#include <string>

namespace ModAgent {

class ServiceNotify {
 public:
  ServiceNotify();

  void ready(std::string const& status);
  void status(std::string const& status);  // sent only when it differs from the last one
  void stopping(std::string const& status);
  void reloading();
  void reloaded(std::string const& status);
  // Seconds between two watchdog pings; 0 when the manager asked for none.
  double watchdogEvery() const { return watchdogEvery_; }
  void watchdog();

 private:
  void send(std::string const& text);

  double watchdogEvery_ = 0;
  std::string lastStatus_;
};

}  // namespace ModAgent
