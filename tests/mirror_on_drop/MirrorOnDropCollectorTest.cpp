#include <gtest/gtest.h>

#include <string>

#include "mirror_on_drop/MirrorOnDropCollector.h"

using namespace MirrorOnDrop::Collector;

namespace {

TEST(CollectorKeyTest, NamesAreKeptApartAndOrdered) {
  Key const abc("a", "bc"), abC("ab", "c");
  EXPECT_FALSE(abc == abC);
  EXPECT_EQ(abc.sharedTableKeyString(), "a bc");
  EXPECT_EQ(abC.sharedTableKeyString(), "ab c");
  EXPECT_TRUE(Key("a", "z") < Key("b", "a"));
  EXPECT_TRUE(Key("a", "b") < Key("a", "c"));
  EXPECT_FALSE(Key("a", "c") < Key("a", "b"));
  EXPECT_NE(abc.hash(), abC.hash());
  EXPECT_EQ(Key("x", "y").hash(), Key("x", "y").hash());
  EXPECT_FALSE(static_cast<bool>(Key()));
  EXPECT_TRUE(static_cast<bool>(Key("", "c")));
  EXPECT_EQ(abc.valueToStrep(),
            "Value('MirrorOnDrop::Collector::Key', ** {'exporterStorage': a, 'collectorStorage': bc})");
}

TEST(CollectorKeyTest, StorageOperations) {
  Key k("exporter", "collector");
  k.exporterStorageDel(Detail::StringIndex(3));
  EXPECT_EQ(k.exporter(), "exp");
  k.collectorStorageDelAll();
  EXPECT_EQ(k.collector(), "");
  EXPECT_EQ(Detail::StringIndex("127").value(), 127);
  EXPECT_THROW(Detail::StringIndex("-1"), std::range_error);
  try {
    Detail::StringIndex("-5");
  } catch (std::range_error const& e) {
    EXPECT_EQ(std::string(e.what()),
              "MirrorOnDrop::Collector::Detail::StringIndex::value < "
              "MirrorOnDrop::Collector::Detail::StringIndex::min "
              "or > MirrorOnDrop::Collector::Detail::StringIndex::max not allowed");
  }
}

TEST(CollectorKeyDeathTest, OversizedNameAndTextConstructionAreFatal) {
  std::string const longest(128, 'e');
  EXPECT_EQ(Key(longest, "c").exporter(), longest);
  EXPECT_DEATH(Key(std::string(129, 'e'), "c"), "sz <= Detail::StringIndex::max\\(\\) \\+ 1");
  EXPECT_DEATH(Key("c", std::string(129, 'e')), "MirrorOnDropCollector");
  EXPECT_DEATH(Key(std::string_view("Value(...)")), "No String constructor for Key - has collection");
}

TEST(CollectorKeyTest, DamagedStorageLengthIsReportedNotRead) {
  Key k("a", "b");
  uint32_t const bad = 200;
  std::memcpy(reinterpret_cast<char*>(&k), &bad, sizeof bad);  // the exporter's length comes first
  try {
    (void)k.exporter();
    FAIL();
  } catch (std::length_error const& e) {
    EXPECT_NE(std::string(e.what()).find("expected size <= 128, instead got 200. Buffer is at address: "),
              std::string::npos);
  }
}

TEST(CollectorEntryStatusTest, TextAndTruth) {
  EntryStatus const e(Key("exp", "col"), 125, 3, 2);
  EXPECT_EQ(
      e.valueToStrep(),
      "Value('MirrorOnDrop::Collector::EntryStatus', ** {'key': Value('MirrorOnDrop::Collector::Key', ** "
      "{'exporterStorage': exp, 'collectorStorage': col}), 'bytes': 125, 'start': 3, 'stop': 2})");
  EXPECT_TRUE(static_cast<bool>(e));
  EXPECT_FALSE(static_cast<bool>(EntryStatus()));
  EXPECT_FALSE(e == EntryStatus(Key("exp", "col"), 125, 3, 3));
}

}  // namespace
