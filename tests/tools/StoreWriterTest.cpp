// StoreWriter between the receive path and a database that is slow, fails for a while, refuses a batch or is
// gone at exit. The database is a fake that the test holds or lets fail; the writer's thread is real.

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "tools/mod-collector/Duration.h"
#include "tools/mod-collector/StoreWriter.h"

using namespace ModCollector;
using namespace std::chrono_literals;

namespace {

// A database whose writes the test can hold at a gate, fail (transient or refused) a number of times, and
// that keeps what it was given in order.
class FakeStorage : public Storage {
 public:
  struct Shared {
    std::mutex m;
    std::condition_variable cv;
    bool gateOpen = true;
    int writesEntered = 0;
    int transientFailures = 0;
    int refusals = 0;
    int reconnects = 0;
    std::vector<int64_t> written;  // arrivedUs of every row written
    std::vector<std::pair<int64_t, uint64_t>> deletes;
    std::vector<uint64_t> deleteAnswers;
  };
  explicit FakeStorage(Shared& s) : s_(s) {}
  WriteResult write(std::vector<ReportRow> const& batch) override {
    std::unique_lock lock(s_.m);
    s_.writesEntered += 1;
    s_.cv.notify_all();
    s_.cv.wait(lock, [&] { return s_.gateOpen; });
    if (s_.transientFailures > 0) {
      s_.transientFailures -= 1;
      throw StorageError("fake: connection lost", true);
    }
    if (s_.refusals > 0) {
      s_.refusals -= 1;
      throw StorageError("fake: refused", false);
    }
    for (auto const& r : batch) s_.written.push_back(r.arrivedUs);
    s_.cv.notify_all();
    return {batch.size(), 0};
  }
  uint64_t deleteSeenBefore(int64_t cutoffUs, uint64_t limit) override {
    std::lock_guard lock(s_.m);
    s_.deletes.emplace_back(cutoffUs, limit);
    s_.cv.notify_all();
    uint64_t const n = s_.deleteAnswers.empty() ? 0 : s_.deleteAnswers.front();
    if (!s_.deleteAnswers.empty()) s_.deleteAnswers.erase(s_.deleteAnswers.begin());
    return n;
  }
  std::vector<SqlRow> select(SqlQuery const&) override { return {}; }
  std::string explain(SqlQuery const&) override { return {}; }
  void maintain() override {}
  void reconnect() override {
    std::lock_guard lock(s_.m);
    s_.reconnects += 1;
  }
  std::string name() const override { return "fake"; }

 private:
  Shared& s_;
};

std::vector<ReportRow> rows(int64_t from, int64_t n) {
  std::vector<ReportRow> out(static_cast<size_t>(n));
  for (int64_t i = 0; i < n; ++i) out[static_cast<size_t>(i)].arrivedUs = from + i;
  return out;
}

std::vector<int64_t> sequence(int64_t from, int64_t n) {
  std::vector<int64_t> v;
  for (int64_t i = 0; i < n; ++i) v.push_back(from + i);
  return v;
}

class StoreWriterTest : public ::testing::Test {
 protected:
  std::unique_ptr<StoreWriter> writer(WriterOptions o = {}) {
    return std::make_unique<StoreWriter>(std::make_unique<FakeStorage>(db), o);
  }
  template <class P>
  bool waitFor(P p) {
    std::unique_lock lock(db.m);
    return db.cv.wait_for(lock, 10s, p);
  }
  void openGate() {
    std::lock_guard lock(db.m);
    db.gateOpen = true;
    db.cv.notify_all();
  }
  FakeStorage::Shared db;
};

TEST_F(StoreWriterTest, AFullQueueDropsAndCountsWithoutWaitingForTheDatabase) {
  WriterOptions o;
  o.queueCapacity = 10;
  o.batchMax = 5;
  auto w = writer(o);
  db.gateOpen = false;
  auto first = rows(0, 5);
  w->offer(first);
  ASSERT_TRUE(
      waitFor([&] { return db.writesEntered == 1; }));  // the writer holds those 5, stuck in the database
  auto more = rows(5, 25);
  w->offer(more);  // returns at once: 10 fit, 15 are dropped
  EXPECT_TRUE(more.empty());
  WriterStats s = w->stats();
  EXPECT_EQ(s.queueDepth, 10u);
  EXPECT_EQ(s.droppedQueueFull, 15u);
  openGate();
  w->close();
  EXPECT_EQ(db.written, sequence(0, 15));
  s = w->stats();
  EXPECT_EQ(s.stored, 15u);
  EXPECT_EQ(s.batches, 3u);
  EXPECT_EQ(s.latencyBuckets.back(), 3u);
  EXPECT_EQ(s.unwrittenAtExit, 0u);
}

TEST_F(StoreWriterTest, TransientFailuresAreRetriedAfterReconnectingAndLoseNothing) {
  db.transientFailures = 3;
  auto w = writer();
  auto r = rows(0, 8);
  w->offer(r);
  ASSERT_TRUE(waitFor([&] { return db.writesEntered == 2; }));
  EXPECT_FALSE(w->stats().writing);
  ASSERT_TRUE(waitFor([&] { return db.written.size() == 8; }));
  w->close();
  EXPECT_EQ(db.written, sequence(0, 8));
  EXPECT_EQ(db.reconnects, 3);
  WriterStats const s = w->stats();
  EXPECT_EQ(s.writeErrors, 3u);
  EXPECT_TRUE(s.writing);
  EXPECT_EQ(s.stored, 8u);
}

TEST_F(StoreWriterTest, ARefusedBatchIsCountedAsLostAndWritingGoesOn) {
  db.refusals = 1;
  auto w = writer();
  auto a = rows(0, 4);
  w->offer(a);
  ASSERT_TRUE(waitFor([&] { return db.writesEntered == 1; }));
  auto b = rows(10, 3);
  w->offer(b);
  w->close();
  EXPECT_EQ(db.written, sequence(10, 3));
  EXPECT_EQ(w->stats().lostRefused, 4u);
  EXPECT_EQ(w->stats().stored, 3u);
}

TEST_F(StoreWriterTest, CloseWritesWhatIsQueuedAndCountsWhatItCannotAfterTheGraceTime) {
  auto w = writer();
  auto r = rows(0, 6);
  w->offer(r);
  w->close();  // what was queued is written before the thread ends
  EXPECT_EQ(db.written.size(), 6u);
  auto late = rows(6, 2);
  w->offer(late);  // nothing is taken once closed
  EXPECT_EQ(w->stats().droppedQueueFull, 2u);

  db.written.clear();
  db.transientFailures = 1000000;  // the database is gone for good
  WriterOptions o;
  o.closeGraceSeconds = 0.3;
  auto gone = writer(o);
  auto queued = rows(0, 7);
  gone->offer(queued);
  auto const start = std::chrono::steady_clock::now();
  gone->close();
  EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
  EXPECT_TRUE(db.written.empty());
  EXPECT_EQ(gone->stats().unwrittenAtExit, 7u);
}

TEST_F(StoreWriterTest, RetentionDeletesInChunksUntilNoFullChunkIsLeft) {
  db.deleteAnswers = {10000, 10000, 42};
  WriterOptions o;
  o.retainUs = 7 * 86400 * kMicrosPerSecond;
  int64_t const before = wallClockMicros();
  auto w = writer(o);
  ASSERT_TRUE(waitFor([&] { return db.deletes.size() == 3; }));
  w->close();
  EXPECT_EQ(db.deletes.size(), 3u);  // the fourth chunk waits a minute
  for (auto const& [cutoff, limit] : db.deletes) {
    EXPECT_GE(cutoff, before - *o.retainUs);
    EXPECT_LE(cutoff, wallClockMicros() - *o.retainUs);
    EXPECT_EQ(limit, 10000u);
  }
  EXPECT_EQ(w->stats().livesDeleted, 20042u);
}

}  // namespace
