#pragma once
// MetricsServer: the agent's scrape endpoint ([metrics] listen = "127.0.0.1:9464"): GET /metrics answers the
// same text `modctl metrics` prints, from the same renderer.
//
// The HTTP server runs on threads of its own, so a slow or stuck client never holds the event thread. The
// text is rendered on the event thread, the only one that may read the agent's state: an HTTP thread asks
// through an eventfd the loop watches, the event thread renders on its next turn (a few hundred lines from
// counters it holds) and goes on, never waiting for a client; the HTTP thread waits for the text at most
// kRenderWait seconds, then answers 503, which a monitoring system sees as a failed scrape.

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "platform/core/EventLoop.h"

namespace httplib {
class Server;
}

namespace ModAgent {

class MetricsServer {
 public:
  static constexpr double kRenderWait = 2.0;
  // render: the metrics text, called on the event thread.
  MetricsServer(Calyx::EventLoop& loop, std::function<std::string()> render);
  ~MetricsServer();
  MetricsServer(MetricsServer const&) = delete;
  MetricsServer& operator=(MetricsServer const&) = delete;

  // Listens on "A.B.C.D:PORT" or "[IPv6]:PORT" (port 0: any free port); false with error set.
  bool open(std::string const& listen, std::string& error);
  // Where it listens, as "http://HOST:PORT/metrics".
  std::string const& url() const { return url_; }

 private:
  std::optional<std::string> renderAsk();
  void renderAnswer();

  Calyx::EventLoop& loop_;
  std::function<std::string()> render_;
  std::unique_ptr<httplib::Server> server_;
  std::thread thread_;
  std::string url_;
  int wakeFd_ = -1;
  std::unique_ptr<Calyx::EventLoop::FdWatch> wakeWatch_;
  std::mutex mutex_;
  std::condition_variable answered_;
  uint64_t asked_ = 0;    // requests made; guarded by mutex_
  uint64_t answers_ = 0;  // answers given
  std::string latest_;
};

}  // namespace ModAgent
