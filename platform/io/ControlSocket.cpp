#include "platform/io/ControlSocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>

#include "platform/core/Trace.h"

namespace Calyx {

namespace {

TraceHandle const& controlTrace() {
  static TraceHandle const handle("Calyx-Control");
  return handle;
}

}  // namespace

ControlSocket::ControlSocket(EventLoop& loop, std::string path, Handler handler, Refusal refusal)
    : loop_(loop), path_(std::move(path)), handler_(std::move(handler)), refusal_(std::move(refusal)) {}

ControlSocket::~ControlSocket() {
  while (!clients_.empty()) drop(clients_.begin()->first);
  listenWatch_.reset();
  if (listenFd_.valid()) {
    listenFd_.reset();
    unlink(path_.c_str());
  }
}

SysResult<void> ControlSocket::open() {
  sockaddr_un addr{};
  if (path_.size() >= sizeof addr.sun_path)
    return SysError{
        0, "control socket path " + path_ + " is longer than " + std::to_string(sizeof addr.sun_path - 1)};
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path, path_.c_str(), path_.size() + 1);
  ScopedFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd.valid()) return sysErrno("socket", "socket");
  unlink(path_.c_str());  // a dead agent's socket; a live agent holds the state directory's lock
  // The mode comes from the umask at bind: a chmod by path afterwards would follow a symlink put there
  // meanwhile (a socket path in a directory others can write to).
  mode_t const old = umask(0117);
  bool const bound = bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  umask(old);
  struct stat st {};
  if (!bound || lstat(path_.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode) || listen(fd.get(), 16) != 0)
    return sysErrno("bind", "control socket " + path_);
  owner_ = st.st_uid;
  group_ = st.st_gid;
  listenFd_ = std::move(fd);
  listenWatch_ = loop_.fdWatch(listenFd_.get(), [this] { accept(); });
  return {};
}

bool ControlSocket::allowed(int fd) const {
  ucred cred{};
  socklen_t len = sizeof cred;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return false;
  if (cred.uid == 0 || cred.uid == owner_ || cred.gid == group_) return true;
  // A member of the socket's group through a supplementary group: the kernel's list, as the peer connected.
  gid_t groups[256];
  socklen_t size = sizeof groups;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups, &size) != 0) return false;
  return std::find(groups, groups + size / sizeof(gid_t), group_) != groups + size / sizeof(gid_t);
}

void ControlSocket::accept() {
  for (;;) {
    int const fd = accept4(listenFd_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) return;
    if (!allowed(fd)) {
      send(fd, refusal_("permission denied: root, the socket's owner or its group only"));
      close(fd);
      continue;
    }
    if (clients_.size() >= kMaxClients) {
      send(fd, refusal_("too many clients"));
      close(fd);
      continue;
    }
    clients_[fd].watch = loop_.fdWatch(fd, [this, fd] { readable(fd); });
  }
}

void ControlSocket::readable(int fd) {
  auto it = clients_.find(fd);
  if (it == clients_.end()) return;
  char chunk[4096];
  for (;;) {
    ssize_t const n = read(fd, chunk, sizeof chunk);
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) return drop(fd);
    if (n < 0) break;
    it->second.in.append(chunk, size_t(n));
    if (it->second.in.size() > kMaxLine && it->second.in.find('\n') == std::string::npos) {
      send(fd, refusal_("request longer than " + std::to_string(kMaxLine) + " bytes"));
      return drop(fd);
    }
  }
  for (size_t nl; (nl = it->second.in.find('\n')) != std::string::npos;) {
    std::string const line = it->second.in.substr(0, nl);
    it->second.in.erase(0, nl + 1);
    if (!send(fd, reply(line))) return drop(fd);
  }
}

// The one place every request passes: whatever the handler throws becomes a refusal and a trace line, so no
// request can end the process.
std::string ControlSocket::reply(std::string const& line) {
  std::string what;
  try {
    return handler_(line);
  } catch (std::exception const& e) {
    what = e.what();
  } catch (...) {
    what = "an exception of unknown type";
  }
  CALYX_TRACE(controlTrace(), 1,
              "[ERROR] Control request failed: " << what << "; request: " << line.substr(0, 200) << ".");
  try {
    return refusal_("internal error: " + what);
  } catch (...) {
    return R"({"ok": false, "error": "internal error"})";
  }
}

// The whole line now, or the client goes.
bool ControlSocket::send(int fd, std::string const& line) {
  std::string const out = line + "\n";
  ssize_t const n = ::send(fd, out.data(), out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  return n == ssize_t(out.size());
}

void ControlSocket::drop(int fd) {
  auto it = clients_.find(fd);
  if (it == clients_.end()) return;
  it->second.watch.reset();
  close(fd);
  clients_.erase(it);
}

}  // namespace Calyx
