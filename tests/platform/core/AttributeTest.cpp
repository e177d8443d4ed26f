// The attribute helpers every entity is written with: a setter or counter that does not change the value
// stays silent, a counter wraps modulo 2^64, and a collection notifies once per key that really changed.
#include "platform/core/Attribute.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

using namespace Calyx;

namespace {

class Part : public Object {
 public:
  explicit Part(int n) : n(n) {}
  int const n;

 protected:
  ~Part() override = default;
};

class Widget : public Object, public Notifier<Widget> {
 public:
  class Reactor : public ReactorBase<Widget> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleSize() {}
    virtual void handleDrops() {}
    virtual void handlePart(int const& /*key*/) {}
  };

  void sizeIs(int s) { attributeIs(size_, s, &Reactor::handleSize); }
  uint64_t dropsInc(uint64_t n) { return counterInc(drops_, n, &Reactor::handleDrops); }
  Ptr<Part> part(int key) const { return part_.value(key); }
  void partIs(int key, Ptr<Part> p) { part_.isOrDel(*this, key, std::move(p)); }
  Ptr<Part> partFor(int key) {
    return part_.findOrCreate(*this, key, [&] { return make<Part>(key); });
  }
  CALYX_COLLECTION_ACCESSORS(part, int);

 private:
  int size_ = 0;
  uint64_t drops_ = std::numeric_limits<uint64_t>::max() - 1;
  Collection<Widget, int, Ptr<Part>> part_{&Reactor::handlePart};

 protected:
  ~Widget() override = default;
};

struct Recorder : Widget::Reactor {
  using Reactor::Reactor;
  void handleSize() override { heard.push_back("size"); }
  void handleDrops() override { heard.push_back("drops"); }
  void handlePart(int const& key) override { heard.push_back("part " + std::to_string(key)); }
  std::vector<std::string> heard;
};

TEST(AttributeTest, ValuesAndCountersNotifyOnlyWhenTheyChangeAndCountersWrap) {
  auto w = make<Widget>();
  Recorder r(w);
  w->sizeIs(0);  // the value it has
  w->sizeIs(3);
  EXPECT_EQ(w->dropsInc(0), std::numeric_limits<uint64_t>::max() - 1);
  EXPECT_EQ(w->dropsInc(3), 1u) << "the counter wraps modulo 2^64";
  EXPECT_EQ(r.heard, (std::vector<std::string>{"size", "drops"}));
}

TEST(AttributeTest, CollectionNotifiesPerKeyOnlyOnChange) {
  auto w = make<Widget>();
  Recorder r(w);
  auto one = make<Part>(1);
  w->partIs(1, one);
  w->partIs(1, one);      // the same member
  w->partIs(2, nullptr);  // deleting what is absent
  w->partDel(2);
  EXPECT_EQ(w->partFor(1), one) << "find-or-create finds";
  auto two = w->partFor(2);
  EXPECT_EQ(two->n, 2);
  w->partIs(1, make<Part>(10));
  w->partIs(2, nullptr);  // a null member deletes
  EXPECT_EQ(w->part(2), nullptr);
  EXPECT_EQ(r.heard, (std::vector<std::string>{"part 1", "part 2", "part 1", "part 2"}));
}

TEST(AttributeTest, WalkSurvivesDeletionsMadeDuringItAndDelAllNotifiesEachKey) {
  auto w = make<Widget>();
  for (int k : {3, 1, 2}) w->partFor(k);
  std::vector<int> walked;
  for (auto k = w->partFirst(); k; k = w->partNext(*k)) {
    walked.push_back(*k);
    w->partDel(*k);
  }
  EXPECT_EQ(walked, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(w->partCount(), 0u);

  for (int k : {5, 4}) w->partFor(k);
  Recorder r(w);
  w->partDelAll();
  EXPECT_EQ(r.heard, (std::vector<std::string>{"part 4", "part 5"}));
  EXPECT_FALSE(w->partFirst());
}

}  // namespace
