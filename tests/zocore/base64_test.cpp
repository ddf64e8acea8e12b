#include <cctype>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zocore/base64.h>
#include <zocore/core_errors.h>
#include <zocore/hex.h>

namespace {

// RFC 4648, section 10: data, base64 padded and unpadded, base16 in mixed case.
TEST(Base64Test, Rfc4648VectorsInBase64AndHex) {
  // clang-format off
  std::tuple<std::string, std::string, std::string, std::string> const vectors[] = {
      {"", "", "", ""}, {"f", "Zg==", "Zg", "66"}, {"fo", "Zm8=", "Zm8", "666F"},
      {"foo", "Zm9v", "Zm9v", "666F6f"}, {"foob", "Zm9vYg==", "Zm9vYg", "666F6f62"},
      {"fooba", "Zm9vYmE=", "Zm9vYmE", "666F6f6261"}, {"foobar", "Zm9vYmFy", "Zm9vYmFy", "666F6f626172"},
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
    std::string lower = hex;
    for (char& c : lower)
      c = static_cast<char>(std::tolower(c));
    EXPECT_EQ(zocore::hex_encode(data), lower);
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
  EXPECT_EQ(zocore::hex_digit_value('F') + zocore::hex_digit_value('a'), 25);
  EXPECT_EQ(zocore::hex_digit_value('g'), -1);
}

TEST(Base64Test, InvalidTextIsRejectedWithItsOffset) {
  // Foreign characters, a lone final character, bad padding, non-zero bits past the last byte.
  // clang-format off
  std::pair<char const*, std::size_t> const cases[] = {
      {"Zm9v!mFy", 4}, {"Zm9vYmF-", 7}, {"Zm9_", 3}, {"Zm9v YmFy", 4}, {"Zm9v\n", 4},
      {"\xC3\xA9", 0}, {"!=", 0}, {"Z", 1}, {"Zm9vY", 5}, {"Zm9vY===", 5}, {"Zm9vY=", 5}, {"=", 0},
      {"====", 0}, {"Zm9v=", 4}, {"Zm9v====", 4}, {"Zg=", 3}, {"Zg=A", 3}, {"Zg===", 4},
      {"Zm8==", 4}, {"Zg==Zg==", 4}, {"Zm8=Zm8=", 4}, {"Zh==", 1}, {"Zh", 1}, {"Zm9=", 2},
      {"Zm9", 2}, {"Zm9vYmF=", 6},
  };
  // clang-format on
  for (auto const& c : cases) {  // no structured binding: Clang 14 cannot capture one
    auto const info = ZO_EXPECT_ERROR(zocore::base64_decode(c.first), zocore::error::zocore_format,
                                      "Invalid base64 text at offset {@offset}");
    EXPECT_EQ(zotest::param(info, "offset"), std::to_string(c.second)) << c.first;
    EXPECT_EQ(info ? info->location().function().str() : "", "zocore::base64_decode()");
  }
}

TEST(HexTest, InvalidTextIsRejectedWithItsOffset) {
  for (auto const& c :
       {std::pair{"g0", 0}, std::pair{"0g", 1}, std::pair{"00 11", 2}, std::pair{"0x10", 1},
        std::pair{"abcdeG", 5}, std::pair{"a", 1}, std::pair{"abc", 3}, std::pair{"abz", 2},
        std::pair{"ab\xC3\xA9", 2}, std::pair{"-1", 0}}) {
    auto const info = ZO_EXPECT_ERROR(zocore::hex_decode(c.first), zocore::error::zocore_format,
                                      "Invalid hexadecimal text at offset {@offset}");
    EXPECT_EQ(zotest::param(info, "offset"), std::to_string(c.second)) << c.first;
    EXPECT_EQ(info ? info->location().function().str() : "", "zocore::hex_decode()");
  }
}

}  // namespace
