#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <zocore/core_errors.h>
#include <zocore/utf8.h>

namespace {

using zocore::find_invalid_utf8;

std::size_t first_invalid(std::string const& text) {
  return find_invalid_utf8(text.data(), text.size());
}

// Prefixes that put the sequence under test at every position within an 8-byte word and behind
// multibyte text, so that the word-at-a-time ASCII skip and the per-sequence decoder both lead
// up to it.
std::vector<std::string> prefixes() {
  std::vector<std::string> result;
  for (std::size_t n = 0; n <= 17; ++n)
    result.push_back(std::string(n, 'a'));
  result.push_back(zotest::bytes("C3 A9"));
  result.push_back(zotest::bytes("41 E2 82 AC 42 F0 9F 98 80"));
  return result;
}

struct ValidCase {
  char const* name;
  char const* hex;
};

class Utf8ValidTest : public ::testing::TestWithParam<ValidCase> {};

TEST_P(Utf8ValidTest, AcceptedBehindEveryPrefix) {
  std::string const text = zotest::bytes(GetParam().hex);
  for (std::string const& prefix : prefixes()) {
    std::string const whole = prefix + text + "tail";
    EXPECT_EQ(first_invalid(whole), whole.size()) << "prefix size " << prefix.size();
    EXPECT_TRUE(zocore::is_valid_utf8(whole.data(), whole.size()));
    EXPECT_NO_THROW(zocore::check_valid_utf8(whole.data(), static_cast<unsigned>(whole.size())));
  }
}

INSTANTIATE_TEST_SUITE_P(
    LengthClassesAndBoundaries, Utf8ValidTest,
    ::testing::Values(ValidCase{"Empty", ""}, ValidCase{"Nul", "00"}, ValidCase{"U007F", "7F"},
                      ValidCase{"U0080", "C2 80"}, ValidCase{"U07FF", "DF BF"},
                      ValidCase{"U0800", "E0 A0 80"}, ValidCase{"UD7FF", "ED 9F BF"},
                      ValidCase{"UE000", "EE 80 80"}, ValidCase{"UFFFD", "EF BF BD"},
                      ValidCase{"UFFFF", "EF BF BF"}, ValidCase{"U10000", "F0 90 80 80"},
                      ValidCase{"U1F600", "F0 9F 98 80"}, ValidCase{"U40000", "F1 80 80 80"},
                      ValidCase{"UFFFFF", "F3 BF BF BF"}, ValidCase{"U100000", "F4 80 80 80"},
                      ValidCase{"U10FFFF", "F4 8F BF BF"},
                      ValidCase{"Mixed", "48 C3 A9 E2 82 AC F0 9F 98 80 21"},
                      ValidCase{"LongAscii", "41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50"}),
    [](auto const& p) { return std::string(p.param.name); });

struct InvalidCase {
  char const* name;
  char const* hex;
  std::size_t offset;  // of the first bad byte within `hex`
};

class Utf8InvalidTest : public ::testing::TestWithParam<InvalidCase> {};

TEST_P(Utf8InvalidTest, ReportsFirstBadByteBehindEveryPrefix) {
  std::string const text = zotest::bytes(GetParam().hex);
  for (std::string const& prefix : prefixes()) {
    std::string const whole = prefix + text;
    EXPECT_EQ(first_invalid(whole), prefix.size() + GetParam().offset)
        << "prefix size " << prefix.size();
    EXPECT_FALSE(zocore::is_valid_utf8(whole.data(), whole.size()));
  }
}

TEST_P(Utf8InvalidTest, CheckThrowsWithOffset) {
  std::string const text = "ok " + zotest::bytes(GetParam().hex);
  auto const info =
      ZO_EXPECT_ERROR(zocore::check_valid_utf8(text.data(), static_cast<unsigned>(text.size())),
                      zocore::error::zocore_utf8, "Invalid UTF-8 sequence at offset {@offset}");
  ASSERT_TRUE(info);
  EXPECT_EQ(zotest::param(info, "offset"), std::to_string(3 + GetParam().offset));
  EXPECT_EQ(info->location().function().view(), "zocore::check_valid_utf8()");
}

INSTANTIATE_TEST_SUITE_P(
    Rejects, Utf8InvalidTest,
    ::testing::Values(
        // Bytes that never start a sequence.
        InvalidCase{"StrayContinuation80", "80", 0}, InvalidCase{"StrayContinuationBF", "BF", 0},
        InvalidCase{"ContinuationAfterComplete", "C3 A9 A9", 2},
        InvalidCase{"ContinuationAfterAscii", "41 42 80 43", 2}, InvalidCase{"FE", "FE", 0},
        InvalidCase{"FF", "FF", 0}, InvalidCase{"F5", "F5 80 80 80", 0},
        InvalidCase{"F7", "F7 BF BF BF", 0}, InvalidCase{"FiveByteForm", "F8 88 80 80 80", 0},
        InvalidCase{"SixByteForm", "FC 84 80 80 80 80", 0},
        // Overlong forms.
        InvalidCase{"OverlongC0", "C0 80", 0}, InvalidCase{"OverlongC1", "C1 BF", 0},
        InvalidCase{"OverlongE0_80", "E0 80 80", 0}, InvalidCase{"OverlongE0_9F", "E0 9F BF", 0},
        InvalidCase{"OverlongF0_80", "F0 80 80 80", 0},
        InvalidCase{"OverlongF0_8F", "F0 8F BF BF", 0},
        // UTF-16 surrogates.
        InvalidCase{"SurrogateD800", "ED A0 80", 0}, InvalidCase{"SurrogateDBFF", "ED AF BF", 0},
        InvalidCase{"SurrogateDC00", "ED B0 80", 0}, InvalidCase{"SurrogateDFFF", "ED BF BF", 0},
        InvalidCase{"SurrogatePair", "ED A0 BD ED B8 80", 0},
        // Beyond U+10FFFF.
        InvalidCase{"Above10FFFF", "F4 90 80 80", 0}, InvalidCase{"F4_BF", "F4 BF BF BF", 0},
        // Lead bytes followed by something other than a continuation byte.
        InvalidCase{"TwoByteThenAscii", "C3 41", 0},
        InvalidCase{"ThreeByteThenAscii", "E2 82 41", 0},
        InvalidCase{"FourByteThirdBad", "F0 9F 41 80", 0},
        InvalidCase{"FourByteFourthBad", "F0 9F 98 C0", 0},
        InvalidCase{"LeadAfterLead", "C3 C3 A9", 0},
        InvalidCase{"BadAfterValid", "E2 82 AC F0 9F 98", 3}),
    [](auto const& p) { return std::string(p.param.name); });

// A sequence cut short, whether by the end of the text or by the next character, is bad from
// its first byte.
TEST(Utf8Test, TruncatedAtEveryPosition) {
  for (char const* hex : {"C2 80", "DF BF", "E0 A0 80", "ED 9F BF", "EF BF BF", "F0 90 80 80",
                          "F4 8F BF BF", "F3 BF BF BF"}) {
    std::string const seq = zotest::bytes(hex);
    for (std::size_t cut = 1; cut < seq.size(); ++cut) {
      for (std::string const& prefix : prefixes()) {
        std::string const at_end = prefix + seq.substr(0, cut);
        EXPECT_EQ(first_invalid(at_end), prefix.size()) << hex << " cut " << cut;
        std::string const before_ascii = at_end + "xyz";
        EXPECT_EQ(first_invalid(before_ascii), prefix.size()) << hex << " cut " << cut;
      }
    }
  }
}

// Independent reference: decode arithmetically and apply the RFC 3629 rules to the value.
bool reference_valid(unsigned char const* s, std::size_t n) {
  std::size_t len;
  std::uint32_t cp;
  if (s[0] < 0x80) return n == 1;
  if ((s[0] & 0xE0) == 0xC0) {
    len = 2;
    cp = s[0] & 0x1Fu;
  } else if ((s[0] & 0xF0) == 0xE0) {
    len = 3;
    cp = s[0] & 0x0Fu;
  } else if ((s[0] & 0xF8) == 0xF0) {
    len = 4;
    cp = s[0] & 0x07u;
  } else {
    return false;
  }
  if (n != len) return false;
  for (std::size_t i = 1; i < len; ++i) {
    if ((s[i] & 0xC0) != 0x80) return false;
    cp = (cp << 6) | (s[i] & 0x3Fu);
  }
  std::uint32_t const min_for_length[] = {0, 0, 0x80, 0x800, 0x10000};
  return cp >= min_for_length[len] && cp <= 0x10FFFF && !(cp >= 0xD800 && cp <= 0xDFFF);
}

// Every lead and second byte, completed to the length the lead byte announces with either
// extreme of the continuation range, agrees with the reference.
TEST(Utf8Test, AllLeadAndSecondBytesAgreeWithReference) {
  for (unsigned lead = 0; lead < 256; ++lead) {
    unsigned const len = std::max(2u, zocore::utf8_sequence_length(static_cast<char>(lead)));
    for (unsigned second = 0; second < 256; ++second) {
      for (unsigned char filler : {0x80, 0xBF}) {
        unsigned char seq[6] = {static_cast<unsigned char>(lead),
                                static_cast<unsigned char>(second),
                                filler,
                                filler,
                                filler,
                                filler};
        std::size_t const n = std::min(len, 4u);
        bool const expected =
            reference_valid(seq, n) || (lead < 0x80 && second < 0x80);  // two ASCII characters
        bool const got = zocore::is_valid_utf8(reinterpret_cast<char const*>(seq), n);
        ASSERT_EQ(got, expected) << std::hex << lead << " " << second << " " << unsigned(filler);
      }
    }
  }
}

TEST(Utf8Test, SequenceLengthByLeadByte) {
  for (unsigned c = 0; c < 256; ++c) {
    unsigned expected = 0;
    if (c < 0x80) {
      expected = 1;
    } else if (c >= 0xC0 && c <= 0xDF) {
      expected = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
      expected = 3;
    } else if (c >= 0xF0 && c <= 0xF7) {
      expected = 4;
    } else if (c >= 0xF8 && c <= 0xFB) {
      expected = 5;
    } else if (c == 0xFC || c == 0xFD) {
      expected = 6;
    }
    EXPECT_EQ(zocore::utf8_sequence_length(static_cast<char>(c)), expected) << std::hex << c;
  }
}

struct EncodeCase {
  unsigned ucs4;
  char const* hex;  // empty: not encodable
};

class Ucs4ToUtf8Test : public ::testing::TestWithParam<EncodeCase> {};

TEST_P(Ucs4ToUtf8Test, EncodesExactlyWhenItFits) {
  std::string const expected = zotest::bytes(GetParam().hex);
  char buf[8];
  std::fill(std::begin(buf), std::end(buf), '\x55');
  unsigned const n = zocore::ucs4_char_to_utf8(GetParam().ucs4, buf, buf + sizeof buf);
  ASSERT_EQ(n, expected.size());
  EXPECT_EQ(std::string(buf, n), expected);
  EXPECT_EQ(buf[n], '\x55') << "wrote past the sequence";
  if (expected.empty()) return;
  // One byte short of room writes nothing; exactly enough room succeeds.
  std::fill(std::begin(buf), std::end(buf), '\x55');
  EXPECT_EQ(zocore::ucs4_char_to_utf8(GetParam().ucs4, buf, buf + n - 1), 0u);
  EXPECT_EQ(std::string(buf, n), std::string(n, '\x55'));
  EXPECT_EQ(zocore::ucs4_char_to_utf8(GetParam().ucs4, buf, buf + n), n);
}

INSTANTIATE_TEST_SUITE_P(
    CodePoints, Ucs4ToUtf8Test,
    ::testing::Values(EncodeCase{0x0, "00"}, EncodeCase{0x41, "41"}, EncodeCase{0x7F, "7F"},
                      EncodeCase{0x80, "C2 80"}, EncodeCase{0x7FF, "DF BF"},
                      EncodeCase{0x800, "E0 A0 80"}, EncodeCase{0x20AC, "E2 82 AC"},
                      EncodeCase{0xD7FF, "ED 9F BF"}, EncodeCase{0xD800, ""},
                      EncodeCase{0xDBFF, ""}, EncodeCase{0xDC00, ""}, EncodeCase{0xDFFF, ""},
                      EncodeCase{0xE000, "EE 80 80"}, EncodeCase{0xFFFF, "EF BF BF"},
                      EncodeCase{0x10000, "F0 90 80 80"}, EncodeCase{0x1F600, "F0 9F 98 80"},
                      EncodeCase{0x10FFFF, "F4 8F BF BF"}, EncodeCase{0x110000, ""},
                      EncodeCase{0xFFFFFFFF, ""}));

TEST(Utf8Test, EveryScalarValueEncodesToValidUtf8) {
  char buf[4];
  for (unsigned cp = 0; cp <= 0x10FFFF; ++cp) {
    unsigned const n = zocore::ucs4_char_to_utf8(cp, buf, buf + sizeof buf);
    if (cp >= 0xD800 && cp <= 0xDFFF) {
      ASSERT_EQ(n, 0u) << std::hex << cp;
      continue;
    }
    ASSERT_EQ(n, cp < 0x80 ? 1u : cp < 0x800 ? 2u : cp < 0x10000 ? 3u : 4u) << std::hex << cp;
    ASSERT_EQ(zocore::utf8_sequence_length(buf[0]), n) << std::hex << cp;
    ASSERT_TRUE(zocore::is_valid_utf8(buf, n)) << std::hex << cp;
  }
}

TEST(Utf8Test, NoRoomOrNullBufferWritesNothing) {
  char buf[4];
  EXPECT_EQ(zocore::ucs4_char_to_utf8(0x41, buf, buf), 0u);
  EXPECT_EQ(zocore::ucs4_char_to_utf8(0x41, nullptr, nullptr), 0u);
}

}  // namespace
