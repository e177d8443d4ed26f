#include <gtest/gtest.h>

#include "platform/core/Ptr.h"

using namespace Calyx;

namespace {

struct Tracked : Object {
  explicit Tracked(int& alive) : alive_(alive) { ++alive_; }
  int& alive_;

 protected:
  ~Tracked() override { --alive_; }
};

// Wires itself to a helper while being built, as a state machine does when it hands itself to a reactor: the
// Ptr made from this goes away before the constructor returns.
struct SelfWiring : Tracked {
  explicit SelfWiring(int& alive) : Tracked(alive) {
    Ptr<SelfWiring> self(this);
    countSeenInside = refCount();
  }
  uint32_t countSeenInside = 0;

 protected:
  ~SelfWiring() override = default;
};

TEST(PtrTest, PtrToItselfInsideTheConstructorDoesNotFreeTheHalfBuiltObject) {
  int alive = 0;
  {
    Ptr<SelfWiring> p = make<SelfWiring>(alive);
    EXPECT_EQ(alive, 1);
    EXPECT_EQ(p->countSeenInside, 2u);
    EXPECT_EQ(p->refCount(), 1u);
  }
  EXPECT_EQ(alive, 0);
}

TEST(PtrTest, TheLastReferenceFreesAndCopiesAndRawPointersCountUp) {
  int alive = 0;
  Ptr<Tracked> a = make<Tracked>(alive);
  Ptr<Tracked> b(a.get());  // from a raw pointer of an owned object: a second owner
  Ptr<Tracked> c = b;
  EXPECT_EQ(a->refCount(), 3u);
  a.reset();
  b = nullptr;
  EXPECT_EQ(alive, 1);
  Ptr<Tracked>& same = c;
  c = same;  // self-assignment keeps it
  EXPECT_EQ(alive, 1);
  c.reset();
  EXPECT_EQ(alive, 0);
}

}  // namespace
