#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zocore/base64.h>
#include <zocore/core_errors.h>
#include <zocore/hex.h>

namespace {

// RFC 4648, section 10: data, base64 padded and unpadded, base16.
TEST(Base64Test, Rfc4648VectorsInBase64AndHex) {
  // clang-format off
  std::tuple<std::string, std::string, std::string, std::string> const vectors[] = {
      {"", "", "", ""}, {"f", "Zg==", "Zg", "66"}, {"fo", "Zm8=", "Zm8", "666f"},
      {"foo", "Zm9v", "Zm9v", "666f6f"}, {"foob", "Zm9vYg==", "Zm9vYg", "666f6f62"},
      {"fooba", "Zm9vYmE=", "Zm9vYmE", "666f6f6261"}, {"foobar", "Zm9vYmFy", "Zm9vYmFy", "666f6f626172"},
  };
  // clang-format on
  for (auto const& [data, padded, unpadded, hex] : vectors) {
    EXPECT_EQ(zocore::base64_encode(data.data(), data.size()), padded);
    EXPECT_EQ(zocore::base64_encode(data.data(), data.size(), false), unpadded);
    EXPECT_EQ(zocore::base64_encoded_size(data.size()), padded.size());
    EXPECT_EQ(zocore::base64_encoded_size(data.size(), false), unpadded.size());
    std::string out(16, '#');
    out.resize(zocore::base64_encode(data.data(), data.size(), out.data()) + 1);
    EXPECT_EQ(out, padded + "#");
    EXPECT_EQ(zocore::base64_decode(padded), data);
    EXPECT_EQ(zocore::base64_decode(unpadded), data);
    EXPECT_EQ(zocore::hex_encode(data), hex);
    EXPECT_EQ(zocore::hex_decode(hex), data);
  }
}

TEST(Base64Test, EveryByteValueAndTheWholeAlphabet) {
  std::string all;
  for (int i = 0; i < 256; ++i)
    all.push_back(static_cast<char>(i));
  std::string const encoded = zocore::base64_encode(all.data(), all.size());
  EXPECT_EQ(encoded.substr(0, 24) + encoded.substr(encoded.size() - 8),
            "AAECAwQFBgcICQoLDA0ODxAR/P3+/w==");
  EXPECT_EQ(zocore::base64_decode(encoded), all);
  std::string const alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string const decoded = zocore::base64_decode(alphabet);
  EXPECT_EQ(zocore::base64_encode(decoded.data(), decoded.size()), alphabet);
  std::string hex(514, '#');
  zocore::hex_encode(all.data(), all.size(), hex.data());
  EXPECT_EQ(hex.substr(0, 8) + hex.substr(504), "00010203fcfdfeff##");
  EXPECT_EQ(zocore::hex_decode(hex.substr(0, 512)), all);
  EXPECT_EQ(zocore::hex_decode("09AFaf"), "\x09\xAF\xAF");
  EXPECT_EQ(zocore::hex_digit_value('F') + zocore::hex_digit_value('a'), 25);
  EXPECT_EQ(zocore::hex_digit_value('g'), -1);
}

// Base64: foreign characters, a lone final character, bad padding, non-zero bits past the last
// byte. Hex: foreign characters, an odd count.
TEST(Base64Test, InvalidTextIsRejectedWithItsOffset) {
  // clang-format off
  std::tuple<bool, char const*, std::size_t> const cases[] = {  // base64 (or hex), text, offset
      {1, "Zm9v!mFy", 4}, {1, "Zm9vYmF-", 7}, {1, "Zm9_", 3}, {1, "\xC3\xA9", 0}, {1, "Z", 1},
      {1, "Zm9vY", 5}, {1, "Zm9vY===", 5}, {1, "=", 0}, {1, "Zm9v=", 4}, {1, "Zg=", 3},
      {1, "Zg=A", 3}, {1, "Zg===", 4}, {1, "Zm8==", 4}, {1, "Zg==Zg==", 4}, {1, "Zh==", 1},
      {1, "Zh", 1}, {1, "Zm9=", 2}, {1, "Zm9", 2}, {0, "g0", 0}, {0, "0g", 1}, {0, "abcdeG", 5},
      {0, "a", 1}, {0, "abc", 3}, {0, "ab\xC3\xA9", 2},
  };
  // clang-format on
  for (auto const& c : cases) {  // no structured binding: Clang 14 cannot capture one
    char const* const text = std::get<1>(c);
    bool const base64 = std::get<0>(c);
    auto const info =
        ZO_EXPECT_ERROR(base64 ? zocore::base64_decode(text) : zocore::hex_decode(text),
                        zocore::error::zocore_format,
                        base64 ? "Invalid base64 text at offset {@offset}"
                               : "Invalid hexadecimal text at offset {@offset}");
    EXPECT_EQ(zotest::param(info, "offset"), std::to_string(std::get<2>(c))) << text;
    EXPECT_EQ(info ? info->location().function().str() : "",
              base64 ? "zocore::base64_decode()" : "zocore::hex_decode()");
  }
}

}  // namespace
