#pragma once
// ModGenOptions: mod-gen's command line (CLI11), parsed and checked. A bad argument is a message that names
// the option.

#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/common/DropFrameBuilder.h"

namespace ModGen {

enum class Mix : uint8_t { first, second, mixed };  // family: ipv4/ipv6; protocol: tcp/udp

// A drop reason: 128 bits as four 32-bit words, the most significant first.
using Reason = std::array<uint32_t, 4>;

struct ModGenOptions {
  std::string out;        // pcap file, or
  std::string interface;  // device to send on (mirrored frames), or
  std::string collector;  // "ADDR:PORT" to send report datagrams to
  bool reports = false;   // report datagrams, as the agent sends them, instead of mirrored frames
  std::vector<Reason> reasons{Reason{}};  // the reports' drop reasons, taken by the flows in turn
  uint16_t reportPort = 6343;             // destination port of the datagrams in a capture file
  double rate = 1000;                     // frames per second; 0: as fast as possible
  uint64_t flows = 1;
  uint64_t dropsPerFlow = 1;
  Mix family = Mix::mixed;
  Mix proto = Mix::mixed;
  int vlanTags = 0;  // 0, 1, 2; -1: mixed
  size_t sizeMin = 64;
  size_t sizeMax = 1518;
  size_t cut = Calyx::DropFrameBuilder::kDefaultCutLength;
  std::vector<Calyx::MalformedKind> malformed;
  uint64_t malformedCount = 1;
  std::optional<uint64_t> seed;
  double startTime = 1700000000.0;
};

// Parses the command line into o. Returns nullopt to go on, or the exit status: 0 after --help, 2 after a bad
// argument (its message, naming the option, is on stderr).
std::optional<int> modGenOptionsParse(int argc, char** argv, ModGenOptions& o);

// "ADDR:PORT" or "[V6ADDR]:PORT" (port 1 to 65535) into a socket address; false when it is neither.
bool collectorAddrParse(std::string const& text, sockaddr_storage& addr, socklen_t& len);

}  // namespace ModGen
