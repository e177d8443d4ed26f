#pragma once
// HttpServer: the collector's page, its JSON API and its metrics, served by cpp-httplib on threads of its own:
//   GET /                          the page (index.html, with app.js and style.css beside it)
//   GET /api/top/flows|reasons|sources|protocols?since=1h&limit=10&by=lives
//   GET /api/lives?open=1&source=ADDR&flow=FILTER&since=1h&limit=50
//   GET /api/timeline?since=1h&step=1m
//                                  the same answers as `mod-collector query ... --json`; a bad parameter is a
//                                  400 with {"error": "..."}, a database that fails a 503
//   GET /api/status                the collector's counters as JSON
//   GET /metrics                   the same counters in the Prometheus text format
// The API reads the database through a connection of its own (one, shared by the requests in turn), opened on
// the first request and again after a failure.

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "tools/mod-collector/CollectorMetrics.h"
#include "tools/mod-collector/CollectorOptions.h"
#include "tools/mod-collector/Storage.h"

namespace httplib {
class Server;
}

namespace ModCollector {

class HttpServer {
 public:
  HttpServer(std::string db, std::function<CollectorState()> state);
  HttpServer(HttpServer const&) = delete;
  HttpServer& operator=(HttpServer const&) = delete;
  ~HttpServer();

  // Binds the address (port 0 picks a free one), prints "http on ADDR:PORT" on stderr and starts serving;
  // false with error set when the address cannot be bound.
  bool start(ListenAddr const& at, std::string& error);

 private:
  void routes();

  std::string db_;
  std::function<CollectorState()> state_;
  std::unique_ptr<httplib::Server> server_;
  std::mutex storageMutex_;
  std::unique_ptr<Storage> storage_;
  std::thread thread_;
};

}  // namespace ModCollector
