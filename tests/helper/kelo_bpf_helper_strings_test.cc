#include "helper/kelo_bpf_helper_strings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cinttypes>
#include <string>
#include <vector>

namespace Kelo {
namespace Bpf {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(IsDigitsTest, AcceptsOnlyNonEmptyRunsOfDecimalDigits) {
  for (std::string yes : {"0", "123", "0042"}) EXPECT_TRUE(IsDigits(yes)) << yes;
  for (std::string no : {"", "12a", "-1", "+1", " 1", "1 ", "1.0", "0x1"}) EXPECT_FALSE(IsDigits(no)) << no;
}

TEST(ConvertToHexStringTest, LowercasePairsEachFollowedByABlank) {
  const char bytes[] = {'\x01', '\xab', '\x00'};
  EXPECT_EQ(ConvertToHexString(bytes, 3), "01 ab 00 ");
  EXPECT_EQ(ConvertToHexString("\xff", 1), "ff ");
  // Bytes above 0x7f are taken as unsigned, whatever char's signedness.
  EXPECT_EQ(ConvertToHexString("\x80\x7f", 2), "80 7f ");
  // Only the first `length` bytes count.
  EXPECT_EQ(ConvertToHexString("\x10\x20", 1), "10 ");
}

TEST(ConvertToHexStringTest, NonPositiveLengthGivesEmptyText) {
  EXPECT_EQ(ConvertToHexString("\x01", 0), "");
  EXPECT_EQ(ConvertToHexString("\x01", -5), "");
}

TEST(StringPrintfTest, FormatsLikePrintf) {
  EXPECT_EQ(StringPrintf("%s/prog_%s_%s_%s", "d", "a", "b", "c"), "d/prog_a_b_c");
  EXPECT_EQ(StringPrintf("%" PRId64 " %" PRIu64, INT64_MIN, UINT64_MAX),
            "-9223372036854775808 18446744073709551615");
}

TEST(StringPrintfTest, ReturnsLongResultsWhole) {
  const std::string big(10000, 'x');
  const std::string out = StringPrintf("<%s>%d", big.c_str(), 7);
  ASSERT_EQ(out.size(), 10003u);
  EXPECT_EQ(out, "<" + big + ">7");
}

TEST(SplitTest, DropsEmptyPieces) {
  EXPECT_THAT(Split("a..b.", "."), ElementsAre("a", "b"));
  EXPECT_THAT(Split("  12  345 6 ", " "), ElementsAre("12", "345", "6"));
  EXPECT_THAT(Split("...", "."), IsEmpty());
  EXPECT_THAT(Split("", "."), IsEmpty());
}

TEST(SplitTest, MultiCharacterDelimiterMatchesAsAWhole) {
  EXPECT_THAT(Split("a::b::::c::", "::"), ElementsAre("a", "b", "c"));
  // A single ':' is not the delimiter.
  EXPECT_THAT(Split("a:b::c", "::"), ElementsAre("a:b", "c"));
  // Occurrences are taken left to right without overlap.
  EXPECT_THAT(Split("aaa", "aa"), ElementsAre("a"));
  EXPECT_THAT(Split("5.10.43-android12", ".-"), ElementsAre("5.10.43-android12"));
}

TEST(SplitTest, InputWithoutDelimiterIsOnePiece) {
  EXPECT_THAT(Split("abc", "-"), ElementsAre("abc"));
  EXPECT_THAT(Split("ab", "abc"), ElementsAre("ab"));
  EXPECT_THAT(Split("", "abc"), IsEmpty());
  // Never asked for by the service, but it must terminate.
  EXPECT_THAT(Split("abc", ""), ElementsAre("abc"));
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
