// Decoding of the binary encoding, observed through the stream reader (the base does all element
// decoding; the stream reader only supplies bytes). Every case runs with a one-byte read-ahead
// buffer, where every access takes the hooks, and a large one, where the decoder reads from its
// input window.
#include <cstdint>
#include <cstdio>
#include <functional>
#include <limits>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/binary_golden.h>
#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <support/recording_writer.h>
#include <support/test_streams.h>
#include <zocore/core_errors.h>
#include <zocore/memory_stream.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/error_codes.h>

namespace {

namespace error = zoserialize::error;
using zoserialize::BinaryReader;
using zoserialize::BinaryWriter;
using zoserialize::Reader;
using zotest::ByteSource;
using EToken = Reader::EToken;

constexpr unsigned kBuffers[] = {1, 4096};

std::unique_ptr<BinaryReader> reader_of(std::string bytes, unsigned buffer = 4096) {
  return std::make_unique<BinaryReader>(zocore::make_ref_counted<ByteSource>(std::move(bytes)),
                                        buffer);
}

std::unique_ptr<BinaryReader> reader_of_hex(std::string_view hex, unsigned buffer = 4096) {
  return reader_of(zotest::bytes(hex), buffer);
}

// ---- Every tag byte -------------------------------------------------------------------------

// What the format says about one tag byte, and a whole well-formed element that starts with it.
struct TagSpec {
  enum EKind { kValid, kUnexpected, kQuadruple, kStray, kReserved };
  EToken token = EToken::Unknown;
  EKind kind = kUnexpected;
  std::string element;
};

std::string repeat(char c, std::size_t n) {
  return std::string(n, c);
}

TagSpec spec_for(unsigned tag) {
  unsigned const prefix = tag & 0xF0;
  unsigned const nibble = tag & 0x0F;
  TagSpec s;
  s.element = std::string(1, static_cast<char>(tag));
  auto valid = [&](std::string const& payload) {
    s.kind = TagSpec::kValid;
    s.element += payload;
  };
  switch (prefix) {
    case 0x00:
      s.token = EToken::Null;
      if (nibble == 0) valid("");
      break;
    case 0x10:
      s.token = EToken::Boolean;
      if (nibble <= 1) valid("");
      break;
    case 0x20:
    case 0x30:
      s.token = prefix == 0x20 ? EToken::SignedInteger : EToken::UnsignedInteger;
      if (nibble == 0 || nibble == 1 || (nibble == 2 && prefix == 0x20)) valid("");
      if (nibble >= 4 && nibble <= 10) valid(repeat('\0', (1u << (nibble - 4)) - 1) + "\x05");
      break;
    case 0x40:
      s.token = EToken::Double;
      if (nibble <= 2) valid("");
      if (nibble >= 4 && nibble <= 7) {
        unsigned const width[] = {2, 3, 4, 8};
        valid(std::string("\x3F\xF0", 2) + repeat('\0', width[nibble - 4] - 2));
      }
      if (nibble >= 8 && nibble <= 11) s.kind = TagSpec::kQuadruple;
      break;
    case 0x50:
    case 0x90: {
      s.token = prefix == 0x50 ? EToken::String : EToken::Binary;
      char const end = static_cast<char>(prefix | 0xF);
      if (nibble <= 7) valid(repeat('a', nibble));
      if (nibble == 8) valid(zotest::bytes("01 61"));
      if (nibble == 9) valid(zotest::bytes("00 01 61"));
      if (nibble == 10) valid(zotest::bytes("00 00 00 01 61"));
      if (nibble == 11) valid(zotest::bytes("01 61") + end);
      if (nibble == 12) valid(zotest::bytes("00 01 61") + end);
      break;
    }
    case 0x60:
    case 0x70:
      s.token = prefix == 0x60 ? EToken::AbsoluteTime : EToken::RelativeTime;
      if (nibble <= 1) valid("");
      if (nibble == 4) valid("\xFF\xFF\xFF\xFE");
      if (nibble == 5) valid(repeat('\xFF', 7) + "\xFE");
      break;
    case 0x80:
      s.token = EToken::Uuid;
      if (nibble == 0) valid("");
      if (nibble == 1) valid(repeat('\x11', 16));
      break;
    case 0xA0:
      s.token = nibble == 0xE   ? EToken::SequenceSeparator
                : nibble == 0xF ? EToken::SequenceEnd
                                : EToken::SequenceStart;
      if (nibble >= 0xE) s.kind = TagSpec::kStray;
      if (nibble <= 7) {
        std::string body;
        for (unsigned i = 0; i < nibble; ++i)
          body += i == 0 ? std::string(1, '\0') : std::string("\xAE\x00", 2);
        valid(body + "\xAF");
      }
      if (nibble >= 8 && nibble <= 0xB) {
        valid(repeat('\0', (1u << (nibble - 8)) - 1) + std::string("\x01\x00\xAF", 3));
      }
      break;
    case 0xB0:
      s.token = (nibble == 0 || (nibble >= 4 && nibble <= 7)) ? EToken::MarkerStart
                : nibble == 0xF                               ? EToken::MarkerEnd
                                                              : EToken::Unknown;
      if (nibble == 0xF) s.kind = TagSpec::kStray;
      if (nibble == 0) valid(std::string("\x00\xBF", 2));
      // Nine content bytes: a sized marker skipped unread must not be smaller than its header.
      if (nibble >= 4 && nibble <= 7) {
        valid(repeat('\0', (1u << (nibble - 4)) - 1) + "\x09" + repeat('\0', 9) + "\xBF");
      }
      break;
    default:
      s.token = EToken::Unknown;
      s.kind = TagSpec::kReserved;
      break;
  }
  return s;
}

// Reads the element of a valid tag with the operation that matches its prefix and checks the
// value the payload of spec_for() encodes.
void read_matching(Reader& r, unsigned tag) {
  unsigned const nibble = tag & 0x0F;
  switch (tag & 0xF0) {
    case 0x00:
      r.read_null();
      return;
    case 0x10:
      EXPECT_EQ(r.read_bool(), nibble == 1);
      return;
    case 0x20:
      EXPECT_EQ(r.read_int64(), nibble == 0 ? 0 : nibble == 1 ? 1 : nibble == 2 ? -1 : 5);
      return;
    case 0x30:
      EXPECT_EQ(r.read_uint64(), nibble == 0 ? 0u : nibble == 1 ? 1u : 5u);
      return;
    case 0x40:
      EXPECT_EQ(r.read_double(), nibble == 0 ? 0.0 : nibble == 2 ? -1.0 : 1.0);
      return;
    case 0x50:
      EXPECT_EQ(r.read_string(), nibble <= 7 ? repeat('a', nibble) : "a");
      return;
    case 0x90:
      EXPECT_EQ(zotest::read_all(*r.read_binary()), nibble <= 7 ? repeat('a', nibble) : "a");
      return;
    case 0x60:
    case 0x70: {
      std::int64_t const count =
          (tag & 0xF0) == 0x60 ? r.read_absolute_time().count() : r.read_relative_time().count();
      EXPECT_EQ(count, nibble == 0   ? 0
                       : nibble == 1 ? std::numeric_limits<std::int64_t>::max()
                                     : -2);
      return;
    }
    case 0x80: {
      zoserialize::Uuid const id = r.read_uuid();
      if (nibble == 0) {
        EXPECT_TRUE(id.is_null());
      } else {
        EXPECT_EQ(id.as_string(), "11111111-1111-1111-1111-111111111111");
      }
      return;
    }
    case 0xA0: {
      unsigned const hint = r.read_sequence_start();
      EXPECT_EQ(hint, nibble <= 7 ? nibble : 1u);
      unsigned n = 0;
      while (r.read_sequence_next()) {
        r.read_null();
        ++n;
      }
      EXPECT_EQ(n, hint);
      return;
    }
    case 0xB0:
      r.read_marker_start();
      if (nibble == 0) {
        EXPECT_FALSE(r.read_marker_is_end());
        r.read_null();
        EXPECT_TRUE(r.read_marker_is_end());
      }
      r.read_marker_end();  // a sized marker is skipped by its size
      return;
    default:
      FAIL() << "no matching read for tag " << tag;
  }
}

// The matching read for tags that are not valid (it consumes the tag and fails).
void read_by_prefix(Reader& r, unsigned tag) {
  switch (tag & 0xF0) {
    case 0x00:
      r.read_null();
      return;
    case 0x10:
      r.read_bool();
      return;
    case 0x20:
      r.read_int32();
      return;
    case 0x30:
      r.read_uint32();
      return;
    case 0x40:
      r.read_double();
      return;
    case 0x50:
      r.read_string();
      return;
    case 0x60:
      r.read_absolute_time();
      return;
    case 0x70:
      r.read_relative_time();
      return;
    case 0x80:
      r.read_uuid();
      return;
    case 0x90:
      r.read_binary();
      return;
    case 0xA0:
      r.read_sequence_start();
      return;
    case 0xB0:
      r.read_marker_start();
      return;
    default:
      r.read_null();
      return;
  }
}

std::string decimal(unsigned v) {
  return std::to_string(v);
}

class BinaryReaderBaseTagTest : public ::testing::TestWithParam<int> {};

TEST_P(BinaryReaderBaseTagTest, NextTokenReportsTheKindWithoutConsuming) {
  auto const tag = static_cast<unsigned>(GetParam());
  TagSpec const spec = spec_for(tag);
  for (unsigned buffer : kBuffers) {
    auto const r = reader_of(spec.element, buffer);
    EXPECT_EQ(r->next_token(), spec.token);
    EXPECT_EQ(r->next_token(), spec.token);
    EXPECT_EQ(r->position(), 0u);
  }
}

TEST_P(BinaryReaderBaseTagTest, MatchingReadAcceptsOrRejectsTheTag) {
  auto const tag = static_cast<unsigned>(GetParam());
  TagSpec const spec = spec_for(tag);
  std::string const type = zoserialize::impl::type_prefix_name(static_cast<int>(tag));
  for (unsigned buffer : kBuffers) {
    SCOPED_TRACE(::testing::Message() << "buffer " << buffer);
    auto const r = reader_of(spec.element, buffer);
    switch (spec.kind) {
      case TagSpec::kValid:
        read_matching(*r, tag);
        EXPECT_TRUE(r->is_eof());
        EXPECT_EQ(r->position(), spec.element.size());
        break;
      case TagSpec::kUnexpected:
      case TagSpec::kStray: {
        auto const info =
            ZO_EXPECT_ERROR(read_by_prefix(*r, tag), error::zoserialize_reader_data_type,
                            "Tag has unexpected value.  Type={@tagType}, Value={@tagValue}");
        EXPECT_EQ(zotest::param(info, "tagType"), type);
        EXPECT_EQ(zotest::param(info, "tagValue"), decimal(tag));
        EXPECT_EQ(r->position(), 1u) << "the tag is consumed";
        break;
      }
      case TagSpec::kQuadruple: {
        auto const info = ZO_EXPECT_ERROR(
            r->read_double(), error::zoserialize_reader_unsupported,
            "Reading of quadruple IEEE-754 marshaled representation not yet supported");
        ASSERT_TRUE(info);
        EXPECT_EQ(info->location().function().view(),
                  "zoserialize::BinaryReaderBase::read_double()");
        break;
      }
      case TagSpec::kReserved: {
        auto const info =
            ZO_EXPECT_ERROR(r->read_null(), error::zoserialize_reader_data_type_mismatch,
                            "Current tag has unexpected type prefix.  Expected={@expectedType}, "
                            "Actual={@actualType} (ActualTag={@actualTag})");
        EXPECT_EQ(zotest::param(info, "expectedType"), "Null");
        EXPECT_EQ(zotest::param(info, "actualType"), type);
        EXPECT_EQ(zotest::param(info, "actualTag"), decimal(tag));
        break;
      }
    }
  }
}

TEST_P(BinaryReaderBaseTagTest, ReadOfAnotherTypeFailsAndLeavesTheTag) {
  auto const tag = static_cast<unsigned>(GetParam());
  TagSpec const spec = spec_for(tag);
  bool const is_bool = (tag & 0xF0) == 0x10;
  for (unsigned buffer : kBuffers) {
    auto const r = reader_of(spec.element, buffer);
    auto const info =
        ZO_EXPECT_ERROR(is_bool ? r->read_null() : static_cast<void>(r->read_bool()),
                        error::zoserialize_reader_data_type_mismatch,
                        "Current tag has unexpected type prefix.  Expected={@expectedType}, "
                        "Actual={@actualType} (ActualTag={@actualTag})");
    ASSERT_TRUE(info);
    EXPECT_EQ(zotest::param(info, "expectedType"), is_bool ? "Null" : "Boolean");
    EXPECT_EQ(zotest::param(info, "actualType"),
              zoserialize::impl::type_prefix_name(static_cast<int>(tag)));
    EXPECT_EQ(zotest::param(info, "actualTag"), decimal(tag));
    EXPECT_EQ(info->location().function().view(),
              "zoserialize::BinaryReader::impl_read_tag_check_type()");
    EXPECT_EQ(r->position(), 0u);
    EXPECT_EQ(r->next_token(), spec.token);
  }
}

TEST_P(BinaryReaderBaseTagTest, SkipElementSkipsOrRejectsTheTag) {
  auto const tag = static_cast<unsigned>(GetParam());
  TagSpec const spec = spec_for(tag);
  std::string const type = zoserialize::impl::type_prefix_name(static_cast<int>(tag));
  for (unsigned buffer : kBuffers) {
    SCOPED_TRACE(::testing::Message() << "buffer " << buffer);
    auto const r = reader_of(spec.element, buffer);
    switch (spec.kind) {
      case TagSpec::kValid:
        r->skip_element();
        EXPECT_TRUE(r->is_eof());
        break;
      case TagSpec::kUnexpected:
      case TagSpec::kStray: {
        auto const info =
            ZO_EXPECT_ERROR(r->skip_element(), error::zoserialize_reader_data_type,
                            "Tag has unexpected value.  Type={@tagType}, Value={@tagValue}");
        EXPECT_EQ(zotest::param(info, "tagType"), type);
        EXPECT_EQ(zotest::param(info, "tagValue"), decimal(tag));
        EXPECT_EQ(r->position(), 1u) << "the tag is consumed";
        break;
      }
      case TagSpec::kQuadruple:
        ZO_EXPECT_ERROR(r->skip_element(), error::zoserialize_reader_unsupported,
                        "Reading of quadruple IEEE-754 marshaled representation not yet supported");
        break;
      case TagSpec::kReserved: {
        auto const info = ZO_EXPECT_ERROR(
            r->skip_element(), error::zoserialize_reader_data_type,
            "Current tag has unknown type prefix.  Actual={@actualType} (ActualTag={@actualTag})");
        ASSERT_TRUE(info);
        EXPECT_EQ(zotest::param(info, "actualType"), type);
        EXPECT_EQ(zotest::param(info, "actualTag"), decimal(tag));
        EXPECT_EQ(info->location().function().view(),
                  "zoserialize::BinaryReaderBase::skip_element()");
        break;
      }
    }
  }
}

class BinaryReaderBaseValidTagTest : public ::testing::TestWithParam<int> {};

TEST_P(BinaryReaderBaseValidTagTest, CopyOfTheElementComparesEqual) {
  auto const tag = static_cast<unsigned>(GetParam());
  TagSpec const spec = spec_for(tag);
  auto const sink = zocore::make_ref_counted<zocore::StringWriteStream>();
  {
    auto const r = reader_of(spec.element, 1);
    BinaryWriter writer(sink, 0);
    r->read_copy(writer);
    EXPECT_TRUE(r->is_eof());
    writer.close();
  }
  auto const original = reader_of(spec.element);
  auto const copy = reader_of(sink->str());
  EXPECT_TRUE(Reader::read_compare_equal_all(*original, *copy)) << zotest::hex(sink->str());
}

std::string tag_name(::testing::TestParamInfo<int> const& p) {
  char name[8];
  std::snprintf(name, sizeof name, "Tag%02X", p.param);
  return name;
}

std::vector<int> valid_tags() {
  std::vector<int> tags;
  for (int tag = 0; tag < 256; ++tag) {
    if (spec_for(static_cast<unsigned>(tag)).kind == TagSpec::kValid) tags.push_back(tag);
  }
  return tags;
}

INSTANTIATE_TEST_SUITE_P(AllTags, BinaryReaderBaseTagTest, ::testing::Range(0, 256), tag_name);
INSTANTIATE_TEST_SUITE_P(ValidTags, BinaryReaderBaseValidTagTest, ::testing::ValuesIn(valid_tags()),
                         tag_name);

// ---- Integers into images of any width
// ------------------------------------------------------------

struct IntegerReadCase {
  char const* encoding;
  bool is_signed;
  unsigned size;
  char const* image;     // expected image, or null for the range failure
  unsigned actual_bits;  // reported by the range failure
};

std::ostream& operator<<(std::ostream& os, IntegerReadCase const& c) {
  return os << c.encoding << " into " << c.size;
}

class BinaryReaderBaseIntegerTest : public ::testing::TestWithParam<IntegerReadCase> {};

TEST_P(BinaryReaderBaseIntegerTest, ExtendsNarrowsOrRefuses) {
  IntegerReadCase const& c = GetParam();
  for (unsigned buffer : kBuffers) {
    auto const r = reader_of_hex(c.encoding, buffer);
    std::string image(c.size, '?');
    auto read = [&] {
      if (c.is_signed) {
        r->read_int_big_endian(image.data(), c.size);
      } else {
        r->read_uint_big_endian(image.data(), c.size);
      }
    };
    if (c.image) {
      read();
      EXPECT_EQ(zotest::hex(image), zotest::hex(zotest::bytes(c.image)));
      EXPECT_TRUE(r->is_eof());
      continue;
    }
    // The same text for unsigned values, "signed" included.
    auto const info = ZO_EXPECT_ERROR(
        read(), error::zoserialize_reader_data_type_range,
        "Number of bits required to represent marshaled signed number exceeds expected number "
        "of bits.  Expected={@expectedBits}bits, Actual={@actualBits}bits");
    ASSERT_TRUE(info);
    EXPECT_EQ(zotest::param(info, "expectedBits"), std::to_string(c.size * 8));
    EXPECT_EQ(zotest::param(info, "actualBits"), std::to_string(c.actual_bits));
    EXPECT_EQ(info->nested_errno(), 34);
    EXPECT_EQ(info->location().function().view(),
              c.is_signed ? "zoserialize::BinaryReaderBase::read_int_big_endian()"
                          : "zoserialize::BinaryReaderBase::read_uint_big_endian()");
  }
}

INSTANTIATE_TEST_SUITE_P(
    Widths, BinaryReaderBaseIntegerTest,
    ::testing::Values(
        IntegerReadCase{"24 80", true, 4, "FF FF FF 80", 0},
        IntegerReadCase{"24 7F", true, 4, "00 00 00 7F", 0},
        IntegerReadCase{"26 FF FF FF 80", true, 1, "80", 0},
        IntegerReadCase{"26 00 00 00 7F", true, 1, "7F", 0},
        IntegerReadCase{"21", true, 8, "00 00 00 00 00 00 00 01", 0},
        IntegerReadCase{"22", true, 3, "FF FF FF", 0}, IntegerReadCase{"20", true, 0, "", 0},
        IntegerReadCase{"21", true, 0, nullptr, 8}, IntegerReadCase{"22", true, 0, nullptr, 8},
        IntegerReadCase{"24 05", true, 0, nullptr, 8},
        IntegerReadCase{"25 00 80", true, 1, nullptr, 16},
        IntegerReadCase{"25 FF 7F", true, 1, nullptr, 16},
        IntegerReadCase{"26 00 00 80 00", true, 2, nullptr, 24},
        IntegerReadCase{"26 FF FF 80 00", true, 2, "80 00", 0},
        IntegerReadCase{"27 00 00 00 00 80 00 00 00", true, 4, nullptr, 40},
        IntegerReadCase{"27 FF FF FF FF 80 00 00 00", true, 4, "80 00 00 00", 0},
        IntegerReadCase{"25 12 34", true, 5, "00 00 00 12 34", 0},
        IntegerReadCase{"31", false, 8, "00 00 00 00 00 00 00 01", 0},
        IntegerReadCase{"30", false, 0, "", 0}, IntegerReadCase{"31", false, 0, nullptr, 8},
        IntegerReadCase{"34 FF", false, 4, "00 00 00 FF", 0},
        IntegerReadCase{"35 00 FF", false, 1, "FF", 0},
        IntegerReadCase{"35 01 00", false, 1, nullptr, 16},
        IntegerReadCase{"36 00 00 00 FF", false, 1, "FF", 0},
        IntegerReadCase{"36 00 80 00 00", false, 2, nullptr, 24},
        IntegerReadCase{"37 FF FF FF FF FF FF FF FF", false, 7, nullptr, 64},
        IntegerReadCase{"38 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 80", false, 1, "80", 0},
        IntegerReadCase{"28 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 80", true, 1, nullptr, 16},
        IntegerReadCase{"28 FF FF FF FF FF FF FF FF FF FF FF FF FF FF FF 80", true, 1, "80", 0}));

TEST(BinaryReaderBaseTest, WidestPayloadsNarrowOnlyAsFarAsTheirSignificantBytes) {
  std::string const max_signed = "\x2A\x7F" + std::string(63, '\xFF');
  auto r = reader_of(max_signed);
  std::string image(63, '?');
  auto info = ZO_EXPECT_ERROR(
      r->read_int_big_endian(image.data(), 63), error::zoserialize_reader_data_type_range,
      "Number of bits required to represent marshaled signed number exceeds expected number "
      "of bits.  Expected={@expectedBits}bits, Actual={@actualBits}bits");
  EXPECT_EQ(zotest::param(info, "expectedBits"), "504");
  EXPECT_EQ(zotest::param(info, "actualBits"), "512");
  r = reader_of(max_signed);
  image.assign(128, '?');
  r->read_int_big_endian(image.data(), 128);
  EXPECT_EQ(image, std::string(64, '\0') + max_signed.substr(1));
}

TEST(BinaryReaderBaseTest, TypedReadersRefuseValuesWiderThanTheirType) {
  auto r =
      reader_of_hex("25 00 80 35 01 00 26 80 00 00 00 36 FF FF FF FF 27 00 00 00 01 00 00 00 00");
  ZO_EXPECT_ERROR(r->read_int8(), error::zoserialize_reader_data_type_range,
                  "Number of bits required to represent marshaled signed number exceeds expected "
                  "number of bits.  Expected={@expectedBits}bits, Actual={@actualBits}bits");
  ZO_EXPECT_ERROR(r->read_uint8(), error::zoserialize_reader_data_type_range,
                  "Number of bits required to represent marshaled signed number exceeds expected "
                  "number of bits.  Expected={@expectedBits}bits, Actual={@actualBits}bits");
  EXPECT_EQ(r->read_int32(), std::numeric_limits<int>::min());
  EXPECT_EQ(r->read_uint32(), 0xFFFFFFFFu);
  EXPECT_EQ(r->read_int64(), 1LL << 32);
}

// ---- Sizes and strings
// ----------------------------------------------------------------------------

TEST(BinaryReaderBaseTest, EightByteSizesOf4GiBOrMoreAreRefused) {
  for (char const* encoding :
       {"B7 00 00 00 01 00 00 00 00", "B7 FF FF FF FF FF FF FF FF", "AB 00 00 00 01 00 00 00 00"}) {
    auto const r = reader_of_hex(encoding);
    auto const info = ZO_EXPECT_ERROR(
        (encoding[0] == 'B' ? r->read_marker_start() : static_cast<void>(r->read_sequence_start())),
        error::zoserialize_reader_data_type_range,
        "Marshaled object exceeds 4GB size, which is not supported on 32-bit machines");
    ASSERT_TRUE(info);
    EXPECT_EQ(info->nested_errno(), 34);
    EXPECT_EQ(info->location().function().view(), "zoserialize::BinaryReaderBase::read_size()");
  }
  auto const r = reader_of_hex("AB 00 00 00 00 FF FF FF FF");
  EXPECT_EQ(r->read_sequence_start(), 0xFFFFFFFFu);
}

TEST(BinaryReaderBaseTest, StringLongerThanTheKnownRestFailsBeforeReading) {
  struct Case {
    char const* encoding;
    unsigned length;
    unsigned remaining;
  };
  for (Case const& c :
       {Case{"58 05 61 62", 5, 2}, Case{"59 01 00", 256, 0}, Case{"5A 00 01 00 00 61", 65536, 1}}) {
    for (unsigned buffer : {1u, 3u, 4096u}) {
      SCOPED_TRACE(::testing::Message() << c.encoding << " buffer " << buffer);
      auto const r = reader_of_hex(c.encoding, buffer);
      auto const info = ZO_EXPECT_ERROR(
          r->read_string(), error::zoserialize_reader_data_size,
          "Invalid string length: number of bytes remaining in stream is smaller than string "
          "length: StringSize={@expected}, BytesRemaining={@remaining}");
      ASSERT_TRUE(info);
      EXPECT_EQ(zotest::param(info, "expected"), std::to_string(c.length));
      EXPECT_EQ(zotest::param(info, "remaining"), std::to_string(c.remaining));
      EXPECT_EQ(info->location().function().view(),
                "zoserialize::BinaryReaderBase::read_large_string_aux()");
    }
  }
}

TEST(BinaryReaderBaseTest, StringFromASourceOfUnknownSizeEndsWithTheEofError) {
  auto const source = zocore::make_ref_counted<ByteSource>(zotest::bytes("58 05 61 62"));
  source->unknown_size();
  BinaryReader r(source, 1);
  ZO_EXPECT_ERROR(r.read_string(), error::zoserialize_reader_eof,
                  "End of data reached reading from source.  ExpectedBytes={@expected}, "
                  "ReadBytes={@actual}");
}

TEST(BinaryReaderBaseTest, StringAboveTheByValueLimitFailsBeforeAnyByteOfIt) {
  // 0x8000001 bytes announced; the source would deliver more bytes than the check needs.
  auto const source =
      zocore::make_ref_counted<ByteSource>(zotest::bytes("5A 08 00 00 01") + "payload");
  source->unknown_size();
  BinaryReader r(source, 1);
  auto const info =
      ZO_EXPECT_ERROR(r.read_string(), error::zoserialize_reader_data_string_size,
                      "String is too large to read by value, it must be read as stream.  "
                      "ActualSize={@actualSize}, MaxSize={@maxSize}");
  ASSERT_TRUE(info);
  EXPECT_EQ(zotest::param(info, "actualSize"), "134217729");
  EXPECT_EQ(zotest::param(info, "maxSize"), "134217728");
  EXPECT_EQ(source->position(), 5u) << "no payload byte may be read";
}

TEST(BinaryReaderBaseTest, StringAtTheByValueLimitIsRead) {
  // Exactly 0x8000000 bytes pass the check; the (missing) payload then ends the read.
  auto const source = zocore::make_ref_counted<ByteSource>(zotest::bytes("5A 08 00 00 00 61 62"));
  source->unknown_size();
  BinaryReader r(source, 16);
  auto const info =
      ZO_EXPECT_ERROR(r.read_string(), error::zoserialize_reader_eof,
                      "End of data reached reading from source.  ExpectedBytes={@expected}, "
                      "ReadBytes={@actual}");
  ASSERT_TRUE(info);
  // Reported against the whole string, although it is read in steps.
  EXPECT_EQ(zotest::param(info, "expected"), "134217728");
  EXPECT_EQ(zotest::param(info, "actual"), "2");
}

TEST(BinaryReaderBaseTest, ChunkedStringAboveTheByValueLimitFails) {
  // 0x8000001 payload bytes in chunks of 65535: the chunk that passes the limit is refused
  // before it is read.
  auto const source = zocore::make_ref_counted<zotest::ChunkedPatternSource>(
      static_cast<unsigned char>(0x50), std::uint64_t{0x8000001}, 65535u);
  BinaryReader r(source, 65536);
  auto const info =
      ZO_EXPECT_ERROR(r.read_string(), error::zoserialize_reader_data_string_size,
                      "String is too large to read by value, it must be read as stream.  "
                      "Size={@actualSize}, MaxSize={@maxSize}");
  ASSERT_TRUE(info);
  EXPECT_EQ(zotest::param(info, "actualSize"), "134217729");
  EXPECT_EQ(zotest::param(info, "maxSize"), "134217728");
}

TEST(BinaryReaderBaseTest, ChunkedStringWithAForeignChunkFails) {
  auto r = reader_of_hex("5B 01 61 9D 01 62 5F");
  ZO_EXPECT_ERROR(r->read_string(), error::zoserialize_reader_data_type_mismatch,
                  "Current tag has unexpected type prefix.  Expected={@expectedType}, "
                  "Actual={@actualType} (ActualTag={@actualTag})");
  r = reader_of_hex("5B 01 61 5C 00 01 62 5F");
  auto const info =
      ZO_EXPECT_ERROR(r->read_string(), error::zoserialize_reader_data_type,
                      "Tag has unexpected value.  Type={@tagType}, Value={@tagValue}");
  EXPECT_EQ(zotest::param(info, "tagValue"), "92");
  r = reader_of_hex("5D 01 61 5F");
  ZO_EXPECT_ERROR(r->read_string(), error::zoserialize_reader_data_type,
                  "Tag has unexpected value.  Type={@tagType}, Value={@tagValue}");
}

TEST(BinaryReaderBaseTest, ReadStringOverloadsAgree) {
  std::string const text = zotest::golden_text(5000);
  std::string const encoded = zotest::bytes("59 13 88") + text;
  auto r = reader_of(encoded + encoded + encoded, 7);
  std::string by_ref = "old content";
  r->read_string(by_ref);
  zoserialize::SourceString source_string;
  r->read_string(source_string);
  EXPECT_EQ(by_ref, text);
  EXPECT_EQ(source_string.view(), text);
  EXPECT_EQ(r->read_string(), text);
}

TEST(BinaryReaderBaseTest, TruncatedPayloadsReportWhatWasMissing) {
  struct Case {
    char const* encoding;
    std::function<void(Reader&)> read;
    unsigned expected;
    unsigned actual;
  };
  Case const cases[] = {
      {"24", [](Reader& r) { r.read_int32(); }, 1, 0},
      {"26 00 01", [](Reader& r) { r.read_int32(); }, 4, 2},
      {"47 3F F0", [](Reader& r) { r.read_double(); }, 8, 2},
      {"53 61", [](Reader& r) { r.read_string(); }, 3, 1},
      {"65 00", [](Reader& r) { r.read_absolute_time(); }, 8, 1},
      {"81 00 00", [](Reader& r) { r.read_uuid(); }, 16, 2},
      {"59 01", [](Reader& r) { r.read_string(); }, 2, 1},
      {"A9 01", [](Reader& r) { r.read_sequence_start(); }, 2, 1},
      {"B6 00 00", [](Reader& r) { r.read_marker_start(); }, 4, 2},
  };
  for (Case const& c : cases) {
    for (unsigned buffer : {1u, 2u, 4096u}) {
      SCOPED_TRACE(::testing::Message() << c.encoding << " buffer " << buffer);
      auto const r = reader_of_hex(c.encoding, buffer);
      auto const info = ZO_EXPECT_ERROR(c.read(*r), error::zoserialize_reader_eof,
                                        "End of data reached reading from source.  "
                                        "ExpectedBytes={@expected}, ReadBytes={@actual}");
      ASSERT_TRUE(info);
      EXPECT_EQ(zotest::param(info, "expected"), std::to_string(c.expected));
      EXPECT_EQ(zotest::param(info, "actual"), std::to_string(c.actual));
      EXPECT_EQ(info->location().function().view(),
                "zoserialize::BinaryReaderBase::throw_eof_error()");
    }
  }
}

// ---- Sequences
// ------------------------------------------------------------------------------------

TEST(BinaryReaderBaseTest, SequenceNextWithoutSequenceFails) {
  auto const r = reader_of_hex("00");
  auto const info =
      ZO_EXPECT_ERROR(r->read_sequence_next(), error::zoserialize_reader_sequence_nesting,
                      "Attempt to advance to next element in sequence but no sequence is open");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->location().function().view(),
            "zoserialize::BinaryReaderBase::read_sequence_next()");
}

TEST(BinaryReaderBaseTest, SequenceEndingBeforeItsFirstElementFails) {
  auto const r = reader_of_hex("A1");
  r->read_sequence_start();
  ZO_EXPECT_ERROR(r->read_sequence_next(), error::zoserialize_reader_eof,
                  "End of data reached in sequence");
}

TEST(BinaryReaderBaseTest, EmptySequenceWithHintFailsAndIsClosed) {
  auto const r = reader_of_hex("A2 AF 00");
  EXPECT_EQ(r->read_sequence_start(), 2u);
  auto const info =
      ZO_EXPECT_ERROR(r->read_sequence_next(), error::zoserialize_reader_sequence_element_count,
                      "Count hint of sequence does not match number of elements in sequence.  "
                      "CountHint={@countHint}, ElementCount={@elementCount}");
  EXPECT_EQ(zotest::param(info, "countHint"), "2");
  EXPECT_EQ(zotest::param(info, "elementCount"), "0");
  r->read_null();  // the end tag was consumed
  ZO_EXPECT_ERROR(r->read_sequence_next(), error::zoserialize_reader_sequence_nesting,
                  "Attempt to advance to next element in sequence but no sequence is open");
}

TEST(BinaryReaderBaseTest, SeparatorBeyondTheHintFails) {
  auto const r = reader_of_hex("A1 00 AE 00 AF");
  EXPECT_EQ(r->read_sequence_start(), 1u);
  EXPECT_TRUE(r->read_sequence_next());
  r->read_null();
  auto const info =
      ZO_EXPECT_ERROR(r->read_sequence_next(), error::zoserialize_reader_sequence_element_count,
                      "Expecting end of sequence but found separator.  CountHint={@countHint}");
  EXPECT_EQ(zotest::param(info, "countHint"), "1");
}

TEST(BinaryReaderBaseTest, EndBeforeTheHintIsReachedFailsAndIsClosed) {
  // The worked example with hint 3 instead of 2.
  auto const r = reader_of_hex("A3 21 AE 24 02 AF");
  EXPECT_EQ(r->read_sequence_start(), 3u);
  EXPECT_TRUE(r->read_sequence_next());
  EXPECT_EQ(r->read_int32(), 1);
  EXPECT_TRUE(r->read_sequence_next());
  EXPECT_EQ(r->read_int32(), 2);
  auto const info =
      ZO_EXPECT_ERROR(r->read_sequence_next(), error::zoserialize_reader_sequence_element_count,
                      "Premature end of sequence, expecting separator.  CountHint={@countHint}, "
                      "ElementCount={@elementCount}");
  EXPECT_EQ(zotest::param(info, "countHint"), "3");
  EXPECT_EQ(zotest::param(info, "elementCount"), "2");
  EXPECT_TRUE(r->is_eof());
  ZO_EXPECT_ERROR(r->read_sequence_next(), error::zoserialize_reader_sequence_nesting,
                  "Attempt to advance to next element in sequence but no sequence is open");
}

TEST(BinaryReaderBaseTest, SequenceStartWhereASeparatorBelongsFails) {
  auto const r = reader_of_hex("A0 00 A1");
  r->read_sequence_start();
  EXPECT_TRUE(r->read_sequence_next());
  r->read_null();
  auto const info =
      ZO_EXPECT_ERROR(r->read_sequence_next(), error::zoserialize_reader_sequence_unexpected,
                      "Unexpected sequence start element (expecting separator or end)");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->location().function().view(),
            "zoserialize::BinaryReaderBase::read_sequence_next()");
}

TEST(BinaryReaderBaseTest, SomethingElseWhereASeparatorBelongsFails) {
  auto r = reader_of_hex("A0 00 21");
  r->read_sequence_start();
  EXPECT_TRUE(r->read_sequence_next());
  r->read_null();
  ZO_EXPECT_ERROR(r->read_sequence_next(), error::zoserialize_reader_data_type_mismatch,
                  "Current tag has unexpected type prefix.  Expected={@expectedType}, "
                  "Actual={@actualType} (ActualTag={@actualTag})");
  r = reader_of_hex("A0 00");
  r->read_sequence_start();
  EXPECT_TRUE(r->read_sequence_next());
  r->read_null();
  ZO_EXPECT_ERROR(r->read_sequence_next(), error::zoserialize_reader_eof,
                  "Unable to read tag byte, reader is EOF");
}

TEST(BinaryReaderBaseTest, SequenceWithoutHintTakesAnyCount) {
  std::string bytes = "\xA0";
  for (int i = 0; i < 1000; ++i)
    bytes += i == 0 ? std::string(1, '\x11') : "\xAE\x11";
  bytes += "\xAF";
  auto const r = reader_of(bytes, 7);
  EXPECT_EQ(r->read_sequence_start(), 0u);
  int n = 0;
  while (r->read_sequence_next()) {
    EXPECT_TRUE(r->read_bool());
    ++n;
  }
  EXPECT_EQ(n, 1000);
}

// ---- try_read_null -----------------------------------------------------------------------------

TEST(BinaryReaderBaseTest, TryReadNullConsumesOnlyANull) {
  auto r = reader_of_hex("00 11");
  EXPECT_TRUE(r->try_read_null());
  EXPECT_FALSE(r->try_read_null());
  EXPECT_TRUE(r->read_bool());
  EXPECT_FALSE(r->try_read_null());  // at the end
  r = reader_of_hex("01");
  ZO_EXPECT_ERROR(r->try_read_null(), error::zoserialize_reader_data_type,
                  "Tag has unexpected value.  Type={@tagType}, Value={@tagValue}");
}

// ---- Skipping and copying -----------------------------------------------------------------------

TEST(BinaryReaderBaseTest, SkipAndCopyAtTheEndFail) {
  auto const r = reader_of("");
  auto info = ZO_EXPECT_ERROR(r->skip_element(), error::zoserialize_reader_eof,
                              "Unexpected end of data, expecting tag");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->location().function().view(), "zoserialize::BinaryReaderBase::skip_element()");
  zotest::RecordingWriter writer;
  info = ZO_EXPECT_ERROR(r->read_copy(writer), error::zoserialize_reader_eof,
                         "Unexpected end of data, expecting tag");
  ASSERT_TRUE(info);
  EXPECT_EQ(info->location().function().view(), "zoserialize::BinaryReaderBase::read_copy()");
}

TEST(BinaryReaderBaseTest, StrayTagsInsideScopesAreConsumedAndReported) {
  struct Case {
    char const* encoding;
    unsigned tag;
  };
  for (Case const& c :
       {Case{"A0 B0 AE BF AF", 0xAE}, Case{"A0 B0 AF BF AF", 0xAF}, Case{"B0 A0 BF AF BF", 0xBF},
        Case{"B0 23 BF", 0x23}, Case{"A0 B2 BF AF", 0xB2}, Case{"A0 AC AF", 0xAC}}) {
    SCOPED_TRACE(c.encoding);
    auto r = reader_of_hex(c.encoding, 1);
    auto info = ZO_EXPECT_ERROR(r->skip_element(), error::zoserialize_reader_data_type,
                                "Tag has unexpected value.  Type={@tagType}, Value={@tagValue}");
    EXPECT_EQ(zotest::param(info, "tagValue"), std::to_string(c.tag));
    r = reader_of_hex(c.encoding, 1);
    zotest::RecordingWriter writer;
    info = ZO_EXPECT_ERROR(r->read_copy(writer), error::zoserialize_reader_data_type,
                           "Tag has unexpected value.  Type={@tagType}, Value={@tagValue}");
    EXPECT_EQ(zotest::param(info, "tagValue"), std::to_string(c.tag));
  }
}

TEST(BinaryReaderBaseTest, DoubleSeparatorIsSkippedButNotCopied) {
  // Skipping walks the structure without checking it; copying reads the sequence properly.
  auto r = reader_of_hex("A0 21 AE AE 21 AF");
  r->skip_element();
  EXPECT_TRUE(r->is_eof());
  r = reader_of_hex("A0 21 AE AE 21 AF");
  zotest::RecordingWriter writer;
  auto const info =
      ZO_EXPECT_ERROR(r->read_copy(writer), error::zoserialize_reader_data_type,
                      "Tag has unexpected value.  Type={@tagType}, Value={@tagValue}");
  EXPECT_EQ(zotest::param(info, "tagValue"), "174");
}

TEST(BinaryReaderBaseTest, StrayTagAtTopLevelIsConsumed) {
  for (char const* encoding : {"AE 11", "AF 11", "BF 11"}) {
    auto r = reader_of_hex(encoding);
    ZO_EXPECT_ERROR(r->skip_element(), error::zoserialize_reader_data_type,
                    "Tag has unexpected value.  Type={@tagType}, Value={@tagValue}");
    EXPECT_TRUE(r->read_bool());
    r = reader_of_hex(encoding);
    zotest::RecordingWriter writer;
    ZO_EXPECT_ERROR(r->read_copy(writer), error::zoserialize_reader_data_type,
                    "Tag has unexpected value.  Type={@tagType}, Value={@tagValue}");
    EXPECT_TRUE(r->read_bool());
    EXPECT_TRUE(writer.calls().empty());
  }
}

TEST(BinaryReaderBaseTest, ReservedPrefixInsideAScopeIsReported) {
  auto r = reader_of_hex("A0 B0 E7 BF AF");
  auto info = ZO_EXPECT_ERROR(
      r->skip_element(), error::zoserialize_reader_data_type,
      "Current tag has unknown type prefix.  Actual={@actualType} (ActualTag={@actualTag})");
  EXPECT_EQ(zotest::param(info, "actualType"), "ReservedE");
  EXPECT_EQ(zotest::param(info, "actualTag"), "231");
  r = reader_of_hex("A0 B0 E7 BF AF");
  zotest::RecordingWriter writer;
  info = ZO_EXPECT_ERROR(
      r->read_copy(writer), error::zoserialize_reader_data_type,
      "Current tag has unknown type prefix.  Actual={@actualType} (ActualTag={@actualTag})");
  ASSERT_TRUE(info);
  EXPECT_EQ(zotest::param(info, "actualType"), "ReservedE");
  EXPECT_EQ(info->location().function().view(), "zoserialize::BinaryReaderBase::read_copy()");
}

TEST(BinaryReaderBaseTest, SkipElementSkipsExactlyOneElement) {
  auto const r = reader_of_hex(
      "A2 B0 11 BF AE 5B 01 61 5D 01 62 5F AF"  // sequence of a marker and a chunked string
      "B4 02 20 21 BF"                          // sized marker, skipped element by element
      "99 01 00" +
          std::string(512, '0') +  // binary of 256 bytes
          "00",
      3);
  r->skip_element();
  EXPECT_EQ(r->position(), 13u);
  r->skip_element();
  EXPECT_EQ(r->position(), 18u);
  r->skip_element();
  EXPECT_EQ(r->position(), 18u + 3 + 256);
  r->read_null();
  EXPECT_TRUE(r->is_eof());
}

TEST(BinaryReaderBaseTest, SkipElementInsideAnOpenSequence) {
  auto const r = reader_of_hex("A3 A0 AF AE B0 BF AE 53 61 62 63 AF");
  EXPECT_EQ(r->read_sequence_start(), 3u);
  int n = 0;
  while (r->read_sequence_next()) {
    r->skip_element();
    ++n;
  }
  EXPECT_EQ(n, 3);
  EXPECT_TRUE(r->is_eof());
}

std::string nested(char const* open, char const* close, std::size_t depth) {
  std::string out;
  out.reserve(depth * 2);
  for (std::size_t i = 0; i < depth; ++i)
    out += open;
  for (std::size_t i = 0; i < depth; ++i)
    out += close;
  return out;
}

TEST(BinaryReaderBaseTest, DeepNestingIsSkippedAndCopiedWithoutRecursion) {
  constexpr std::size_t kDepth = 1000000;
  std::string alternating;
  for (std::size_t i = 0; i < kDepth / 2; ++i)
    alternating += "\xA0\xB0";
  for (std::size_t i = 0; i < kDepth / 2; ++i)
    alternating += "\xBF\xAF";
  for (std::string const& doc :
       {nested("\xA0", "\xAF", kDepth), nested("\xB0", "\xBF", kDepth), alternating}) {
    auto r = reader_of(doc);
    r->skip_element();
    EXPECT_TRUE(r->is_eof());

    auto const sink = zocore::make_ref_counted<zocore::StringWriteStream>();
    {
      r = reader_of(doc);
      BinaryWriter writer(sink);
      r->read_copy(writer);
      EXPECT_TRUE(r->is_eof());
      writer.close();
    }
    EXPECT_TRUE(sink->str() == doc);
  }
}

TEST(BinaryReaderBaseTest, DeepNestingThatNeverClosesFailsCleanly) {
  constexpr std::size_t kDepth = 1000000;
  std::string const doc(kDepth, '\xA0');
  auto r = reader_of(doc);
  ZO_EXPECT_ERROR(r->skip_element(), error::zoserialize_reader_eof,
                  "Unexpected end of data, expecting tag");
  r = reader_of(doc);
  BinaryWriter writer(zocore::make_ref_counted<zocore::StringWriteStream>());
  ZO_EXPECT_ERROR(r->read_copy(writer), error::zoserialize_reader_eof,
                  "End of data reached in sequence");
  std::string const markers(kDepth, '\xB0');
  r = reader_of(markers);
  ZO_EXPECT_ERROR(r->skip_element(), error::zoserialize_reader_eof,
                  "Unexpected end of data, expecting tag");
}

TEST(BinaryReaderBaseTest, CopyRewritesReadOnlyFormsCanonically) {
  struct Case {
    std::string encoding;
    std::vector<std::string> calls;
  };
  Case const cases[] = {
      {"26 00 00 00 05", {"int 00 00 00 05"}},
      {"3A " + std::string(126, '0') + "07",
       {"uint " + zotest::hex(std::string(63, '\0') + "\x07")}},
      {"B4 01 11 BF", {"marker_start", "bool true", "marker_end"}},
      {"AB 00 00 00 00 00 00 00 01 20 AF", {"sequence_start 1", "int 00", "sequence_end"}},
      {"A0 20 AE 20 AF",
       {"sequence_start", "int 00", "sequence_separator", "int 00", "sequence_end"}},
      {"5B 01 61 5D 01 62 5F", {"string \"ab\""}},
      {"44 3F F0", {"double 3FF0000000000000"}},
      {"64 00 00 00 00", {"absolute_time 0"}},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.encoding);
    auto const r = reader_of_hex(c.encoding, 2);
    zotest::RecordingWriter writer;
    writer.merge_value_forms(true);
    r->read_copy(writer);
    EXPECT_EQ(writer.calls(), c.calls);
    EXPECT_TRUE(r->is_eof());
  }
}

TEST(BinaryReaderBaseTest, CopyValidatesStrings) {
  auto const r = reader_of_hex("53 61 FF 62");
  zotest::RecordingWriter writer;
  ZO_EXPECT_ERROR(r->read_copy(writer), zocore::error::zocore_utf8,
                  "Invalid UTF-8 sequence at offset {@offset}");
}

TEST(BinaryReaderBaseTest, CopyChecksSequenceCounts) {
  auto const r = reader_of_hex("A3 21 AE 21 AF");
  zotest::RecordingWriter writer;
  ZO_EXPECT_ERROR(r->read_copy(writer), error::zoserialize_reader_sequence_element_count,
                  "Premature end of sequence, expecting separator.  CountHint={@countHint}, "
                  "ElementCount={@elementCount}");
}

TEST(BinaryReaderBaseTest, CopyAllCopiesEveryTopLevelElement) {
  auto const r = reader_of_hex("00 11 A0 AF B0 BF 53 61 62 63");
  zotest::RecordingWriter writer;
  r->read_copy_all(writer);
  std::vector<std::string> const expected = {
      "null",         "bool true",  "sequence_start",     "sequence_end",
      "marker_start", "marker_end", "string_from \"abc\""};
  EXPECT_EQ(writer.calls(), expected);
}

}  // namespace
