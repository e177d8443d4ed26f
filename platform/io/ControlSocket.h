#pragma once
// ControlSocket: a Unix stream socket served from the event loop, for an agent's operators: one request per
// line, one reply line per request. No threads: the listening socket and every client are watched by the
// loop, and nothing blocks it:
// - a client is read without waiting; a reply that the client does not take at once (its receive buffer full)
//   drops the client, so a slow or stuck client cannot hold the loop;
// - a client that connects and never writes holds one descriptor and nothing else (at most kMaxClients);
// - a line longer than kMaxLine is answered by the handler's refusal and the client dropped.
// The socket file is made with mode 0660; a peer is served when it is root, the socket's owner or in the
// socket's group, as its primary or a supplementary group (its credentials as the kernel gives them), and
// refused with one line otherwise.
// - a handler that throws gets its client the refusal "internal error: ..." and a trace line on
//   "Calyx-Control" (level 1); the loop goes on.

#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "platform/core/EventLoop.h"
#include "platform/core/SysResult.h"
#include "platform/shm/ScopedFd.h"

namespace Calyx {

class ControlSocket {
 public:
  static constexpr size_t kMaxLine = 65536;
  static constexpr size_t kMaxClients = 64;
  // Returns the reply to one request line (without its newline).
  using Handler = std::function<std::string(std::string const& request)>;
  // The reply sent to a peer without the rights, and to a line too long.
  using Refusal = std::function<std::string(std::string const& why)>;

  ControlSocket(EventLoop& loop, std::string path, Handler handler, Refusal refusal);
  ~ControlSocket();
  ControlSocket(ControlSocket const&) = delete;
  ControlSocket& operator=(ControlSocket const&) = delete;

  // Binds and listens (a stale socket file of a dead agent is replaced).
  SysResult<void> open();
  std::string const& path() const { return path_; }
  size_t clientCount() const { return clients_.size(); }

 private:
  struct Client {
    std::string in;
    std::unique_ptr<EventLoop::FdWatch> watch;
  };

  void accept();
  void readable(int fd);
  void drop(int fd);
  bool send(int fd, std::string const& line);
  std::string reply(std::string const& line);
  bool allowed(int fd) const;

  EventLoop& loop_;
  std::string path_;
  Handler handler_;
  Refusal refusal_;
  ScopedFd listenFd_;
  gid_t group_ = 0;
  uid_t owner_ = 0;
  std::unique_ptr<EventLoop::FdWatch> listenWatch_;
  std::map<int, Client> clients_;
};

}  // namespace Calyx
