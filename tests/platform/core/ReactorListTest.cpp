// Reactor lists under re-entrancy: each test is named after the hazard it covers.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

#include "platform/core/Entity.h"

using namespace Calyx;

namespace {

class Widget : public Object, public Notifier<Widget> {
 public:
  class Reactor : public ReactorBase<Widget> {
   public:
    using ReactorBase::ReactorBase;
    virtual void handleSize() {}
  };
  int size() const { return size_; }
  void sizeIs(int s) {
    if (s == size_) return;
    size_ = s;
    notify(&Reactor::handleSize);
  }

 private:
  int size_ = 0;

 protected:
  ~Widget() override = default;
};

// A reactor that logs its calls and runs an optional action from its handler.
class Probe : public Widget::Reactor {
 public:
  Probe(Ptr<Widget> w, std::vector<int>& log, int id) : Reactor(std::move(w)), log_(log), id_(id) {}
  void handleSize() override {
    log_.push_back(id_);
    // A copy: the action may destroy this reactor, and its own std::function with it.
    if (auto act = action) act();
  }
  std::function<void()> action;

 private:
  std::vector<int>& log_;
  int id_;
};

class ReactorListTest : public ::testing::Test {
 protected:
  Ptr<Widget> widget = make<Widget>();
  std::vector<int> log;
  std::unique_ptr<Probe> probe(int id) { return std::make_unique<Probe>(widget, log, id); }
};

TEST_F(ReactorListTest, NotifiesInAttachOrderOnlyOnChange) {
  auto a = probe(1), b = probe(2), c = probe(3);
  widget->sizeIs(5);
  widget->sizeIs(5);
  EXPECT_EQ(log, (std::vector<int>{1, 2, 3}));
}

TEST_F(ReactorListTest, DisruptSelf) {
  auto a = probe(1), b = probe(2), c = probe(3);
  b->action = [&] { b.reset(); };
  widget->sizeIs(1);
  widget->sizeIs(2);
  EXPECT_EQ(log, (std::vector<int>{1, 2, 3, 1, 3}));
}

TEST_F(ReactorListTest, DisruptBefore) {
  auto a = probe(1), b = probe(2), c = probe(3);
  b->action = [&] { a.reset(); };
  widget->sizeIs(1);
  widget->sizeIs(2);
  EXPECT_EQ(log, (std::vector<int>{1, 2, 3, 2, 3}));
}

TEST_F(ReactorListTest, DisruptAfterIsNeverCalled) {
  auto a = probe(1), b = probe(2), c = probe(3);
  a->action = [&] { c.reset(); };
  widget->sizeIs(1);
  EXPECT_EQ(log, (std::vector<int>{1, 2}));
}

TEST_F(ReactorListTest, AddedDuringNotificationHearsOnlyTheNext) {
  auto a = probe(1);
  std::unique_ptr<Probe> late;
  a->action = [&] {
    if (!late) late = probe(9);
  };
  widget->sizeIs(1);
  EXPECT_EQ(log, (std::vector<int>{1}));
  widget->sizeIs(2);
  EXPECT_EQ(log, (std::vector<int>{1, 1, 9}));
}

TEST_F(ReactorListTest, NestedNotificationWithRemovalCallsEveryoneOnce) {
  auto a = probe(1), b = probe(2), c = probe(3);
  bool nested = false;
  a->action = [&] {
    if (nested) return;
    nested = true;
    b.reset();
    widget->sizeIs(100);  // the inner notification must skip b as well, and not disturb the outer walk
  };
  widget->sizeIs(1);
  EXPECT_EQ(log, (std::vector<int>{1, 1, 3, 3}));
  EXPECT_EQ(widget->reactorList().size(), 2u);
}

TEST_F(ReactorListTest, EntityReleasedInsideHandler) {
  // The reactors hold the only references: dropping them all from the first handler destroys the entity, and
  // with it the list under iteration. Nothing may be touched afterwards (ASan watches).
  auto a = probe(1), b = probe(2);
  Widget* raw = widget.get();
  widget.reset();
  a->action = [&] {
    a.reset();
    b.reset();
  };
  raw->sizeIs(1);
  EXPECT_EQ(log, (std::vector<int>{1}));
}

TEST_F(ReactorListTest, RebindMovesTheReactor) {
  auto other = make<Widget>();
  auto a = probe(1);
  a->notifierIs(other);
  widget->sizeIs(1);
  other->sizeIs(1);
  EXPECT_EQ(log, (std::vector<int>{1}));
  EXPECT_TRUE(widget->reactorList().empty());
}

}  // namespace
