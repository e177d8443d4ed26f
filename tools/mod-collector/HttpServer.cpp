#include "tools/mod-collector/HttpServer.h"

#include <httplib.h>

#include <cstdio>

#include "tools/mod-collector/Duration.h"
#include "tools/mod-collector/PageAssets.h"
#include "tools/mod-collector/QueryAnswer.h"

namespace ModCollector {
namespace {

void replyJson(httplib::Response& res, int status, nlohmann::ordered_json const& body) {
  res.status = status;
  res.set_header("Cache-Control", "no-store");
  res.set_content(body.dump(), "application/json");
}

char const* contentType(std::string const& name) {
  if (name.ends_with(".html")) return "text/html; charset=utf-8";
  if (name.ends_with(".js")) return "text/javascript; charset=utf-8";
  if (name.ends_with(".css")) return "text/css; charset=utf-8";
  return "application/octet-stream";
}

}  // namespace

HttpServer::HttpServer(std::string db, std::function<CollectorState()> state)
    : db_(std::move(db)), state_(std::move(state)), server_(std::make_unique<httplib::Server>()) {
  routes();
}

HttpServer::~HttpServer() {
  server_->stop();
  if (thread_.joinable()) thread_.join();
}

bool HttpServer::start(ListenAddr const& at, std::string& error) {
  std::string const text = endpointText(at.addr);
  size_t const colon = text.rfind(':');
  std::string host = text.substr(0, colon);
  if (host.front() == '[') host = host.substr(1, host.size() - 2);
  int const wanted = std::stoi(text.substr(colon + 1));
  int const port =
      wanted == 0 ? server_->bind_to_any_port(host) : (server_->bind_to_port(host, wanted) ? wanted : -1);
  if (port <= 0) {
    error = "http: cannot listen on " + text;
    return false;
  }
  std::string const shown =
      (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" + std::to_string(port);
  std::fprintf(stderr, "http on %s\n", shown.c_str());
  std::fflush(stderr);
  thread_ = std::thread([this] { server_->listen_after_bind(); });
  return true;
}

void HttpServer::routes() {
  auto asset = [](std::string const& name) {
    return [name](httplib::Request const&, httplib::Response& res) {
      res.set_content(std::string(*pageAsset(name)), contentType(name));
    };
  };
  server_->Get("/", asset("index.html"));
  for (char const* name : {"index.html", "app.js", "style.css"})
    server_->Get(std::string("/") + name, asset(name));

  auto answer = [this](std::string const& subject, httplib::Request const& req, httplib::Response& res) {
    QueryOptions options;
    for (auto const& [key, value] : req.params) options[key] = value;
    Query query;
    try {
      query = parseQuery(subject, options, wallClockMicros());
    } catch (std::invalid_argument const& e) {
      replyJson(res, 400, {{"error", e.what()}});
      return;
    }
    std::lock_guard lock(storageMutex_);
    try {
      if (!storage_) storage_ = openStorage(db_, OpenMode::Read);
      replyJson(res, 200, answerJson(*storage_, query));
    } catch (StorageError const& e) {
      storage_.reset();
      replyJson(res, 503, {{"error", e.what()}});
    }
  };
  server_->Get(R"(/api/top/([a-z]+))", [answer](httplib::Request const& req, httplib::Response& res) {
    answer("top " + req.matches[1].str(), req, res);
  });
  server_->Get("/api/lives",
               [answer](httplib::Request const& req, httplib::Response& res) { answer("lives", req, res); });
  server_->Get("/api/timeline", [answer](httplib::Request const& req, httplib::Response& res) {
    answer("timeline", req, res);
  });
  server_->Get("/api/status", [this](httplib::Request const&, httplib::Response& res) {
    replyJson(res, 200, statusJson(state_()));
  });
  server_->Get("/metrics", [this](httplib::Request const&, httplib::Response& res) {
    res.set_content(metricsText(state_()), "text/plain; version=0.0.4; charset=utf-8");
  });
}

}  // namespace ModCollector
