#include <chrono>
#include <cstdio>
#include <optional>
#include <string_view>

#include <gtest/gtest.h>

#include <zocore/absolute_time.h>
#include <zocore/relative_time.h>

namespace {

using zocore::AbsoluteTime;
using Components = zocore::AbsoluteTime::Components;
using zocore::RelativeTime;

// The components in the text form, always with nine fractional digits.
std::string describe(Components const& c) {
  char text[80];
  std::snprintf(text, sizeof text, "%04d-%02u-%02u %02u:%02u:%02u.%09u", c.year, c.month, c.day,
                c.hour, c.minute, c.second, c.nanosecond);
  return text;
}

// The parsed count, or nullopt when refused (the output must then be untouched).
template <class Time = AbsoluteTime, class Input>
std::optional<std::int64_t> count_of(Input const& in) {
  Time t(42);
  bool ok = false;
  if constexpr (std::is_same_v<Input, Components>)
    ok = Time::from_components_nothrow(in, &t);
  else
    ok = Time::from_string_nothrow(std::string(in), &t);
  if (ok) return t.count();
  EXPECT_EQ(t.count(), 42);
  return std::nullopt;
}

// 31 days in odd months up to July and in even ones from August on.
unsigned month_length(int year, unsigned month) {
  bool const leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return month == 2 ? 28 + leap : 30 + (month + month / 8) % 2;
}

// Counts computed independently (Python's datetime).
TEST(AbsoluteTimeTest, KnownInstantsMatchComponentsAndTextBothWaysAndNow) {
  // clang-format off
  std::pair<std::int64_t, std::string> const cases[] = {
      {0, "1970-01-01 00:00:00"}, {-1, "1969-12-31 23:59:59.999999999"},
      {INT64_MIN, "1677-09-21 00:12:43.145224192"}, {INT64_MAX, "2262-04-11 23:47:16.854775807"},
      {1234567890123456789, "2009-02-13 23:31:30.123456789"},
      {1709251199500000000, "2024-02-29 23:59:59.5"}, {-58037384999999990, "1968-02-29 06:30:15.00000001"},
  };
  // clang-format on
  for (auto const& [count, text] : cases) {
    std::string digits = text.find('.') == std::string::npos ? text + "." : text;
    EXPECT_EQ(describe(Components(AbsoluteTime(count))), digits.append(29 - digits.size(), '0'));
    EXPECT_EQ(count_of(Components(AbsoluteTime(count))), count) << text;
    EXPECT_EQ(AbsoluteTime(count).as_string(), text);
    EXPECT_EQ(count_of(text), count);
    EXPECT_EQ(count_of(text.substr(0, 10) + "T" + text.substr(11)), count);
  }
  auto const before =
      std::chrono::system_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
  std::int64_t const now = AbsoluteTime::now().count();  // the system clock in nanoseconds
  EXPECT_TRUE(before <= now && now - before < 60'000'000'000) << before << " " << now;
}

void expect_round_trip(std::int64_t count) {
  Components const c{AbsoluteTime(count)};
  ASSERT_EQ(count_of(c), count) << describe(c);
  ASSERT_EQ(count_of(AbsoluteTime(count).as_string()), count) << AbsoluteTime(count).as_string();
}

// Each midnight advances the date by exactly one day, which checks the calendar itself; a time
// later that day, and the instants near both limits and the epoch, round-trip.
TEST(AbsoluteTimeTest, EveryDayOfTheRangeAndBothLimits) {
  constexpr std::int64_t kNanosPerDay = 86'400'000'000'000;
  Components expected{1677, 9, 22};
  std::int64_t const first = INT64_MIN + kNanosPerDay - 763'145'224'192;
  EXPECT_EQ(count_of(expected), first);
  for (std::int64_t day = 0, count = first; count <= INT64_MAX - kNanosPerDay;
       ++day, count += kNanosPerDay) {
    ASSERT_EQ(describe(Components(AbsoluteTime(count))), describe(expected));
    expect_round_trip(count + day * 1'000'011'573 % kNanosPerDay);
    if (++expected.day > month_length(expected.year, expected.month)) {
      expected.day = 1;
      expected.year += expected.month / 12;
      expected.month = expected.month % 12 + 1;
    }
  }
  EXPECT_EQ(describe(expected), describe(Components{2262, 4, 11}));
  for (std::int64_t offset = 0; offset < 1000; ++offset) {
    expect_round_trip(INT64_MIN + offset);
    expect_round_trip(INT64_MAX - offset);
    expect_round_trip(offset - 500);
  }
}

TEST(AbsoluteTimeTest, RefusesInvalidComponentsAndTexts) {
  // clang-format off
  Components const cases[] = {
      {2000, 0, 1}, {2000, 13, 1}, {2000, 1, 0}, {2000, 1, 32}, {2000, 4, 31}, {2000, 2, 30},
      {1900, 2, 29}, {2023, 2, 29}, {2000, 1, 1, 24}, {2000, 1, 1, 0, 60}, {2000, 1, 1, 0, 0, 60},
      {2000, 1, 1, 0, 0, 0, 1'000'000'000}, {2000, ~0u, ~0u, ~0u, ~0u, ~0u, ~0u},
      {1677, 9, 21, 0, 12, 43, 145224191}, {2262, 4, 11, 23, 47, 16, 854775808},
      {INT32_MIN, 1, 1}, {INT32_MAX, 12, 31},
  };
  // clang-format on
  for (Components const& c : cases)
    EXPECT_EQ(count_of(c), std::nullopt) << describe(c);
  EXPECT_EQ(count_of("1969-12-31T23:59:59.900"), -100'000'000);  // trailing zeros are accepted
  // clang-format off
  std::string_view const refused[] = {
      "", "1970-01-01", "1970-01-01 00:00:0", "1970-01-01 00:00:00.", "1970-01-01 00:00:00 ",
      "1970-01-01 00:00:00.1234567890", " 1970-01-01 00:00:00", "1970-01-01t00:00:00",
      "1970/01/01 00:00:00", "1970-01-01 00.00.00", "1970-1-01 00:00:00", "+1970-01-01 00:00:00",
      "01970-01-01 00:00:00", "1970-01-01 00:00:0a", "1970-01-01 00:00:00.-5", "1970-01-01 00:00:00.5a",
      {"1970-01-01 00:00:00\0", 20}, "1970-13-01 00:00:00", "1970-04-31 00:00:00",
      "1970-01-01 24:00:00", "1970-01-01 00:60:00", "1970-01-01 00:00:60",
      "1677-09-21 00:12:43.145224191", "2262-04-11 23:47:16.854775808",
  };
  // clang-format on
  for (std::string_view const text : refused)
    EXPECT_EQ(count_of(text), std::nullopt) << text;
}

TEST(RelativeTimeTest, FormatsParsesBackAndRefuses) {
  // clang-format off
  std::pair<std::int64_t, char const*> const canonical[] = {
      {0, "0s"}, {1'000'000'000, "1s"}, {10'000'000'000, "10s"}, {1'500'000'000, "1.5s"},
      {-250'000'000, "-0.25s"}, {1, "0.000000001s"}, {100'000'000'010, "100.00000001s"},
      {INT64_MIN, "-9223372036.854775808s"}, {INT64_MAX - 1, "9223372036.854775806s"},
      {INT64_MAX, "inf"},
  };
  // clang-format on
  for (auto const& [count, text] : canonical) {
    EXPECT_EQ(RelativeTime(count).as_string(), text);
    EXPECT_EQ(count_of<RelativeTime>(text), count);
  }
  // Texts as_string does not produce but that denote a value unambiguously.
  for (auto const& [text, count] :
       {std::pair{"-0s", 0L}, std::pair{"0.000000000s", 0L}, std::pair{"1.500s", 1'500'000'000L},
        std::pair{"007s", 7'000'000'000L}, std::pair{"9223372036.854775807s", INT64_MAX}}) {
    EXPECT_EQ(count_of<RelativeTime>(text), count);
  }
  // clang-format off
  std::string_view const refused[] = {
      "", "s", "-s", "1", "1.s", ".5s", "1.0000000001s", "9223372036.854775808s",
      "-9223372036.854775809s", "9223372037s", "18446744073709551616s", "+1s", " 1s", "1s ",
      "1S", "1.5.5s", "--1s", "1e3s", "0x10s", "-inf", "infs", {"1\0s", 3},
  };
  // clang-format on
  for (std::string_view const text : refused)
    EXPECT_EQ(count_of<RelativeTime>(text), std::nullopt) << text;
}

}  // namespace
