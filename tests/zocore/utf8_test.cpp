#include <algorithm>
#include <cstdint>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <zocore/core_errors.h>
#include <zocore/utf8.h>
#include <zocore/wide_string.h>

namespace {

static_assert(sizeof(wchar_t) == 4, "these tests assume the 32-bit wchar_t of Linux");

std::size_t first_invalid(std::string const& text) {
  return zocore::find_invalid_utf8(text.data(), text.size());
}

// Prefixes that put the sequence under test at every position within an 8-byte word and behind
// multibyte text, so that both the word-at-a-time ASCII skip and the decoder lead up to it.
std::vector<std::string> prefixes() {
  std::vector<std::string> result{zotest::bytes("C3 A9"), zotest::bytes("41 E2 82 AC F0 9F 98 80")};
  for (std::size_t n = 0; n <= 17; ++n)
    result.emplace_back(n, 'a');
  return result;
}

// Encodes scalar values only, when the room suffices, writing nothing past the sequence.
TEST(Utf8Test, Ucs4ToUtf8AtEveryBoundary) {
  // clang-format off
  std::pair<unsigned, char const*> const cases[] = {
      {0x0, "00"}, {0x7F, "7F"}, {0x80, "C2 80"}, {0x7FF, "DF BF"}, {0x800, "E0 A0 80"},
      {0xD7FF, "ED 9F BF"}, {0xD800, ""}, {0xDFFF, ""}, {0xE000, "EE 80 80"}, {0xFFFF, "EF BF BF"},
      {0x10000, "F0 90 80 80"}, {0x10FFFF, "F4 8F BF BF"}, {0x110000, ""}, {0xFFFFFFFF, ""},
  };
  // clang-format on
  for (auto const& [ucs4, hex] : cases) {
    std::string const expected = zotest::bytes(hex);
    std::string buf(8, '\x55');
    unsigned const room = expected.empty() ? 8 : static_cast<unsigned>(expected.size());
    unsigned const n = zocore::ucs4_char_to_utf8(ucs4, buf.data(), buf.data() + room);
    EXPECT_EQ(zotest::hex(buf), zotest::hex(expected + std::string(8 - n, '\x55')));
    buf.assign(8, '\x55');
    EXPECT_EQ(zocore::ucs4_char_to_utf8(ucs4, buf.data(), buf.data() + room - 1), 0u) << hex;
    EXPECT_EQ(buf, std::string(8, '\x55')) << hex;
  }
  EXPECT_EQ(zocore::ucs4_char_to_utf8(0x41, nullptr, nullptr), 0u);
}

// Checked by find_invalid_utf8 behind every prefix, and by every function that raises the error.
TEST(Utf8Test, InvalidTextReportsItsFirstBadByte) {
  // Offset of the first bad byte: stray or never-lead bytes, overlong forms, surrogates, code
  // points above U+10FFFF, sequences cut short by the end or by a byte that is no continuation.
  // clang-format off
  std::pair<char const*, std::size_t> const cases[] = {
      {"80", 0}, {"C3 A9 A9", 2}, {"FE", 0}, {"FF", 0}, {"F5 80 80 80", 0}, {"C0 80", 0},
      {"E0 9F BF", 0}, {"F0 8F BF BF", 0}, {"ED A0 80", 0}, {"F4 90 80 80", 0}, {"C3 41", 0},
      {"E2 82 41", 0}, {"F0 9F 98 C0", 0}, {"E2 82 AC F0 9F 98", 3}, {"DF", 0}, {"ED 9F", 0},
      {"F4 8F BF", 0},
  };
  // clang-format on
  for (auto const& [hex, offset] : cases) {
    for (std::string const& prefix : prefixes()) {
      std::string const text = prefix + zotest::bytes(hex);
      EXPECT_EQ(first_invalid(text), prefix.size() + offset) << hex << " behind " << prefix.size();
    }
    std::string const text = "ok " + zotest::bytes(hex);
    auto const size = static_cast<unsigned>(text.size());
    std::pair<std::function<void()>, char const*> const calls[] = {
        {[&] { zocore::check_valid_utf8(text.data(), size); }, "zocore::check_valid_utf8()"},
        {[&] { zocore::to_wstring(text); }, "zocore::to_wstring()"},
        {[&] { zocore::to_u16string(text.data(), size); }, "zocore::to_u16string()"},
    };
    for (auto const& call : calls) {
      auto const info = ZO_EXPECT_ERROR(call.first(), zocore::error::zocore_utf8,
                                        "Invalid UTF-8 sequence at offset {@offset}");
      EXPECT_EQ(zotest::param(info, "offset"), std::to_string(3 + offset)) << hex;
      EXPECT_EQ(info ? info->location().function().str() : "", call.second);
    }
  }
}

// Independent reference: decode arithmetically and apply the RFC 3629 rules to the value.
bool reference_valid(unsigned char const* s, std::size_t n) {
  if (s[0] < 0x80) return n == 1;
  std::size_t len = 0;  // leading one bits of the lead byte
  while (len < 8 && ((s[0] << len) & 0x80) != 0)
    ++len;
  if (len < 2 || len > 4 || n != len) return false;
  std::uint32_t cp = s[0] & (0x7Fu >> len);
  for (std::size_t i = 1; i < len; ++i) {
    if ((s[i] & 0xC0) != 0x80) return false;
    cp = (cp << 6) | (s[i] & 0x3Fu);
  }
  std::uint32_t const min_for_length[] = {0, 0, 0x80, 0x800, 0x10000};
  return cp >= min_for_length[len] && cp <= 0x10FFFF && !(cp >= 0xD800 && cp <= 0xDFFF);
}

// Every lead and second byte, completed with either extreme continuation byte; the sequence
// length of every lead byte.
TEST(Utf8Test, AllLeadAndSecondBytesAgreeWithReference) {
  for (unsigned lead = 0; lead < 256; ++lead) {
    std::size_t const n = std::clamp(zocore::utf8_sequence_length(static_cast<char>(lead)), 2u, 4u);
    for (unsigned second = 0; second < 256; ++second) {
      for (unsigned char const filler : {0x80, 0xBF}) {
        unsigned char const seq[4] = {static_cast<unsigned char>(lead),
                                      static_cast<unsigned char>(second), filler, filler};
        bool const expected = reference_valid(seq, n) || (lead < 0x80 && second < 0x80);
        ASSERT_EQ(zocore::is_valid_utf8(reinterpret_cast<char const*>(seq), n), expected)
            << std::hex << lead << " " << second << " " << unsigned{filler};
      }
    }
  }
  for (std::string const& prefix : prefixes()) {
    std::string const text = prefix + zotest::bytes("C2 80 E0 A0 80 ED 9F BF F4 8F BF BF") + "z";
    EXPECT_NO_THROW(zocore::check_valid_utf8(text.data(), static_cast<unsigned>(text.size())));
  }
  for (unsigned c = 0; c < 256; ++c) {
    char const length = c < 0xF8 ? "11111111111111110000000022223345"[c >> 3] : "55556600"[c & 7];
    EXPECT_EQ(zocore::utf8_sequence_length(static_cast<char>(c)), unsigned(length - '0')) << c;
  }
}

TEST(WideStringTest, ConvertsBothWaysIncludingSurrogatePairs) {
  using namespace std::string_literals;
  std::u16string const utf16 = u"\u0000A\u00E9\u07FF\u0800\uD7FF\uE000\uFFFF\U00010000\U0010FFFF"s;
  std::wstring const wide = L"\u0000A\u00E9\u07FF\u0800\uD7FF\uE000\uFFFF\U00010000\U0010FFFF"s;
  std::string const utf8 = zotest::bytes(
      "00 41 C3 A9 DF BF E0 A0 80 ED 9F BF EE 80 80 EF BF BF F0 90 80 80 F4 8F BF BF");
  EXPECT_EQ(zotest::hex(zocore::to_string(wide)), zotest::hex(utf8));
  EXPECT_EQ(zotest::hex(zocore::to_string(utf16.data(), static_cast<unsigned>(utf16.size()))),
            zotest::hex(utf8));
  // UTF-16 data carried in wchar_t units converts like char16_t text.
  EXPECT_EQ(zocore::to_string(std::wstring(utf16.begin(), utf16.end())), utf8);
  EXPECT_EQ(zocore::to_wstring(utf8), wide);
  EXPECT_EQ(zocore::to_u16string(utf8.data(), static_cast<unsigned>(utf8.size())), utf16);
  EXPECT_EQ(zocore::to_string(std::wstring()) + zocore::to_string(u"", 0), "");
  EXPECT_TRUE(zocore::to_wstring("").empty() && zocore::to_u16string("", 0).empty());
}

TEST(WideStringTest, UnpairedSurrogatesAndInvalidUnitsAreRejectedWithTheirIndex) {
  // Code units and the index of the bad one.
  std::pair<std::u32string, unsigned> const cases[] = {
      {{U'a', 0xD83D}, 1},           {{0xD83D, U'a'}, 0},   {{U'a', U'b', 0xDE00}, 2},
      {{0xD83D, 0xDE00, 0xDFFF}, 2}, {{U'a', 0x110000}, 1}, {{0xD800, 0x1DC00}, 0},
  };
  constexpr char kMessage[] =
      "Invalid UTF-16 text: unpaired surrogate or invalid code unit at index {@index}";
  for (auto const& [units, index] : cases) {
    std::wstring const wide(units.begin(), units.end());
    auto info = ZO_EXPECT_ERROR(zocore::to_string(wide), zocore::error::zocore_utf8, kMessage);
    EXPECT_EQ(zotest::param(info, "index"), std::to_string(index));
    EXPECT_EQ(info ? info->location().function().str() : "", "zocore::to_string()");
    if (std::ranges::any_of(units, [](char32_t unit) { return unit > 0xFFFF; })) continue;
    std::u16string const narrow(units.begin(), units.end());
    info = ZO_EXPECT_ERROR(zocore::to_string(narrow.data(), static_cast<unsigned>(narrow.size())),
                           zocore::error::zocore_utf8, kMessage);
    EXPECT_EQ(zotest::param(info, "index"), std::to_string(index));
  }
}

}  // namespace
