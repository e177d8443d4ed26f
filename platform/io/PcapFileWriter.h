#pragma once
// PcapFileWriter: writes Ethernet frames into a pcap capture file (the classic format, microsecond
// timestamps), for tools that craft traffic and for tests that replay it.
//
// Errors never throw: open() and write() return false and error() says why, naming the file.

#include <cstdint>
#include <span>
#include <string>

struct pcap;
struct pcap_dumper;

namespace Calyx {

class PcapFileWriter {
 public:
  PcapFileWriter() = default;
  PcapFileWriter(PcapFileWriter const&) = delete;
  PcapFileWriter& operator=(PcapFileWriter const&) = delete;
  ~PcapFileWriter();

  bool open(std::string const& path, int snapLength = 65535);
  // Appends one frame with the given capture time (seconds since the epoch).
  bool write(std::span<uint8_t const> frame, double timestamp);
  // Flushes and closes; false when the data could not be written out.
  bool close();

  bool isOpen() const { return dumper_ != nullptr; }
  uint64_t framesWritten() const { return framesWritten_; }
  std::string const& error() const { return error_; }

 private:
  std::string path_;
  pcap* dead_ = nullptr;
  pcap_dumper* dumper_ = nullptr;
  int snapLength_ = 65535;
  uint64_t framesWritten_ = 0;
  std::string error_;
};

}  // namespace Calyx
