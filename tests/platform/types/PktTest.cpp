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

using PktDeathTest = PktTest;

TEST_F(PktDeathTest, HeadDelPastTheEndDies) {
  pkt->assign("abc", 3);
  EXPECT_DEATH(pkt->headDel(4), "ptrWithinRegion\\( data_, buffer_, size_ \\)");
}

}  // namespace
}  // namespace Calyx
