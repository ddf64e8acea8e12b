#include <cstdint>
#include <random>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include <zocore/relative_time.h>

namespace {

using zocore::RelativeTime;

struct Span {
  std::int64_t count;
  char const* text;
};

Span const kCanonicalSpans[] = {
    {0, "0s"},
    {1'000'000'000, "1s"},
    {-1'000'000'000, "-1s"},
    {10'000'000'000, "10s"},
    {1'500'000'000, "1.5s"},
    {-250'000'000, "-0.25s"},
    {1, "0.000000001s"},
    {-2, "-0.000000002s"},
    {100'000'000'010, "100.00000001s"},
    {123'456'789'012, "123.456789012s"},
    {-999'999'999, "-0.999999999s"},
    {INT64_MIN, "-9223372036.854775808s"},
    {INT64_MIN + 1, "-9223372036.854775807s"},
    {INT64_MAX - 1, "9223372036.854775806s"},
    {INT64_MAX, "inf"},
};

class RelativeTimeTextTest : public ::testing::TestWithParam<Span> {};

TEST_P(RelativeTimeTextTest, FormatsAndParsesBack) {
  EXPECT_EQ(RelativeTime(GetParam().count).as_string(), GetParam().text);
  RelativeTime parsed(42);
  ASSERT_TRUE(RelativeTime::from_string_nothrow(GetParam().text, &parsed));
  EXPECT_EQ(parsed.count(), GetParam().count);
}

INSTANTIATE_TEST_SUITE_P(Table, RelativeTimeTextTest, ::testing::ValuesIn(kCanonicalSpans));

// Texts as_string does not produce but that denote a value unambiguously.
Span const kOtherAcceptedSpans[] = {
    {0, "-0s"},
    {0, "0.000000000s"},
    {1'500'000'000, "1.500s"},
    {7'000'000'000, "007s"},
    {-100'000'000, "-0.1s"},
    {INT64_MAX, "9223372036.854775807s"},
};

class RelativeTimeOtherTextTest : public ::testing::TestWithParam<Span> {};

TEST_P(RelativeTimeOtherTextTest, Parses) {
  RelativeTime parsed(42);
  ASSERT_TRUE(RelativeTime::from_string_nothrow(GetParam().text, &parsed));
  EXPECT_EQ(parsed.count(), GetParam().count);
}

INSTANTIATE_TEST_SUITE_P(Table, RelativeTimeOtherTextTest,
                         ::testing::ValuesIn(kOtherAcceptedSpans));

constexpr std::string_view kRejectedTexts[] = {
    "",
    "s",
    "-s",
    "-",
    "1",
    "1.5",
    "1.s",
    ".5s",
    "-.5s",
    "1.0000000001s",
    "0.1234567890s",
    "9223372036.854775808s",
    "-9223372036.854775809s",
    "9223372037s",
    "-9223372037s",
    "99999999999999999999999s",
    "18446744073709551616s",
    "+1s",
    " 1s",
    "1s ",
    "1 s",
    "1S",
    "1ss",
    "1.5.5s",
    "--1s",
    "1e3s",
    "1,5s",
    "0x10s",
    "-inf",
    "Inf",
    "inf ",
    "infs",
    std::string_view("1\0s", 3),
    std::string_view("1s\0", 3),
};

class RelativeTimeRejectedTextTest : public ::testing::TestWithParam<std::string_view> {};

TEST_P(RelativeTimeRejectedTextTest, IsRejectedAndLeavesOutputAlone) {
  RelativeTime parsed(42);
  EXPECT_FALSE(RelativeTime::from_string_nothrow(std::string(GetParam()), &parsed));
  EXPECT_EQ(parsed.count(), 42);
}

INSTANTIATE_TEST_SUITE_P(Table, RelativeTimeRejectedTextTest, ::testing::ValuesIn(kRejectedTexts));

TEST(RelativeTimeTest, RandomCountsRoundTripThroughText) {
  std::mt19937_64 generator(777);
  for (int i = 0; i < 100'000; ++i) {
    // Full-range counts, and spans of a few seconds rounded so that the fraction has any
    // number of significant digits.
    auto count = static_cast<std::int64_t>(generator());
    if (i % 2 != 0) {
      std::int64_t unit = 1;
      for (auto zeros = generator() % 10; zeros > 0; --zeros)
        unit *= 10;
      count = count % 10'000'000'000 / unit * unit;
    }
    std::string const text = RelativeTime(count).as_string();
    RelativeTime parsed(42);
    ASSERT_TRUE(RelativeTime::from_string_nothrow(text, &parsed)) << text;
    ASSERT_EQ(parsed.count(), count) << text;
  }
}

}  // namespace
