#pragma once
// Trace: named trace channels with nine levels (0 to 8), each switched on by itself.
//
// A TraceHandle names a channel ("MOD-Manager"). The channel lives in the TraceRegistry and never moves or
// dies, so a handle is a pointer and cheap to copy. Asking whether a level is on is one load and a bit test;
// CALYX_TRACE composes its line only when the level is on, so a switched-off trace costs nothing more than
// that test.
//
// Levels are a mask, not a threshold: switching level 3 on leaves 4 off. Levels outside 0..8 are never on.
//
// The registry hands composed lines to one sink (stderr unless told otherwise). Tracing is meant for the
// event thread; the masks are atomics and the sink is swapped under a lock, so a stray second thread cannot
// crash it, but lines from two threads are not ordered with each other.
//
// The process-wide registry (instance()) is never destroyed, so handles held by static objects stay valid at
// exit. A registry made locally (tests) must outlive the handles it gave out.

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace Calyx {

class TraceSink;
class TraceRegistry;

inline constexpr int kTraceLevelMax = 8;
inline constexpr uint16_t kTraceLevelsAll = (1u << (kTraceLevelMax + 1)) - 1;

// One channel: owned by its registry, at a stable address for the registry's lifetime.
struct TraceChannel {
  TraceChannel(TraceRegistry* owner, std::string channelName, uint16_t mask)
      : registry(owner), name(std::move(channelName)), levels(mask) {}
  TraceRegistry* const registry;
  std::string const name;
  std::atomic<uint16_t> levels;
};

class TraceHandle {
 public:
  // Finds or creates the channel of that name in the process-wide registry.
  explicit TraceHandle(std::string_view name);

  std::string const& name() const { return channel_->name; }
  bool isEnabled(int level) const {
    // Relaxed: a level switched on by another thread may be seen a little late, which is harmless.
    return static_cast<unsigned>(level) <= kTraceLevelMax &&
           ((channel_->levels.load(std::memory_order_relaxed) >> level) & 1u) != 0;
  }
  void levelIs(int level, bool on);
  void levelsIs(uint16_t mask) { channel_->levels.store(mask & kTraceLevelsAll, std::memory_order_relaxed); }
  uint16_t levels() const { return channel_->levels.load(std::memory_order_relaxed); }

  // Hands the composed line to the registry's sink; drops it when the level is off.
  void write(int level, std::string_view line) const;

 private:
  friend class TraceRegistry;
  explicit TraceHandle(TraceChannel* channel) : channel_(channel) {}
  TraceChannel* channel_;
};

class TraceRegistry {
 public:
  TraceRegistry();
  TraceRegistry(TraceRegistry const&) = delete;
  TraceRegistry& operator=(TraceRegistry const&) = delete;
  ~TraceRegistry();

  static TraceRegistry& instance();

  // Finds or creates the channel; a new channel starts with the levels last given to "*" (none at first).
  TraceHandle handle(std::string_view name);
  std::vector<std::string> names() const;  // sorted

  void sinkIs(std::shared_ptr<TraceSink> sink);
  std::shared_ptr<TraceSink> sink() const;

  // Applies a level setting such as "MOD-Manager=0-5,MOD-Sender=1,3,*=0-1". Items are NAME=LEVELS; LEVELS is
  // a list of levels and ranges separated by commas, empty for "all off". "*" sets every channel, also ones
  // made later; a named channel takes its own levels whatever the order of the items, and a name not yet
  // known is created so the levels are waiting when the code asks for it. The setting is checked whole first:
  // on error nothing changes and the returned text names the bad item; on success the text is empty.
  std::string levelsApply(std::string_view setting);

 private:
  friend class TraceHandle;
  void write(TraceChannel const& channel, int level, std::string_view line) const;

  mutable std::mutex mutex_;
  std::map<std::string, std::unique_ptr<TraceChannel>, std::less<>> channels_;
  uint16_t defaultLevels_ = 0;
  std::shared_ptr<TraceSink> sink_;
};

}  // namespace Calyx

// Composes the line only when the level is on:
//   CALYX_TRACE(handle, 5, "Storing report: size = " << n << ".");
#define CALYX_TRACE(handle, level, expr)                                   \
  do {                                                                     \
    auto const& calyxTraceHandle_ = (handle);                              \
    int const calyxTraceLevel_ = (level);                                  \
    if (calyxTraceHandle_.isEnabled(calyxTraceLevel_)) {                   \
      std::ostringstream calyxTraceStream_;                                \
      calyxTraceStream_ << expr;                                           \
      calyxTraceHandle_.write(calyxTraceLevel_, calyxTraceStream_.view()); \
    }                                                                      \
  } while (0)
