// Behaviour every platform value type shares: fixed-size and trivially copyable, text forms that round-trip,
// parse failures that say what was wrong, a stream form equal to the text form, std::hash equal to hash().
#include <gtest/gtest.h>

#include <sstream>
#include <type_traits>
#include <vector>

#include "platform/types/DscpValue.h"
#include "platform/types/EthAddr.h"
#include "platform/types/IntfId.h"
#include "platform/types/IpGenAddr.h"

namespace Calyx {
namespace {

using Texts = std::vector<std::string_view>;
template <class T>
struct Samples;
template <>
struct Samples<Ip4Addr> {
  inline static Texts const good{"0.0.0.0", "10.0.0.1", "255.255.255.255"};
  inline static Texts const bad{"", "10.0.0", "10.0.0.256", "010.0.0.1", "10.0.0.1 ", "::1"};
};
template <>
struct Samples<Ip6Addr> {
  inline static Texts const good{"::", "::1", "2001:db8::1", "fe80::1:2:3:4", "::ffff:10.0.0.1"};
  inline static Texts const bad{"", "10.0.0.1", "2001:db8::1::2", "12345::", "2001:db8:0:0:0:0:0:0:1"};
};
template <>
struct Samples<IpGenAddr> {
  inline static Texts const good{"none", "10.0.0.1", "2001:db8::1"};
  inline static Texts const bad{"", "None", "10.0.0.1.2", "2001:db8::g", "[::1]"};
};
template <>
struct Samples<EthAddr> {
  inline static Texts const good{"00:00:00:00:00:00", "aa:bb:cc:dd:ee:ff", "01:80:c2:00:00:0e"};
  inline static Texts const bad{"", "aa:bb:cc:dd:ee", "aa:bb:cc:dd:ee:ff:00", "aa-bb-cc-dd-ee-ff",
                                "AA:BB:CC:DD:EE:FG"};
};
template <>
struct Samples<DscpValue> {
  inline static Texts const good{"0", "46", "63"};
  inline static Texts const bad{"", "64", "255", "-1", "4 6", "0x10"};
};
template <>
struct Samples<IntfId> {
  inline static Texts const good{"", "Ethernet12", "Port-Channel3", "Ethernet1/2", "eth0"};
  inline static Texts const bad{"Ethernet 1", "eth\t0", "Ethernet1234567890123456789012345"};
};

template <class T>
class ValueType : public ::testing::Test {};
using AllValueTypes = ::testing::Types<Ip4Addr, Ip6Addr, IpGenAddr, EthAddr, DscpValue, IntfId>;
TYPED_TEST_SUITE(ValueType, AllValueTypes);

static_assert(std::is_trivially_copyable_v<Ip4Addr> && std::is_trivially_copyable_v<Ip6Addr> &&
              std::is_trivially_copyable_v<IpGenAddr> && std::is_trivially_copyable_v<EthAddr> &&
              std::is_trivially_copyable_v<DscpValue> && std::is_trivially_copyable_v<IntfId>);

TYPED_TEST(ValueType, TextRoundTripsThroughParseAndStream) {
  for (auto text : Samples<TypeParam>::good) {
    String error;
    auto v = TypeParam::parse(text, &error);
    ASSERT_TRUE(v) << text << ": " << error;
    EXPECT_EQ(v->stringValue(), text);
    std::ostringstream os;
    os << *v;
    EXPECT_EQ(os.str(), text);
    EXPECT_EQ(std::hash<TypeParam>()(*v), v->hash());
  }
}

TYPED_TEST(ValueType, BadTextFailsNamingTheText) {
  for (auto text : Samples<TypeParam>::bad) {
    String error;
    EXPECT_FALSE(TypeParam::parse(text, &error)) << "'" << text << "' parsed";
    EXPECT_NE(error.find("'" + String(text) + "'"), String::npos) << error;
  }
}

TYPED_TEST(ValueType, DistinctValuesCompareAndHashApart) {
  auto good = Samples<TypeParam>::good;
  for (size_t i = 0; i < good.size(); ++i) {
    for (size_t j = i + 1; j < good.size(); ++j) {
      auto a = *TypeParam::parse(good[i]);
      auto b = *TypeParam::parse(good[j]);
      EXPECT_NE(a, b);
      EXPECT_NE(a < b, b < a) << good[i] << " vs " << good[j];
      EXPECT_NE(a.hash(), b.hash());
    }
  }
}

TEST(DscpValueRange, AboveSixtyThreeIsRejected) {
  EXPECT_EQ(DscpValue::fromValue(63)->value(), 63);
  EXPECT_FALSE(DscpValue::fromValue(64));
  EXPECT_THROW(DscpValue(64), std::out_of_range);
  static_assert(DscpValue(46).value() == 46);  // no shifting into the type-of-service position
}

}  // namespace
}  // namespace Calyx
