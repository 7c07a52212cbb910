#include "support/text.h"

#include <gtest/gtest.h>

#include <cmath>

namespace tarvomeldric::text {
namespace {

TEST(Text, CountsAndCutsCharactersNotBytes) {
  const std::string mixed = "a\u00e9\u901a\U0001f600z";  // one to four bytes each
  EXPECT_EQ(length(mixed), 5U);
  EXPECT_EQ(first(mixed, 4), "a\u00e9\u901a\U0001f600");
}

TEST(Text, StripTakesTheHostsWhiteSpaceAndNothingElse) {
  EXPECT_EQ(strip(" \t\r\n\v\f\x1c\u3000\u2028\u00a0"), "");
  EXPECT_EQ(strip("\u1680\u901a b\u0085\u205f"), "\u901a b");
  EXPECT_EQ(strip("\u200bner\u180e"), "\u200bner\u180e");  // invisible, but not white space
}

TEST(Text, ShortestReadsLikeTheHostsFloat) {
  const std::pair<double, std::string_view> cases[] = {
      {-0.0, "-0.0"},        {2.0, "2.0"},           {-1234.5, "-1234.5"},
      {0.1, "0.1"},          {0.0001, "0.0001"},     {0.00001, "1e-05"},
      {-1.5e-7, "-1.5e-07"}, {5e-324, "5e-324"},     {1e16, "1e+16"},
      {1.5e300, "1.5e+300"}, {INFINITY, "inf"},      {-INFINITY, "-inf"},
      {std::nan(""), "nan"}, {-std::nan(""), "nan"}, {1e16 - 2, "9999999999999998.0"}};
  for (const auto& [value, written] : cases) EXPECT_EQ(shortest(value), written);
}

}  // namespace
}  // namespace tarvomeldric::text
