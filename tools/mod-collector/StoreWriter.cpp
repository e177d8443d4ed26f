#include "tools/mod-collector/StoreWriter.h"

#include <cstdio>

#include "tools/mod-collector/Duration.h"

namespace ModCollector {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kComplaintInterval = std::chrono::seconds(10);
constexpr auto kRetentionInterval = std::chrono::seconds(60);
constexpr auto kMaintenanceInterval = std::chrono::hours(1);
constexpr uint64_t kRetentionChunk = 10000;

}  // namespace

StoreWriter::StoreWriter(std::unique_ptr<Storage> storage, WriterOptions options)
    : storage_(std::move(storage)), options_(options), name_(storage_->name()) {
  nextRetention_ = nextMaintenance_ = Clock::now();
  retentionBacklog_ = options_.retainUs.has_value();  // the first pass runs at start
  thread_ = std::thread([this] { run(); });
}

StoreWriter::~StoreWriter() {
  close();
}

void StoreWriter::offer(std::vector<ReportRow>& rows) {
  if (rows.empty()) return;
  {
    std::lock_guard lock(mutex_);
    size_t const room = options_.queueCapacity > queue_.size() ? options_.queueCapacity - queue_.size() : 0;
    size_t const taken = closing_ ? 0 : std::min(room, rows.size());
    for (size_t i = 0; i < taken; ++i) queue_.push_back(std::move(rows[i]));
    uint64_t const dropped = rows.size() - taken;
    stats_.droppedQueueFull += dropped;
    droppedSinceComplaint_ += dropped;
  }
  rows.clear();
  wake_.notify_one();
}

void StoreWriter::close() {
  {
    std::lock_guard lock(mutex_);
    if (!closing_) {
      closing_ = true;
      closeDeadline_ = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                          std::chrono::duration<double>(options_.closeGraceSeconds));
    }
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
}

WriterStats StoreWriter::stats() const {
  std::lock_guard lock(mutex_);
  WriterStats s = stats_;
  s.queueDepth = queue_.size();
  return s;
}

void StoreWriter::complain(std::string const& what) {
  // Called with the lock held.
  auto const now = Clock::now();
  if (now - lastComplaint_ < kComplaintInterval) return;
  lastComplaint_ = now;
  std::fprintf(stderr, "mod-collector: %s (%zu reports queued, %llu dropped for a full queue so far)\n",
               what.c_str(), queue_.size(), static_cast<unsigned long long>(stats_.droppedQueueFull));
  std::fflush(stderr);
  droppedSinceComplaint_ = 0;
}

bool StoreWriter::closing() const {
  std::lock_guard lock(mutex_);
  return closing_;
}

bool StoreWriter::pause(std::chrono::milliseconds d) {
  std::unique_lock lock(mutex_);
  bool const wasClosing = closing_;
  auto until = Clock::now() + d;
  if (wasClosing) until = std::min(until, closeDeadline_);
  wake_.wait_until(lock, until, [&] { return closing_ != wasClosing; });  // close() cuts a pause short
  return !closing_ || Clock::now() < closeDeadline_;
}

StoreWriter::Outcome StoreWriter::writeWithRetry(std::vector<ReportRow> const& batch) {
  auto backoff = std::chrono::milliseconds(100);
  bool reconnect = false;
  for (;;) {
    try {
      if (reconnect) storage_->reconnect();
      auto const start = Clock::now();
      WriteResult const r = storage_->write(batch);
      double const seconds = std::chrono::duration<double>(Clock::now() - start).count();
      std::lock_guard lock(mutex_);
      stats_.stored += r.stored;
      stats_.duplicates += r.duplicates;
      stats_.batches += 1;
      stats_.latencySum += seconds;
      for (size_t i = 0; i < WriterStats::kLatencyBounds.size(); ++i) {
        if (seconds <= WriterStats::kLatencyBounds[i]) stats_.latencyBuckets[i] += 1;
      }
      if (!stats_.writing) {
        std::fprintf(stderr, "mod-collector: %s: writing again\n", name_.c_str());
        std::fflush(stderr);
        lastComplaint_ = {};
      }
      stats_.writing = true;
      return Outcome::Written;
    } catch (StorageError const& e) {
      std::lock_guard lock(mutex_);
      stats_.writeErrors += 1;
      stats_.writing = false;
      if (!e.transient()) {
        stats_.lostRefused += batch.size();
        lastComplaint_ = {};
        complain(std::string(e.what()) + "; " + std::to_string(batch.size()) + " reports lost");
        return Outcome::Refused;
      }
      complain(std::string(e.what()) + "; retrying");
      reconnect = true;
    }
    if (!pause(backoff)) return Outcome::GaveUp;
    backoff = std::min(backoff * 2, std::chrono::milliseconds(2000));
  }
}

void StoreWriter::retain() {
  if (!options_.retainUs || Clock::now() < nextRetention_) return;
  // One chunk a turn, so that writing goes on between chunks; the next chunk follows at once while old lives
  // are left.
  uint64_t n = 0;
  try {
    n = storage_->deleteSeenBefore(wallClockMicros() - *options_.retainUs, kRetentionChunk);
  } catch (StorageError const& e) {
    std::lock_guard lock(mutex_);
    complain(std::string(e.what()) + " (while deleting old lives)");
  }
  retentionBacklog_ = n == kRetentionChunk;
  nextRetention_ = retentionBacklog_ ? Clock::now() : Clock::now() + kRetentionInterval;
  std::lock_guard lock(mutex_);
  stats_.livesDeleted += n;
}

void StoreWriter::maintain() {
  uint64_t const stored = stats().stored;
  if (Clock::now() < nextMaintenance_ && stored < 2 * storedAtMaintenance_ + 10000) return;
  nextMaintenance_ = Clock::now() + kMaintenanceInterval;
  storedAtMaintenance_ = stored;
  try {
    storage_->maintain();
  } catch (StorageError const&) {
    // Only the planner's statistics are late; the next write says what is wrong.
  }
}

void StoreWriter::run() {
  for (;;) {
    std::vector<ReportRow> batch;
    {
      std::unique_lock lock(mutex_);
      if (!retentionBacklog_) {
        wake_.wait_for(lock, std::chrono::seconds(1), [this] { return closing_ || !queue_.empty(); });
      }
      if (droppedSinceComplaint_ > 0) complain(name_ + " falls behind: the queue is full");
      if (closing_ && queue_.empty()) return;
      size_t const n = std::min(queue_.size(), options_.batchMax);
      batch.reserve(n);
      for (size_t i = 0; i < n; ++i) {
        batch.push_back(std::move(queue_.front()));
        queue_.pop_front();
      }
    }
    if (!batch.empty() && writeWithRetry(batch) == Outcome::GaveUp) {
      std::lock_guard lock(mutex_);
      stats_.unwrittenAtExit += batch.size() + queue_.size();
      queue_.clear();
      return;
    }
    retain();
    maintain();
  }
}

}  // namespace ModCollector
