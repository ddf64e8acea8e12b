#include <cctype>
#include <string>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zocore/core_errors.h>
#include <zocore/hex.h>

namespace {

constexpr char kInvalid[] = "Invalid hexadecimal text at offset {@offset}";

struct Vector {
  char const* data;
  char const* lower;
  char const* upper;
};

// RFC 4648, section 10 (base16), with the lowercase form this library writes.
constexpr Vector kRfcVectors[] = {
    {"", "", ""},
    {"f", "66", "66"},
    {"fo", "666f", "666F"},
    {"foo", "666f6f", "666F6F"},
    {"foob", "666f6f62", "666F6F62"},
    {"fooba", "666f6f6261", "666F6F6261"},
    {"foobar", "666f6f626172", "666F6F626172"},
};

class HexVectorTest : public ::testing::TestWithParam<Vector> {};

TEST_P(HexVectorTest, EncodesLowercase) {
  EXPECT_EQ(zocore::hex_encode(std::string_view(GetParam().data)), GetParam().lower);
}

TEST_P(HexVectorTest, DecodesEitherCase) {
  EXPECT_EQ(zocore::hex_decode(GetParam().lower), GetParam().data);
  EXPECT_EQ(zocore::hex_decode(GetParam().upper), GetParam().data);
}

INSTANTIATE_TEST_SUITE_P(Rfc4648, HexVectorTest, ::testing::ValuesIn(kRfcVectors));

TEST(HexTest, EveryByteValueRoundTrips) {
  std::string all;
  for (int i = 0; i < 256; ++i)
    all.push_back(static_cast<char>(i));
  std::string const text = zocore::hex_encode(all);
  ASSERT_EQ(text.size(), 512u);
  EXPECT_EQ(text.substr(0, 8), "00010203");
  EXPECT_EQ(text.substr(text.size() - 8), "fcfdfeff");
  EXPECT_EQ(zocore::hex_decode(text), all);

  std::string buffer(514, '#');
  zocore::hex_encode(all.data(), all.size(), buffer.data());
  EXPECT_EQ(buffer.substr(0, 512), text);
  EXPECT_EQ(buffer.substr(512), "##");
}

TEST(HexTest, DigitValueOfEveryCharacter) {
  std::string const digits = "0123456789abcdef";
  for (int c = 0; c < 256; ++c) {
    int expected = -1;
    std::size_t const lower = digits.find(static_cast<char>(std::tolower(c)));
    if (lower != std::string::npos) expected = static_cast<int>(lower);
    EXPECT_EQ(zocore::hex_digit_value(static_cast<char>(c)), expected) << c;
  }
}

struct Reject {
  char const* text;
  std::size_t offset;
};

class HexRejectTest : public ::testing::TestWithParam<Reject> {};

TEST_P(HexRejectTest, ThrowsWithOffset) {
  auto const info =
      ZO_EXPECT_ERROR(zocore::hex_decode(GetParam().text), zocore::error::zocore_format, kInvalid);
  ASSERT_TRUE(info);
  EXPECT_EQ(zotest::param(info, "offset"), std::to_string(GetParam().offset));
  EXPECT_EQ(info->location().function().view(), "zocore::hex_decode()");
}

INSTANTIATE_TEST_SUITE_P(Texts, HexRejectTest,
                         ::testing::Values(Reject{"g0", 0}, Reject{"0g", 1}, Reject{"00 11", 2},
                                           Reject{"0x10", 1}, Reject{"abcdeG", 5}, Reject{"a", 1},
                                           Reject{"abc", 3}, Reject{"abz", 2},
                                           Reject{"ab\xC3\xA9", 2}, Reject{"-1", 0}));

}  // namespace
