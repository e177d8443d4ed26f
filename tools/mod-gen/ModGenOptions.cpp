#include "ModGenOptions.h"

#include <charconv>
#include <cmath>
#include <functional>
#include <map>

namespace ModGen {
namespace {

using Calyx::DropFrameBuilder;

std::optional<uint64_t> number(std::string const& text, uint64_t min, uint64_t max) {
  uint64_t value = 0;
  auto const [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || value < min || value > max)
    return std::nullopt;
  return value;
}

std::optional<double> real(std::string const& text, double min) {
  try {
    size_t used = 0;
    double const value = std::stod(text, &used);
    if (used != text.size() || !std::isfinite(value) || value < min) return std::nullopt;
    return value;
  } catch (std::exception const&) {
    return std::nullopt;
  }
}

std::optional<Mix> mix(std::string const& text, char const* first, char const* second) {
  if (text == first) return Mix::first;
  if (text == second) return Mix::second;
  if (text == "mixed") return Mix::mixed;
  return std::nullopt;
}

// "all" or a comma-separated list of kind names.
bool malformedParse(std::string const& text, std::vector<Calyx::MalformedKind>& kinds, std::string& bad) {
  kinds.clear();
  if (text == "all") {
    kinds.assign(DropFrameBuilder::kAllMalformedKinds.begin(), DropFrameBuilder::kAllMalformedKinds.end());
    return true;
  }
  size_t start = 0;
  while (start <= text.size()) {
    size_t const comma = std::min(text.find(',', start), text.size());
    std::string const name = text.substr(start, comma - start);
    auto kind = DropFrameBuilder::malformedKindParse(name);
    if (!kind) {
      bad = name;
      return false;
    }
    kinds.push_back(*kind);
    start = comma + 1;
  }
  return true;
}

// Checks that concern more than one option.
bool crossCheck(ModGenOptions const& o, std::string& error) {
  if (o.out.empty() == o.interface.empty()) {
    error = "give exactly one of --out FILE and --interface IF";
    return false;
  }
  if (o.sizeMin > o.sizeMax) {
    error = "--size: the minimum is above the maximum";
    return false;
  }
  return true;
}

}  // namespace

std::optional<ModGenOptions> modGenOptionsParse(std::vector<std::string> const& args, std::string& error) {
  ModGenOptions o;
  // Each option's parser takes its value and says what it expected when the value is bad.
  using Parse = std::function<char const*(std::string const&)>;
  std::map<std::string, Parse> const parsers = {
      {"--out", [&](std::string const& v) { return (o.out = v).empty() ? "a file name" : nullptr; }},
      {"--interface",
       [&](std::string const& v) { return (o.interface = v).empty() ? "an interface name" : nullptr; }},
      {"--rate",
       [&](std::string const& v) {
         auto r = real(v, 0);
         if (r) o.rate = *r;
         return r ? nullptr : "a number of frames per second, 0 or more";
       }},
      {"--flows",
       [&](std::string const& v) {
         // Every flow is held in memory while the frames are made.
         auto n = number(v, 1, 1000000);
         if (n) o.flows = *n;
         return n ? nullptr : "a whole number from 1 to 1000000";
       }},
      {"--drops-per-flow",
       [&](std::string const& v) {
         auto n = number(v, 1, 100000000);
         if (n) o.dropsPerFlow = *n;
         return n ? nullptr : "a whole number from 1 to 100000000";
       }},
      {"--family",
       [&](std::string const& v) {
         auto m = mix(v, "ipv4", "ipv6");
         if (m) o.family = *m;
         return m ? nullptr : "ipv4, ipv6 or mixed";
       }},
      {"--proto",
       [&](std::string const& v) {
         auto m = mix(v, "tcp", "udp");
         if (m) o.proto = *m;
         return m ? nullptr : "tcp, udp or mixed";
       }},
      {"--vlan-tags",
       [&](std::string const& v) {
         auto n = number(v, 0, 2);
         if (v == "mixed")
           o.vlanTags = -1;
         else if (n)
           o.vlanTags = int(*n);
         return n || v == "mixed" ? nullptr : "0, 1, 2 or mixed";
       }},
      {"--size",
       [&](std::string const& v) {
         size_t const dash = v.find('-');
         auto lo = number(v.substr(0, dash), 14, 65535);
         auto hi = dash == std::string::npos ? lo : number(v.substr(dash + 1), 14, 65535);
         if (lo && hi) o.sizeMin = *lo, o.sizeMax = *hi;
         return lo && hi ? nullptr : "a size or a range MIN-MAX of bytes from 14 to 65535";
       }},
      {"--cut",
       [&](std::string const& v) {
         // Below 82 bytes the longest headers (two tags, IPv6, TCP) would be cut, and the frames would be
         // malformed.
         auto n = number(v, 82, 65535);
         if (n) o.cut = *n;
         return n ? nullptr : "a number of bytes from 82 (room for every header) to 65535";
       }},
      {"--malformed-count",
       [&](std::string const& v) {
         auto n = number(v, 0, 100000000);
         if (n) o.malformedCount = *n;
         return n ? nullptr : "a whole number from 0 to 100000000";
       }},
      {"--seed",
       [&](std::string const& v) {
         auto n = number(v, 0, UINT64_MAX);
         if (n) o.seed = *n;
         return n ? nullptr : "a whole number";
       }},
      {"--start-time",
       [&](std::string const& v) {
         auto r = real(v, 0);
         if (r) o.startTime = *r;
         return r ? nullptr : "seconds since the epoch";
       }},
  };
  for (size_t i = 0; i < args.size(); ++i) {
    std::string const& arg = args[i];
    if (arg == "--help" || arg == "-h") {
      o.help = true;
      return o;
    }
    if (arg == "--malformed") {
      std::string bad;
      if (i + 1 == args.size()) {
        error = "--malformed: missing value (a comma-separated list of kinds, or all)";
        return std::nullopt;
      }
      if (!malformedParse(args[++i], o.malformed, bad)) {
        error = "--malformed: unknown kind '" + bad + "' (see --help for the kinds)";
        return std::nullopt;
      }
      continue;
    }
    auto it = parsers.find(arg);
    if (it == parsers.end()) {
      error = "unknown option '" + arg + "' (see --help)";
      return std::nullopt;
    }
    if (i + 1 == args.size()) {
      error = arg + ": missing value";
      return std::nullopt;
    }
    std::string const& value = args[++i];
    if (char const* expected = it->second(value)) {
      error = arg + ": expected " + expected + ", got '" + value + "'";
      return std::nullopt;
    }
  }
  if (!crossCheck(o, error)) return std::nullopt;
  return o;
}

std::string modGenHelp() {
  std::string kinds;
  for (auto kind : DropFrameBuilder::kAllMalformedKinds)
    kinds += "    " + std::string(DropFrameBuilder::name(kind)) + "\n";
  return R"(mod-gen: crafts the frames a switch chip mirrors to the CPU for the packets it drops (EtherType 0x1042),
into a pcap file or onto an interface.

Usage: mod-gen (--out FILE.pcap | --interface IF) [options]

Each frame: the dropped frame's MAC addresses, EtherType 0x1042, a 12-byte header (original size, 2 bytes
little-endian; timestamp in nanoseconds, 8 bytes little-endian; the dropped frame's EtherType, big-endian), then the
dropped frame from behind its EtherType, cut short as the chip does.

Output (exactly one of --out and --interface):
  --out FILE            write a pcap capture file
  --interface IF        send the frames out of interface IF (needs root or CAP_NET_RAW)
  --rate FPS            frames per second (default 1000; 0: as fast as possible). When sending, the pace of
                        sending; in a file, the spacing of the capture times

Traffic:
  --flows N             distinct flows (default 1)
  --drops-per-flow K    mirrored drops of each flow (default 1); frames go round the flows, one drop each
  --family F            ipv4, ipv6 or mixed (default mixed: every other flow)
  --proto P             tcp, udp or mixed (default mixed: random per flow)
  --vlan-tags T         802.1Q tags on each dropped frame: 0, 1, 2 or mixed (default 0)
  --size MIN[-MAX]      size in bytes of the dropped frames before the cut, random in the range (default 64-1518);
                        a size below the frame's headers is raised to them
  --cut N               bytes of each dropped frame the mirror keeps (default 128; at least 82, so
                        that the headers of every well-formed frame survive)
  --malformed LIST      also make malformed frames, after the well-formed ones: a comma-separated list of the
                        kinds below, or all
  --malformed-count M   frames of each malformed kind (default 1)
  --seed S              seed of every random choice: the same seed and options give the same frames (default: a
                        random seed, printed in the summary)
  --start-time T        capture time of the first frame, seconds since the epoch (default 1700000000); the
                        header timestamps follow the capture times
  --help                this text

Malformed kinds (each one fails exactly one check of a mirrored-frame reader):
)" + kinds +
         R"(
At the end a summary goes to stderr. Exit status: 0 on success, 1 when writing or sending failed, 2 for a bad
command line.
)";
}

}  // namespace ModGen
