#include "helper/kelo_bpf_helper_strings.h"

#include <gtest/gtest.h>

#include <cinttypes>
#include <string>
#include <vector>

namespace Kelo {
namespace Bpf {
namespace {

TEST(IsDigitsTest, AcceptsOnlyNonEmptyRunsOfDecimalDigits) {
  for (std::string yes : {"0", "123", "0042"}) EXPECT_TRUE(IsDigits(yes)) << yes;
  for (std::string no : {"", "12a", "-1", "+1", " 1", "1 ", "1.0", "0x1"}) EXPECT_FALSE(IsDigits(no)) << no;
}

TEST(ConvertToHexStringTest, LowercaseUnsignedPairsEachFollowedByABlank) {
  EXPECT_EQ(ConvertToHexString("\x01\xab\x00", 3), "01 ab 00 ");
  // Bytes above 0x7f are taken as unsigned, whatever char's signedness.
  EXPECT_EQ(ConvertToHexString("\xff\x80\x7f", 3), "ff 80 7f ");
  EXPECT_EQ(ConvertToHexString("\x10\x20", 1), "10 ");
  EXPECT_EQ(ConvertToHexString("\x01", 0), "");
  EXPECT_EQ(ConvertToHexString("\x01", -5), "");
}

TEST(StringPrintfTest, FormatsLikePrintfAndReturnsLongResultsWhole) {
  EXPECT_EQ(StringPrintf("%" PRId64 " %" PRIu64, INT64_MIN, UINT64_MAX), "-9223372036854775808 18446744073709551615");
  const std::string big(10000, 'x');
  EXPECT_EQ(StringPrintf("<%s>%d", big.c_str(), 7), "<" + big + ">7");
}

TEST(SplitTest, DropsEmptyPiecesAndMatchesDelimitersAsAWhole) {
  const struct {
    const char* text;
    const char* delimiter;
    std::vector<std::string> pieces;
  } cases[] = {
      {"a..b.", ".", {"a", "b"}},
      {"  12  345 6 ", " ", {"12", "345", "6"}},
      {"...", ".", {}},
      {"", ".", {}},
      {"a::b::::c::", "::", {"a", "b", "c"}},
      {"a:b::c", "::", {"a:b", "c"}},  // a single ':' is not the delimiter
      {"aaa", "aa", {"a"}},            // left to right, without overlap
      {"5.10.43-android12", ".-", {"5.10.43-android12"}},
      {"ab", "abc", {"ab"}},
      {"", "abc", {}},
      {"abc", "", {"abc"}},  // never asked for by the service, but it must end
  };
  for (const auto& c : cases) EXPECT_EQ(Split(c.text, c.delimiter), c.pieces) << c.text << " by " << c.delimiter;
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
