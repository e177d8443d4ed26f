// mod-collector: receives report datagrams and prints them decoded, as readable lines or JSON lines; with
// --db it stores them, with --http it serves the stored history as a page, a JSON API and metrics.
// `mod-collector query ...` asks the stored history from the command line.

#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>

#include "platform/core/EventLoop.h"
#include "tools/mod-collector/Collector.h"
#include "tools/mod-collector/CollectorOptions.h"
#include "tools/mod-collector/HttpServer.h"
#include "tools/mod-collector/QueryCommand.h"
#include "tools/mod-collector/StoreWriter.h"

namespace {

using namespace ModCollector;

// SIGINT and SIGTERM end the run; the summary is printed on the way out.
class StopOnSignal : public Calyx::EventLoop::Reactor {
 public:
  explicit StopOnSignal(Calyx::Ptr<Calyx::EventLoop> const& loop) : Reactor(loop), loop_(loop.get()) {}
  void handleSignal(int signo) override {
    if (signo == SIGINT || signo == SIGTERM) loop_->stop();
  }

 private:
  Calyx::EventLoop* loop_;
};

std::string storedText(WriterStats const& s, std::string const& name) {
  return "stored: " + std::to_string(s.stored) + " reports new, " + std::to_string(s.duplicates) +
         " already stored; not stored: " + std::to_string(s.droppedQueueFull) + " dropped (queue full), " +
         std::to_string(s.lostRefused) + " refused, " + std::to_string(s.unwrittenAtExit) +
         " unwritten at exit (" + name + ")\n";
}

int run(CollectorOptions const& options) {
  Calyx::Ptr<Calyx::EventLoop> loop = Calyx::EventLoop::makeReal();
  loop->signalsEnable();
  StopOnSignal stopOnSignal(loop);
  std::unique_ptr<StoreWriter> writer;
  if (!options.db.empty()) {
    try {
      WriterOptions w;
      w.queueCapacity = options.queue;
      w.retainUs = options.retainUs;
      writer = std::make_unique<StoreWriter>(openStorage(options.db, OpenMode::Write), w);
    } catch (StorageError const& e) {
      std::fprintf(stderr, "mod-collector: %s\n", e.what());
      return 1;
    }
  }
  Collector collector(*loop, options, writer.get());
  std::string error;
  if (!collector.listen(error)) {
    std::fprintf(stderr, "mod-collector: %s\n", error.c_str());
    return 1;
  }
  std::unique_ptr<HttpServer> http;
  if (options.http) {
    http = std::make_unique<HttpServer>(options.db, [&] {
      return CollectorState{collector.summarySnapshot(), writer->stats(), writer->storageName(),
                            options.queue};
    });
    if (!http->start(*options.http, error)) {
      std::fprintf(stderr, "mod-collector: %s\n", error.c_str());
      return 1;
    }
  }
  if (options.duration > 0) {
    loop->runFor(options.duration);
  } else {
    loop->run();
  }
  http.reset();
  if (writer) writer->close();
  std::fputs(collector.summaryText().c_str(), stderr);
  if (writer && options.summary != SummaryMode::None) {
    std::fputs(storedText(writer->stats(), writer->storageName()).c_str(), stderr);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "query") == 0) return ModCollector::queryMain(argc, argv);
  ModCollector::CollectorOptions options;
  if (auto done = ModCollector::parseOptions(argc, argv, options)) return *done;
  try {
    return run(options);
  } catch (std::exception const& e) {
    std::fprintf(stderr, "mod-collector: %s\n", e.what());
    return 1;
  }
}
