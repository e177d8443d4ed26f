#pragma once
// A datagram socket bound on loopback (127.0.0.1 or ::1, a free port) that reports each datagram that
// arrives: its bytes, the sender's address and the TOS byte (IPv4) or traffic class (IPv6) it arrived with.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Calyx::Test {

struct Datagram {
  std::vector<uint8_t> bytes;
  std::string from;  // the sender's address as text
  int tos = -1;      // as received; -1 when the kernel did not say
};

class LoopbackReceiver {
 public:
  explicit LoopbackReceiver(int af);
  ~LoopbackReceiver();
  LoopbackReceiver(LoopbackReceiver const&) = delete;
  LoopbackReceiver& operator=(LoopbackReceiver const&) = delete;

  bool bound() const { return bound_; }
  uint16_t port() const { return port_; }
  // The next datagram, waiting at most timeoutMs for it.
  std::optional<Datagram> receive(int timeoutMs = 2000);
  // Every datagram already waiting, without blocking.
  std::vector<Datagram> drain();

 private:
  int af_;
  int fd_ = -1;
  bool bound_ = false;
  uint16_t port_ = 0;
};

}  // namespace Calyx::Test
