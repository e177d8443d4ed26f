#include "platform/types/Hash.h"

#include <gtest/gtest.h>

#include <string_view>

namespace Calyx {
namespace {

uint32_t hashOf(std::string_view s, uint32_t seed = 0) {
  IncrementalHash h(seed);
  h.add(s.data(), s.size());
  return h.value();
}

// Published MurmurHash3 x86_32 results: they pin block order, tail handling, length folding and the
// avalanche.
TEST(IncrementalHash, MatchesReferenceVectors) {
  EXPECT_EQ(hashOf(""), 0u);
  EXPECT_EQ(hashOf("", 1), 0x514e28b7u);
  EXPECT_EQ(hashOf("test"), 0xba6bd213u);
  EXPECT_EQ(hashOf("Hello, world!"), 0xc0363e43u);
  EXPECT_EQ(hashOf("Hello, world!", 1234), 0xfaf6cdb3u);
  EXPECT_EQ(hashOf("The quick brown fox jumps over the lazy dog"), 0x2e4ff723u);
  EXPECT_EQ(stringHash("test"), 0xba6bd213u);
}

TEST(IncrementalHash, SplitOfTheInputDoesNotMatter) {
  std::string_view text = "The quick brown fox jumps over the lazy dog";
  for (size_t cut = 0; cut <= text.size(); ++cut) {
    IncrementalHash h;
    h.add(text.data(), cut);
    h.add(text.data() + cut, text.size() - cut);
    EXPECT_EQ(h.value(), hashOf(text)) << "cut at " << cut;
  }
  // Byte by byte, reading the value midway (which must not disturb the state).
  IncrementalHash bytes;
  for (char c : text) {
    bytes.add8(uint8_t(c));
    (void)bytes.value();
  }
  EXPECT_EQ(bytes.value(), hashOf(text));
}

TEST(IncrementalHash, WordsFeedTheirBytesAlsoBehindAPartialBlock) {
  uint8_t const bytes[] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  for (size_t lead = 0; lead < 4; ++lead) {
    IncrementalHash words, plain;
    words.add(bytes, lead);
    plain.add(bytes, lead + 4);
    words.addLe32(uint32_t(bytes[lead]) | uint32_t(bytes[lead + 1]) << 8 | uint32_t(bytes[lead + 2]) << 16 |
                  uint32_t(bytes[lead + 3]) << 24);
    EXPECT_EQ(words.value(), plain.value()) << lead << " bytes first";
    words.add(bytes + lead + 4, 2);
    plain.add(bytes + lead + 4, 2);
    EXPECT_EQ(words.value(), plain.value()) << lead << " bytes first, then a tail";
  }
}

}  // namespace
}  // namespace Calyx
