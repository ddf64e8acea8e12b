#include <cinttypes>
#include <cstdio>

#include <gtest/gtest.h>

#include <support/hex_bytes.h>
#include <zocore/streamers.h>

namespace {

namespace streamers = zocore::streamers;

// The lines were produced by `hexdump -C` (without its closing offset line).
TEST(StreamersTest, HexDumpGoldenText) {
  std::tuple<std::string, std::uint64_t, char const*, char const*> const cases[] = {
      {"", 0, ">> ", ""},
      {zotest::bytes("00 1F 20 7E 7F 80 FF"), 0, "",
       "00000000  00 1f 20 7e 7f 80 ff                              |.. ~...|"},
      {"0123456789abcdef", 0, nullptr,
       "00000000  30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66  |0123456789abcdef|"},
      {"012345678", 0, "",
       "00000000  30 31 32 33 34 35 36 37  38                       |012345678|"},
      {"0123456789abcdef0123456789", 0xabc, "  | ",
       "  | 00000abc  30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66  |0123456789abcdef|\n"
       "  | 00000acc  30 31 32 33 34 35 36 37  38 39                    |0123456789|"},
      {"0123456789abcdefX", 0xfffffff8ull, "",
       "fffffff8  30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66  |0123456789abcdef|\n"
       "100000008  58                                                |X|"},
  };
  for (auto const& [data, start_offset, prefix, expected] : cases) {
    std::ostringstream os;
    streamers::render_hex_dump(os, data.data(), data.size(), start_offset, prefix);
    EXPECT_EQ(os.str(), expected);
  }
}

TEST(StreamersTest, PointerAndBoolean) {
  int const object = 0;
  std::ostringstream os;
  streamers::render_pointer(os << streamers::Boolean{true} << ',' << streamers::Boolean{false},
                            nullptr);
  streamers::render_pointer(os << ' ', &object);
  char expected[64];
  std::snprintf(expected, sizeof expected, "true,false0x0000000000000000 0x%016" PRIxPTR,
                reinterpret_cast<std::uintptr_t>(&object));
  EXPECT_EQ(os.str(), expected);
}

TEST(StreamersTest, QuotedStringEscapesAndLimits) {
  // clang-format off
  std::tuple<std::string, char, std::size_t, std::string> const cases[] = {
      {"", '"', 0, R"("")"}, {R"(a"b\c)", '"', 10, R"("a\"b\\c")"}, {"abc", '"', 0, R"(""...)"},
      {R"(it's "x")", '\'', 20, R"('it\'s "x"')"}, {"abcde", '"', 5, R"("abcde")"},
      {"abcdef", '"', 5, R"("abcde"...)"}, {R"(ab"c")", '"', 3, R"("ab\""...)"},
      {std::string("a\0b\xC3\xA9\n", 6), '"', 10, std::string("\"a\0b\xC3\xA9\n\"", 8)}};
  // clang-format on
  for (auto const& [text, quote, limit, expected] : cases) {
    std::ostringstream os;
    streamers::String::write_string(os, text.data(), text.size(), quote, limit);
    EXPECT_EQ(os.str(), expected);
  }
}

}  // namespace
