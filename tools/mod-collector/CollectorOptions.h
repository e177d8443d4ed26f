#pragma once
// The command line of mod-collector:
//   mod-collector --listen ADDR:PORT [--listen [V6ADDR]:PORT ...] [--json] [--count N] [--duration S]

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

struct CollectorOptions {
  std::vector<ListenAddr> listen;
  bool json = false;
  uint64_t count = 0;     // 0: no limit
  double duration = 0.0;  // 0: no limit
  bool help = false;
};

// The options, or nothing with error set to a message for the user.
std::optional<CollectorOptions> parseOptions(int argc, char** argv, std::string& error);
// "ADDR:PORT" or "[V6ADDR]:PORT"; nothing when it is neither.
std::optional<ListenAddr> parseListenAddr(std::string const& text);
// The inverse: "127.0.0.1:5000", "[::1]:5000".
std::string endpointText(sockaddr_storage const& addr);

char const* usageText();

}  // namespace ModCollector
