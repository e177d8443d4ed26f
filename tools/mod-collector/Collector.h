#pragma once
// Collector: the listening side of mod-collector. One non-blocking datagram socket per --listen address, each
// watched by the event loop; every readable event drains its socket, decodes each datagram, prints the report
// on stdout (flushed per line, since readers often sit behind a pipe) or the rejection on stderr, and stops
// the loop once --count reports were printed.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/core/EventLoop.h"
#include "tools/mod-collector/CollectorOptions.h"
#include "tools/mod-collector/CollectorSummary.h"

namespace ModCollector {

class Collector {
 public:
  Collector(Calyx::EventLoop& loop, CollectorOptions options);
  Collector(Collector const&) = delete;
  Collector& operator=(Collector const&) = delete;
  ~Collector();

  // Binds every address and prints "listening on ADDR:PORT" for each on stderr; false with error set when one
  // cannot be bound.
  bool listen(std::string& error);
  CollectorSummary const& summary() const { return summary_; }

 private:
  void drain(int fd);
  void datagramIs(uint8_t const* data, size_t size, sockaddr_storage const& from);

  Calyx::EventLoop& loop_;
  CollectorOptions options_;
  CollectorSummary summary_;
  std::vector<int> fds_;
  std::vector<std::unique_ptr<Calyx::EventLoop::FdWatch>> watches_;
};

}  // namespace ModCollector
