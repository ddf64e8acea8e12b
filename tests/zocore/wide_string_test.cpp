#include <string>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <zocore/core_errors.h>
#include <zocore/wide_string.h>

namespace {

constexpr char kInvalidUnit[] =
    "Invalid UTF-16 text: unpaired surrogate or invalid code unit at index {@index}";
constexpr char kInvalidUtf8[] = "Invalid UTF-8 sequence at offset {@offset}";

static_assert(sizeof(wchar_t) == 4, "these tests assume the 32-bit wchar_t of Linux");

struct ConvertCase {
  char const* name;
  std::u16string utf16;
  std::wstring wide;  // one unit per code point
  char const* utf8_hex;
};

class WideStringConvertTest : public ::testing::TestWithParam<ConvertCase> {};

TEST_P(WideStringConvertTest, BothDirections) {
  ConvertCase const& c = GetParam();
  std::string const utf8 = zotest::bytes(c.utf8_hex);
  EXPECT_EQ(zotest::hex(zocore::to_string(c.wide)), zotest::hex(utf8));
  EXPECT_EQ(zotest::hex(zocore::to_string(c.utf16.data(), static_cast<unsigned>(c.utf16.size()))),
            zotest::hex(utf8));
  EXPECT_EQ(zocore::to_wstring(utf8), c.wide);
  EXPECT_EQ(zocore::to_u16string(utf8.data(), static_cast<unsigned>(utf8.size())), c.utf16);
}

// UTF-16 data carried in wchar_t units converts like char16_t text.
TEST_P(WideStringConvertTest, Utf16InWideUnits) {
  ConvertCase const& c = GetParam();
  std::wstring const units(c.utf16.begin(), c.utf16.end());
  EXPECT_EQ(zotest::hex(zocore::to_string(units)), zotest::hex(zotest::bytes(c.utf8_hex)));
}

INSTANTIATE_TEST_SUITE_P(
    Texts, WideStringConvertTest,
    ::testing::Values(ConvertCase{"Empty", u"", L"", ""},
                      ConvertCase{"Nul", {u'\0'}, {L'\0'}, "00"},
                      ConvertCase{"Ascii", u"Az~", L"Az~", "41 7A 7E"},
                      ConvertCase{"TwoByte", u"\u00E9\u07FF", L"\u00E9\u07FF", "C3 A9 DF BF"},
                      ConvertCase{"ThreeByte", u"\u0800\u20AC\uD7FF\uE000\uFFFF",
                                  L"\u0800\u20AC\uD7FF\uE000\uFFFF",
                                  "E0 A0 80 E2 82 AC ED 9F BF EE 80 80 EF BF BF"},
                      ConvertCase{"SurrogatePairs", u"\U00010000\U0001F600\U0010FFFF",
                                  L"\U00010000\U0001F600\U0010FFFF",
                                  "F0 90 80 80 F0 9F 98 80 F4 8F BF BF"},
                      ConvertCase{"Mixed", u"a\u00E9\U0001F600z", L"a\u00E9\U0001F600z",
                                  "61 C3 A9 F0 9F 98 80 7A"}),
    [](auto const& p) { return std::string(p.param.name); });

struct RejectCase {
  char const* name;
  std::u32string units;  // code unit values, widened
  unsigned index;
};

void expect_wide_rejected(RejectCase const& c) {
  std::wstring units;
  for (char32_t u : c.units)
    units.push_back(static_cast<wchar_t>(u));
  auto const info =
      ZO_EXPECT_ERROR(zocore::to_string(units), zocore::error::zocore_utf8, kInvalidUnit);
  ASSERT_TRUE(info);
  EXPECT_EQ(zotest::param(info, "index"), std::to_string(c.index));
  EXPECT_EQ(info->location().function().view(), "zocore::to_string()");
}

class WideStringRejectTest : public ::testing::TestWithParam<RejectCase> {};

TEST_P(WideStringRejectTest, WideUnits) {
  expect_wide_rejected(GetParam());
}

TEST_P(WideStringRejectTest, Char16Units) {
  std::u16string units;
  for (char32_t u : GetParam().units)
    units.push_back(static_cast<char16_t>(u));
  auto const info =
      ZO_EXPECT_ERROR(zocore::to_string(units.data(), static_cast<unsigned>(units.size())),
                      zocore::error::zocore_utf8, kInvalidUnit);
  EXPECT_EQ(zotest::param(info, "index"), std::to_string(GetParam().index));
}

INSTANTIATE_TEST_SUITE_P(Units, WideStringRejectTest,
                         ::testing::Values(RejectCase{"LoneHighAtEnd", {U'a', 0xD83D}, 1},
                                           RejectCase{"HighThenAscii", {0xD83D, U'a'}, 0},
                                           RejectCase{"HighThenHigh", {0xD83D, 0xD83D, 0xDE00}, 0},
                                           RejectCase{"LoneLow", {U'a', U'b', 0xDE00}, 2},
                                           RejectCase{"LowThenHigh", {0xDC00, 0xD800}, 0},
                                           RejectCase{
                                               "AfterValidPair", {0xD83D, 0xDE00, 0xDFFF}, 2}),
                         [](auto const& p) { return std::string(p.param.name); });

// Values no 16-bit unit can hold.
class WideOnlyRejectTest : public ::testing::TestWithParam<RejectCase> {};

TEST_P(WideOnlyRejectTest, WideUnits) {
  expect_wide_rejected(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Units, WideOnlyRejectTest,
                         ::testing::Values(RejectCase{"Above10FFFF", {U'a', 0x110000}, 1},
                                           RejectCase{"AllBitsSet", {0xFFFFFFFF}, 0},
                                           RejectCase{"HighThenHuge", {0xD800, 0x1DC00}, 0}),
                         [](auto const& p) { return std::string(p.param.name); });

struct MalformedCase {
  char const* hex;
  unsigned offset;
};

TEST(WideStringTest, MalformedUtf8IsRejectedWithOffset) {
  for (MalformedCase const c : {MalformedCase{"80", 0}, MalformedCase{"41 C3", 1},
                                MalformedCase{"41 42 ED A0 80", 2}, MalformedCase{"C0 AF", 0},
                                MalformedCase{"F4 90 80 80", 0}, MalformedCase{"E2 82 AC FF", 3}}) {
    std::string const text = zotest::bytes(c.hex);
    auto info = ZO_EXPECT_ERROR(zocore::to_wstring(text), zocore::error::zocore_utf8, kInvalidUtf8);
    EXPECT_EQ(zotest::param(info, "offset"), std::to_string(c.offset)) << c.hex;
    if (info) {
      EXPECT_EQ(info->location().function().view(), "zocore::to_wstring()");
    }
    info = ZO_EXPECT_ERROR(zocore::to_u16string(text.data(), static_cast<unsigned>(text.size())),
                           zocore::error::zocore_utf8, kInvalidUtf8);
    EXPECT_EQ(zotest::param(info, "offset"), std::to_string(c.offset)) << c.hex;
    if (info) {
      EXPECT_EQ(info->location().function().view(), "zocore::to_u16string()");
    }
  }
}

// Every Unicode scalar value survives UTF-32 -> UTF-8 -> UTF-16 -> UTF-8 -> UTF-32.
TEST(WideStringTest, AllScalarValuesRoundTrip) {
  std::wstring all;
  for (wchar_t c = 0; c <= 0x10FFFF; ++c) {
    if (c == 0xD800) c = 0xE000;
    all.push_back(c);
  }
  std::string const utf8 = zocore::to_string(all);
  std::u16string const utf16 =
      zocore::to_u16string(utf8.data(), static_cast<unsigned>(utf8.size()));
  EXPECT_EQ(utf16.size(), all.size() + (0x110000 - 0x10000));
  std::string const again = zocore::to_string(utf16.data(), static_cast<unsigned>(utf16.size()));
  EXPECT_EQ(again, utf8);
  EXPECT_TRUE(zocore::to_wstring(again) == all);
}

}  // namespace
