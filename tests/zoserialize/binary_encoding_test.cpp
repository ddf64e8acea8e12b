#include <climits>
#include <string>

#include <gtest/gtest.h>

#include <support/hex_bytes.h>
#include <zoserialize/binary_encoding.h>
#include <zoserialize/impl/integer_form.h>

namespace {

using zoserialize::impl::type_prefix_name;

TEST(BinaryEncodingTest, EveryTagByteNamesItsPrefix) {
  static char const* const kNames[16] = {
      "Null",         "Boolean",      "SignedInteger", "UnsignedInteger", "IEEE754",  "String",
      "AbsoluteTime", "RelativeTime", "Uuid",          "Binary",          "Sequence", "Marker",
      "ReservedC",    "ReservedD",    "ReservedE",     "ReservedF"};
  for (int tag = 0; tag < 256; ++tag)
    EXPECT_STREQ(type_prefix_name(tag), kNames[tag >> 4]) << tag;
  for (int value : {-1, 256, INT_MIN, INT_MAX})
    EXPECT_STREQ(type_prefix_name(value), "##UNKNOWN##") << value;
}

// The minimal forms that every archive shares: the significant bytes of an image and, for signed
// images, the sign byte.
TEST(BinaryEncodingTest, MinimalFormsDropRedundantBytesOnly) {
  struct Case {
    char const* image;
    char const* signed_part;
    unsigned char sign;
    char const* unsigned_part;
  };
  for (Case const& c :
       {Case{"", "", 0x00, ""}, Case{"00 00 00", "", 0x00, ""},
        Case{"FF FF FF FF", "", 0xFF, "FF FF FF FF"}, Case{"01", "01", 0x00, "01"},
        Case{"80", "80", 0xFF, "80"}, Case{"00 00 80", "00 80", 0x00, "80"},
        Case{"00 00 7F", "7F", 0x00, "7F"}, Case{"FF FF 7F", "FF 7F", 0xFF, "FF FF 7F"},
        Case{"FF FF 80", "80", 0xFF, "FF FF 80"}, Case{"FF 00", "FF 00", 0xFF, "FF 00"},
        Case{"00 01 00", "01 00", 0x00, "01 00"}}) {
    std::string const image = zotest::bytes(c.image);
    auto const* p = reinterpret_cast<unsigned char const*>(image.data());
    auto const size = static_cast<unsigned>(image.size());
    auto const s = zoserialize::impl::minimal_signed_form(p, size);
    auto const u = zoserialize::impl::minimal_unsigned_form(p, size);
    EXPECT_EQ(s.sign, c.sign) << c.image;
    EXPECT_EQ(s.offset + s.length, size);
    EXPECT_EQ(u.offset + u.length, size);
    EXPECT_EQ(zotest::hex(image.substr(s.offset, s.length)), c.signed_part);
    EXPECT_EQ(zotest::hex(image.substr(u.offset, u.length)), c.unsigned_part);
  }
}

}  // namespace
