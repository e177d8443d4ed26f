// The receive side every backend shares (queue order, counts, readable notification), through the in-memory
// Pam.

#include "platform/io/InMemoryPam.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "platform/types/PktManager.h"

using namespace Calyx;

namespace {

Ptr<Pkt> frame(uint8_t tag) {
  Ptr<Pkt> pkt = PktManager::global().newPkt();
  pkt->assign(&tag, 1);
  return pkt;
}

class OnReadable : public Pam::Reactor {
 public:
  OnReadable(Ptr<Pam const> pam, std::function<void()> f) : Reactor(std::move(pam)), f_(std::move(f)) {}
  void handleReadable() override { f_(); }

 private:
  std::function<void()> f_;
};

class InMemoryPamTest : public ::testing::Test {
 protected:
  Ptr<InMemoryPam> pam = make<InMemoryPam>(IntfId("Ethernet1"));
};

TEST_F(InMemoryPamTest, FramesComeOutOldestFirstThenNull) {
  pam->enqueue(std::vector<Ptr<Pkt>>{frame(1), frame(2), frame(3)});
  EXPECT_EQ(pam->curRxPkts(), 3);
  std::vector<uint8_t> order;
  while (Ptr<Pkt> pkt = pam->rxPkt()) order.push_back(pkt->data()[0]);
  EXPECT_EQ(order, (std::vector<uint8_t>{1, 2, 3}));
  EXPECT_EQ(pam->curRxPkts(), 0);
  EXPECT_EQ(pam->rxPkt(), nullptr);
  EXPECT_EQ(pam->rxPktsTotal(), 3u);
}

TEST_F(InMemoryPamTest, EveryArrivalNotifiesEvenWhenFramesAreLeftBehind) {
  std::vector<uint16_t> heldAtNotification;
  OnReadable reactor(pam, [&] { heldAtNotification.push_back(pam->curRxPkts()); });
  pam->enqueue(frame(1));
  pam->enqueue(std::vector<Ptr<Pkt>>{frame(2), frame(3)});  // one notification for the batch
  pam->readableNotify();                                    // spurious: nothing new
  EXPECT_EQ(heldAtNotification, (std::vector<uint16_t>{1, 3, 3}));
}

TEST_F(InMemoryPamTest, ReactorMayReleaseTheLastReferenceFromItsHandler) {
  InMemoryPam* raw = pam.get();
  std::unique_ptr<OnReadable> second;
  int secondCalls = 0;
  OnReadable first(pam, [&] {
    second.reset();  // a later reactor removed mid-notification is not called
    pam = nullptr;   // the reactors' own references keep it until they go
  });
  second = std::make_unique<OnReadable>(Ptr<Pam const>(raw), [&] { ++secondCalls; });
  raw->enqueue(frame(1));
  EXPECT_EQ(secondCalls, 0);
  EXPECT_EQ(raw->curRxPkts(), 1);
}

}  // namespace
