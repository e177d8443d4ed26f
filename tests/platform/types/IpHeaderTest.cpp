#include "platform/types/IpHeader.h"

#include <gtest/gtest.h>

#include <array>

namespace Calyx {
namespace {

// A well-known correct header: UDP from 192.168.0.1 to 192.168.0.199, DF set, checksum 0xb861.
std::array<uint8_t, 20> correctHeader() {
  return {0x45, 0x00, 0x00, 0x73, 0x00, 0x00, 0x40, 0x00, 0x40, 0x11,
          0xb8, 0x61, 0xc0, 0xa8, 0x00, 0x01, 0xc0, 0xa8, 0x00, 0xc7};
}

TEST(Ip4Checksum, CorrectHeaderComputesZeroAndCorruptionShows) {
  auto h = correctHeader();
  EXPECT_EQ(Ip4HeaderView(h.data()).checksumComputed(), 0);
  for (size_t i = 0; i < h.size(); ++i) {
    auto bad = h;
    bad[i] ^= 0x10;
    if (i == 0) continue;  // changes the header length itself
    EXPECT_NE(Ip4HeaderView(bad.data()).checksumComputed(), 0) << "byte " << i;
  }
}

// The computed value itself is what a rejection trace prints.
TEST(Ip4Checksum, ComputedValuesOfAWrongHeader) {
  auto h = correctHeader();
  h[10] = h[11] = 0;
  EXPECT_EQ(Ip4HeaderView(h.data()).checksumComputed(), 0xb861);
  std::array<uint8_t, 20> zero{0x45};
  EXPECT_EQ(Ip4HeaderView(zero.data()).checksumComputed(), 0xbaff);
  // 60 bytes of 0xff: every carry folds back, and the sum is the one's-complement zero 0xffff.
  std::array<uint8_t, 60> ones;
  ones.fill(0xff);
  EXPECT_EQ(Ip4HeaderView(ones.data()).checksumComputed(), 0);
}

TEST(Ip4Checksum, FillThenVerifyIncludingOptions) {
  auto h = correctHeader();
  h[10] = h[11] = 0xff;
  ip4ChecksumFill(h.data());
  EXPECT_EQ(h, correctHeader());

  // 24-byte header: the option word must be covered by both fill and check.
  std::array<uint8_t, 24> opt{0x46, 0, 0, 24, 0,  0, 0, 0, 64,   6,    0, 0,
                              10,   0, 0, 1,  10, 0, 0, 2, 0x94, 0x04, 0, 0};
  ip4ChecksumFill(opt.data());
  EXPECT_EQ(Ip4HeaderView(opt.data()).checksumComputed(), 0);
  opt[22] = 1;
  EXPECT_NE(Ip4HeaderView(opt.data()).checksumComputed(), 0);
}

TEST(Ip4HeaderFields, FragmentBitsAndAddresses) {
  auto h = correctHeader();
  Ip4HeaderView v(h.data());
  EXPECT_EQ(v.version(), 4);
  EXPECT_EQ(v.headerLength(), 20u);
  EXPECT_EQ(v.protocol(), 17);
  EXPECT_EQ(v.fragmentOffset(), 0);  // DF alone is not an offset
  EXPECT_FALSE(v.moreFragments());
  EXPECT_EQ(v.src().stringValue(), "192.168.0.1");
  EXPECT_EQ(v.dst().stringValue(), "192.168.0.199");
  h[6] = 0x3f;  // MF and the top offset bits
  h[7] = 0xff;
  EXPECT_TRUE(v.moreFragments());
  EXPECT_EQ(v.fragmentOffset(), 0x1fff);
}

}  // namespace
}  // namespace Calyx
