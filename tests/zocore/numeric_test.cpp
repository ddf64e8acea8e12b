#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zocore/core_errors.h>
#include <zocore/numeric.h>

namespace {

constexpr char kInvalidText[] = "Invalid floating point text: \"{@text}\"";
constexpr char kOutOfRange[] = "Floating point text out of range: \"{@text}\"";

TEST(NumericTest, ToStringAtTheLimits) {
  EXPECT_EQ(zocore::to_string(0), "0");
  EXPECT_EQ(zocore::to_string(-1), "-1");
  EXPECT_EQ(zocore::to_string(std::numeric_limits<int>::min()), "-2147483648");
  EXPECT_EQ(zocore::to_string(std::numeric_limits<int>::max()), "2147483647");
  EXPECT_EQ(zocore::to_string(0u), "0");
  EXPECT_EQ(zocore::to_string(std::numeric_limits<unsigned>::max()), "4294967295");
  EXPECT_EQ(zocore::to_string(std::numeric_limits<long long>::min()), "-9223372036854775808");
  EXPECT_EQ(zocore::to_string(std::numeric_limits<long long>::max()), "9223372036854775807");
  EXPECT_EQ(zocore::to_string(std::numeric_limits<unsigned long long>::max()),
            "18446744073709551615");
}

double parse(std::string const& text, zocore::RefCountPtr<zocore::ErrorInfo const>* error) {
  return zocore::impl::string_to_double(text.data(), static_cast<unsigned>(text.size()), error);
}

struct Parsed {
  char const* text;
  double value;
};

class StringToDoubleTest : public ::testing::TestWithParam<Parsed> {};

TEST_P(StringToDoubleTest, ParsesWholeText) {
  zocore::RefCountPtr<zocore::ErrorInfo const> error;
  double const value = parse(GetParam().text, &error);
  EXPECT_FALSE(error) << error->rendered();
  if (std::isnan(GetParam().value)) {
    EXPECT_TRUE(std::isnan(value));
  } else {
    EXPECT_EQ(value, GetParam().value);
    EXPECT_EQ(std::signbit(value), std::signbit(GetParam().value));
  }
}

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

INSTANTIATE_TEST_SUITE_P(
    Texts, StringToDoubleTest,
    ::testing::Values(Parsed{"0", 0.0}, Parsed{"-0", -0.0}, Parsed{"+0", 0.0}, Parsed{"1.5", 1.5},
                      Parsed{"+1.5", 1.5}, Parsed{"-2.25", -2.25}, Parsed{".5", 0.5},
                      Parsed{"5.", 5.0}, Parsed{"1e3", 1000.0}, Parsed{"1E+3", 1000.0},
                      Parsed{"25e-2", 0.25}, Parsed{"0.1", 0.1},
                      Parsed{"1.7976931348623157e308", std::numeric_limits<double>::max()},
                      Parsed{"2.2250738585072014e-308", std::numeric_limits<double>::min()},
                      Parsed{"4.9406564584124654e-324", std::numeric_limits<double>::denorm_min()},
                      Parsed{"0e999", 0.0}, Parsed{"inf", kInf}, Parsed{"-Infinity", -kInf},
                      Parsed{"+INF", kInf}, Parsed{"nan", kNaN}, Parsed{"NaN", kNaN},
                      Parsed{"-nan", kNaN}, Parsed{"nan(123)", kNaN}));

struct Failed {
  char const* text;
  char const* message;
};

class StringToDoubleRejectTest : public ::testing::TestWithParam<Failed> {};

TEST_P(StringToDoubleRejectTest, ReportsRecordAndReturnsZero) {
  zocore::RefCountPtr<zocore::ErrorInfo const> error;
  EXPECT_EQ(parse(GetParam().text, &error), 0.0);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), zocore::error::zocore_format);
  EXPECT_EQ(error->message().view(), GetParam().message);
  EXPECT_EQ(zotest::param(error, "text"), GetParam().text);
  EXPECT_EQ(error->location().function().view(), "zocore::impl::string_to_double()");
}

TEST_P(StringToDoubleRejectTest, NullErrorPointerOnlyReturnsZero) {
  EXPECT_EQ(parse(GetParam().text, nullptr), 0.0);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, StringToDoubleRejectTest,
    ::testing::Values(
        Failed{"", kInvalidText}, Failed{"+", kInvalidText}, Failed{"-", kInvalidText},
        Failed{"+-1", kInvalidText}, Failed{"++1", kInvalidText}, Failed{"--1", kInvalidText},
        Failed{" 1", kInvalidText}, Failed{"1 ", kInvalidText}, Failed{"1e", kInvalidText},
        Failed{"1e+", kInvalidText}, Failed{"1.5x", kInvalidText}, Failed{"0x10", kInvalidText},
        Failed{"infin", kInvalidText}, Failed{"nan(", kInvalidText}, Failed{"1,5", kInvalidText},
        Failed{".", kInvalidText}, Failed{"e5", kInvalidText}, Failed{"1e400x", kInvalidText},
        Failed{"1e400", kOutOfRange}, Failed{"-1e400", kOutOfRange},
        Failed{"+1.7976931348623159e308", kOutOfRange}, Failed{"1e-400", kOutOfRange},
        Failed{"2e-324", kOutOfRange}));

TEST(StringToDoubleTest, EmbeddedNulEndsNothing) {
  std::string const text(
      "1\0"
      "5",
      3);
  zocore::RefCountPtr<zocore::ErrorInfo const> error;
  EXPECT_EQ(parse(text, &error), 0.0);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->message().view(), kInvalidText);
}

TEST(StringToDoubleTest, OnlyTheGivenSizeIsRead) {
  char const text[] = "12.5e1";
  zocore::RefCountPtr<zocore::ErrorInfo const> error;
  EXPECT_EQ(zocore::impl::string_to_double(text, 4, &error), 12.5);
  EXPECT_FALSE(error);
}

struct Truncated {
  std::type_info const* type;
  unsigned long long value;
  char const* type_name;
  char const* value_text;
};

class SafeCastTest : public ::testing::TestWithParam<Truncated> {};

TEST_P(SafeCastTest, ThrowsWithDemangledTypeName) {
  auto const info = ZO_EXPECT_ERROR(
      zocore::impl::safe_cast_throw_value_truncated(*GetParam().type, GetParam().value),
      zocore::error::zocore_range, "Value {@value} does not fit into type '{@type}'");
  ASSERT_TRUE(info);
  EXPECT_EQ(zotest::param(info, "type"), GetParam().type_name);
  EXPECT_EQ(zotest::param(info, "value"), GetParam().value_text);
  EXPECT_EQ(info->location().function().view(), "zocore::impl::safe_cast_throw_value_truncated()");
}

INSTANTIATE_TEST_SUITE_P(
    Types, SafeCastTest,
    ::testing::Values(Truncated{&typeid(unsigned short), 65536, "unsigned short", "65536"},
                      Truncated{&typeid(signed char), 200, "signed char", "200"},
                      Truncated{&typeid(std::int32_t), 0xFFFFFFFFFFFFFFFFull, "int",
                                "18446744073709551615"},
                      Truncated{&typeid(zocore::ErrorInfo), 1, "zocore::ErrorInfo", "1"}));

}  // namespace
