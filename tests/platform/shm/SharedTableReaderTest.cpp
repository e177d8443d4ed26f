#include "platform/shm/SharedTableReader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <set>

#include "platform/shm/SharedTable.h"
#include "tests/platform/shm/TableTestRecords.h"

namespace Calyx {
namespace {

using TableTest::Key;
using TableTest::keyOf;
using TableTest::Value;
using Table = SharedTable<Key, Value>;
using Reader = SharedTableReader<Key, Value>;

// Runs body in a child process and returns its exit status (the child never returns into the test).
template <class F>
int inChild(F&& body) {
  pid_t const pid = ::fork();
  if (pid == 0) ::_exit(body());
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// What the forked reader and the writer share, in an anonymous shared page.
struct Shared {
  std::atomic<uint64_t> snapshots{0};
  std::atomic<bool> writerDone{false};
};

class SharedTableReaderTest : public ::testing::Test {
 protected:
  Ptr<Table> open(size_t capacity = 16) {
    SharedTableOptions o;
    o.stateDir = dir.path();
    o.initialCapacity = capacity;
    o.corruptionHandler = [this](SharedTableCorruption const& c) { problems.push_back(c.problem); };
    return make<Table>("t", o);
  }
  TableTest::TempStateDir dir;
  std::vector<std::string> problems;
};

// The reader checks every record it sees and, once the writer is done, the final contents: the writer grew
// the table after the reader's first look, and deleted the keys from finalKeys on.
int readWhileWriterWrites(std::string const& path, Shared& shared, uint64_t finalKeys, uint64_t finalSeq) {
  Reader reader(path);
  uint64_t const firstGeneration = reader.generation();
  for (;;) {
    bool const done = shared.writerDone.load();
    std::vector<Value> rows = reader.snapshot();
    if (!reader.ok()) return std::fprintf(stderr, "reader: %s\n", reader.errorText().c_str()), 1;
    for (Value const& v : rows) {
      if (!v.consistent()) return std::fprintf(stderr, "torn record of key %lu\n", (unsigned long)v.k.lo), 2;
    }
    for (uint64_t n = 0; n < 1000; ++n) {
      if (auto v = reader.find(keyOf(n % 8)); v && !v->consistent()) return 2;
    }
    shared.snapshots.fetch_add(1);
    if (!done) continue;
    if (rows.size() != finalKeys) return std::fprintf(stderr, "final rows %zu\n", rows.size()), 3;
    for (Value const& v : rows) {
      if (v.seq != finalSeq || v.k.lo >= finalKeys) return 3;
    }
    return reader.generation() > firstGeneration ? 0 : 4;
  }
}

TEST_F(SharedTableReaderTest, ForkedReaderSeesCommitsDeletionsAndGrowthNeverATornRecord) {
  auto* shared =
      new (::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Shared;
  auto t = open();
  uint64_t const keys = 2000, finalSeq = 1'000'000;
  pid_t const pid = ::fork();
  if (pid == 0) ::_exit(readWhileWriterWrites(t->path(), *shared, keys / 2, finalSeq));
  int status = 0;
  bool readerGone = false;
  while (shared->snapshots.load() == 0 && !readerGone) readerGone = ::waitpid(pid, &status, WNOHANG) == pid;

  // Rounds of growth from empty, in-place updates, and deletion of everything, until the reader has seen
  // plenty (or has stopped, having found a fault).
  for (uint64_t round = 0; !readerGone && (round < 20 || shared->snapshots.load() < 200); ++round) {
    readerGone = ::waitpid(pid, &status, WNOHANG) == pid;
    for (uint64_t n = 0; n < keys; ++n) t->entryIs(Value::of(keyOf(n), round * keys + n));
    for (uint64_t n = 0; n < keys; n += 3) t->entryCommit(Value::of(keyOf(n), round * keys + n + 1));
    for (uint64_t n = 0; n < 4000; ++n)
      t->entryCommit(Value::of(keyOf(n % 8), n));  // the keys the reader watches
    if (round % 4 == 3) t->entryDelAll();
    for (uint64_t n = 1; n < keys; n += 2) t->entryDel(keyOf(n));
  }
  for (uint64_t n = 0; n < keys; ++n) t->entryIs(Value::of(keyOf(n), finalSeq));
  for (uint64_t n = keys / 2; n < keys; ++n) t->entryDel(keyOf(n));
  shared->writerDone.store(true);

  if (!readerGone) ::waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0)
      << "1 read error, 2 torn record, 3 wrong final contents, 4 growth not followed";
  ::munmap(shared, sizeof(Shared));
}

TEST_F(SharedTableReaderTest, ReaderSeesTheLastStateOfAWriterThatExited) {
  std::string const path = dir.file("t");
  int const status = inChild([&] {
    auto t = open();
    for (uint64_t n = 0; n < 500; ++n) t->entryIs(Value::of(keyOf(n), n));
    t->entryDel(keyOf(10));
    return 0;
  });
  ASSERT_EQ(status, 0);
  Reader reader(path);
  EXPECT_EQ(reader.snapshot().size(), 499u);
  EXPECT_EQ(reader.find(keyOf(11)), Value::of(keyOf(11), 11));
  EXPECT_EQ(reader.find(keyOf(10)), std::nullopt);
  EXPECT_TRUE(reader.ok());
}

TEST_F(SharedTableReaderTest, ReaderFollowsTheWriterIntoNewSegments) {
  auto t = open();
  t->entryIs(Value::of(keyOf(1), 1));
  Reader reader(t->path());
  uint64_t const first = reader.generation();
  for (uint64_t n = 2; n < 300; ++n) t->entryIs(Value::of(keyOf(n), n));  // grows several times
  EXPECT_EQ(reader.find(keyOf(299)), Value::of(keyOf(299), 299));
  EXPECT_GT(reader.generation(), first);

  t.reset();  // a restarted writer loads the file into a segment of the next generation
  uint64_t const beforeRestart = reader.generation();
  auto restarted = open();
  restarted->entryIs(Value::of(keyOf(1), 7));
  EXPECT_EQ(reader.find(keyOf(1)), Value::of(keyOf(1), 7));
  EXPECT_EQ(reader.count(), 299u);
  EXPECT_GT(reader.generation(), beforeRestart);
}

TEST_F(SharedTableReaderTest, ReaderReportsMissingDamagedAndForeignFilesWithoutStopping) {
  Reader reader(dir.file("t"));
  EXPECT_TRUE(reader.snapshot().empty());
  EXPECT_EQ(reader.error(), SharedTableReadError::missing);

  open()->entryIs(Value::of(keyOf(1), 1));
  EXPECT_EQ(reader.snapshot().size(), 1u);
  // Damage the header under the reader's mapping.
  int fd = ::open(dir.file("t").c_str(), O_WRONLY);
  uint64_t const junk = 0xdeadbeef;
  ASSERT_EQ(::pwrite(fd, &junk, sizeof junk, 0), ssize_t(sizeof junk));
  ::close(fd);
  EXPECT_EQ(reader.find(keyOf(1)), std::nullopt);
  EXPECT_EQ(reader.error(), SharedTableReadError::damaged);
  EXPECT_NE(reader.errorText().find("bad magic"), std::string::npos);

  ASSERT_EQ(::truncate(dir.file("t").c_str(), 10), 0);
  EXPECT_EQ(reader.count(), 0u);
  EXPECT_EQ(reader.error(), SharedTableReadError::damaged);

  struct Narrow {
    Key k;
    Key key() const { return k; }
    bool operator==(Narrow const&) const = default;
  };
  SharedTableReader<Key, Narrow> foreign(dir.file("u"));
  open()->entryIs(Value::of(keyOf(1), 1));  // a sound table, read with the wrong value type
  std::filesystem::rename(dir.file("t"), dir.file("u"));
  EXPECT_TRUE(foreign.snapshot().empty());
  EXPECT_EQ(foreign.error(), SharedTableReadError::incompatible);
}

}  // namespace
}  // namespace Calyx
