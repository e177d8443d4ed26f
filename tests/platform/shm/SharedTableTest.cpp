#include "platform/shm/MappedFile.h"
#include "platform/shm/SharedTable.h"
#include "platform/shm/SharedTableReader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

#include "tests/platform/shm/TableTestRecords.h"

namespace Calyx {
namespace {

using TableTest::Key;
using TableTest::keyOf;
using TableTest::Value;
using Table = SharedTable<Key, Value>;

// The layout of a table's file, as the table code computes it.
SegmentGeometry geometryOf(Table const& t) {
  return {sizeof(Key), sizeof(Value), t.capacity()};
}

// A writable mapping of a table's file of our own, as a stray process would make it.
MappedFile mapOwn(Table const& t) {
  auto opened = MappedFile::open(t.path(), true, geometryOf(t).bytes());
  EXPECT_TRUE(opened && opened.value().mapped());
  return opened ? std::move(opened).value() : MappedFile{};
}

struct Heard : Table::Reactor {
  using Table::Reactor::Reactor;
  void handleEntry(Key const& k) override {
    keys.push_back(k);
    if (onEntry) onEntry(k);
  }
  std::vector<Key> keys;
  std::function<void(Key const&)> onEntry;
};

class SharedTableTest : public ::testing::Test {
 protected:
  Ptr<Table> open(std::string const& name = "t", size_t capacity = 16) {
    SharedTableOptions o;
    o.stateDir = dir.path();
    o.initialCapacity = capacity;
    o.corruptionHandler = [this](SharedTableCorruption const& c) {
      problems.push_back(c.problem);
      atOpen.push_back(c.atOpen && ::access(c.path.c_str(), F_OK) == 0);
    };
    return make<Table>(name, o);
  }
  // Writes bytes into a table's file as a stray process would.
  void scribble(std::string const& name, off_t offset, uint64_t word) {
    int fd = ::open(dir.file(name).c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::pwrite(fd, &word, sizeof word, offset), ssize_t(sizeof word));
    ::close(fd);
  }

  TableTest::TempStateDir dir;
  std::vector<std::string> problems;
  std::vector<bool> atOpen;  // per problem: found while opening, with the damaged file still at its path
};

TEST_F(SharedTableTest, EntryIsNotifiesOnlyOnChangeAndReplacesWithoutSecondRow) {
  auto t = open();
  Heard r(t);
  EXPECT_TRUE(t->entryIs(Value::of(keyOf(1), 1)));
  EXPECT_FALSE(t->entryIs(Value::of(keyOf(1), 1)));
  EXPECT_TRUE(t->entryIs(Value::of(keyOf(1), 2)));
  EXPECT_EQ(t->entryCount(), 1u);
  EXPECT_EQ(t->entry(keyOf(1))->seq, 2u);
  t->entryCommit(Value::of(keyOf(1), 2));  // unchanged, still published and heard
  EXPECT_EQ(r.keys, std::vector<Key>(3, keyOf(1)));
}

TEST_F(SharedTableTest, DeletingWhatIsAbsentIsSilent) {
  auto t = open();
  Heard r(t);
  t->entryDelAll();
  EXPECT_FALSE(t->entryDel(keyOf(5)));
  t->entryIs(Value::of(keyOf(5), 1));
  EXPECT_TRUE(t->entryDel(keyOf(5)));
  EXPECT_FALSE(t->entryDel(keyOf(5)));
  EXPECT_EQ(t->entry(keyOf(5)), nullptr);
  EXPECT_EQ(r.keys, std::vector<Key>(2, keyOf(5)));
}

// The reactor is the table's last owner and destroys itself on the first key: the walk must carry on
// regardless.
TEST_F(SharedTableTest, DelAllSurvivesHandlerReleasingTheTable) {
  auto t = open();
  for (uint64_t n = 0; n < 40; ++n) t->entryIs(Value::of(keyOf(n), n));
  auto r = std::make_unique<Heard>(t);
  int heard = 0;
  r->onEntry = [&](Key const&) {
    if (++heard == 1) r.reset();
  };
  Table* raw = t.get();
  t.reset();
  raw->entryDelAll();
  EXPECT_EQ(heard, 1);
  SharedTableReader<Key, Value> reader(dir.file("t"));
  EXPECT_EQ(reader.count(), 0u);
  EXPECT_TRUE(reader.ok());
}

TEST_F(SharedTableTest, GrowsAndShrinksKeepingEveryEntryAndWalksInKeyOrder) {
  auto t = open();
  std::vector<uint64_t> ns(3000);
  for (uint64_t n = 0; n < ns.size(); ++n) ns[n] = (n * 7919) % ns.size();
  for (uint64_t n : ns) t->entryIs(Value::of(keyOf(n), n));
  EXPECT_GE(t->capacity(), 4096u);
  EXPECT_GT(t->generation(), 5u);
  for (uint64_t n = 0; n < ns.size(); ++n)
    ASSERT_TRUE(t->entry(keyOf(n)) && t->entry(keyOf(n))->consistent());

  // Walk in order, deleting every key but each tenth one as the walk passes it.
  std::vector<Key> walked;
  for (auto k = t->entryFirst(); k; k = t->entryNext(*k)) {
    walked.push_back(*k);
    if (k->lo % 10) t->entryDel(*k);
  }
  ASSERT_EQ(walked.size(), ns.size());
  EXPECT_TRUE(std::is_sorted(walked.begin(), walked.end()));
  EXPECT_EQ(t->entryCount(), 300u);
  EXPECT_LE(t->capacity(), 1024u);
  std::vector<Key> left;
  t->forEachEntry([&](Value const& v) { left.push_back(v.key()); });
  EXPECT_EQ(left.size(), 300u);
  EXPECT_TRUE(std::is_sorted(left.begin(), left.end()));
  EXPECT_TRUE(problems.empty());
}

TEST_F(SharedTableTest, WriterReopeningLoadsWhatTheEarlierOneLeft) {
  auto t = open();
  for (uint64_t n = 0; n < 100; ++n) t->entryIs(Value::of(keyOf(n), n + 1));
  t->entryDel(keyOf(7));
  uint64_t const generation = t->generation();
  t.reset();

  auto again = open();
  EXPECT_EQ(again->entryCount(), 99u);
  EXPECT_EQ(again->entry(keyOf(7)), nullptr);
  EXPECT_EQ(*again->entry(keyOf(42)), Value::of(keyOf(42), 43));
  EXPECT_GT(again->generation(), generation);
  EXPECT_TRUE(problems.empty());
}

TEST_F(SharedTableTest, SegmentOfAnotherLayoutIsReplacedWithoutCorruptionReport) {
  struct Wide {
    Key k;
    char pad[100];
    Key key() const { return k; }
    bool operator==(Wide const&) const = default;
  };
  SharedTableOptions o;
  o.stateDir = dir.path();
  make<SharedTable<Key, Wide>>("t", o)->entryIs(Wide{keyOf(1), {}});
  auto t = open();
  EXPECT_EQ(t->entryCount(), 0u);
  EXPECT_TRUE(problems.empty());
}

TEST_F(SharedTableTest, DamagedHeaderGoesToTheHandlerAndTheTableStartsAfresh) {
  open()->entryIs(Value::of(keyOf(1), 1));
  scribble("t", 0, 0x0123456789abcdefull);
  auto t = open();
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_NE(problems[0].find("magic"), std::string::npos);
  EXPECT_TRUE(atOpen[0]);
  EXPECT_EQ(t->entryCount(), 0u);
  EXPECT_TRUE(t->entryIs(Value::of(keyOf(2), 2)));
}

// Whoever could put a symlink where a table's file goes would choose what the writer maps and overwrites:
// the link is not followed, and the table's own file takes its place.
TEST_F(SharedTableTest, ASymlinkInPlaceOfTheFileIsNeverFollowed) {
  { std::ofstream(dir.file("precious")) << "not a table"; }
  ASSERT_EQ(::symlink(dir.file("precious").c_str(), dir.file("t").c_str()), 0);
  EXPECT_TRUE((SharedTableReader<Key, Value>(dir.file("t")).snapshot().empty()));
  open()->entryIs(Value::of(keyOf(1), 1));
  EXPECT_EQ(std::filesystem::file_size(dir.file("precious")), 11u);
  EXPECT_FALSE(std::filesystem::is_symlink(dir.file("t")));  // the table's own file took its place
  EXPECT_TRUE(problems.empty());
}

TEST_F(SharedTableTest, DamageWhileRunningAbandonsTheOperation) {
  auto t = open();
  t->entryIs(Value::of(keyOf(1), 1));
  // Every slot's state set out of range, through a mapping of our own.
  SegmentGeometry const g = geometryOf(*t);
  MappedFile const file = mapOwn(*t);
  std::byte* base = file.base();
  for (size_t i = 0; i < t->capacity(); ++i) reinterpret_cast<SlotHeader*>(base + g.slotOffset(i))->state = 9;
  EXPECT_EQ(t->entry(keyOf(1)), nullptr);
  EXPECT_FALSE(t->entryIs(Value::of(keyOf(1), 2)));
  EXPECT_FALSE(t->entryDel(keyOf(1)));
  EXPECT_EQ(problems.size(), 3u);
  EXPECT_NE(problems[0].find("has state 9"), std::string::npos);
  EXPECT_FALSE(atOpen[0]);

  reinterpret_cast<SegmentHeader*>(base)->count = 1u << 20;
  EXPECT_FALSE(t->entryIs(Value::of(keyOf(1), 3)));
  EXPECT_NE(problems.back().find("exceeds capacity"), std::string::npos);
}

// Values are checked before use: a record that breaks its own invariants, found on a lookup or in the file an
// earlier run left, goes to the handler and reads as absent.
TEST_F(SharedTableTest, BrokenRecordIsReportedWhereverItIsReadBack) {
  auto t = open();
  t->entryIs(Value::of(keyOf(1), 1));
  SegmentGeometry const g = geometryOf(*t);
  MappedFile const file = mapOwn(*t);
  std::byte* base = file.base();
  for (size_t i = 0; i < t->capacity(); ++i) {
    std::byte* slot = base + g.slotOffset(i);
    if (reinterpret_cast<SlotHeader*>(slot)->state == 1)
      reinterpret_cast<Value*>(slot + g.valueOffset())->sum ^= 1;
  }
  EXPECT_EQ(t->entry(keyOf(1)), nullptr);
  EXPECT_FALSE(t->entryUpdate(keyOf(1), [](Value&) {}));
  ASSERT_EQ(problems.size(), 2u);
  EXPECT_NE(problems[0].find("broken record: checksum mismatch"), std::string::npos);
  t.reset();
  auto again = open();
  EXPECT_EQ(problems.size(), 3u);
  EXPECT_EQ(again->entryCount(), 0u);
}

TEST_F(SharedTableTest, SecondWriterOfOneTableIsReportedToTheFirst) {
  auto first = open();
  first->entryIs(Value::of(keyOf(1), 1));
  auto second = open();
  EXPECT_EQ(second->entryCount(), 1u);
  EXPECT_FALSE(first->entryIs(Value::of(keyOf(2), 2)));
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_NE(problems[0].find("another writer"), std::string::npos);
}

TEST_F(SharedTableTest, DefaultCorruptionHandlerNamesTheTableAndStops) {
  open()->entryIs(Value::of(keyOf(1), 1));
  scribble("t", 0, 0);
  SharedTableOptions o;
  o.stateDir = dir.path();
  EXPECT_DEATH(make<Table>("t", o), "SharedTable t .* is corrupted: bad magic");
}

// A file-size limit stands in for a full tmpfs: reserving room for a larger segment fails as it would there.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : previousHandler_(std::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &previous_);
    rlimit limited = previous_;
    limited.rlim_cur = bytes;
    ::setrlimit(RLIMIT_FSIZE, &limited);
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &previous_);
    std::signal(SIGXFSZ, previousHandler_);
  }

 private:
  rlimit previous_{};
  void (*previousHandler_)(int);
};

TEST_F(SharedTableTest, WithoutRoomToGrowNewKeysAreRefusedAndTheTableGoesOn) {
  auto t = open("t", 16);
  struct stat st {};
  ASSERT_EQ(::stat(dir.file("t").c_str(), &st), 0);
  {
    FileSizeLimit const full(rlim_t(st.st_size));
    uint64_t n = 0;
    while (t->entryIs(Value::of(keyOf(n), n))) ++n;
    EXPECT_EQ(n, 12u);  // three quarters of 16 slots
    EXPECT_FALSE(t->entryReserve(1));
    EXPECT_FALSE(t->entryUpdate(
        keyOf(100), [](Value&) {}, [] { return Value::of(keyOf(100), 100); }));
    EXPECT_EQ(t->capacity(), 16u);
    // What it holds stays readable, changeable and published.
    EXPECT_TRUE(t->entryIs(Value::of(keyOf(3), 33)));
    EXPECT_EQ(t->entry(keyOf(3))->seq, 33u);
    EXPECT_TRUE(t->entryDel(keyOf(0)));
    EXPECT_TRUE(t->entryIs(Value::of(keyOf(200), 200)));  // a freed slot is room again
    EXPECT_TRUE(t->isPublished());
    using Reader = SharedTableReader<Key, Value>;
    EXPECT_EQ(Reader::forTable("t", dir.path()).snapshot().size(), 12u);
  }
  EXPECT_TRUE(problems.empty());
}

TEST_F(SharedTableTest, NameThatIsNoFileNameKeepsTheTableInProcess) {
  auto t = open("a/b");
  EXPECT_FALSE(t->isPublished());
  for (uint64_t n = 0; n < 100; ++n) t->entryIs(Value::of(keyOf(n), n));
  EXPECT_EQ(t->entryCount(), 100u);
  EXPECT_EQ(t->entry(keyOf(99))->seq, 99u);
}

}  // namespace
}  // namespace Calyx
