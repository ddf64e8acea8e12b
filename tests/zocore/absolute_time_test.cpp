#include <chrono>
#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <tuple>

#include <gtest/gtest.h>

#include <zocore/absolute_time.h>

namespace {

using zocore::AbsoluteTime;
using Components = zocore::AbsoluteTime::Components;

constexpr std::int64_t kMinCount = INT64_MIN;
constexpr std::int64_t kMaxCount = INT64_MAX;
constexpr std::int64_t kNanosPerDay = 86'400'000'000'000;

std::string describe(Components const& c) {
  return std::to_string(c.year) + "-" + std::to_string(c.month) + "-" + std::to_string(c.day) +
         " " + std::to_string(c.hour) + ":" + std::to_string(c.minute) + ":" +
         std::to_string(c.second) + "." + std::to_string(c.nanosecond);
}

// The count of `c`, failing the test when it is rejected.
std::int64_t count_of(Components const& c) {
  AbsoluteTime t(42);
  EXPECT_TRUE(AbsoluteTime::from_components_nothrow(c, &t)) << describe(c);
  return t.count();
}

// Independent of the library's calendar arithmetic: plain leap-year rules.
bool is_leap(int year) {
  return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

unsigned month_length(int year, unsigned month) {
  static constexpr unsigned kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && is_leap(year) ? 29 : kDays[month - 1];
}

// Counts computed independently (Python's datetime); each row also fixes the text form.
struct KnownInstant {
  std::int64_t count;
  Components components;
  char const* text;
};

KnownInstant const kKnownInstants[] = {
    {0, {1970, 1, 1}, "1970-01-01 00:00:00"},
    {-1, {1969, 12, 31, 23, 59, 59, 999999999}, "1969-12-31 23:59:59.999999999"},
    {kMinCount, {1677, 9, 21, 0, 12, 43, 145224192}, "1677-09-21 00:12:43.145224192"},
    {kMaxCount, {2262, 4, 11, 23, 47, 16, 854775807}, "2262-04-11 23:47:16.854775807"},
    {951825600000000000, {2000, 2, 29, 12}, "2000-02-29 12:00:00"},
    {951868800000000000, {2000, 3, 1}, "2000-03-01 00:00:00"},
    {-2077747200000000000, {1904, 2, 29}, "1904-02-29 00:00:00"},
    {4107542399999999999, {2100, 2, 28, 23, 59, 59, 999999999}, "2100-02-28 23:59:59.999999999"},
    {4107542400000000000, {2100, 3, 1}, "2100-03-01 00:00:00"},
    {-8520336000000000000, {1700, 1, 1}, "1700-01-01 00:00:00"},
    {-8515324800000000000, {1700, 2, 28}, "1700-02-28 00:00:00"},
    {-8515238400000000000, {1700, 3, 1}, "1700-03-01 00:00:00"},
    {946684799999999999, {1999, 12, 31, 23, 59, 59, 999999999}, "1999-12-31 23:59:59.999999999"},
    {-5333126400000000001, {1800, 12, 31, 23, 59, 59, 999999999}, "1800-12-31 23:59:59.999999999"},
    {-2203891199999999999, {1900, 3, 1, 0, 0, 0, 1}, "1900-03-01 00:00:00.000000001"},
    {1234567890123456789, {2009, 2, 13, 23, 31, 30, 123456789}, "2009-02-13 23:31:30.123456789"},
    {1709251199500000000, {2024, 2, 29, 23, 59, 59, 500000000}, "2024-02-29 23:59:59.5"},
    {-58037384999999990, {1968, 2, 29, 6, 30, 15, 10}, "1968-02-29 06:30:15.00000001"},
};

class AbsoluteTimeKnownTest : public ::testing::TestWithParam<KnownInstant> {};

TEST_P(AbsoluteTimeKnownTest, ComponentsAndTextMatchBothWays) {
  KnownInstant const& row = GetParam();
  AbsoluteTime const t(row.count);
  EXPECT_EQ(Components(t), row.components) << describe(Components(t));
  EXPECT_EQ(count_of(row.components), row.count);
  EXPECT_EQ(t.as_string(), row.text);

  AbsoluteTime parsed(42);
  ASSERT_TRUE(AbsoluteTime::from_string_nothrow(row.text, &parsed));
  EXPECT_EQ(parsed.count(), row.count);
  std::string with_t = row.text;
  with_t[10] = 'T';
  ASSERT_TRUE(AbsoluteTime::from_string_nothrow(with_t, &parsed));
  EXPECT_EQ(parsed.count(), row.count);
}

INSTANTIATE_TEST_SUITE_P(Table, AbsoluteTimeKnownTest, ::testing::ValuesIn(kKnownInstants));

TEST(AbsoluteTimeTest, InfiniteIsTheLargestInstant) {
  EXPECT_TRUE(AbsoluteTime::infinite().is_infinite());
  EXPECT_EQ(AbsoluteTime::infinite().as_string(), "2262-04-11 23:47:16.854775807");
  EXPECT_TRUE(AbsoluteTime::zero().is_zero());
  EXPECT_LT(AbsoluteTime(kMinCount), AbsoluteTime::zero());
}

void expect_round_trip(std::int64_t count) {
  AbsoluteTime const t(count);
  Components const c(t);
  ASSERT_TRUE(c.month >= 1 && c.month <= 12 && c.day >= 1 &&
              c.day <= month_length(c.year, c.month) && c.hour < 24 && c.minute < 60 &&
              c.second < 60 && c.nanosecond < 1'000'000'000)
      << count << " -> " << describe(c);
  AbsoluteTime back(42);
  ASSERT_TRUE(AbsoluteTime::from_components_nothrow(c, &back)) << count << " -> " << describe(c);
  ASSERT_EQ(back.count(), count) << describe(c);

  std::string const text = t.as_string();
  AbsoluteTime parsed(42);
  ASSERT_TRUE(AbsoluteTime::from_string_nothrow(text, &parsed)) << text;
  ASSERT_EQ(parsed.count(), count) << text;
}

TEST(AbsoluteTimeTest, RoundTripsInSteps) {
  // 1e14 ns is a little over a day, so the sweep lands on every time of day over the range.
  constexpr std::int64_t kStep = 100'000'000'000'000;
  for (std::int64_t count = kMinCount; count <= kMaxCount - kStep; count += kStep) {
    expect_round_trip(count);
  }
  for (std::int64_t offset = 0; offset < 1000; ++offset) {
    expect_round_trip(kMinCount + offset);
    expect_round_trip(kMaxCount - offset);
    expect_round_trip(offset - 500);
  }
}

TEST(AbsoluteTimeTest, RoundTripsRandomCounts) {
  std::mt19937_64 generator(20240229);
  for (int i = 0; i < 200'000; ++i)
    expect_round_trip(static_cast<std::int64_t>(generator()));
}

// Walks midnight to midnight over every day of the range and checks that the calendar advances
// by exactly one day each time, so the calendar itself is checked, not only that the two
// conversions agree with each other.
TEST(AbsoluteTimeTest, ConsecutiveMidnightsAreConsecutiveDates) {
  Components expected{1677, 9, 22};
  std::int64_t const first = count_of(expected);
  EXPECT_EQ(first, kMinCount + kNanosPerDay - 763'145'224'192);
  int days = 0;
  for (std::int64_t count = first; count <= kMaxCount - kNanosPerDay; count += kNanosPerDay) {
    Components const c{AbsoluteTime(count)};
    ASSERT_EQ(c, expected) << describe(c) << " expected " << describe(expected);
    if (++expected.day > month_length(expected.year, expected.month)) {
      expected.day = 1;
      if (++expected.month > 12) {
        expected.month = 1;
        ++expected.year;
      }
    }
    ++days;
  }
  EXPECT_EQ(expected, (Components{2262, 4, 11}));
  EXPECT_EQ(days, 213'502);
}

struct InvalidComponents {
  char const* what;
  Components components;
};

InvalidComponents const kInvalidComponents[] = {
    {"month 0", {2000, 0, 1}},
    {"month 13", {2000, 13, 1}},
    {"day 0", {2000, 1, 0}},
    {"day 32", {2000, 1, 32}},
    {"April 31", {2000, 4, 31}},
    {"November 31", {2001, 11, 31}},
    {"February 30 in a leap year", {2000, 2, 30}},
    {"February 29, 1900", {1900, 2, 29}},
    {"February 29, 2100", {2100, 2, 29}},
    {"February 29, 1700", {1700, 2, 29}},
    {"February 29, 2023", {2023, 2, 29}},
    {"hour 24", {2000, 1, 1, 24}},
    {"minute 60", {2000, 1, 1, 0, 60}},
    {"second 60", {2000, 1, 1, 0, 0, 60}},
    {"nanosecond 1e9", {2000, 1, 1, 0, 0, 0, 1'000'000'000}},
    {"huge fields", {2000, ~0u, ~0u, ~0u, ~0u, ~0u, ~0u}},
    {"before the first instant", {1677, 9, 21, 0, 12, 43, 145224191}},
    {"after the last instant", {2262, 4, 11, 23, 47, 16, 854775808}},
    {"last day, later second", {2262, 4, 11, 23, 59, 59}},
    {"first day, earlier second", {1677, 9, 21}},
    {"year 1676", {1676, 12, 31, 23, 59, 59, 999999999}},
    {"year 2263", {2263, 1, 1}},
    {"year 0", {0, 1, 1}},
    {"smallest int year", {INT32_MIN, 1, 1}},
    {"largest int year", {INT32_MAX, 12, 31, 23, 59, 59, 999999999}},
};

class AbsoluteTimeInvalidComponentsTest : public ::testing::TestWithParam<InvalidComponents> {};

TEST_P(AbsoluteTimeInvalidComponentsTest, IsRejectedAndLeavesOutputAlone) {
  AbsoluteTime t(42);
  EXPECT_FALSE(AbsoluteTime::from_components_nothrow(GetParam().components, &t));
  EXPECT_EQ(t.count(), 42);
}

INSTANTIATE_TEST_SUITE_P(Table, AbsoluteTimeInvalidComponentsTest,
                         ::testing::ValuesIn(kInvalidComponents));

struct ParsedText {
  char const* text;
  std::int64_t count;
};

// Accepted texts beyond the canonical ones of the known-instant table.
ParsedText const kAcceptedTexts[] = {
    {"1970-01-01 00:00:00.0", 0},
    {"1970-01-01T00:00:00.000000000", 0},
    {"1970-01-01 00:00:00.500", 500'000'000},
    {"1970-01-01 00:00:00.000000001", 1},
    {"1970-01-01 00:00:01.1", 1'100'000'000},
    {"1969-12-31T23:59:59.9", -100'000'000},
};

class AbsoluteTimeAcceptedTextTest : public ::testing::TestWithParam<ParsedText> {};

TEST_P(AbsoluteTimeAcceptedTextTest, Parses) {
  AbsoluteTime t(42);
  ASSERT_TRUE(AbsoluteTime::from_string_nothrow(GetParam().text, &t));
  EXPECT_EQ(t.count(), GetParam().count);
}

INSTANTIATE_TEST_SUITE_P(Table, AbsoluteTimeAcceptedTextTest, ::testing::ValuesIn(kAcceptedTexts));

constexpr std::string_view kRejectedTexts[] = {
    "",
    "1970-01-01",
    "1970-01-01 00:00",
    "1970-01-01 00:00:0",
    "1970-01-01 00:00:00.",
    "1970-01-01 00:00:00.0000000000",
    "1970-01-01 00:00:00.1234567890",
    "1970-01-01 00:00:00Z",
    "1970-01-01 00:00:00 ",
    "1970-01-01 00:00:00.5 ",
    " 1970-01-01 00:00:00",
    "1970-01-01  00:00:00",
    "1970-01-01t00:00:00",
    "1970-01-01_00:00:00",
    "1970/01/01 00:00:00",
    "1970-01-01 00.00.00",
    "1970-1-01 00:00:00",
    "1970-01-1 00:00:00",
    "1970-01-01 0:00:00",
    "70-01-01 00:00:00",
    "+1970-01-01 00:00:00",
    "01970-01-01 00:00:00",
    "-970-01-01 00:00:00",
    "1970-01-01 00:00:0a",
    "1970-01-01 00:00:00.-5",
    "1970-01-01 00:00:00.5a",
    "1970-01-01 00:00:00,5",
    "197O-01-01 00:00:00",
    std::string_view("1970-01-01 00:00:00\0", 20),
    std::string_view("1970-01-01\0"
                     "00:00:00",
                     19),
    "1970-00-01 00:00:00",
    "1970-13-01 00:00:00",
    "1970-01-00 00:00:00",
    "1970-04-31 00:00:00",
    "2023-02-29 00:00:00",
    "2100-02-29 00:00:00",
    "1970-01-01 24:00:00",
    "1970-01-01 00:60:00",
    "1970-01-01 00:00:60",
    "0000-01-01 00:00:00",
    "9999-12-31 23:59:59",
    "1677-09-21 00:12:43.145224191",
    "2262-04-11 23:47:16.854775808",
};

class AbsoluteTimeRejectedTextTest : public ::testing::TestWithParam<std::string_view> {};

TEST_P(AbsoluteTimeRejectedTextTest, IsRejectedAndLeavesOutputAlone) {
  AbsoluteTime t(42);
  EXPECT_FALSE(AbsoluteTime::from_string_nothrow(std::string(GetParam()), &t));
  EXPECT_EQ(t.count(), 42);
}

INSTANTIATE_TEST_SUITE_P(Table, AbsoluteTimeRejectedTextTest, ::testing::ValuesIn(kRejectedTexts));

TEST(AbsoluteTimeTest, NowReadsTheSystemClock) {
  auto const to_count = [](std::chrono::system_clock::time_point p) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(p.time_since_epoch()).count();
  };
  std::int64_t const before = to_count(std::chrono::system_clock::now());
  std::int64_t const now = AbsoluteTime::now().count();
  std::int64_t const after = to_count(std::chrono::system_clock::now());
  EXPECT_LE(before, now);
  EXPECT_LE(now, after);
}

}  // namespace
