#pragma once
// Collector: the listening side of mod-collector. One non-blocking datagram socket per --listen address, each
// watched by the event loop; every readable event drains its socket, decodes each datagram, prints the report
// on stdout (flushed per line, since readers often sit behind a pipe; nothing with --quiet) or the rejection
// on stderr, hands the drained reports to the store's writer in one go when there is one, and stops the loop
// once --count reports were received.
//
// The counters are read by the page's server thread as well, through summarySnapshot().

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/core/EventLoop.h"
#include "tools/mod-collector/CollectorOptions.h"
#include "tools/mod-collector/CollectorSummary.h"
#include "tools/mod-collector/ReportRow.h"

namespace ModCollector {

class StoreWriter;

class Collector {
 public:
  // writer: where reports go besides stdout; may be null (nothing stored).
  Collector(Calyx::EventLoop& loop, CollectorOptions options, StoreWriter* writer = nullptr);
  Collector(Collector const&) = delete;
  Collector& operator=(Collector const&) = delete;
  ~Collector();

  // Binds every address and prints "listening on ADDR:PORT" for each on stderr; false with error set when one
  // cannot be bound.
  bool listen(std::string& error);
  // A copy of the counters, safe from any thread.
  CollectorSummary summarySnapshot() const;
  // The summary as --summary asks for it (only from the loop's thread, once it has stopped).
  std::string summaryText() const { return summary_.text(options_.summary); }

 private:
  void drain(int fd, std::string const& collector);
  void datagramIs(uint8_t const* data, size_t size, sockaddr_storage const& from,
                  std::string const& collector);

  Calyx::EventLoop& loop_;
  CollectorOptions options_;
  StoreWriter* writer_;
  mutable std::mutex summaryMutex_;
  CollectorSummary summary_;
  std::vector<int> fds_;
  std::vector<std::unique_ptr<Calyx::EventLoop::FdWatch>> watches_;
  std::vector<ReportRow> rows_;  // the reports of one drain, on their way to the writer
};

}  // namespace ModCollector
