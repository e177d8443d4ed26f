#pragma once
// Interface::PamBackend: where the frames of one interface come from: live capture through libpcap (of the
// kernel device named like the interface, or as given), replay of a pcap file as that interface, or an
// in-memory queue the program feeds itself (tests, tools that craft their own frames).

#include <cstdint>
#include <string>

namespace Calyx::Interface {

struct PamBackend {
  enum class Kind : uint8_t { liveCapture, pcapReplay, inMemory };
  Kind kind = Kind::liveCapture;
  std::string device;         // live capture: the kernel's interface name; empty: the interface's own name
  std::string file;           // pcap replay: the capture file
  bool recordedPace = false;  // pcap replay: keep the recorded gaps between frames
  int bufferBytes = 0;        // live capture: the kernel ring's size; 0: the capture's default

  static PamBackend liveCapture(std::string device = {}, int bufferBytes = 0) {
    return {Kind::liveCapture, std::move(device), {}, false, bufferBytes};
  }
  static PamBackend pcapReplay(std::string file, bool recordedPace = false) {
    return {Kind::pcapReplay, {}, std::move(file), recordedPace, 0};
  }
  static PamBackend inMemory() { return {Kind::inMemory, {}, {}, false, 0}; }
  friend bool operator==(PamBackend const&, PamBackend const&) = default;
};

}  // namespace Calyx::Interface
