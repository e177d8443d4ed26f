#include "tools/modctl/ControlClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Modctl {

namespace {

ControlReply failed(ControlFailure why, std::string error) {
  return ControlReply{std::nullopt, why, std::move(error)};
}

std::string const kDeniedHint = " (the socket is open to root, the agent's user and its group)";

}  // namespace

ControlReply controlRequest(std::string const& path, Json const& request, int timeoutMs) {
  sockaddr_un addr{};
  if (path.size() >= sizeof addr.sun_path)
    return failed(ControlFailure::noAnswer, "control socket path too long: " + path);
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
  int const fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    int const why = errno;
    if (fd >= 0) close(fd);
    if (why == EACCES || why == EPERM)
      return failed(ControlFailure::denied, "permission denied on " + path + kDeniedHint);
    return failed(ControlFailure::notRunning, "mod-agent is not running (no control socket answers at " +
                                                  path + ": " + std::strerror(why) + ")");
  }
  // A peer the agent refuses is told so and closed at once: the request may then fail to go out, but the
  // refusal is still there to read.
  std::string const line = request.dump() + "\n";
  (void)send(fd, line.data(), line.size(), MSG_NOSIGNAL);
  std::string reply;
  bool ok = true;
  while (ok && reply.find('\n') == std::string::npos) {
    pollfd p{fd, POLLIN, 0};
    char chunk[4096];
    ssize_t n = 0;
    ok = poll(&p, 1, timeoutMs) == 1 && (n = read(fd, chunk, sizeof chunk)) > 0;
    if (ok) reply.append(chunk, size_t(n));
  }
  close(fd);
  if (!ok) return failed(ControlFailure::noAnswer, "mod-agent did not answer on " + path);
  Json j = Json::parse(reply.substr(0, reply.find('\n')), nullptr, false);
  if (j.is_discarded() || !j.is_object())
    return failed(ControlFailure::noAnswer,
                  "mod-agent answered something that is not a JSON object on " + path);
  if (!j.value("ok", false) && j.value("error", std::string()).rfind("permission denied", 0) == 0)
    return failed(ControlFailure::denied, "permission denied by mod-agent on " + path + kDeniedHint);
  return ControlReply{std::move(j), ControlFailure::none, {}};
}

}  // namespace Modctl
