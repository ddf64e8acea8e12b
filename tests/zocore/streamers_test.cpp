#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include <support/hex_bytes.h>
#include <zocore/streamers.h>

namespace {

namespace streamers = zocore::streamers;

struct DumpCase {
  char const* name;
  std::string data;
  std::uint64_t start_offset;
  char const* prefix;
  char const* expected;
};

class HexDumpTest : public ::testing::TestWithParam<DumpCase> {};

TEST_P(HexDumpTest, Golden) {
  DumpCase const& c = GetParam();
  std::ostringstream os;
  streamers::render_hex_dump(os, c.data.data(), c.data.size(), c.start_offset, c.prefix);
  EXPECT_EQ(os.str(), c.expected);
}

// The layout is that of `hexdump -C` without its closing offset line; these lines were
// produced by that tool.
INSTANTIATE_TEST_SUITE_P(
    Layouts, HexDumpTest,
    ::testing::Values(
        DumpCase{"Empty", "", 0, "", ""}, DumpCase{"EmptyWithPrefix", "", 0, ">> ", ""},
        DumpCase{"ThreeBytes", "foo", 0, "",
                 "00000000  66 6f 6f                                          |foo|"},
        DumpCase{"NonPrintable", zotest::bytes("00 1F 20 7E 7F 80 FF"), 0, "",
                 "00000000  00 1f 20 7e 7f 80 ff                              |.. ~...|"},
        DumpCase{"HalfLine", "01234567", 0, "",
                 "00000000  30 31 32 33 34 35 36 37                           |01234567|"},
        DumpCase{"PastTheMiddle", "012345678", 0, "",
                 "00000000  30 31 32 33 34 35 36 37  38                       |012345678|"},
        DumpCase{"FullLine", "0123456789abcdef", 0, "",
                 "00000000  30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66  |0123456789abcdef|"},
        DumpCase{"OneMore", "0123456789abcdefX", 0, "",
                 "00000000  30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66  |0123456789abcdef|\n"
                 "00000010  58                                                |X|"},
        DumpCase{
            "PrefixAndOffset", "0123456789abcdef0123456789", 0xabc, "  | ",
            "  | 00000abc  30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66  |0123456789abcdef|\n"
            "  | 00000acc  30 31 32 33 34 35 36 37  38 39                    |0123456789|"},
        DumpCase{"NullPrefix", "A", 0, nullptr,
                 "00000000  41                                                |A|"},
        DumpCase{"OffsetBeyond32Bits", "AB", 0x123456789aull, "",
                 "123456789a  41 42                                             |AB|"},
        DumpCase{"OffsetAtThe32BitEdge", "0123456789abcdefX", 0xfffffff8ull, "",
                 "fffffff8  30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66  |0123456789abcdef|\n"
                 "100000008  58                                                |X|"}),
    [](auto const& p) { return std::string(p.param.name); });

TEST(StreamersTest, RenderPointerIsSixteenLowercaseDigits) {
  std::ostringstream null_text;
  streamers::render_pointer(null_text, nullptr);
  EXPECT_EQ(null_text.str(), "0x0000000000000000");

  int const object = 0;
  std::ostringstream text;
  streamers::render_pointer(text, &object);
  char expected[32];
  std::snprintf(expected, sizeof expected, "0x%016" PRIxPTR,
                reinterpret_cast<std::uintptr_t>(&object));
  EXPECT_EQ(text.str(), expected);
}

TEST(StreamersTest, BooleanWritesWords) {
  std::ostringstream os;
  os << streamers::Boolean{true} << ',' << streamers::Boolean{false};
  EXPECT_EQ(os.str(), "true,false");
}

struct StringCase {
  char const* name;
  std::string text;
  char quote;
  std::size_t limit;
  std::string expected;
};

class WriteStringTest : public ::testing::TestWithParam<StringCase> {};

TEST_P(WriteStringTest, QuotesEscapesAndLimits) {
  StringCase const& c = GetParam();
  std::ostringstream os;
  streamers::String::write_string(os, c.text.data(), c.text.size(), c.quote, c.limit);
  EXPECT_EQ(os.str(), c.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Texts, WriteStringTest,
    ::testing::Values(StringCase{"Empty", "", '"', 10, R"("")"},
                      StringCase{"EmptyZeroLimit", "", '"', 0, R"("")"},
                      StringCase{"Plain", "abc", '"', 10, R"("abc")"},
                      StringCase{"QuoteAndBackslash", R"(a"b\c)", '"', 10, R"("a\"b\\c")"},
                      StringCase{"OtherQuoteNotEscaped", R"(it's "x")", '\'', 20, R"('it\'s "x"')"},
                      StringCase{"OnlyEscapes", R"(""\)", '"', 10, R"("\"\"\\")"},
                      StringCase{"ExactlyAtLimit", "abcde", '"', 5, R"("abcde")"},
                      StringCase{"OverLimit", "abcdef", '"', 5, R"("abcde"...)"},
                      StringCase{"ZeroLimit", "abc", '"', 0, R"(""...)"},
                      StringCase{"EscapeInsideLimitOnly", R"(ab"c")", '"', 3, R"("ab\""...)"},
                      StringCase{"EmbeddedNul", std::string("a\0b", 3), '"', 10,
                                 std::string("\"a\0b\"", 5)},
                      StringCase{"BytesKeptAsTheyAre", "\xC3\xA9\n", '"', 10, "\"\xC3\xA9\n\""}),
    [](auto const& p) { return std::string(p.param.name); });

}  // namespace
