#include "platform/types/IpGenAddr.h"

#include <gtest/gtest.h>

namespace Calyx {
namespace {

IpGenAddr addr(std::string_view text) {
  return *IpGenAddr::parse(text);
}

TEST(IpGenAddrFamily, EachFormGivesZeroForTheOtherFamily) {
  IpGenAddr v4 = addr("10.0.0.1");
  IpGenAddr v6 = addr("2001:db8::1");
  EXPECT_TRUE(v4.isV4());
  EXPECT_EQ(static_cast<int>(v4.af()), 1);
  EXPECT_EQ(v4.v4(), Ip4Addr::fromHost(0x0a000001));
  EXPECT_TRUE(v4.v6().isZero());
  EXPECT_TRUE(v6.isV6());
  EXPECT_TRUE(v6.v4().isZero());
  EXPECT_EQ(v6.v6(), *Ip6Addr::parse("2001:db8::1"));
  EXPECT_TRUE(IpGenAddr().v4().isZero() && IpGenAddr().v6().isZero());
}

TEST(IpGenAddrFamily, BytesAreNetworkOrderOfTheFamilyLength) {
  IpGenAddr a4 = addr("10.1.2.3"), a6 = addr("2001:db8::1"), none;
  ASSERT_EQ(a4.bytes().size(), 4u);
  EXPECT_EQ(a4.bytes()[0], 10);
  ASSERT_EQ(a6.bytes().size(), 16u);
  EXPECT_EQ(a6.bytes()[15], 1);
  EXPECT_TRUE(none.bytes().empty());
}

TEST(IpGenAddrOrder, FamilyFirstThenNumericAddress) {
  EXPECT_LT(IpGenAddr(), addr("0.0.0.0"));
  EXPECT_LT(addr("255.255.255.255"), addr("::"));
  EXPECT_LT(addr("9.255.255.255"), addr("10.0.0.0"));
  EXPECT_LT(addr("10.0.0.2"), addr("10.0.0.10"));
  EXPECT_LT(addr("2001:db8::2"), addr("2001:db8::10"));
  EXPECT_EQ(addr("2001:DB8:0:0:0:0:0:1"), addr("2001:db8::1"));
}

TEST(IpGenAddrInPlace, FillingOverAnotherFamilyLeavesNothingOfIt) {
  uint8_t const v4[4] = {10, 1, 2, 3};
  uint8_t v6[16] = {0x20, 0x01, 0x0d, 0xb8};
  v6[15] = 7;
  IpGenAddr a = addr("2001:db8:ffff:ffff:ffff:ffff:ffff:ffff");
  a.v4Is(v4);
  EXPECT_EQ(a, addr("10.1.2.3"));  // equality, order and hash look at the whole zero tail
  EXPECT_EQ(a.hash(), addr("10.1.2.3").hash());
  a.v6Is(v6);
  EXPECT_EQ(a, addr("2001:db8::7"));
}

// The hash places keys in shared-memory tables that other programs read, and orders the batches reports go
// out in: it must not change by accident. MurmurHash3 of the family code and the address bytes.
TEST(IpGenAddrHash, PinnedValues) {
  EXPECT_EQ(addr("10.1.2.3").hash(), 0x65d32133u);
  EXPECT_EQ(addr("10.1.2.3").hash(7), 0xd5c3c0a9u);
  EXPECT_EQ(addr("2001:db8::7").hash(), 0xaac2d2ccu);
  EXPECT_EQ(addr("2001:db8::7").hash(7), 0x50d719d8u);
  EXPECT_EQ(IpGenAddr().hash(), 0x514e28b7u);
}

TEST(IpGenAddrHash, OneByteApartHashesApart) {
  IpGenAddr base = addr("10.0.0.1");
  for (uint32_t bit = 0; bit < 32; bit += 8) {
    IpGenAddr other = Ip4Addr::fromHost(0x0a000001 ^ (1u << bit));
    EXPECT_NE(other.hash(), base.hash()) << "bit " << bit;
  }
  // The family takes part: an IPv6 address starting with the same bytes is a different key.
  EXPECT_NE(addr("a00:1::").hash(), base.hash());
  EXPECT_NE(base.hash(1), base.hash());
}

}  // namespace
}  // namespace Calyx
