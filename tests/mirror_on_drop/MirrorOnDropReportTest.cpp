// Report keys, entries, the batch set and the batch queue's index rules.
#include <gtest/gtest.h>

#include <stdexcept>

#include "mirror_on_drop/MirrorOnDropReport.h"

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
  Outbox q;
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
  Outbox q;
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
  Report::Report r(Drop::Timestamp(9), Drop::Reason(1, 0, 0, 0), 14);
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

}  // namespace
