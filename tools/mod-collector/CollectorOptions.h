#pragma once
// The command line of mod-collector (CLI11):
//   mod-collector --listen ADDR:PORT [--listen [V6ADDR]:PORT ...] [--json | --quiet] [--count N]
//                 [--duration S] [--summary none|totals|flows] [--db PATH|postgresql://...] [--retain 7d] [--queue N]
//                 [--http [ADDR:]PORT]
// (`mod-collector query ...` has its own command line, in QueryCommand.)

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ModCollector {

struct ListenAddr {
  sockaddr_storage addr{};
  socklen_t len = 0;
};

enum class SummaryMode { None, Totals, Flows };

struct CollectorOptions {
  std::vector<ListenAddr> listen;
  bool json = false;
  bool quiet = false;     // no line per report
  uint64_t count = 0;     // 0: no limit
  double duration = 0.0;  // 0: no limit
  SummaryMode summary = SummaryMode::Totals;
  std::string db;  // empty: nothing stored
  std::optional<int64_t> retainUs;
  size_t queue = 100000;
  std::optional<ListenAddr> http;
};

// Parses the command line into o. Returns nullopt to go on, or the exit status: 0 after --help, 2 after a bad
// argument (its message, naming the option, is on stderr).
std::optional<int> parseOptions(int argc, char** argv, CollectorOptions& o);
// "ADDR:PORT" or "[V6ADDR]:PORT"; nothing when it is neither.
std::optional<ListenAddr> parseListenAddr(std::string const& text);
// "[ADDR:]PORT" for --http: a bare port listens on 127.0.0.1 only.
std::optional<ListenAddr> parseHttpAddr(std::string const& text);
// The inverse: "127.0.0.1:5000", "[::1]:5000".
std::string endpointText(sockaddr_storage const& addr);

}  // namespace ModCollector
