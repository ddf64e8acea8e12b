#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include <support/hex_bytes.h>
#include <zoserialize/binary_encoding.h>
#include <zoserialize/impl/integer_form.h>

namespace {

using zoserialize::impl::ETypePrefix;
using zoserialize::impl::minimal_signed_form;
using zoserialize::impl::minimal_unsigned_form;
using zoserialize::impl::type_prefix_name;

TEST(BinaryEncodingTest, EveryTagByteNamesItsPrefix) {
  static char const* const kNames[16] = {
      "Null",         "Boolean",      "SignedInteger", "UnsignedInteger", "IEEE754",  "String",
      "AbsoluteTime", "RelativeTime", "Uuid",          "Binary",          "Sequence", "Marker",
      "ReservedC",    "ReservedD",    "ReservedE",     "ReservedF"};
  for (int tag = 0; tag < 256; ++tag) {
    EXPECT_STREQ(type_prefix_name(tag), kNames[tag >> 4]) << "tag " << tag;
  }
}

TEST(BinaryEncodingTest, ValuesOutsideATagByteAreUnknown) {
  for (int value : {-1, -256, 256, 0x1000, INT32_MIN, INT32_MAX}) {
    EXPECT_STREQ(type_prefix_name(value), "##UNKNOWN##") << value;
  }
}

TEST(BinaryEncodingTest, PrefixesAreTheHighNibbles) {
  EXPECT_EQ(zoserialize::impl::prefix_value(ETypePrefix::Null), 0x00);
  EXPECT_EQ(zoserialize::impl::prefix_value(ETypePrefix::String), 0x50);
  EXPECT_EQ(zoserialize::impl::prefix_value(ETypePrefix::Binary), 0x90);
  EXPECT_EQ(zoserialize::impl::prefix_value(ETypePrefix::Marker), 0xB0);
  EXPECT_EQ(zoserialize::impl::prefix_value(ETypePrefix::ReservedF), 0xF0);
}

// The minimal forms every archive shares. Expected: the significant bytes as hex (and for signed
// images the sign byte).
struct SignedFormCase {
  char const* image;
  char const* significant;
  unsigned char sign;
};

class MinimalSignedFormTest : public ::testing::TestWithParam<SignedFormCase> {};

TEST_P(MinimalSignedFormTest, KeepsOneSignByteWhereTheSignWouldFlip) {
  std::string const image = zotest::bytes(GetParam().image);
  auto const* p = reinterpret_cast<unsigned char const*>(image.data());
  auto const form = minimal_signed_form(p, static_cast<unsigned>(image.size()));
  EXPECT_EQ(form.sign, GetParam().sign);
  EXPECT_EQ(form.offset + form.length, image.size());
  EXPECT_EQ(zotest::hex(image.substr(form.offset, form.length)),
            zotest::hex(zotest::bytes(GetParam().significant)));
}

INSTANTIATE_TEST_SUITE_P(
    Images, MinimalSignedFormTest,
    ::testing::Values(
        SignedFormCase{"", "", 0x00}, SignedFormCase{"00", "", 0x00},
        SignedFormCase{"00 00 00", "", 0x00}, SignedFormCase{"FF", "", 0xFF},
        SignedFormCase{"FF FF FF FF", "", 0xFF}, SignedFormCase{"01", "01", 0x00},
        SignedFormCase{"7F", "7F", 0x00}, SignedFormCase{"80", "80", 0xFF},
        SignedFormCase{"00 80", "00 80", 0x00}, SignedFormCase{"00 00 80", "00 80", 0x00},
        SignedFormCase{"00 00 7F", "7F", 0x00}, SignedFormCase{"FF FF 7F", "FF 7F", 0xFF},
        SignedFormCase{"FF FF 80", "80", 0xFF}, SignedFormCase{"FF 00", "FF 00", 0xFF},
        SignedFormCase{"00 01 00", "01 00", 0x00},
        SignedFormCase{"80 00 00 00", "80 00 00 00", 0xFF}));

struct UnsignedFormCase {
  char const* image;
  char const* significant;
};

class MinimalUnsignedFormTest : public ::testing::TestWithParam<UnsignedFormCase> {};

TEST_P(MinimalUnsignedFormTest, DropsLeadingZeroBytesOnly) {
  std::string const image = zotest::bytes(GetParam().image);
  auto const* p = reinterpret_cast<unsigned char const*>(image.data());
  auto const form = minimal_unsigned_form(p, static_cast<unsigned>(image.size()));
  EXPECT_EQ(form.offset + form.length, image.size());
  EXPECT_EQ(zotest::hex(image.substr(form.offset, form.length)),
            zotest::hex(zotest::bytes(GetParam().significant)));
}

INSTANTIATE_TEST_SUITE_P(Images, MinimalUnsignedFormTest,
                         ::testing::Values(UnsignedFormCase{"", ""}, UnsignedFormCase{"00", ""},
                                           UnsignedFormCase{"00 00", ""},
                                           UnsignedFormCase{"80", "80"},
                                           UnsignedFormCase{"00 80", "80"},
                                           UnsignedFormCase{"FF FF", "FF FF"},
                                           UnsignedFormCase{"00 01 00", "01 00"}));

TEST(BinaryEncodingTest, LoadsSignExtendAndZeroExtend) {
  unsigned char const minus_two[] = {0xFF, 0xFE};
  unsigned char const top_bit[] = {0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
  EXPECT_EQ(zoserialize::impl::load_signed(minus_two, 2), -2);
  EXPECT_EQ(zoserialize::impl::load_unsigned(minus_two, 2), 0xFFFEu);
  EXPECT_EQ(zoserialize::impl::load_signed(top_bit, 8), INT64_MIN);
  EXPECT_EQ(zoserialize::impl::load_unsigned(top_bit, 8), 0x8000000000000000u);
  EXPECT_EQ(zoserialize::impl::load_signed(top_bit, 0), 0);
}

}  // namespace
