#include "agent/ServiceNotify.h"

#include <systemd/sd-daemon.h>

namespace ModAgent {

ServiceNotify::ServiceNotify() {
  uint64_t usec = 0;
  if (sd_watchdog_enabled(0, &usec) > 0 && usec > 0) watchdogEvery_ = double(usec) / 1e6 / 2;
}

void ServiceNotify::send(std::string const& text) {
  sd_notify(0, text.c_str());
}

void ServiceNotify::ready(std::string const& s) {
  lastStatus_ = s;
  send("READY=1\nSTATUS=" + s);
}

void ServiceNotify::status(std::string const& s) {
  if (s == lastStatus_) return;
  lastStatus_ = s;
  send("STATUS=" + s);
}

void ServiceNotify::stopping(std::string const& s) {
  lastStatus_ = s;
  send("STOPPING=1\nSTATUS=" + s);
}

void ServiceNotify::reloading() {
  send("RELOADING=1");
}

void ServiceNotify::reloaded(std::string const& s) {
  lastStatus_ = s;
  send("READY=1\nSTATUS=" + s);
}

void ServiceNotify::watchdog() {
  if (watchdogEvery_ > 0) send("WATCHDOG=1");
}

}  // namespace ModAgent
