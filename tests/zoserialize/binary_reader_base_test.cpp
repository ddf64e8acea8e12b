// Decoding of the binary encoding, observed through the stream reader (the base does all element
// decoding). Cases run with a one-byte read-ahead buffer, where every access takes the hooks, and
// a large one, where the decoder reads from its input window.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <support/script.h>
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
using zoserialize::Reader;
using zotest::ByteSource;
using zotest::unhex;
using EToken = Reader::EToken;

constexpr char kMismatch[] =
    "Current tag has unexpected type prefix.  Expected={@expectedType}, Actual={@actualType} "
    "(ActualTag={@actualTag})";
constexpr char kUnexpected[] = "Tag has unexpected value.  Type={@tagType}, Value={@tagValue}";
constexpr char kUnknownPrefix[] =
    "Current tag has unknown type prefix.  Actual={@actualType} (ActualTag={@actualTag})";
constexpr char kEof[] =
    "End of data reached reading from source.  ExpectedBytes={@expected}, ReadBytes={@actual}";
constexpr char kRange[] =
    "Number of bits required to represent marshaled signed number exceeds expected number of "
    "bits.  Expected={@expectedBits}bits, Actual={@actualBits}bits";

std::unique_ptr<BinaryReader> reader_of(std::string bytes, unsigned buffer,
                                        bool known_size = true) {
  auto const source = zocore::make_ref_counted<ByteSource>(std::move(bytes));
  if (!known_size) source->unknown_size();
  return std::make_unique<BinaryReader>(source, buffer);
}

// ---- Every tag byte -------------------------------------------------------------------------

// A whole well-formed element that starts with `tag`, or nothing when the tag is not valid.
std::string element_for(unsigned tag) {
  unsigned const prefix = tag >> 4;
  unsigned const n = tag & 0x0F;
  std::string const t = zotest::hex(std::string(1, static_cast<char>(tag))) + " ";
  if (tag == 0x00 || tag == 0x10 || tag == 0x11 || tag == 0x22 || tag == 0x80) return t;
  if ((prefix == 2 || prefix == 3 || prefix == 6 || prefix == 7) && n <= 1) return t;
  if ((prefix == 2 || prefix == 3) && n >= 4 && n <= 10)
    return t + "00*" + std::to_string((1u << (n - 4)) - 1) + " 05";
  if (prefix == 4 && n <= 2) return t;
  if (prefix == 4 && n >= 4 && n <= 7) return t + "3F F0 00*" + std::to_string(n == 7 ? 6 : n - 4);
  if ((prefix == 5 || prefix == 9) && n <= 7) return t + "61*" + std::to_string(n);
  if ((prefix == 5 || prefix == 9) && n <= 12) {
    char const* const lengths[] = {"01", "00 01", "00 00 00 01", "01", "00 01"};
    return t + lengths[n - 8] + " 61" + (n >= 11 ? (prefix == 5 ? " 5F" : " 9F") : "");
  }
  if ((prefix == 6 || prefix == 7) && (n == 4 || n == 5))
    return t + (n == 4 ? "FF*3 FE" : "FF*7 FE");
  if (tag == 0x81) return t + "11*16";
  std::string nulls;  // a sequence with hint n holds n nulls
  for (unsigned i = 0; i < n; ++i)
    nulls += i == 0 ? "00 " : "AE 00 ";
  if (prefix == 0xA && n <= 7) return t + nulls + "AF";
  if (prefix == 0xA && n <= 11)
    return t + "00*" + std::to_string((1u << (n - 8)) - 1) + " 01 00 AF";
  if (tag == 0xB0) return t + "00 BF";
  // Nine content bytes: a sized marker skipped unread must not be smaller than its header.
  if (prefix == 0xB && n >= 4 && n <= 7)
    return t + "00*" + std::to_string((1u << (n - 4)) - 1) + " 09 00*9 BF";
  return "";
}

EToken token_for(unsigned tag) {
  unsigned const n = tag & 0x0F;
  if (tag >= 0xC0 || (tag >= 0xB0 && n != 0 && n != 0xF && (n < 4 || n > 7)))
    return EToken::Unknown;
  if (tag >= 0xB0) return n == 0xF ? EToken::MarkerEnd : EToken::MarkerStart;
  if (tag >= 0xA0)
    return n == 0xE   ? EToken::SequenceSeparator
           : n == 0xF ? EToken::SequenceEnd
                      : EToken::SequenceStart;
  EToken const kByPrefix[] = {
      EToken::Null,   EToken::Boolean, EToken::SignedInteger, EToken::UnsignedInteger,
      EToken::Double, EToken::String,  EToken::AbsoluteTime,  EToken::RelativeTime,
      EToken::Uuid,   EToken::Binary};
  return kByPrefix[tag >> 4];
}

class BinaryReaderBaseTagTest : public ::testing::TestWithParam<unsigned> {};

// next_token, the read of another type, the matching read, skip_element and read_copy.
TEST_P(BinaryReaderBaseTagTest, EveryOperationAcceptsOrRejectsTheTag) {
  unsigned const tag = GetParam();
  std::string const element = element_for(tag);
  std::string const bytes =
      element.empty() ? std::string(1, static_cast<char>(tag)) : unhex(element);
  std::string const type = zoserialize::impl::type_prefix_name(static_cast<int>(tag));
  std::string const value = std::to_string(tag);
  char const* const kMatching[16] = {"n", "b",      "i",   "u",   "d", "s", "a", "r",
                                     "g", "B .r16", "[ L", "{ }", "",  "",  "",  ""};
  std::vector<std::string> ops = {kMatching[tag >> 4], "k", "c"};
  if ((tag >> 4) == 5) ops.push_back("S .r16");
  if (tag >= 0xC0) ops.erase(ops.begin());  // the other-type read below covers it
  for (unsigned buffer : {1u, 4096u}) {
    SCOPED_TRACE(::testing::Message() << "buffer " << buffer);
    auto r = reader_of(bytes, buffer);
    EXPECT_EQ(r->next_token(), token_for(tag));
    EXPECT_EQ(r->next_token(), token_for(tag));
    bool const is_bool = (tag >> 4) == 1;
    auto info = ZO_EXPECT_ERROR(is_bool ? r->read_null() : static_cast<void>(r->read_bool()),
                                error::zoserialize_reader_data_type_mismatch, kMismatch);
    EXPECT_EQ(zotest::param(info, "expectedType"), is_bool ? "Null" : "Boolean");
    EXPECT_EQ(zotest::param(info, "actualType"), type);
    EXPECT_EQ(zotest::param(info, "actualTag"), value);
    EXPECT_EQ(info ? info->location().function().view() : "",
              "zoserialize::BinaryReader::impl_read_tag_check_type()");
    EXPECT_EQ(r->position(), 0u) << "the tag is left";
    for (std::string const& op : ops) {
      SCOPED_TRACE(op);
      r = reader_of(bytes, buffer);
      if (!element.empty()) {
        zotest::run_ops(*r, op);
        EXPECT_TRUE(r->is_eof());
      } else if (tag >= 0x48 && tag <= 0x4B) {
        ZO_EXPECT_ERROR(zotest::run_ops(*r, op), error::zoserialize_reader_unsupported,
                        "Reading of quadruple IEEE-754 marshaled representation not yet supported");
      } else if (tag >= 0xC0) {
        info = ZO_EXPECT_ERROR(zotest::run_ops(*r, op), error::zoserialize_reader_data_type,
                               kUnknownPrefix);
        EXPECT_EQ(zotest::param(info, "actualType"), type);
        EXPECT_EQ(zotest::param(info, "actualTag"), value);
      } else {
        info = ZO_EXPECT_ERROR(zotest::run_ops(*r, op), error::zoserialize_reader_data_type,
                               kUnexpected);
        EXPECT_EQ(zotest::param(info, "tagType"), type);
        EXPECT_EQ(zotest::param(info, "tagValue"), value);
        EXPECT_EQ(r->position(), 1u) << "the tag is consumed";
      }
    }
  }
  if (element.empty()) return;
  auto const sink = zocore::make_ref_counted<zocore::StringWriteStream>();
  {
    zoserialize::BinaryWriter writer(sink, 0);
    reader_of(bytes, 1)->read_copy(writer);
  }
  EXPECT_TRUE(Reader::read_compare_equal_all(*reader_of(bytes, 7), *reader_of(sink->str(), 7)))
      << zotest::hex(sink->str());
}

INSTANTIATE_TEST_SUITE_P(AllTags, BinaryReaderBaseTagTest, ::testing::Range(0u, 256u),
                         [](::testing::TestParamInfo<unsigned> const& p) {
                           char name[8];
                           std::snprintf(name, sizeof name, "Tag%02X", p.param);
                           return std::string(name);
                         });

// ---- Integers into images of any width --------------------------------------------------------

TEST(BinaryReaderBaseTest, IntegersExtendNarrowOrAreRefused) {
  struct Case {
    char const* encoding;
    bool is_signed;
    unsigned size;
    char const* image;     // expected image (when not refused)
    unsigned actual_bits;  // 0, or reported when refused
  };
  // clang-format off
  Case const cases[] = {
      {"24 80", true, 4, "FF FF FF 80", 0},              {"26 FF FF FF 80", true, 1, "80", 0},
      {"26 00 00 00 7F", true, 1, "7F", 0},              {"22", true, 3, "FF FF FF", 0},
      {"20", true, 0, "", 0},                            {"21", true, 0, "", 8},
      {"22", true, 0, "", 8},                            {"25 00 80", true, 1, "", 16},
      {"25 FF 7F", true, 1, "", 16},                     {"26 00 00 80 00", true, 2, "", 24},
      {"26 FF FF 80 00", true, 2, "80 00", 0},           {"27 00*4 80 00*3", true, 4, "", 40},
      {"27 FF*4 80 00*3", true, 4, "80 00*3", 0},        {"28 00*15 80", true, 1, "", 16},
      {"28 FF*15 80", true, 1, "80", 0},                 {"2A 7F FF*63", true, 63, "", 512},
      {"2A 7F FF*63", true, 128, "00*64 7F FF*63", 0},   {"30", false, 0, "", 0},
      {"31", false, 0, "", 8},                           {"34 FF", false, 4, "00 00 00 FF", 0},
      {"35 00 FF", false, 1, "FF", 0},                   {"35 01 00", false, 1, "", 16},
      {"36 00 80 00 00", false, 2, "", 24},              {"37 FF*8", false, 7, "", 64},
      {"38 00*15 80", false, 1, "80", 0},
  };
  // clang-format on
  for (Case const& c : cases) {
    for (unsigned buffer : {1u, 4096u}) {
      SCOPED_TRACE(::testing::Message()
                   << c.encoding << " into " << c.size << ", buffer " << buffer);
      auto const r = reader_of(unhex(c.encoding), buffer);
      std::string image(c.size, '?');
      auto const read = [&] {
        c.is_signed ? r->read_int_big_endian(image.data(), c.size)
                    : r->read_uint_big_endian(image.data(), c.size);
      };
      if (c.actual_bits == 0) {
        read();
        EXPECT_EQ(zotest::hex(image), zotest::hex(unhex(c.image)));
        EXPECT_TRUE(r->is_eof());
        continue;
      }
      // The same text for unsigned values, "signed" included.
      auto const info = ZO_EXPECT_ERROR(read(), error::zoserialize_reader_data_type_range, kRange);
      EXPECT_EQ(zotest::param(info, "expectedBits"), std::to_string(c.size * 8));
      EXPECT_EQ(zotest::param(info, "actualBits"), std::to_string(c.actual_bits));
      EXPECT_EQ(info ? info->nested_errno() : 0, 34);
      EXPECT_EQ(info ? info->location().function().view() : "",
                c.is_signed ? "zoserialize::BinaryReaderBase::read_int_big_endian()"
                            : "zoserialize::BinaryReaderBase::read_uint_big_endian()");
    }
  }
}

// ---- Failures of the decoder ------------------------------------------------------------------

TEST(BinaryReaderBaseTest, MalformedInputFails) {
  constexpr char k4GB[] =
      "Marshaled object exceeds 4GB size, which is not supported on 32-bit machines";
  constexpr char kLength[] =
      "Invalid string length: number of bytes remaining in stream is smaller than string length: "
      "StringSize={@expected}, BytesRemaining={@remaining}";
  constexpr char kNoSequence[] =
      "Attempt to advance to next element in sequence but no sequence is open";
  constexpr char kHint[] =
      "Count hint of sequence does not match number of elements in sequence.  "
      "CountHint={@countHint}, ElementCount={@elementCount}";
  constexpr char kPremature[] =
      "Premature end of sequence, expecting separator.  CountHint={@countHint}, "
      "ElementCount={@elementCount}";
  constexpr char kNoTag[] = "Unexpected end of data, expecting tag";
  auto const& eof = error::zoserialize_reader_eof;
  auto const& type = error::zoserialize_reader_data_type;
  auto const& count = error::zoserialize_reader_sequence_element_count;
  zotest::ReaderFailure const cases[] = {
      {"B7 00 00 00 01 00*4", "{", &error::zoserialize_reader_data_type_range, k4GB, "errno=34",
       "BinaryReaderBase::read_size()"},
      {"AB 00 00 00 01 00*4", "[", &error::zoserialize_reader_data_type_range, k4GB, "errno=34"},
      // Strings longer than the known rest fail before they are read.
      {"58 05 61 62", "s", &error::zoserialize_reader_data_size, kLength, "expected=5 remaining=2",
       "BinaryReaderBase::read_large_string_aux()"},
      {"5A 00 01 00 00 61", "s", &error::zoserialize_reader_data_size, kLength,
       "expected=65536 remaining=1"},
      // Payloads and length fields that end early.
      {"24", "i", &eof, kEof, "expected=1 actual=0", "BinaryReaderBase::throw_eof_error()"},
      {"47 3F F0", "d", &eof, kEof, "expected=8 actual=2"},
      {"?58 05 61 62", "s", &eof, kEof, "expected=5 actual=2"},
      {"65 00", "a", &eof, kEof, "expected=8 actual=1"},
      {"81 00 00", "g", &eof, kEof, "expected=16 actual=2"},
      {"59 01", "s", &eof, kEof, "expected=2 actual=1"},
      {"A9 01", "[", &eof, kEof, "expected=2 actual=1"},
      {"B6 00 00", "{", &eof, kEof, "expected=4 actual=2"},
      // Chunks of another type or form in a string read by value.
      {"5B 01 61 9D 01 62 5F", "s", &error::zoserialize_reader_data_type_mismatch, kMismatch,
       "expectedType=String actualType=Binary actualTag=157"},
      {"5B 01 61 5C 00 01 62 5F", "s", &type, kUnexpected, "tagType=String tagValue=92"},
      {"5D 01 61 5F", "s", &type, kUnexpected, "tagType=String tagValue=93"},
      // Sequences that break their structure; a failing end is consumed and closes the sequence.
      {"00", ">", &error::zoserialize_reader_sequence_nesting, kNoSequence, "",
       "BinaryReaderBase::read_sequence_next()"},
      {"A2 AF 00", "[ >", &count, kHint, "countHint=2 elementCount=0"},
      {"A2 AF 00", "[ !> n >", &error::zoserialize_reader_sequence_nesting, kNoSequence},
      {"A3 21 AE 24 02 AF", "[ > k > k >", &count, kPremature, "countHint=3 elementCount=2"},
      {"A3 21 AE 24 02 AF", "[ > k > k !> >", &error::zoserialize_reader_sequence_nesting,
       kNoSequence},
      {"A1 00 AE 00 AF", "[ > n >", &count,
       "Expecting end of sequence but found separator.  CountHint={@countHint}", "countHint=1"},
      {"A0 00 A1", "[ > n >", &error::zoserialize_reader_sequence_unexpected,
       "Unexpected sequence start element (expecting separator or end)"},
      {"A0 00 21", "[ > n >", &error::zoserialize_reader_data_type_mismatch, kMismatch,
       "expectedType=Sequence actualTag=33"},
      {"A0 00", "[ > n >", &eof, "Unable to read tag byte, reader is EOF"},
      {"A1", "[ >", &eof, "End of data reached in sequence"},
      {"01", "N", &type, kUnexpected, "tagType=Null tagValue=1"},
      // Skipping and copying: at the end, stray and reserved tags inside scopes, bad contents.
      {"", "k", &eof, kNoTag, "", "BinaryReaderBase::skip_element()"},
      {"", "c", &eof, kNoTag, "", "BinaryReaderBase::read_copy()"},
      {"A0 B0 AE BF AF", "k", &type, kUnexpected, "tagValue=174"},
      {"A0 B0 AE BF AF", "c", &type, kUnexpected, "tagValue=174"},
      {"B0 A0 BF AF BF", "k", &type, kUnexpected, "tagValue=191"},
      {"B0 A0 BF AF BF", "c", &type, kUnexpected, "tagValue=191"},
      {"B0 23 BF", "k", &type, kUnexpected, "tagValue=35"},
      {"B0 23 BF", "c", &type, kUnexpected, "tagValue=35"},
      {"A0 AC AF", "k", &type, kUnexpected, "tagValue=172"},
      {"A0 AC AF", "c", &type, kUnexpected, "tagValue=172"},
      {"A0 B0 E7 BF AF", "k", &type, kUnknownPrefix, "actualType=ReservedE actualTag=231",
       "BinaryReaderBase::skip_element()"},
      {"A0 B0 E7 BF AF", "c", &type, kUnknownPrefix, "actualType=ReservedE actualTag=231",
       "BinaryReaderBase::read_copy()"},
      // Skipping walks the structure without checking it; copying reads a sequence properly.
      {"A0 21 AE AE 21 AF A0 21 AE AE 21 AF", "k c", &type, kUnexpected, "tagValue=174"},
      {"A3 21 AE 21 AF", "c", &count, kPremature, "countHint=3 elementCount=2"},
      {"53 61 FF 62", "c", &zocore::error::zocore_utf8,
       "Invalid UTF-8 sequence at offset {@offset}"},
  };
  for (zotest::ReaderFailure const& c : cases) {
    for (unsigned buffer : {1u, 4096u}) {
      zotest::expect_failure(c, [&](std::string bytes, bool known) {
        return reader_of(std::move(bytes), buffer, known);
      });
    }
  }
  EXPECT_EQ(reader_of(unhex("AB 00 00 00 00 FF FF FF FF"), 1)->read_sequence_start(), 0xFFFFFFFFu);
  auto const r = reader_of(unhex("00 11"), 1);  // try_read_null consumes only a null
  EXPECT_TRUE(r->try_read_null());
  EXPECT_FALSE(r->try_read_null());
  EXPECT_TRUE(r->read_bool());
  EXPECT_FALSE(r->try_read_null());
}

TEST(BinaryReaderBaseTest, StringsAboveTheByValueLimitFailBeforeAnyByteOfThem) {
  // 0x8000001 bytes announced, more than the check needs delivered: nothing of them is read.
  auto source = zocore::make_ref_counted<ByteSource>(unhex("5A 08 00 00 01") + "payload");
  source->unknown_size();
  auto info = ZO_EXPECT_ERROR(BinaryReader(source, 1).read_string(),
                              error::zoserialize_reader_data_string_size,
                              "String is too large to read by value, it must be read as stream.  "
                              "ActualSize={@actualSize}, MaxSize={@maxSize}");
  EXPECT_EQ(zotest::param(info, "actualSize"), "134217729");
  EXPECT_EQ(zotest::param(info, "maxSize"), "134217728");
  EXPECT_EQ(source->position(), 5u);
  // Exactly the limit passes the check; the missing payload then ends the read, reported against
  // the whole string although it is read in steps.
  source = zocore::make_ref_counted<ByteSource>(unhex("5A 08 00 00 00 61 62"));
  source->unknown_size();
  info =
      ZO_EXPECT_ERROR(BinaryReader(source, 16).read_string(), error::zoserialize_reader_eof, kEof);
  EXPECT_EQ(zotest::param(info, "expected"), "134217728");
  EXPECT_EQ(zotest::param(info, "actual"), "2");
  // Chunks of 65535: the chunk that passes the limit is refused before it is read.
  auto const chunked = zocore::make_ref_counted<zotest::ChunkedPatternSource>(
      static_cast<unsigned char>(0x50), std::uint64_t{0x8000001}, 65535u);
  info = ZO_EXPECT_ERROR(BinaryReader(chunked, 65536).read_string(),
                         error::zoserialize_reader_data_string_size,
                         "String is too large to read by value, it must be read as stream.  "
                         "Size={@actualSize}, MaxSize={@maxSize}");
  EXPECT_EQ(zotest::param(info, "actualSize"), "134217729");
  EXPECT_EQ(zotest::param(info, "maxSize"), "134217728");
}

// A million nested scopes neither overflow the stack when skipped or copied nor when they never
// close.
TEST(BinaryReaderBaseTest, DeepNestingIsSkippedAndCopiedWithoutRecursion) {
  constexpr std::size_t kDepth = 1000000;
  std::string alternating;
  for (std::size_t i = 0; i < kDepth; ++i)
    alternating += i < kDepth / 2 ? "\xA0\xB0" : "\xBF\xAF";
  for (std::string const& doc :
       {std::string(kDepth, '\xA0') + std::string(kDepth, '\xAF'),
        std::string(kDepth, '\xB0') + std::string(kDepth, '\xBF'), alternating}) {
    auto const r = reader_of(doc, 4096);
    r->skip_element();
    EXPECT_TRUE(r->is_eof());
    auto const sink = zocore::make_ref_counted<zocore::StringWriteStream>();
    {
      zoserialize::BinaryWriter writer(sink);
      reader_of(doc, 4096)->read_copy(writer);
    }
    EXPECT_TRUE(sink->str() == doc);
  }
  zotest::ReaderFailure const never_closed[] = {
      {"A0*1000000", "k", &error::zoserialize_reader_eof, "Unexpected end of data, expecting tag"},
      {"A0*1000000", "c", &error::zoserialize_reader_eof, "End of data reached in sequence"},
      {"B0*1000000", "k", &error::zoserialize_reader_eof, "Unexpected end of data, expecting tag"},
  };
  for (auto const& c : never_closed)
    zotest::expect_failure(
        c, [](std::string bytes, bool) { return reader_of(std::move(bytes), 4096); });
}

}  // namespace
