#include "platform/io/PcapFrameSender.h"

#include <pcap/pcap.h>
#include <sched.h>

#include <cerrno>

namespace Calyx {

PcapFrameSender::~PcapFrameSender() {
  close();
}

bool PcapFrameSender::open(std::string const& device) {
  close();
  device_ = device;
  error_.clear();
  char errbuf[PCAP_ERRBUF_SIZE] = {};
  pcap_t* handle = pcap_create(device.c_str(), errbuf);
  if (!handle) {
    error_ = device + ": " + errbuf;
    return false;
  }
  int const status = pcap_activate(handle);
  if (status < 0) {
    std::string text = pcap_geterr(handle);
    error_ = device + ": " + (text.empty() ? pcap_statustostr(status) : text);
    pcap_close(handle);
    return false;
  }
  handle_ = handle;
  framesSent_ = 0;
  return true;
}

bool PcapFrameSender::send(std::span<uint8_t const> frame) {
  if (!handle_) {
    error_ = device_ + ": not open";
    return false;
  }
  for (int attempt = 0; attempt < 100; ++attempt) {
    if (pcap_inject(handle_, frame.data(), frame.size()) >= 0) {
      ++framesSent_;
      return true;
    }
    // A transmit queue that is full for a moment clears by itself; give the receiver a chance to run.
    if (errno != ENOBUFS && errno != EAGAIN) break;
    sched_yield();
  }
  error_ = device_ + ": " + pcap_geterr(handle_);
  return false;
}

void PcapFrameSender::close() {
  if (!handle_) return;
  pcap_close(handle_);
  handle_ = nullptr;
}

}  // namespace Calyx
