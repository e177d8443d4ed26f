#include "tools/modctl/ControlClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Modctl {

std::optional<Json> controlRequest(std::string const& path, Json const& request, std::string& error,
                                   int timeoutMs) {
  sockaddr_un addr{};
  if (path.size() >= sizeof addr.sun_path) {
    error = "control socket path too long: " + path;
    return std::nullopt;
  }
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  int const fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    int const why = errno;
    if (fd >= 0) close(fd);
    error =
        "mod-agent is not running (no control socket answers at " + path + ": " + std::strerror(why) + ")";
    return std::nullopt;
  }
  std::string const line = request.dump() + "\n";
  std::string reply;
  bool ok = send(fd, line.data(), line.size(), MSG_NOSIGNAL) == ssize_t(line.size());
  while (ok && reply.find('\n') == std::string::npos) {
    pollfd p{fd, POLLIN, 0};
    char chunk[4096];
    ssize_t n = 0;
    ok = poll(&p, 1, timeoutMs) == 1 && (n = read(fd, chunk, sizeof chunk)) > 0;
    if (ok) reply.append(chunk, size_t(n));
  }
  close(fd);
  if (!ok) {
    error = "mod-agent did not answer on " + path;
    return std::nullopt;
  }
  Json j = Json::parse(reply.substr(0, reply.find('\n')), nullptr, false);
  if (j.is_discarded()) {
    error = "mod-agent answered something that is not JSON on " + path;
    return std::nullopt;
  }
  return j;
}

}  // namespace Modctl
