#include "platform/io/PcapFileWriter.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

namespace Calyx {

PcapFileWriter::~PcapFileWriter() {
  close();
}

bool PcapFileWriter::open(std::string const& path, int snapLength) {
  close();
  path_ = path;
  snapLength_ = snapLength;
  error_.clear();
  dead_ = pcap_open_dead(DLT_EN10MB, snapLength);
  if (!dead_) {
    error_ = path + ": cannot make a pcap handle";
    return false;
  }
  dumper_ = pcap_dump_open(dead_, path.c_str());
  if (!dumper_) {
    error_ = pcap_geterr(dead_);
    pcap_close(dead_);
    dead_ = nullptr;
    return false;
  }
  framesWritten_ = 0;
  return true;
}

bool PcapFileWriter::write(std::span<uint8_t const> frame, double timestamp) {
  if (!dumper_) {
    error_ = path_ + ": not open";
    return false;
  }
  pcap_pkthdr header{};
  double const seconds = std::floor(timestamp);
  header.ts.tv_sec = static_cast<time_t>(seconds);
  header.ts.tv_usec = static_cast<suseconds_t>(std::lround((timestamp - seconds) * 1e6) % 1000000);
  header.len = static_cast<bpf_u_int32>(frame.size());
  header.caplen = static_cast<bpf_u_int32>(std::min<size_t>(frame.size(), static_cast<size_t>(snapLength_)));
  pcap_dump(reinterpret_cast<u_char*>(dumper_), &header, frame.data());
  ++framesWritten_;
  return true;
}

bool PcapFileWriter::close() {
  bool ok = true;
  if (dumper_) {
    if (pcap_dump_flush(dumper_) < 0) {
      error_ = path_ + ": " + std::strerror(errno);
      ok = false;
    }
    pcap_dump_close(dumper_);
    dumper_ = nullptr;
  }
  if (dead_) {
    pcap_close(dead_);
    dead_ = nullptr;
  }
  return ok;
}

}  // namespace Calyx
