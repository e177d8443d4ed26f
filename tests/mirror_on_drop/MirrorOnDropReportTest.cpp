// Report keys, entries, the batch set and the batch queue's index rules.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include "mirror_on_drop/MirrorOnDropReport.h"
#include "testkit/TempStateDir.h"

using namespace MirrorOnDrop;
using namespace MirrorOnDrop::Report;
using Calyx::IntfId;
using Calyx::IpGenAddr;
using Calyx::make;
using Calyx::Ptr;

namespace {

Key key(uint16_t port) {
  return Key(6, *IpGenAddr::parse("10.0.0.1"), *IpGenAddr::parse("10.0.0.2"), port, 80);
}

Ptr<EntryOutbox> batch(std::initializer_list<uint16_t> ports) {
  auto b = make<EntryOutbox>();
  for (auto p : ports) b->entryIs(key(p));
  return b;
}

TEST(OutboxTest, IndexRulesOfEnqueueAndDequeue) {
  auto const outbox = Calyx::make<Outbox>();
  Outbox& q = *outbox;
  q.nextIndexIs(7);
  q.entryEnq(batch({1}));
  EXPECT_EQ(q.entryBack()->count(), 1u);
  q.entryEnq(batch({2, 3}));
  EXPECT_EQ(q.headIndex(), 7u);
  EXPECT_TRUE(q.entry(8));
  EXPECT_EQ(q.entryDeq()->count(), 1u);
  EXPECT_EQ(q.headIndex(), 8u);
  EXPECT_EQ(q.entryDeq()->count(), 2u);
  EXPECT_EQ(q.headIndex(), 8u);
  EXPECT_EQ(q.size(), 0u);
  EXPECT_EQ(q.dequeued(), 2u);
  EXPECT_FALSE(q.entryDeq());
  EXPECT_EQ(q.dequeued(), 2u);
  EXPECT_FALSE(q.entryFront());
}

TEST(OutboxTest, SetAndDeleteByIndex) {
  auto const outbox = Calyx::make<Outbox>();
  Outbox& q = *outbox;
  q.entryIs(5, batch({1}));
  q.entryIs(3, batch({2}));
  EXPECT_EQ(q.headIndex(), 3u);
  q.entryEnq(batch({3}));  // after the tail
  EXPECT_TRUE(q.entry(6));
  q.entryIs(3, nullptr);
  EXPECT_EQ(q.headIndex(), 5u);
  q.entryDel(5);
  EXPECT_EQ(q.size(), 1u);
  q.entryDelAll();
  EXPECT_TRUE(q.empty());
}

// The hazard: with the tail at the last 32-bit index, the next index wraps to 0; the new batch must go behind
// the tail, not over it, and both must come out in order.
TEST(OutboxTest, EnqueueAtTheLastIndexWrapsWithoutLosingTheTailBatch) {
  auto const outbox = Calyx::make<Outbox>();
  Outbox& q = *outbox;
  q.nextIndexIs(0xFFFFFFFEu);
  q.entryEnq(batch({1}));
  q.entryEnq(batch({2}));
  q.entryEnq(batch({3, 4}));
  EXPECT_EQ(q.size(), 3u);
  EXPECT_EQ(q.nextIndex(), 0u);
  EXPECT_EQ(q.entry(0xFFFFFFFFu)->count(), 1u);
  EXPECT_EQ(q.entryDeq()->entry(key(1)), true);
  EXPECT_EQ(q.entryDeq()->entry(key(2)), true);
  EXPECT_EQ(q.headIndex(), 0u);
  EXPECT_EQ(q.entryDeq()->count(), 2u);
  EXPECT_TRUE(q.empty());
}

TEST(EntryOutboxTest, SetSemanticsAndNotification) {
  auto b = make<EntryOutbox>();
  struct Count : EntryOutbox::Reactor {
    using EntryOutbox::Reactor::Reactor;
    int n = 0;
    void handleEntry(Key const&) override { ++n; }
  } count(b);
  b->entryIs(key(1));
  b->entryIs(key(1));
  b->entryIs(key(2));
  EXPECT_EQ(b->count(), 2u);
  EXPECT_EQ(count.n, 2);
  b->entryDel(key(1));
  b->entryDel(key(1));
  EXPECT_TRUE(b->entry(key(2)));
  // Removing the last key does not dequeue anything by itself: the set is simply empty.
  b->entryDelAll();
  EXPECT_TRUE(b->empty());
  EXPECT_EQ(count.n, 4);
}

TEST(ReportRecordsTest, TextFormsRoundTripAndNameTheField) {
  MirrorOnDrop::Report::Report r(Drop::Timestamp(9), Drop::Reason(1, 0, 0, 0), 14);
  EntryStatus const e(key(5), ReportType::START, r);
  EXPECT_EQ(EntryStatus(e.valueToStrep()), e);
  EXPECT_EQ(Key(key(5).valueToStrep()), key(5));
  Interface::Entry const i(Interface::Key(IntfId("Ethernet3")), 65535);
  EXPECT_EQ(Interface::Entry(i.valueToStrep()), i);
  EXPECT_TRUE(static_cast<bool>(i));
  EXPECT_FALSE(static_cast<bool>(Interface::Entry()));
  EXPECT_TRUE(static_cast<bool>(Interface::Entry(Interface::Key(), 1)));
  std::string text = e.valueToStrep();
  text.replace(text.find("START"), 5, "PAUSE");
  try {
    EntryStatus{std::string_view(text)};
    FAIL();
  } catch (std::range_error const& err) {
    EXPECT_NE(std::string(err.what()).find("'type'"), std::string::npos);
  }
}

// A stored report whose size byte says more than the 80-byte sample (an earlier run's file, damaged) would
// make the sender copy bytes beyond the record: the table hands it to the corruption handler when it reads it
// back.
TEST(ReportStatusTest, StoredReportLargerThanTheSampleIsCorruption) {
  Calyx::Test::TempStateDir dir;
  MirrorOnDrop::Report::Report r(Drop::Timestamp(9), Drop::Reason(1, 0, 0, 0), 14);
  EntryStatus const e(key(5), ReportType::START, r);
  statusFactory("rs")->entryIs(e);
  // Find the entry's bytes in the file and raise its size byte to 200, as a damaged file would have it.
  int fd = ::open(dir.file("rs.entry").c_str(), O_RDWR);
  ASSERT_GE(fd, 0);
  struct stat st {};
  ::fstat(fd, &st);
  auto* base =
      static_cast<uint8_t*>(::mmap(nullptr, size_t(st.st_size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
  ::close(fd);
  auto const* bytes = reinterpret_cast<uint8_t const*>(&e);
  size_t const sizeByte = size_t(r.bytes() - reinterpret_cast<uint8_t const*>(&r)) +
                          size_t(reinterpret_cast<uint8_t const*>(&e.report()) - bytes) + 24;
  uint8_t* found = nullptr;
  for (off_t i = 0; i + off_t(sizeof e) <= st.st_size && !found; i += 8) {
    if (std::memcmp(base + i, bytes, sizeof e) == 0) found = base + i;
  }
  ASSERT_NE(found, nullptr);
  found[sizeByte] = 200;
  ::munmap(base, size_t(st.st_size));
  EXPECT_DEATH(statusFactory("rs"),
               "rs.entry .* is corrupted: slot [0-9]+ holds a broken record: report data size 200 "
               "exceeds the sample size 80");
}

}  // namespace
