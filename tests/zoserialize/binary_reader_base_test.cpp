// Decoding of the binary encoding through both readers, which only supply bytes (the base does
// all element decoding). The stream reader runs with a one-byte read-ahead buffer, where every
// access takes the hooks, and a large one, where the decoder reads from its input window; the
// memory reader over lists with seams everywhere.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <support/memory_lists.h>
#include <support/script.h>
#include <support/test_streams.h>
#include <zocore/core_errors.h>
#include <zocore/memory_stream.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/memory_reader.h>

namespace zoserialize {

// Plants marker records that the public interface cannot produce.
class MemoryReaderTestPeer {
 public:
  static void push_marker(MemoryReader& reader, std::uint32_t start, std::uint32_t size) {
    reader.markers_.push_back({start, size});
  }
};

}  // namespace zoserialize

namespace {

namespace error = zoserialize::error;
using zoserialize::BinaryReader;
using zoserialize::ConstMemoryListPtr;
using zoserialize::MemoryListPtr;
using zoserialize::MemoryReader;
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

// next_token, the read of another type, the matching read, skip_element and read_copy, through
// both readers.
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
  // The stream reader with a 1-byte and a large buffer; the memory reader over 1-byte chunks.
  for (unsigned buffer : {1u, 4096u, 0u}) {
    SCOPED_TRACE(::testing::Message() << "buffer " << buffer);
    auto const make = [&]() -> std::unique_ptr<Reader> {
      if (buffer != 0) return reader_of(bytes, buffer);
      return std::make_unique<MemoryReader>(
          ConstMemoryListPtr(zotest::list_of(bytes, zotest::tiny_chunk_list(1))));
    };
    auto const position = [](Reader const& reader) {
      auto const* stream = dynamic_cast<BinaryReader const*>(&reader);
      return stream ? stream->position() : dynamic_cast<MemoryReader const&>(reader).position();
    };
    std::unique_ptr<Reader> r = make();
    EXPECT_EQ(r->next_token(), token_for(tag));
    EXPECT_EQ(r->next_token(), token_for(tag));
    bool const is_bool = (tag >> 4) == 1;
    auto info = ZO_EXPECT_ERROR(is_bool ? r->read_null() : static_cast<void>(r->read_bool()),
                                error::zoserialize_reader_data_type_mismatch, kMismatch);
    EXPECT_EQ(zotest::param(info, "expectedType"), is_bool ? "Null" : "Boolean");
    EXPECT_EQ(zotest::param(info, "actualType"), type);
    EXPECT_EQ(zotest::param(info, "actualTag"), value);
    EXPECT_EQ(info ? info->location().function().view() : "",
              buffer != 0 ? "zoserialize::BinaryReader::impl_read_tag_check_type()"
                          : "zoserialize::MemoryReader::impl_read_tag_check_type()");
    EXPECT_EQ(position(*r), 0u) << "the tag is left";
    for (std::string const& op : ops) {
      SCOPED_TRACE(op);
      r = make();
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
        EXPECT_EQ(position(*r), 1u) << "the tag is consumed";
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

// ---- Failures ----------------------------------------------------------------------------------

// One table for both readers. A row runs on the stream reader (buffers 1 and 4096) and on the
// memory reader (every list layout) unless `which` names one of them; `memory` is what the
// memory reader raises where that differs: it checks lengths and chunks against the data when a
// payload starts (so its failure may come at an earlier operation) and names its own end of
// data. `at`: where the memory reader stands after failing, when checked.
struct FailureRow {
  char const* bytes;  // hex; a leading '?' makes the size unknown (stream reader only)
  char const* ops;    // the last one must fail
  zotest::Failure failure;
  char which = 'b';  // 'b' both readers, 's' the stream reader, 'm' the memory reader
  zotest::Failure memory = {nullptr, nullptr};
  int at = -1;
};

// Memory reader operations beyond the script language: M read_binary_as_memory_list, 0 append to
// a null list, P plant a marker record ending beyond the data, = assign another reader.
bool memory_op(Reader& r, zotest::ScriptOp const& op) {
  auto& m = dynamic_cast<MemoryReader&>(r);
  switch (op.kind) {
    case 'M':
      return m.read_binary_as_memory_list(), true;
    case '0':
      return m.read_binary_append_memory_list(nullptr), true;
    case 'P':
      return zoserialize::MemoryReaderTestPeer::push_marker(m, 1, 10), true;
    case '=':
      return m = MemoryReader(ConstMemoryListPtr(zotest::list_of(zotest::bytes("00")))), true;
    default:
      return false;
  }
}

TEST(BinaryReaderBaseTest, EveryFailureOfBothReaders) {
  constexpr char k4GB[] =
      "Marshaled object exceeds 4GB size, which is not supported on 32-bit machines";
  constexpr char kLength[] =
      "Invalid string length: number of bytes remaining in stream is smaller than string length: "
      "StringSize={@expected}, BytesRemaining={@remaining}";
  constexpr char kBlob[] =
      "Invalid blob length or truncated stream: number of bytes remaining in stream is smaller "
      "than size of blob.  Expected={@expected}, BytesRemaining={@remaining}";
  constexpr char kMarkerSize[] =
      "Invalid marker size or truncated stream: number of bytes remaining in stream is smaller "
      "than size of marker.  Expected={@expected}, BytesRemaining={@remaining}";
  constexpr char kNoSequence[] =
      "Attempt to advance to next element in sequence but no sequence is open";
  constexpr char kPremature[] =
      "Premature end of sequence, expecting separator.  CountHint={@countHint}, "
      "ElementCount={@elementCount}";
  constexpr char kNoTag[] = "Unexpected end of data, expecting tag";
  constexpr char kStreamEnd[] = "Unable to read tag byte, reader is EOF";
  constexpr char kListEnd[] = "Unable to read tag byte, reader at end of memory list";
  constexpr char kChunkTag[] =
      "Unexpected tag.  Expecting chunk continuation or end tag.  Type={@tagType}, "
      "Value={@tagValue}";
  constexpr char kNoMarker[] = "No markers are currently open";
  constexpr char kNoEndTag[] = "Unexpected end of data in marker, expecting marker end tag";
  constexpr char kOverrun[] =
      "Marker size mismatch; reader has already passed calculated marker end.  "
      "MarkerEnd={@markerEndPos}, ReaderPos={@readerPos}";
  constexpr char kSize[] = "Inconsistent marker size: no end tag at end position";
  constexpr char kClosed[] =
      "Cannot read from reader after it has been closed (source stream detached)";
  constexpr char kDetached[] = "Reader has already been detached from stream";
  constexpr char kUtf8[] = "Invalid UTF-8 sequence at offset {@offset}";
  constexpr char kAssign[] = "Cannot assign to a reader that has open read marker or sequences";
  auto const* eof = &error::zoserialize_reader_eof;
  auto const* type = &error::zoserialize_reader_data_type;
  auto const* mismatch = &error::zoserialize_reader_data_type_mismatch;
  auto const* count = &error::zoserialize_reader_sequence_element_count;
  auto const* nesting = &error::zoserialize_reader_sequence_nesting;
  auto const* size = &error::zoserialize_reader_data_size;
  auto const* utf8 = &zocore::error::zocore_utf8;
  auto const* markers = &error::zoserialize_reader_marker_mismatch;
  auto const* state = &error::zoserialize_reader_state;
  FailureRow const rows[] = {
      // Size fields, lengths and payloads that end early or claim too much.
      {"B7 00 00 00 01 00*4",
       "{",
       {&error::zoserialize_reader_data_type_range, k4GB, "errno=34",
        "BinaryReaderBase::read_size()"}},
      {"AB 00 00 00 01 00*4", "[", {&error::zoserialize_reader_data_type_range, k4GB, "errno=34"}},
      {"58 05 61 62",
       "s",
       {size, kLength, "expected=5 remaining=2", "BinaryReaderBase::read_large_string_aux()"}},
      {"5A 00 01 00 00 61", "s", {size, kLength, "expected=65536 remaining=1"}},
      {"24", "i", {eof, kEof, "expected=1 actual=0", "BinaryReaderBase::throw_eof_error()"}},
      {"47 3F F0", "d", {eof, kEof, "expected=8 actual=2"}},
      {"?58 05 61 62", "s", {eof, kEof, "expected=5 actual=2"}, 's'},
      {"65 00", "a", {eof, kEof, "expected=8 actual=1"}},
      {"81 00 00", "g", {eof, kEof, "expected=16 actual=2"}},
      {"59 01", "s", {eof, kEof, "expected=2 actual=1"}},
      {"A9 01", "[", {eof, kEof, "expected=2 actual=1"}},
      {"B6 00 00", "{", {eof, kEof, "expected=4 actual=2"}},
      {"00",
       "n n",
       {eof, kStreamEnd, "", "BinaryReader::impl_read_tag_check_type()"},
       'b',
       {eof, kListEnd, "", "MemoryReader::impl_read_tag_check_type()"},
       1},
      {"", "S", {eof, kStreamEnd}, 'b', {eof, kListEnd}},
      // A declared payload length beyond the data: the memory reader fails once the length is
      // read, before the payload.
      {"99 01 2C 61*200",
       "B",
       {size, kBlob, "expected=300 remaining=200",
        "MemoryReader::checked_calc_binary_block_size()"},
       'm',
       {},
       3},
      {"58 05 61", "S", {size, kBlob, "expected=5 remaining=1"}, 'm', {}, 2},
      {"9A FF FF FF FF 61", "M", {size, kBlob, "expected=4294967295 remaining=1"}, 'm', {}, 5},
      {"95 61 61", "B", {size, kBlob, "expected=5 remaining=2"}, 'm', {}, 1},
      {"99 01", "B", {eof, kEof, "expected=2 actual=1"}, 'b', {}, 2},
      {"9B 05 61", "B .r8", {eof, kEof, "expected=5 actual=1"}, 'b', {eof, kEof}, 3},
      {"9B 02 61", "B .r8", {eof, kEof, "expected=2 actual=1"}, 'b', {eof, kEof}},
      {"9B 01 61 9D", "B .r8", {eof, kEof, "expected=1 actual=0"}, 'b', {eof, kEof}},
      {"5B 01 61 5D 05 62", "S .r8", {eof, kEof, "actual=1 expected=5"}, 'b', {eof, kEof}, 6},
      {"9B 01 AA 9D 05 AA", "M", {eof, kEof, "actual=1 expected=5"}, 'm', {}, 5},
      {"9B 01 AA", "B .r2", {eof, kEof, "expected=1 actual=0"}, 'b', {eof, kListEnd}, 3},
      // Chunks of another type or form: by value the decoder's failures, in a payload stream the
      // stream's own (the memory reader checks them with the decoder's when it opens it).
      {"5B 01 61 9D 01 62 5F",
       "s",
       {mismatch, kMismatch, "expectedType=String actualType=Binary actualTag=157"}},
      {"5B 01 61 5C 00 01 62 5F", "s", {type, kUnexpected, "tagType=String tagValue=92"}},
      {"5D 01 61 5F", "s", {type, kUnexpected, "tagType=String tagValue=93"}},
      {"5B 01 61 9D 01 62 5F",
       "S .r4",
       {mismatch,
        "Invalid tag in chunked element.  Expected={@expectedType}, Actual={@actualType} "
        "(ActualTag={@actualTag})",
        "expectedType=String actualType=Binary actualTag=157",
        "BinaryReader::BinaryStreamChunkedImpl::next_chunk()"},
       'b',
       {mismatch, kMismatch, "expectedType=String actualType=Binary actualTag=157"},
       3},
      // The parameters carry other names than the placeholders.
      {"9B 01 61 9C 00 01 62 9F",
       "B .r4",
       {type, kChunkTag, "type=Binary value=156 tagType=<missing> tagValue=<missing>"},
       'b',
       {type, kUnexpected, "tagType=Binary tagValue=156"},
       4},
      {"9B 01 61 95 62 9F",
       "B .r4",
       {type, kChunkTag, "type=Binary value=149"},
       'b',
       {type, kUnexpected, "tagValue=149"}},
      {"9B 01 AA 5F",
       "M",
       {mismatch, kMismatch, "actualTag=95 actualType=String expectedType=Binary"},
       'm',
       {},
       3},
      {"9E 00 00", "M", {type, kUnexpected, "tagType=Binary tagValue=158"}, 'm', {}, 1},
      {"9B 01 AA 9B 01 AA", "M", {type, kUnexpected, "tagType=Binary tagValue=155"}, 'm', {}, 4},
      {"5D 00",
       "S",
       {type, kUnexpected, "tagType=String tagValue=93", "BinaryReader::create_payload_stream()"},
       'b',
       {type, kUnexpected, "tagType=String tagValue=93", "MemoryReader::read_payload_stream()"}},
      {"5F", "S", {type, kUnexpected, "tagValue=95"}, 'b', {}, 1},
      {"9D 00", "B", {type, kUnexpected, "tagType=Binary tagValue=157"}},
      {"9B 01 AA 98 01 61",
       "B .r4",
       {type, kChunkTag, "type=Binary value=152"},
       'b',
       {type, kUnexpected, "tagType=Binary tagValue=152"},
       4},
      // Text that is not UTF-8, wherever it is read: the memory reader checks it all up front.
      {"53 61 E2 82", "S .r3 .r1", {utf8, kUtf8}, 'b', {utf8, kUtf8}},
      {"53 61 E2 82", "S .r3 .c", {utf8, kUtf8}, 'b', {utf8, kUtf8}},
      {"53 61 FF 62", "S .r3", {utf8, kUtf8, "offset=1"}, 'b', {utf8, kUtf8}},
      {"53 FF 61 62", "S .x3", {utf8, kUtf8}, 'b', {utf8, kUtf8}},
      {"5B 02 61 E2 5D 01 82 5F", "S .r8", {utf8, kUtf8}, 'b', {utf8, kUtf8}},
      {"53 61 FF 62", "c", {utf8, kUtf8}},
      // Sequences that break their structure; a failing end is consumed and closes the sequence.
      {"00", ">", {nesting, kNoSequence, "", "BinaryReaderBase::read_sequence_next()"}},
      {"A2 AF 00",
       "[ >",
       {count,
        "Count hint of sequence does not match number of elements in "
        "sequence.  CountHint={@countHint}, ElementCount={@elementCount}",
        "countHint=2 elementCount=0"}},
      {"A2 AF 00", "[ !> n >", {nesting, kNoSequence}},
      {"A3 21 AE 24 02 AF", "[ > k > k >", {count, kPremature, "countHint=3 elementCount=2"}},
      {"A3 21 AE 24 02 AF", "[ > k > k !> >", {nesting, kNoSequence}},
      {"A1 00 AE 00 AF",
       "[ > n >",
       {count,
        "Expecting end of sequence but found separator.  "
        "CountHint={@countHint}",
        "countHint=1"}},
      {"A0 00 A1",
       "[ > n >",
       {&error::zoserialize_reader_sequence_unexpected,
        "Unexpected sequence start element (expecting separator or end)"}},
      {"A0 00 21", "[ > n >", {mismatch, kMismatch, "expectedType=Sequence actualTag=33"}},
      {"A0 00", "[ > n >", {eof, kStreamEnd}, 'b', {eof, kListEnd}},
      {"A1", "[ >", {eof, "End of data reached in sequence"}},
      {"01", "N", {type, kUnexpected, "tagType=Null tagValue=1"}},
      // Skipping and copying: at the end, stray and reserved tags inside scopes, bad contents.
      {"", "k", {eof, kNoTag, "", "BinaryReaderBase::skip_element()"}},
      {"", "c", {eof, kNoTag, "", "BinaryReaderBase::read_copy()"}},
      {"A0 B0 AE BF AF", "k", {type, kUnexpected, "tagValue=174"}},
      {"A0 B0 AE BF AF", "c", {type, kUnexpected, "tagValue=174"}},
      {"B0 A0 BF AF BF", "k", {type, kUnexpected, "tagValue=191"}},
      {"B0 A0 BF AF BF", "c", {type, kUnexpected, "tagValue=191"}},
      {"B0 23 BF", "k", {type, kUnexpected, "tagValue=35"}},
      {"B0 23 BF", "c", {type, kUnexpected, "tagValue=35"}},
      {"A0 AC AF", "k", {type, kUnexpected, "tagValue=172"}},
      {"A0 AC AF", "c", {type, kUnexpected, "tagValue=172"}},
      {"A0 B0 E7 BF AF",
       "k",
       {type, kUnknownPrefix, "actualType=ReservedE actualTag=231",
        "BinaryReaderBase::skip_element()"}},
      {"A0 B0 E7 BF AF",
       "c",
       {type, kUnknownPrefix, "actualType=ReservedE actualTag=231",
        "BinaryReaderBase::read_copy()"}},
      // Skipping walks the structure without checking it; copying reads a sequence properly.
      {"A0 21 AE AE 21 AF A0 21 AE AE 21 AF", "k c", {type, kUnexpected, "tagValue=174"}},
      {"A3 21 AE 21 AF", "c", {count, kPremature, "countHint=3 elementCount=2"}},
      // Markers: none open; no end tag; a declared size too large, passed or missing its tag.
      {"BF",
       "?",
       {markers, kNoMarker, "", "BinaryReader::read_marker_is_end()"},
       'b',
       {markers, kNoMarker, "", "MemoryReader::read_marker_is_end()"},
       0},
      {"BF",
       "}",
       {markers, kNoMarker, "", "BinaryReader::read_marker_end()"},
       'b',
       {markers, kNoMarker, "", "MemoryReader::read_marker_end()"},
       0},
      {"B0 BF BF", "{ } }", {markers, kNoMarker}, 'b', {}, 2},
      {"B0",
       "{ }",
       {eof, kNoEndTag, "", "BinaryReader::read_marker_end()"},
       'b',
       {eof, kNoEndTag, "", "MemoryReader::read_marker_end()"}},
      {"B0 11", "{ b }", {eof, kNoEndTag}, 'b', {}, 2},
      {"B0 11 A0 AF", "{ }", {eof, kNoEndTag, "", "BinaryReaderBase::skip_to_marker_end_tag()"}},
      {"B0 11 B0 20", "{ }", {eof, kNoTag}, 'b', {}, 4},
      {"B4 05 11 BF", "{", {size, kMarkerSize, "expected=5 remaining=2"}, 'm', {}, 2},
      {"B7 00 00 00 00 00 00 01 00 61*255",
       "{",
       {size, kMarkerSize, "expected=256 remaining=255"},
       'm',
       {},
       9},
      // The stream reader counts the declared end from the start tag and skips the whole size;
      // the memory reader counts from behind the size field and skips to the declared end.
      {"B4 03 11 21 21 BF",
       "{ k k }",
       {&error::zoserialize_reader_marker_overrun, kOverrun, "markerEndPos=3 readerPos=4",
        "BinaryReader::read_marker_end()"},
       's'},
      {"B4 01 11 BF",
       "{ }",
       {&error::zoserialize_reader_marker_overrun, kOverrun, "markerEndPos=1 readerPos=2"},
       's'},
      {"B4 01 20 21 22 BF",
       "{ i i }",
       {&error::zoserialize_reader_marker_overrun, kOverrun, "markerEndPos=3 readerPos=4"},
       'm',
       {},
       4},
      {"B4 10 11",
       "{ }",
       {eof, "End of data reached skipping to end of marker", "markerEndPos=16 streamSize=3",
        "BinaryReader::read_marker_end()"},
       's'},
      {"B0 20 21 22",
       "{ P }",
       {eof, "Remaining data no sufficient for expected size of marker",
        "markerEndPos=11 streamSize=4"},
       'm',
       {},
       1},
      {"B4 02 11 20 21 BF",
       "{ }",
       {&error::zoserialize_reader_marker_size, kSize, "", "BinaryReader::read_marker_end()"},
       's'},
      {"B4 02 25 00 80 BF", "{ }", {&error::zoserialize_reader_marker_size, kSize}, 's'},
      {"B4 03 20 21 22 23 BF",
       "{ i }",
       {&error::zoserialize_reader_marker_size, kSize, "", "MemoryReader::read_marker_end()"},
       'm',
       {},
       5},
      // Closing the stream reader: refused while markers are open; afterwards nothing reaches the
      // source. Payload streams used once detached.
      {"B0 B0 11 BF BF",
       "{ { X",
       {&error::zoserialize_reader_marker_nesting, "Attempt to close reader with open markers", "",
        "BinaryReader::close()"},
       's'},
      {"00",
       "n X n",
       {&error::zoserialize_reader_closed, kClosed, "", "BinaryReader::throw_closed_error()"},
       's'},
      {"00", "n X e", {&error::zoserialize_reader_closed, kClosed}, 's'},
      {"00", "n X B", {&error::zoserialize_reader_closed, kClosed}, 's'},
      {"53 61 FF 62 00", "S .r1 n", {utf8, kUtf8}, 's'},
      {"53 61 FF 62 00", "S .r1 !n .r1", {state, kDetached}, 's'},
      {"95 61 62 63 64 65", "B .c .c", {state, kDetached}, 's'},
      {"B0 53 61 62 63 BF", "{ S .r1 ? .r1", {state, kDetached}, 's'},
      // The memory reader's own: a null list, assignment with open scopes.
      {"91 AA",
       "0",
       {&error::zoserialize_reader, "NULL pMemoryList argument", "errno=22"},
       'm',
       {},
       0},
      {"B0 11 BF", "{ =", {&error::zoserialize_reader, kAssign}, 'm', {}, 1},
      {"A1 11 AF", "[ > =", {&error::zoserialize_reader, kAssign}, 'm', {}, 1},
  };
  for (FailureRow const& row : rows) {
    SCOPED_TRACE(::testing::Message() << row.bytes << " / " << row.ops);
    bool const known = row.bytes[0] != '?';
    std::string const data = zotest::unhex(row.bytes + (known ? 0 : 1));
    if (row.which != 'm') {
      for (unsigned buffer : {1u, 4096u})
        zotest::expect_failure(*reader_of(data, buffer, known), row.ops, row.failure);
    }
    if (row.which == 's' || !known) continue;
    zotest::Failure const& f = row.memory.code != nullptr ? row.memory : row.failure;
    for (zotest::ListLayout const& layout : zotest::list_layouts()) {
      SCOPED_TRACE(layout.name);
      MemoryListPtr const list = layout.make(data);
      MemoryReader reader{ConstMemoryListPtr(list)};
      if (row.memory.code == nullptr) {
        zotest::expect_failure(reader, row.ops, f, memory_op);
      } else {
        // Where the memory reader fails first does not matter, only how.
        zotest::expect_error_details([&] { zotest::run_ops(reader, row.ops, memory_op); }, *f.code,
                                     f.message, f.params, f.function);
      }
      EXPECT_TRUE(row.at < 0 || reader.position() == unsigned(row.at)) << reader.position();
      EXPECT_TRUE(zotest::bytes_of(*list) == data) << "the reader changed its list";
    }
  }
  zotest::expect_error_details([] { BinaryReader reader(nullptr); }, error::zoserialize_reader,
                               "NULL source stream specified", "errno=22",
                               "BinaryReader::BinaryReader()");
  // Growing the list being read could move its segment array under the cursors of the reader,
  // its copies and its payload streams.
  MemoryListPtr const list = zotest::list_of(zotest::bytes("92 AA BB 11"));
  MemoryReader reader{ConstMemoryListPtr(list)};
  zotest::expect_error_details(
      [&] { reader.read_binary_append_memory_list(list); }, error::zoserialize_reader,
      "Cannot append a payload to the memory list that is being read", "errno=22");
  EXPECT_TRUE(reader.position() == 0 && zotest::hex(zotest::bytes_of(*list)) == "92 AA BB 11");
  auto const r = reader_of(unhex("00 11"), 1);  // try_read_null consumes only a null
  EXPECT_TRUE(r->try_read_null());
  EXPECT_FALSE(r->try_read_null());
  EXPECT_TRUE(r->read_bool());
  EXPECT_FALSE(r->try_read_null());
  EXPECT_EQ(reader_of(unhex("AB 00 00 00 00 FF FF FF FF"), 1)->read_sequence_start(), 0xFFFFFFFFu);
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
  for (auto const& [bytes, op, message] :
       {std::tuple{"A0*1000000", "k", "Unexpected end of data, expecting tag"},
        {"A0*1000000", "c", "End of data reached in sequence"},
        {"B0*1000000", "k", "Unexpected end of data, expecting tag"}}) {
    zotest::expect_failure(*reader_of(unhex(bytes), 4096), op,
                           {&error::zoserialize_reader_eof, message});
  }
}

}  // namespace
