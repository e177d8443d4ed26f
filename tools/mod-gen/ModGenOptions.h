#pragma once
// ModGenOptions: mod-gen's command line (CLI11), parsed and checked. A bad argument is a message that names
// the option.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/common/DropFrameBuilder.h"

namespace ModGen {

enum class Mix : uint8_t { first, second, mixed };  // family: ipv4/ipv6; protocol: tcp/udp

struct ModGenOptions {
  std::string out;        // pcap file, or
  std::string interface;  // device to send on
  double rate = 1000;     // frames per second; 0: as fast as possible
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

}  // namespace ModGen
