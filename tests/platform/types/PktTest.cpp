#include "platform/types/Pkt.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string_view>

#include "platform/types/PktManager.h"

namespace Calyx {
namespace {

std::string_view text(Pkt const& p) {
  return {reinterpret_cast<char const*>(p.data()), p.bytes()};
}

class PktTest : public ::testing::Test {
 protected:
  Ptr<Pkt> pkt = PktManager::global().newPkt(64, 16);
};

TEST_F(PktTest, HeadDelAndPrependMoveOnlyTheHead) {
  pkt->assign("ethernet|ip|udp|payload", 23);
  EXPECT_EQ(pkt->headroom(), 16u);
  pkt->headDel(9);
  EXPECT_EQ(text(*pkt), "ip|udp|payload");
  pkt->headDel(pkt->bytes());
  EXPECT_EQ(pkt->bytes(), 0u);
  EXPECT_EQ(pkt->headroom(), 16u + 23u);
  std::memcpy(pkt->headPrepend(3), "abc", 3);
  std::memcpy(pkt->headPrepend(2), "xy", 2);
  EXPECT_EQ(text(*pkt), "xyabc");
}

TEST_F(PktTest, ResetLeavesTheWholeBufferAsHeadRoom) {
  pkt->assign("old", 3);
  pkt->reset();
  EXPECT_EQ(pkt->bytes(), 0u);
  EXPECT_EQ(pkt->headroom(), pkt->capacity());
  uint8_t* head = pkt->headPrepend(64);
  EXPECT_EQ(pkt->capacity(), 64u);  // exactly the buffer: no reallocation
  EXPECT_EQ(head, pkt->data());
}

TEST_F(PktTest, PrependBeyondHeadRoomReallocatesAndKeepsData) {
  pkt->assign("payload", 7);
  uint8_t* head = pkt->headPrepend(40);
  std::memset(head, 'h', 40);
  EXPECT_EQ(pkt->bytes(), 47u);
  EXPECT_EQ(text(*pkt).substr(38), "hhpayload");
  EXPECT_EQ(pkt->headroom(), 16u);  // the grown buffer gets the default head room in front
  EXPECT_GE(pkt->tailroom(), 64u - 16u - 7u);
}

TEST_F(PktTest, AssignReplacesContentEvenFromItselfAndGrows) {
  pkt->assign("0123456789", 10);
  pkt->assign(pkt->data() + 4, 6);
  EXPECT_EQ(text(*pkt), "456789");
  EXPECT_EQ(pkt->headroom(), 16u);
  // The whole 64-byte buffer as data, then assigned to itself: the copy must be taken before the old buffer
  // goes.
  pkt->reset();
  std::memset(pkt->headPrepend(64), 'b', 64);
  pkt->assign(pkt->data(), 64);
  EXPECT_EQ(text(*pkt), std::string(64, 'b'));
  EXPECT_EQ(pkt->headroom(), 16u);
}

// A manager hands its packets' buffers on to later packets; each packet still sees the capacity it asked for.
TEST(PktManagerTest, BuffersComeBackAndAreHandedOnWithTheAskedCapacity) {
  if (!PktManager::kRecycles) GTEST_SKIP() << "nothing is recycled under AddressSanitizer";
  PktManager manager;
  auto first = manager.newPkt(300, 16);
  EXPECT_EQ(first->capacity(), 300u);
  first->assign("first", 5);
  first = nullptr;
  EXPECT_EQ(manager.freeBuffers(), 1u);
  auto second = manager.newPkt(400, 16);  // the same 512-byte class
  EXPECT_EQ(manager.freeBuffers(), 0u);
  EXPECT_EQ(second->capacity(), 400u);
  EXPECT_EQ(second->bytes(), 0u);
  // Growing trades the buffer for a larger one; the old one comes back at once.
  second->assign("payload", 7);
  std::memset(second->headPrepend(100), 'h', 100);
  EXPECT_EQ(text(*second).substr(98), "hhpayload");
  EXPECT_EQ(manager.freeBuffers(), 1u);
  second = nullptr;
  EXPECT_EQ(manager.freeBuffers(), 2u);
  // Beyond the largest class, a buffer is the packet's own.
  manager.newPkt(4096, 16);
  EXPECT_EQ(manager.freeBuffers(), 2u);
}

using PktDeathTest = PktTest;

TEST_F(PktDeathTest, HeadDelPastTheEndDies) {
  pkt->assign("abc", 3);
  EXPECT_DEATH(pkt->headDel(4), "ptrWithinRegion\\( data_, buffer_, size_ \\)");
}

}  // namespace
}  // namespace Calyx
