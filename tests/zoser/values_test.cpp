#include "values.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include <support/hex_bytes.h>

namespace zoser {
namespace {

auto const* image(std::string const& bytes) {
  return reinterpret_cast<unsigned char const*>(bytes.data());
}

TEST(ValuesTest, IntegerImagesOfAnyWidth) {
  struct Row {
    char const* hex;  // big-endian image
    char const* signed_decimal;
    char const* unsigned_decimal;
    bool fits_int64;
    bool fits_uint64;
  } const rows[] = {
      {"", "0", "0", true, true},
      {"ff", "-1", "255", true, true},
      {"80", "-128", "128", true, true},
      {"0000000000000000007f", "127", "127", true, true},
      {"7fffffffffffffff", "9223372036854775807", "9223372036854775807", true, true},
      {"8000000000000000", "-9223372036854775808", "9223372036854775808", true, true},
      {"ffffffffffffffffff", "-1", "4722366482869645213695", true, false},
      {"ff7fffffffffffffff", "-9223372036854775809", "4713143110832790437887", false, false},
      {"008000000000000000", "9223372036854775808", "9223372036854775808", false, true},
      {"010000000000000005", "18446744073709551621", "18446744073709551621", false, false},
      {"ffffffffffffffc00000000000000000", "-1180591620717411303424",
       "340282366920938462282782986714356908032", false, false},
  };
  for (Row const& row : rows) {
    std::string const bytes = zotest::bytes(row.hex);
    SCOPED_TRACE(row.hex);
    EXPECT_EQ(image_to_decimal(image(bytes), bytes.size(), true), row.signed_decimal);
    EXPECT_EQ(image_to_decimal(image(bytes), bytes.size(), false), row.unsigned_decimal);
    std::int64_t s = 0;
    std::uint64_t u = 0;
    EXPECT_EQ(image_to_int64(image(bytes), bytes.size(), &s), row.fits_int64);
    EXPECT_EQ(image_to_uint64(image(bytes), bytes.size(), &u), row.fits_uint64);
    if (row.fits_int64) {
      EXPECT_EQ(std::to_string(s), row.signed_decimal);
    }
    if (row.fits_uint64) {
      EXPECT_EQ(std::to_string(u), row.unsigned_decimal);
    }
  }
}

TEST(ValuesTest, DoublesReadBackTheSame) {
  EXPECT_EQ(double_text(1.5), "1.5");
  EXPECT_EQ(double_text(-0.0), "-0");
  EXPECT_EQ(double_text(0.1), "0.1");
  EXPECT_EQ(double_text(1e300), "1e+300");
  EXPECT_EQ(double_text(std::numeric_limits<double>::infinity()), "inf");
  EXPECT_EQ(double_text(-std::numeric_limits<double>::infinity()), "-inf");
  EXPECT_EQ(double_text(std::nan("")), "nan");
  EXPECT_EQ(std::stod(double_text(0.1 + 0.2)), 0.1 + 0.2);
}

TEST(ValuesTest, QuotedEscapesAndCuts) {
  EXPECT_EQ(quoted("a \"b\" \\", 64), "\"a \\\"b\\\" \\\\\"");
  EXPECT_EQ(quoted(std::string("\t\x7f\0", 3), 64), "\"\\x09\\x7f\\x00\"");
  EXPECT_EQ(quoted("abcdef", 3), "\"abc\"...");
  EXPECT_EQ(quoted("\xC3\xBC", 64), "\"\xC3\xBC\"");  // UTF-8 passes through
}

}  // namespace
}  // namespace zoser
