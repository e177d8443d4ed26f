#pragma once
// StoreWriter: takes received reports off the receive path and writes them in batches, one transaction each,
// on a thread of its own. Between the two sits a bounded queue: offer() never waits for the database; what
// does not fit is counted (droppedQueueFull) and said on stderr, at most every 10 s.
//
// A batch that fails for a reason the engine may get over (connection lost, server restarting, disk full,
// lock wait) is kept and written again once the connection is back, reconnecting with a growing pause (0.1 s
// to 2 s); the queue meanwhile holds what arrives, up to its capacity. A batch the database refuses outright
// is counted as lost. On close() the writer writes what is queued, then stops; what it still could not write
// after the grace time is counted as unwritten. Old lives go in the background when a retention is set
// (checked every minute, deleted 10,000 at a time).

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "tools/mod-collector/Storage.h"

namespace ModCollector {

struct WriterOptions {
  size_t queueCapacity = 100000;  // reports waiting to be written
  size_t batchMax = 5000;         // reports per transaction
  std::optional<int64_t> retainUs;
  double closeGraceSeconds = 5.0;
};

struct WriterStats {
  static constexpr std::array<double, 8> kLatencyBounds = {0.001, 0.005, 0.01, 0.05, 0.1, 0.5, 1.0, 5.0};
  uint64_t stored = 0;      // reports new to the database
  uint64_t duplicates = 0;  // reports the database held already (another collector, a repeated datagram)
  uint64_t droppedQueueFull = 0;  // offered while the queue was full: the database fell behind
  uint64_t lostRefused = 0;       // in batches the database refused
  uint64_t unwrittenAtExit = 0;   // still queued when close() gave up
  uint64_t queueDepth = 0;        // waiting now, beside the batch being written
  uint64_t batches = 0;
  uint64_t writeErrors = 0;
  uint64_t livesDeleted = 0;  // by the retention
  std::array<uint64_t, kLatencyBounds.size()>
      latencyBuckets{};   // batches written within each bound (cumulative)
  double latencySum = 0;  // seconds, over the batches written
  bool writing = true;    // false while the database fails
};

class StoreWriter {
 public:
  StoreWriter(std::unique_ptr<Storage> storage, WriterOptions options);
  StoreWriter(StoreWriter const&) = delete;
  StoreWriter& operator=(StoreWriter const&) = delete;
  ~StoreWriter();

  // Moves the rows into the queue, as many as fit; never blocks on the database.
  void offer(std::vector<ReportRow>& rows);
  // Writes what is queued (giving up after the grace time) and ends the thread. Safe to call twice.
  void close();
  WriterStats stats() const;
  std::string const& storageName() const { return name_; }

 private:
  enum class Outcome { Written, Refused, GaveUp };
  void run();
  Outcome writeWithRetry(std::vector<ReportRow> const& batch);
  void retain();
  void maintain();
  bool pause(std::chrono::milliseconds d);  // false once closing and past the grace time
  bool closing() const;
  void complain(std::string const& what);

  std::unique_ptr<Storage> storage_;
  WriterOptions options_;
  std::string name_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<ReportRow> queue_;
  bool closing_ = false;
  std::chrono::steady_clock::time_point closeDeadline_{};
  WriterStats stats_;
  std::chrono::steady_clock::time_point lastComplaint_{};
  uint64_t droppedSinceComplaint_ = 0;
  std::chrono::steady_clock::time_point nextRetention_{};
  bool retentionBacklog_ = false;  // the last chunk was full: more old lives wait
  std::chrono::steady_clock::time_point nextMaintenance_{};
  uint64_t storedAtMaintenance_ = 0;
  std::thread thread_;
};

}  // namespace ModCollector
