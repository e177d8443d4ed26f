#include "platform/types/IntfId.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace Calyx {
namespace {

TEST(IntfIdShortName, AbbreviatesOnlyKnownPrefixesBeforeANumber) {
  EXPECT_EQ(IntfId("Ethernet12").shortName(), "Et12");
  EXPECT_EQ(IntfId("Ethernet1/2").shortName(), "Et1/2");
  EXPECT_EQ(IntfId("Port-Channel3").shortName(), "Po3");
  EXPECT_EQ(IntfId("Ethernet").shortName(), "Ethernet");
  EXPECT_EQ(IntfId("EthernetX").shortName(), "EthernetX");
  EXPECT_EQ(IntfId().shortName(), "");
}

TEST(IntfIdLimits, ThirtyOneCharactersFitAndMoreAreRejected) {
  String longest(IntfId::kMaxLength, 'x');
  EXPECT_EQ(IntfId(longest).name(), longest);
  String error;
  EXPECT_FALSE(IntfId::parse(longest + "y", &error));
  EXPECT_NE(error.find("longer than 31"), String::npos) << error;
  EXPECT_THROW(IntfId(longest + "y"), std::invalid_argument);
}

TEST(IntfIdOrder, ByteOrderOfNamesAndEmptyIsFalse) {
  EXPECT_LT(IntfId("Ethernet1"), IntfId("Ethernet10"));
  EXPECT_LT(IntfId("Ethernet10"), IntfId("Ethernet2"));
  // Names are compared eight bytes at a time: differences and ends on either side of those boundaries.
  EXPECT_LT(IntfId("Port-Cha"), IntfId("Port-Channel1"));
  EXPECT_LT(IntfId("Port-Channel1"), IntfId("Port-Channel10"));
  EXPECT_LT(IntfId("Port-Channel10"), IntfId("Port-Channel2"));
  EXPECT_LT(IntfId("abcdefghijklmnopA"), IntfId("abcdefghijklmnopB"));
  EXPECT_LT(IntfId("Z"), IntfId("a"));
  EXPECT_EQ(IntfId("Port-Channel10") <=> IntfId("Port-Channel10"), std::strong_ordering::equal);
  EXPECT_LT(IntfId(), IntfId("a"));
  EXPECT_FALSE(IntfId());
  EXPECT_TRUE(IntfId("et0"));
}

// The hash places keys in shared-memory tables that other programs read: it must not change by accident.
TEST(IntfIdHash, PinnedValues) {
  EXPECT_EQ(IntfId("Ethernet12").hash(), 0x72d11335u);
  EXPECT_EQ(IntfId("Ethernet12").hash(3), 0xcc5f6028u);
  EXPECT_EQ(IntfId().hash(), 0u);
}

}  // namespace
}  // namespace Calyx
