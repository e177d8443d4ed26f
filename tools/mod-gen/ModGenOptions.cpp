#include "ModGenOptions.h"

#include <arpa/inet.h>

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

// "0x" (optional) and 1 to 32 hex digits, right-aligned in 128 bits, as mod-collector prints a reason; a
// comma-separated list gives several.
std::vector<Reason> reasonsParse(std::string const& text) {
  std::vector<Reason> reasons;
  for (size_t start = 0; start <= text.size();) {
    size_t const comma = std::min(text.find(',', start), text.size());
    std::string const item = text.substr(start, comma - start);
    std::string digits = item.rfind("0x", 0) == 0 || item.rfind("0X", 0) == 0 ? item.substr(2) : item;
    if (digits.empty() || digits.size() > 32 ||
        digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
      throw CLI::ValidationError("--reason",
                                 "expected 0x and 1 to 32 hex digits (128 bits), got '" + item + "'");
    digits.insert(0, 32 - digits.size(), '0');
    Reason r{};
    for (size_t w = 0; w < 4; ++w) r[w] = uint32_t(std::stoul(digits.substr(8 * w, 8), nullptr, 16));
    reasons.push_back(r);
    start = comma + 1;
  }
  return reasons;
}

std::string footer() {
  std::string kinds;
  for (auto kind : DropFrameBuilder::kAllMalformedKinds)
    kinds += "  " + std::string(DropFrameBuilder::name(kind)) + "\n";
  return "Malformed kinds (each one fails exactly one check of a mirrored-frame reader):\n" + kinds +
         "\nDrop reasons: the chip's header has no reason, so mod-agent reports reason 0 for every drop. To "
         "see\n"
         "other reasons at a collector or in Wireshark, make the reports themselves: --reports --reason "
         "0x2a\n"
         "(--collector ADDR:PORT sends them, --out FILE captures them).\n"
         "\nExamples:\n"
         "  mod-gen --out drops.pcap --flows 10 --drops-per-flow 3 --seed 1\n"
         "  mod-gen --interface eth1 --flows 100 --rate 50 --vlan-tags mixed\n"
         "  mod-gen --reports --collector 127.0.0.1:6343 --flows 5 --reason "
         "0x2a,0x80000000000000000000000000000001\n"
         "\nAt the end a summary goes to stderr. Exit status: 0 on success, 1 when writing or sending "
         "failed, 2 for a bad command line.";
}

}  // namespace

bool collectorAddrParse(std::string const& text, sockaddr_storage& addr, socklen_t& len) {
  bool const v6 = !text.empty() && text[0] == '[';
  size_t const colon = v6 ? text.find("]:") : text.rfind(':');
  if (colon == std::string::npos) return false;
  std::string const host = v6 ? text.substr(1, colon - 1) : text.substr(0, colon);
  std::string const portText = text.substr(colon + (v6 ? 2 : 1));
  char* end = nullptr;
  unsigned long const port = std::strtoul(portText.c_str(), &end, 10);
  if (portText.empty() || *end != '\0' || port == 0 || port > 65535) return false;
  if (v6) {
    auto* a = reinterpret_cast<sockaddr_in6*>(&addr);
    a->sin6_family = AF_INET6;
    a->sin6_port = htons(uint16_t(port));
    len = sizeof *a;
    return inet_pton(AF_INET6, host.c_str(), &a->sin6_addr) == 1;
  }
  auto* a = reinterpret_cast<sockaddr_in*>(&addr);
  a->sin_family = AF_INET;
  a->sin_port = htons(uint16_t(port));
  len = sizeof *a;
  return inet_pton(AF_INET, host.c_str(), &a->sin_addr) == 1;
}

std::optional<int> modGenOptionsParse(int argc, char** argv, ModGenOptions& o) {
  CLI::App app{
      "mod-gen: crafts the frames a switch chip mirrors to the CPU for the packets it drops (EtherType "
      "0x1042),\n"
      "into a pcap file or onto an interface; or, with --reports, the report datagrams mod-agent sends for\n"
      "them, into a pcap file or to a collector.\n\n"
      "Each frame: the dropped frame's MAC addresses, EtherType 0x1042, a 12-byte header (original size, 2 "
      "bytes\n"
      "little-endian; timestamp in nanoseconds, 8 bytes little-endian; the dropped frame's EtherType, "
      "big-endian),\n"
      "then the dropped frame from behind its EtherType, cut short as the chip does.",
      "mod-gen"};
  app.footer(footer());
  std::string family = "mixed", proto = "mixed", vlanTags = "0", size = "64-1518", malformed, reasons;
  auto* out = app.add_option(
      "--out", o.out, "write a pcap capture file (give exactly one of --out, --interface and --collector)");
  auto* intf =
      app.add_option("--interface", o.interface, "send the frames out of this interface (needs CAP_NET_RAW)");
  auto* collector =
      app.add_option("--collector", o.collector,
                     "send report datagrams to ADDR:PORT or [V6ADDR]:PORT over UDP (with --reports)");
  out->excludes(intf)->excludes(collector);
  intf->excludes(collector);
  auto* reportsFlag = app.add_flag(
      "--reports", o.reports,
      "make the report datagrams mod-agent would send for these flows (a START, then a STOP, each with the "
      "flow's first drop) instead of mirrored frames");
  app.add_option("--reason", reasons,
                 "REASON[,REASON...]: the reports' drop reason, 0x and up to 32 hex digits (128 "
                 "bits, as mod-collector prints it); several are taken by the flows in turn "
                 "(default 0; with --reports)");
  app.add_option("--report-port", o.reportPort,
                 "UDP destination port of the report datagrams in a capture file (default 6343)")
      ->check(CLI::Range(1, 65535));
  collector->needs(reportsFlag);
  app.add_option(
         "--rate", o.rate,
         "frames per second (default 1000; 0: as fast as possible); when sending, the pace of sending; in a "
         "file, the spacing of the capture times")
      ->check(CLI::NonNegativeNumber);
  // Every flow is held in memory while the frames are made.
  app.add_option("--flows", o.flows, "distinct flows (default 1, at most 1000000)")
      ->check(CLI::Range(1, 1000000));
  auto* drops =
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
  auto* cut = app.add_option("--cut", o.cut,
                             "bytes of each dropped frame the mirror keeps (default 128; at least 82)")
                  ->check(CLI::Range(82, 65535));
  auto* malformedOption = app.add_option(
      "--malformed", malformed,
      "also make malformed frames, after the well-formed ones: a comma-separated list of the kinds below, "
      "or all");
  auto* malformedCount =
      app.add_option("--malformed-count", o.malformedCount, "frames of each malformed kind (default 1)")
          ->check(CLI::Range(0, 100000000));
  // What only mirrored frames have.
  for (auto* frameOnly : {intf, drops, cut, malformedOption, malformedCount})
    reportsFlag->excludes(frameOnly);
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
    if (o.out.empty() && o.interface.empty() && o.collector.empty())
      throw CLI::ValidationError("--out", "give one of --out FILE, --interface IF and --collector ADDR:PORT");
    if (!reasons.empty() && !o.reports)
      throw CLI::ValidationError(
          "--reason",
          "mirrored frames carry no drop reason (the chip's header has none, so mod-agent "
          "reports 0): add --reports to make report datagrams with this reason");
    if (!reasons.empty()) o.reasons = reasonsParse(reasons);
    sockaddr_storage addr{};
    socklen_t len = 0;
    if (!o.collector.empty() && !collectorAddrParse(o.collector, addr, len))
      throw CLI::ValidationError("--collector",
                                 "expected ADDR:PORT or [V6ADDR]:PORT, got '" + o.collector + "'");
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
