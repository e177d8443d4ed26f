#pragma once
// Catches one trace channel's lines for the length of a test: the registry's sink becomes a memory sink and
// the channel gets the levels asked for; both are put back afterwards.
//
//   TraceCapture trace("MOD-Receiver", kTraceLevelsAll);
//   ... trace.lines(3) ...

#include <memory>
#include <string>
#include <vector>

#include "platform/core/Trace.h"
#include "platform/core/TraceSink.h"

namespace Calyx::Test {

class TraceCapture {
 public:
  TraceCapture(std::string const& channel, uint16_t levels)
      : handle_(channel), previousSink_(TraceRegistry::instance().sink()), previousLevels_(handle_.levels()) {
    TraceRegistry::instance().sinkIs(sink_);
    handle_.levelsIs(levels);
  }
  ~TraceCapture() {
    handle_.levelsIs(previousLevels_);
    TraceRegistry::instance().sinkIs(previousSink_);
  }
  TraceCapture(TraceCapture const&) = delete;
  TraceCapture& operator=(TraceCapture const&) = delete;

  // Every line of the channel so far, or those of one level.
  std::vector<std::string> lines() const { return sink_->lines(handle_.name()); }
  std::vector<std::string> lines(int level) const {
    std::vector<std::string> out;
    for (auto const& e : sink_->entries()) {
      if (e.level == level && e.channel == handle_.name()) out.push_back(e.line);
    }
    return out;
  }
  void clear() { sink_->clear(); }

 private:
  TraceHandle handle_;
  std::shared_ptr<MemoryTraceSink> sink_ = std::make_shared<MemoryTraceSink>();
  std::shared_ptr<TraceSink> previousSink_;
  uint16_t previousLevels_;
};

}  // namespace Calyx::Test
