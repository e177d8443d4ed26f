#pragma once
// PcapFrameSender: sends raw Ethernet frames out of an interface through libpcap, for tools that inject
// crafted traffic (and tests that need some on a veth pair). Needs the right to open the device (root or
// CAP_NET_RAW).
//
// Errors never throw: open() and send() return false and error() says why, naming the device.

#include <cstdint>
#include <span>
#include <string>

struct pcap;

namespace Calyx {

class PcapFrameSender {
 public:
  PcapFrameSender() = default;
  PcapFrameSender(PcapFrameSender const&) = delete;
  PcapFrameSender& operator=(PcapFrameSender const&) = delete;
  ~PcapFrameSender();

  bool open(std::string const& device);
  // Sends one frame. A full device queue (ENOBUFS) is retried a few times before it counts as a failure.
  bool send(std::span<uint8_t const> frame);
  void close();

  bool isOpen() const { return handle_ != nullptr; }
  uint64_t framesSent() const { return framesSent_; }
  std::string const& error() const { return error_; }

 private:
  std::string device_;
  pcap* handle_ = nullptr;
  uint64_t framesSent_ = 0;
  std::string error_;
};

}  // namespace Calyx
