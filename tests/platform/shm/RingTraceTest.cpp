#include "platform/shm/RingTrace.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <filesystem>
#include <fstream>

namespace Calyx {
namespace {

using RingTraceFormat::Header;
using RingTraceFormat::Record;

std::string eventText(uint64_t n) {
  return "event " + std::to_string(n);
}

// A snapshot is whole when its sequence numbers follow each other and every text is the one written with its
// number.
::testing::AssertionResult isWhole(std::vector<RingTraceRecord> const& records) {
  for (size_t i = 0; i < records.size(); ++i) {
    if (i > 0 && records[i].seq != records[i - 1].seq + 1) {
      return ::testing::AssertionFailure() << "gap after seq " << records[i - 1].seq;
    }
    if (records[i].text != eventText(records[i].seq)) {
      return ::testing::AssertionFailure()
             << "seq " << records[i].seq << " holds \"" << records[i].text << "\"";
    }
  }
  return ::testing::AssertionSuccess();
}

class RingTraceFile : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/ring-trace-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir = pattern;
    path = dir + "/ring";
  }
  void TearDown() override { std::filesystem::remove_all(dir); }

  std::vector<RingTraceRecord> readBack() {
    std::string error;
    auto records = RingTraceReader::read(path, &error);
    EXPECT_TRUE(records) << error;
    return records.value_or(std::vector<RingTraceRecord>{});
  }
  std::string readError() {
    std::string error;
    EXPECT_FALSE(RingTraceReader::read(path, &error));
    return error;
  }
  // Overwrites bytes of the file in place, as a dying writer or a stray program might.
  template <typename T>
  void poke(size_t offset, T value) {
    int const fd = ::open(path.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::pwrite(fd, &value, sizeof value, static_cast<off_t>(offset)),
              static_cast<ssize_t>(sizeof value));
    ::close(fd);
  }
  static size_t recordOffset(size_t index) { return sizeof(Header) + index * sizeof(Record); }

  std::string dir;
  std::string path;
};

TEST_F(RingTraceFile, WrapKeepsTheNewestRecordsOldestFirst) {
  RingTrace ring;
  ASSERT_TRUE(ring.open(path, 8)) << ring.error();
  for (uint64_t n = 1; n <= 20; ++n) ring.record(eventText(n));
  ring.record(std::string(300, 'x'));
  auto const records = readBack();
  ASSERT_EQ(records.size(), 8u);
  EXPECT_EQ(records.front().seq, 14u);
  EXPECT_TRUE(isWhole({records.begin(), records.end() - 1}));
  EXPECT_EQ(records.back().text, std::string(RingTraceFormat::kTextMax, 'x'));
  for (size_t i = 1; i < records.size(); ++i) EXPECT_LE(records[i - 1].timeNs, records[i].timeNs);
  EXPECT_GT(records.front().timeNs, 1'600'000'000ull * 1'000'000'000ull);  // wall-clock time, not boot time
}

TEST_F(RingTraceFile, ReopenGoesOnAndAnotherCapacityStartsAfresh) {
  RingTrace ring;
  ring.record(eventText(1));  // in memory until the file is opened, then carried into it
  ASSERT_TRUE(ring.open(path, 8)) << ring.error();
  ring.record(eventText(2));
  EXPECT_EQ(ring.path(), path);
  {
    RingTrace restarted;
    ASSERT_TRUE(restarted.open(path, 8)) << restarted.error();
    restarted.record(eventText(3));
  }
  auto const records = readBack();
  EXPECT_EQ(records.size(), 3u);
  EXPECT_TRUE(isWhole(records));
  EXPECT_EQ(ring.records(), records);

  RingTrace resized;
  ASSERT_TRUE(resized.open(path, 4)) << resized.error();
  resized.record(eventText(1));
  EXPECT_EQ(readBack().size(), 1u);
  EXPECT_EQ(ring.records().size(), 3u);  // the old writer keeps its own (now unlinked) file
}

TEST_F(RingTraceFile, ForeignOrDamagedFilesAreRefusedByName) {
  std::ofstream(path) << "not a ring at all, just some text";
  RingTrace ring;
  EXPECT_FALSE(ring.open(path, 8));
  EXPECT_NE(ring.error().find("not a ring trace"), std::string::npos) << ring.error();
  EXPECT_NE(readError().find(path + " is not a ring trace file"), std::string::npos);
  std::ifstream in(path);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "not a ring at all, just some text");

  std::filesystem::remove(path);
  EXPECT_NE(readError().find("Cannot open"), std::string::npos);
  EXPECT_FALSE(ring.open(dir + "/missing/ring", 8));
  EXPECT_FALSE(ring.open(path, 0));

  ASSERT_TRUE(ring.open(path, 8));
  poke<uint32_t>(offsetof(Header, version), 7);
  EXPECT_NE(readError().find("layout version 7"), std::string::npos);
  poke<uint32_t>(offsetof(Header, version), RingTraceFormat::kVersion);
  poke<uint32_t>(offsetof(Header, capacity), 9);
  EXPECT_NE(readError().find("capacity 9 needs"), std::string::npos);
}

TEST_F(RingTraceFile, TornOrMisplacedRecordsAreSkipped) {
  RingTrace ring;
  ASSERT_TRUE(ring.open(path, 8));
  for (uint64_t n = 1; n <= 6; ++n) ring.record(eventText(n));
  poke<uint64_t>(recordOffset(1) + offsetof(Record, commit), 0);  // seq 2: writer died before committing
  poke<uint64_t>(recordOffset(2) + offsetof(Record, commit), 9);  // seq 3: commit of another record
  poke<uint64_t>(recordOffset(3) + offsetof(Record, commit), 5);  // seq 4 slot claims seq 5: wrong slot
  poke<uint64_t>(recordOffset(3) + offsetof(Record, seq), 5);
  poke<uint32_t>(recordOffset(4) + offsetof(Record, length), 1000);  // seq 5: length beyond the record
  std::vector<uint64_t> seqs;
  for (auto const& record : readBack()) seqs.push_back(record.seq);
  EXPECT_EQ(seqs, (std::vector<uint64_t>{1, 6}));
}

TEST_F(RingTraceFile, WriterKilledMidStreamLeavesAWholeRing) {
  constexpr uint32_t kCapacity = 1024;
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t const writer = fork();
  ASSERT_GE(writer, 0);
  if (writer == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlive a test that failed before killing it
    RingTrace ring;
    if (!ring.open(path, kCapacity)) _exit(1);
    for (uint64_t n = 1;; ++n) {
      ring.record(eventText(n));
      if (n == 10 * kCapacity) (void)!write(ready[1], "r", 1);
    }
  }
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  // Snapshots taken while the writer runs are whole too: records it overwrote during the pass are left out.
  size_t seen = 0;
  for (int i = 0; i < 50; ++i) {
    auto const records = readBack();
    seen += records.size();
    EXPECT_TRUE(isWhole(records));
  }
  EXPECT_GT(seen, 0u);
  kill(writer, SIGKILL);
  int status = 0;
  ASSERT_EQ(waitpid(writer, &status, 0), writer);
  EXPECT_TRUE(WIFSIGNALED(status));
  close(ready[0]);
  close(ready[1]);
  auto const records = readBack();
  EXPECT_GE(records.size(), kCapacity - 1);  // at most the record being written is lost
  EXPECT_GT(records.front().seq, 10 * kCapacity - kCapacity);
  EXPECT_TRUE(isWhole(records));
}

}  // namespace
}  // namespace Calyx
