#include "ModGenOptions.h"

#include <CLI/CLI.hpp>
#include <iostream>

namespace ModGen {
namespace {

using Calyx::DropFrameBuilder;

Mix mix(std::string const& text, char const* first) {
  if (text == "mixed") return Mix::mixed;
  return text == first ? Mix::first : Mix::second;
}

// "all" or a comma-separated list of kind names.
std::vector<Calyx::MalformedKind> malformedKinds(std::string const& text) {
  if (text == "all")
    return {DropFrameBuilder::kAllMalformedKinds.begin(), DropFrameBuilder::kAllMalformedKinds.end()};
  std::vector<Calyx::MalformedKind> kinds;
  for (size_t start = 0; start <= text.size();) {
    size_t const comma = std::min(text.find(',', start), text.size());
    auto kind = DropFrameBuilder::malformedKindParse(text.substr(start, comma - start));
    if (!kind)
      throw CLI::ValidationError("--malformed", "unknown kind '" + text.substr(start, comma - start) +
                                                    "' (see --help for the kinds)");
    kinds.push_back(*kind);
    start = comma + 1;
  }
  return kinds;
}

// "MIN" or "MIN-MAX", bytes from 14 to 65535.
std::pair<size_t, size_t> sizeRange(std::string const& text) {
  auto const number = [&](std::string const& part) {
    size_t used = 0;
    unsigned long v = 0;
    try {
      v = std::stoul(part, &used);
    } catch (std::exception const&) {
      used = 0;
    }
    if (used == 0 || used != part.size() || v < 14 || v > 65535)
      throw CLI::ValidationError(
          "--size", "expected a size or a range MIN-MAX of bytes from 14 to 65535, got '" + text + "'");
    return size_t(v);
  };
  size_t const dash = text.find('-');
  size_t const lo = number(text.substr(0, dash));
  size_t const hi = dash == std::string::npos ? lo : number(text.substr(dash + 1));
  if (lo > hi) throw CLI::ValidationError("--size", "the minimum is above the maximum");
  return {lo, hi};
}

std::string footer() {
  std::string kinds;
  for (auto kind : DropFrameBuilder::kAllMalformedKinds)
    kinds += "  " + std::string(DropFrameBuilder::name(kind)) + "\n";
  return "Malformed kinds (each one fails exactly one check of a mirrored-frame reader):\n" + kinds +
         "\nAt the end a summary goes to stderr. Exit status: 0 on success, 1 when writing or sending "
         "failed, 2 for a "
         "bad command line.";
}

}  // namespace

std::optional<int> modGenOptionsParse(int argc, char** argv, ModGenOptions& o) {
  CLI::App app{
      "mod-gen: crafts the frames a switch chip mirrors to the CPU for the packets it drops (EtherType "
      "0x1042),\n"
      "into a pcap file or onto an interface.\n\n"
      "Each frame: the dropped frame's MAC addresses, EtherType 0x1042, a 12-byte header (original size, 2 "
      "bytes\n"
      "little-endian; timestamp in nanoseconds, 8 bytes little-endian; the dropped frame's EtherType, "
      "big-endian),\n"
      "then the dropped frame from behind its EtherType, cut short as the chip does.",
      "mod-gen"};
  app.footer(footer());
  std::string family = "mixed", proto = "mixed", vlanTags = "0", size = "64-1518", malformed;
  auto* out =
      app.add_option("--out", o.out, "write a pcap capture file (give exactly one of --out and --interface)");
  auto* intf =
      app.add_option("--interface", o.interface, "send the frames out of this interface (needs CAP_NET_RAW)");
  out->excludes(intf);
  app.add_option(
         "--rate", o.rate,
         "frames per second (default 1000; 0: as fast as possible); when sending, the pace of sending; in a "
         "file, the spacing of the capture times")
      ->check(CLI::NonNegativeNumber);
  // Every flow is held in memory while the frames are made.
  app.add_option("--flows", o.flows, "distinct flows (default 1, at most 1000000)")
      ->check(CLI::Range(1, 1000000));
  app.add_option("--drops-per-flow", o.dropsPerFlow,
                 "mirrored drops of each flow (default 1); frames go round the flows, one drop each")
      ->check(CLI::Range(1, 100000000));
  app.add_option("--family", family, "ipv4, ipv6 or mixed (default mixed: every other flow)")
      ->check(CLI::IsMember({"ipv4", "ipv6", "mixed"}));
  app.add_option("--proto", proto, "tcp, udp or mixed (default mixed: random per flow)")
      ->check(CLI::IsMember({"tcp", "udp", "mixed"}));
  app.add_option("--vlan-tags", vlanTags, "802.1Q tags on each dropped frame: 0, 1, 2 or mixed (default 0)")
      ->check(CLI::IsMember({"0", "1", "2", "mixed"}));
  app.add_option(
      "--size", size,
      "MIN[-MAX]: size in bytes of the dropped frames before the cut, random in the range (default "
      "64-1518); a size below the frame's headers is raised to them");
  // Below 82 bytes the longest headers (two tags, IPv6, TCP) would be cut, and the frames would be malformed.
  app.add_option("--cut", o.cut, "bytes of each dropped frame the mirror keeps (default 128; at least 82)")
      ->check(CLI::Range(82, 65535));
  app.add_option(
      "--malformed", malformed,
      "also make malformed frames, after the well-formed ones: a comma-separated list of the kinds below, "
      "or all");
  app.add_option("--malformed-count", o.malformedCount, "frames of each malformed kind (default 1)")
      ->check(CLI::Range(0, 100000000));
  app.add_option(
      "--seed", o.seed,
      "seed of every random choice: the same seed and options give the same frames (default: a random "
      "seed, printed in the summary)");
  app.add_option("--start-time", o.startTime,
                 "capture time of the first frame, seconds since the epoch (default 1700000000); the header "
                 "timestamps follow the capture times")
      ->check(CLI::NonNegativeNumber);
  try {
    app.parse(argc, argv);
    if (o.out.empty() == o.interface.empty())
      throw CLI::ValidationError("--out", "give exactly one of --out FILE and --interface IF");
    o.family = mix(family, "ipv4");
    o.proto = mix(proto, "tcp");
    o.vlanTags = vlanTags == "mixed" ? -1 : std::stoi(vlanTags);
    std::tie(o.sizeMin, o.sizeMax) = sizeRange(size);
    if (!malformed.empty()) o.malformed = malformedKinds(malformed);
  } catch (CLI::ParseError const& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    std::cerr << "mod-gen: " << e.what() << "\n(see mod-gen --help)" << std::endl;
    return 2;
  }
  return std::nullopt;
}

}  // namespace ModGen
