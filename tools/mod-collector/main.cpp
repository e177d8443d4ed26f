// mod-collector: receives report datagrams and prints them decoded, as readable lines or JSON lines.

#include <csignal>
#include <cstdio>
#include <exception>

#include "platform/core/EventLoop.h"
#include "tools/mod-collector/Collector.h"
#include "tools/mod-collector/CollectorOptions.h"

namespace {

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

int run(ModCollector::CollectorOptions const& options) {
  Calyx::Ptr<Calyx::EventLoop> loop = Calyx::EventLoop::makeReal();
  loop->signalsEnable();
  StopOnSignal stopOnSignal(loop);
  ModCollector::Collector collector(*loop, options);
  std::string error;
  if (!collector.listen(error)) {
    std::fprintf(stderr, "mod-collector: %s\n", error.c_str());
    return 1;
  }
  if (options.duration > 0) {
    loop->runFor(options.duration);
  } else {
    loop->run();
  }
  std::fputs(collector.summary().text().c_str(), stderr);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  ModCollector::CollectorOptions options;
  if (auto done = ModCollector::parseOptions(argc, argv, options)) return *done;
  try {
    return run(options);
  } catch (std::exception const& e) {
    std::fprintf(stderr, "mod-collector: %s\n", e.what());
    return 1;
  }
}
