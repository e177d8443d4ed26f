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
  EXPECT_FALSE(IntfId());
  EXPECT_TRUE(IntfId("et0"));
}

}  // namespace
}  // namespace Calyx
