#include "agent/MetricsServer.h"

#include <httplib.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "ops/PrometheusText.h"

namespace ModAgent {

MetricsServer::MetricsServer(Calyx::EventLoop& loop, std::function<std::string()> render)
    : loop_(loop), render_(std::move(render)), server_(std::make_unique<httplib::Server>()) {}

MetricsServer::~MetricsServer() {
  server_->stop();
  if (thread_.joinable()) thread_.join();
  wakeWatch_.reset();
  if (wakeFd_ >= 0) close(wakeFd_);
}

bool MetricsServer::open(std::string const& listen, std::string& error) {
  size_t const colon = listen.rfind(':');
  std::string host = listen.substr(0, colon);
  if (!host.empty() && host.front() == '[') host = host.substr(1, host.size() - 2);
  int const wanted = std::stoi(listen.substr(colon + 1));
  wakeFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (wakeFd_ < 0) {
    error = "metrics: eventfd: " + std::string(std::strerror(errno));
    return false;
  }
  wakeWatch_ = loop_.fdWatch(wakeFd_, [this] { renderAnswer(); });
  server_->new_task_queue = [] { return new httplib::ThreadPool(2); };
  server_->Get("/metrics", [this](httplib::Request const&, httplib::Response& res) {
    auto const text = renderAsk();
    if (!text) {
      res.status = 503;
      res.set_content("mod-agent's event thread did not answer within 2 s\n", "text/plain");
      return;
    }
    res.set_content(*text, Ops::PrometheusText::kContentType);
  });
  server_->Get("/", [](httplib::Request const&, httplib::Response& res) {
    res.set_content("mod-agent: metrics at /metrics\n", "text/plain");
  });
  int const port =
      wanted == 0 ? server_->bind_to_any_port(host) : (server_->bind_to_port(host, wanted) ? wanted : -1);
  if (port <= 0) {
    error = "metrics: cannot listen on " + listen + ": " + std::strerror(errno);
    return false;
  }
  url_ = "http://" + (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" +
         std::to_string(port) + "/metrics";
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  return true;
}

// On an HTTP thread: wake the event thread and wait for a text rendered after the request was made.
std::optional<std::string> MetricsServer::renderAsk() {
  std::unique_lock lock(mutex_);
  uint64_t const ticket = ++asked_;
  uint64_t const one = 1;
  if (write(wakeFd_, &one, sizeof one) != sizeof one) return std::nullopt;
  if (!answered_.wait_for(lock, std::chrono::duration<double>(kRenderWait),
                          [&] { return answers_ >= ticket; }))
    return std::nullopt;
  return latest_;
}

// On the event thread: one text answers every request made so far.
void MetricsServer::renderAnswer() {
  uint64_t count = 0;
  (void)read(wakeFd_, &count, sizeof count);
  std::string text = render_();
  std::lock_guard lock(mutex_);
  latest_ = std::move(text);
  answers_ = asked_;
  answered_.notify_all();
}

}  // namespace ModAgent
