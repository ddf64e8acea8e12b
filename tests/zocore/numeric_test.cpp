#include <climits>
#include <cmath>
#include <cstdint>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zocore/core_errors.h>
#include <zocore/numeric.h>

namespace {

using ErrorPtr = zocore::RefCountPtr<zocore::ErrorInfo const>;

TEST(NumericTest, ToStringAtTheLimits) {
  using zocore::to_string;
  EXPECT_EQ(to_string(0) + " " + to_string(INT_MIN) + " " + to_string(INT_MAX) + " " +
                to_string(UINT_MAX) + " " + to_string(LLONG_MIN) + " " + to_string(ULLONG_MAX),
            "0 -2147483648 2147483647 4294967295 -9223372036854775808 18446744073709551615");
}

double parse(std::string const& text, ErrorPtr* error) {
  return zocore::impl::string_to_double(text.data(), static_cast<unsigned>(text.size()), error);
}

TEST(NumericTest, StringToDoubleParsesTheWholeText) {
  using Limits = std::numeric_limits<double>;
  // clang-format off
  std::pair<std::string, double> const cases[] = {
      {"0", 0.0}, {"-0", -0.0}, {"+1.5", 1.5}, {".5", 0.5}, {"5.", 5.0}, {"1E+3", 1000.0},
      {"25e-2", 0.25}, {"0.1", 0.1}, {"0e999", 0.0}, {"1.7976931348623157e308", Limits::max()},
      {"4.9406564584124654e-324", Limits::denorm_min()}, {"inf", Limits::infinity()},
      {"-Infinity", -Limits::infinity()}, {"nan", Limits::quiet_NaN()},
      {"nan(123)", Limits::quiet_NaN()}, {std::string("12.5e1", 4), 12.5},  // only `size` is read
  };
  // clang-format on
  for (auto const& [text, expected] : cases) {
    ErrorPtr error;
    double const value = parse(text, &error);
    EXPECT_FALSE(error) << text;
    EXPECT_TRUE(std::isnan(expected)
                    ? std::isnan(value)
                    : value == expected && std::signbit(value) == std::signbit(expected))
        << text << " -> " << value;
  }
}

TEST(NumericTest, StringToDoubleFailureReportsARecordAndReturnsZero) {
  constexpr char kInvalid[] = "Invalid floating point text: \"{@text}\"";
  constexpr char kRange[] = "Floating point text out of range: \"{@text}\"";
  // clang-format off
  std::pair<std::string, char const*> const cases[] = {
      {"", kInvalid}, {"+", kInvalid}, {"--1", kInvalid}, {" 1", kInvalid}, {"1 ", kInvalid},
      {"1e", kInvalid}, {"1.5x", kInvalid}, {"0x10", kInvalid}, {"infin", kInvalid},
      {"nan(", kInvalid}, {".", kInvalid}, {"1e400x", kInvalid}, {std::string("1\0" "5", 3), kInvalid},
      {"1e400", kRange}, {"-1e400", kRange}, {"1e-400", kRange}, {"2e-324", kRange},
  };
  // clang-format on
  for (auto const& [text, message] : cases) {
    ErrorPtr error;
    EXPECT_EQ(parse(text, &error), 0.0) << text;
    ASSERT_TRUE(error) << text;
    EXPECT_EQ(error->code(), zocore::error::zocore_format);
    EXPECT_EQ(error->message().view(), message) << text;
    EXPECT_EQ(zotest::param(error, "text"), text);
    EXPECT_EQ(error->location().function().view(), "zocore::impl::string_to_double()");
    EXPECT_EQ(parse(text, nullptr), 0.0) << text;
  }
}

TEST(NumericTest, SafeCastFailureNamesTheDemangledType) {
  using Case = std::tuple<std::type_info const&, unsigned long long, char const*>;
  for (Case const& c : {Case{typeid(unsigned short), 65536, "unsigned short"},
                        Case{typeid(std::int32_t), ULLONG_MAX, "int"},
                        Case{typeid(zocore::ErrorInfo), 1, "zocore::ErrorInfo"}}) {
    auto const info = ZO_EXPECT_ERROR(
        zocore::impl::safe_cast_throw_value_truncated(std::get<0>(c), std::get<1>(c)),
        zocore::error::zocore_range, "Value {@value} does not fit into type '{@type}'");
    EXPECT_EQ(zotest::param(info, "type"), std::get<2>(c));
    EXPECT_EQ(zotest::param(info, "value"), std::to_string(std::get<1>(c)));
    EXPECT_EQ(info ? info->location().function().str() : "",
              "zocore::impl::safe_cast_throw_value_truncated()");
  }
}

}  // namespace
