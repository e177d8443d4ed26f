#include "platform/core/FlatSet.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <vector>

namespace Calyx {
namespace {

// A hash that puts every key in one of a few homes, so that chains are long, wrap round the end of the array
// and removal has to shift keys back across them.
struct Crowded {
  size_t operator()(uint32_t k) const { return k % 3 == 0 ? 15 : k % 5; }
};

TEST(FlatSetTest, MatchesAReferenceSetThroughRandomInsertsAndRemovals) {
  FlatSet<uint32_t, Crowded> set;
  std::set<uint32_t> reference;
  std::mt19937 rng(11);
  for (int step = 0; step < 20000; ++step) {
    uint32_t const key = rng() % 200;
    if (rng() % 3 == 0) {
      EXPECT_EQ(set.erase(key), reference.erase(key) == 1) << "step " << step;
    } else {
      EXPECT_EQ(set.insert(key), reference.insert(key).second) << "step " << step;
    }
    ASSERT_EQ(set.size(), reference.size());
    if (step % 97 == 0) {
      for (uint32_t k = 0; k < 200; ++k) ASSERT_EQ(set.contains(k), reference.count(k) == 1) << k;
      std::set<uint32_t> const walked(set.begin(), set.end());
      ASSERT_EQ(walked, reference);
    }
  }
}

// The way a batch of reports is drained: take the front, remove it, until nothing is left; every key comes
// out once, also when keys were removed out of turn meanwhile.
TEST(FlatSetTest, DrainingByTheFrontGivesEveryKeyOnce) {
  FlatSet<uint32_t, Crowded> set;
  for (uint32_t k = 0; k < 1000; ++k) set.insert(k);
  for (uint32_t k = 0; k < 1000; k += 7) set.erase(k);
  std::multiset<uint32_t> out;
  while (!set.empty()) {
    uint32_t const k = set.front();
    out.insert(k);
    ASSERT_TRUE(set.erase(k));
    if (k % 11 == 0) set.erase(k + 1);  // another key taken out of turn
  }
  for (uint32_t const k : out) EXPECT_EQ(out.count(k), 1u) << k;
  set.insert(5);  // a drained set takes keys again
  EXPECT_EQ(set.front(), 5u);
}

}  // namespace
}  // namespace Calyx
