#include <climits>

#include <gtest/gtest.h>

#include <zoserialize/impl/binary_encoding.h>

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

}  // namespace
