#include <string>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zocore/base64.h>
#include <zocore/core_errors.h>

namespace {

constexpr char kInvalid[] = "Invalid base64 text at offset {@offset}";

struct Vector {
  char const* data;
  char const* padded;
  char const* unpadded;
};

// RFC 4648, section 10.
constexpr Vector kRfcVectors[] = {
    {"", "", ""},
    {"f", "Zg==", "Zg"},
    {"fo", "Zm8=", "Zm8"},
    {"foo", "Zm9v", "Zm9v"},
    {"foob", "Zm9vYg==", "Zm9vYg"},
    {"fooba", "Zm9vYmE=", "Zm9vYmE"},
    {"foobar", "Zm9vYmFy", "Zm9vYmFy"},
};

class Base64VectorTest : public ::testing::TestWithParam<Vector> {};

TEST_P(Base64VectorTest, EncodesBothForms) {
  std::string const data = GetParam().data;
  EXPECT_EQ(zocore::base64_encode(data.data(), data.size()), GetParam().padded);
  EXPECT_EQ(zocore::base64_encode(data.data(), data.size(), false), GetParam().unpadded);
  EXPECT_EQ(zocore::base64_encoded_size(data.size()), std::string(GetParam().padded).size());
  EXPECT_EQ(zocore::base64_encoded_size(data.size(), false),
            std::string(GetParam().unpadded).size());
}

TEST_P(Base64VectorTest, EncodeIntoBufferWritesExactlyTheSize) {
  std::string const data = GetParam().data;
  std::string out(16, '#');
  std::size_t const n = zocore::base64_encode(data.data(), data.size(), out.data());
  EXPECT_EQ(out.substr(0, n), GetParam().padded);
  EXPECT_EQ(out.substr(n), std::string(16 - n, '#'));
}

TEST_P(Base64VectorTest, DecodesBothForms) {
  EXPECT_EQ(zocore::base64_decode(GetParam().padded), GetParam().data);
  EXPECT_EQ(zocore::base64_decode(GetParam().unpadded), GetParam().data);
}

INSTANTIATE_TEST_SUITE_P(Rfc4648, Base64VectorTest, ::testing::ValuesIn(kRfcVectors));

TEST(Base64Test, FullAlphabetAndEveryByteValue) {
  std::string all;
  for (int i = 0; i < 256; ++i)
    all.push_back(static_cast<char>(i));
  std::string const encoded = zocore::base64_encode(all.data(), all.size());
  EXPECT_EQ(encoded.substr(0, 24), "AAECAwQFBgcICQoLDA0ODxAR");
  EXPECT_EQ(encoded.substr(encoded.size() - 8), "/P3+/w==");
  EXPECT_EQ(zocore::base64_decode(encoded), all);

  std::string const alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string const decoded = zocore::base64_decode(alphabet);
  EXPECT_EQ(zocore::base64_encode(decoded.data(), decoded.size()), alphabet);
}

TEST(Base64Test, RoundTripsEveryTailLength) {
  for (std::size_t size = 0; size <= 20; ++size) {
    std::string data;
    for (std::size_t i = 0; i < size; ++i)
      data.push_back(static_cast<char>(0xF7 - 13 * i));
    for (bool pad : {true, false}) {
      std::string const text = zocore::base64_encode(data.data(), data.size(), pad);
      EXPECT_EQ(text.size(), zocore::base64_encoded_size(size, pad));
      EXPECT_EQ(zocore::base64_decode(text), data) << "size " << size << " pad " << pad;
    }
  }
}

struct Reject {
  char const* text;
  std::size_t offset;
};

class Base64RejectTest : public ::testing::TestWithParam<Reject> {};

TEST_P(Base64RejectTest, ThrowsWithOffset) {
  auto const info = ZO_EXPECT_ERROR(zocore::base64_decode(GetParam().text),
                                    zocore::error::zocore_format, kInvalid);
  ASSERT_TRUE(info);
  EXPECT_EQ(zotest::param(info, "offset"), std::to_string(GetParam().offset));
  EXPECT_EQ(info->location().function().view(), "zocore::base64_decode()");
}

INSTANTIATE_TEST_SUITE_P(
    Texts, Base64RejectTest,
    ::testing::Values(
        // Characters outside the alphabet, including the URL-safe ones and whitespace.
        Reject{"Zm9v!mFy", 4}, Reject{"Zm9v!!!!", 4}, Reject{"Zm9vYmF-", 7}, Reject{"Zm9_", 3},
        Reject{"Zm9v YmFy", 4}, Reject{"Zm9v\n", 4}, Reject{"\xC3\xA9", 0}, Reject{"!=", 0},
        // A lone final character cannot make a byte.
        Reject{"Z", 1}, Reject{"Zm9vY", 5}, Reject{"Zm9vY===", 5}, Reject{"Zm9vY=", 5},
        // Padding in the wrong place, incomplete, or followed by more text.
        Reject{"=", 0}, Reject{"====", 0}, Reject{"Zm9v=", 4}, Reject{"Zm9v====", 4},
        Reject{"Zg=", 3}, Reject{"Zg=A", 3}, Reject{"Zg===", 4}, Reject{"Zm8==", 4},
        Reject{"Zg==Zg==", 4}, Reject{"Zm8=Zm8=", 4}, Reject{"Zg=9", 3},
        // Bits beyond the last byte must be zero.
        Reject{"Zh==", 1}, Reject{"Zh", 1}, Reject{"Zm9=", 2}, Reject{"Zm9", 2},
        Reject{"Zm9vYmF=", 6}));

}  // namespace
