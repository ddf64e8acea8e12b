#include <algorithm>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/formats.h>
#include <support/random_document.h>
#include <support/script.h>
#include <support/test_streams.h>
#include <support/text_golden.h>
#include <zocore/core_errors.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/text_reader.h>
#include <zoserialize/text_writer.h>

namespace {

namespace error = zoserialize::error;
using zocore::make_ref_counted;
using zoserialize::InterfacePtr;
using zoserialize::IReadStream;
using zoserialize::Reader;
using zoserialize::TextReader;
using zoserialize::TextWriter;
using zoserialize::Writer;
using EToken = Reader::EToken;

// The text format's readers: in place (two constructors), and through an istream and stream
// sources with read-ahead buffers small enough that every token straddles a refill.
zotest::Format const& text_format() {
  static zotest::Format const& format =
      *std::ranges::find(zotest::formats(), "Text", &zotest::Format::name);
  return format;
}
zotest::Format const& binary_format() {
  return zotest::formats().front();
}
std::shared_ptr<Reader> open(std::string text, std::size_t reader = 0) {
  return text_format().readers.at(reader).second(std::move(text));
}
constexpr std::size_t kByteAtATime = 2;  // "Stream1"

std::string text_of(std::function<void(Writer&)> const& write,
                    TextWriter::Options const& options = TextWriter::Options()) {
  std::string out;
  TextWriter writer(out, options);
  write(writer);
  writer.close();
  return out;
}

// What a copy of the text into a TextWriter gives; throws what the reader throws.
std::string copied(Reader& reader, TextWriter::Options const& options = TextWriter::Options()) {
  return text_of([&](Writer& w) { reader.read_copy_all(w); }, options);
}

// Every text of the column: the golden rows' and the text format's own.
std::vector<std::string> column_texts() {
  std::vector<std::string> out;
  for (std::string const& name : zotest::text_column().names()) {
    if (auto const* rendering = zotest::text_column().find(name)) out.push_back(rendering->bytes);
  }
  return out;
}

// Line breaks are invisible wherever they stand: every text of the column broken at any one
// place, or at every place, reads (and copies) as the unbroken one.
TEST(TextReaderTest, LineBreaksAnywhereReadTheSame) {
  for (std::string const& text : column_texts()) {
    std::string want;
    try {
      want = copied(*open(text));
    } catch (zocore::ErrorException const&) {
      continue;  // a row that copying refuses (a string that is not UTF-8)
    }
    // Long texts are broken at a dozen places: every one would take quadratic time.
    std::size_t const step = text.size() <= 300 ? 1 : text.size() / 12;
    for (std::size_t at = 0; at <= text.size(); at += step) {
      std::string broken = text;
      broken.insert(at, at % 2 == 0 ? "\n" : "\r\n");
      EXPECT_EQ(copied(*open(broken)), want) << text.substr(0, 40) << " broken at " << at;
    }
    if (text.size() > 600) continue;
    std::string every = "\r\n";
    for (char const c : text)
      every += std::string(1, c) + "\n";
    EXPECT_EQ(copied(*open(every, kByteAtATime)), want) << text;
  }
}

// Forms only the reader accepts (longer than the writer's, line breaks anywhere), read through
// every source; a copy gives the writer's form. They stay out of the golden column: a part of
// such a text can be the whole value again ("-0" and "-").
TEST(TextReaderTest, ReadsTheLongerForms) {
  for (auto const& [text, script] : std::initializer_list<std::pair<char const*, char const*>>{
           {"-0", "i0"},
           {"-", "i0"},
           {"+0005", "i5"},
           {"I", "i0"},
           {"I8", "i-8"},
           {"Iffffffffffffffffffff", "i-1"},
           {"X", "u0"},
           {"X0ff", "u255"},
           {"U007", "u7"},
           {"R3ff0000000000000", "d1"},
           {"T20180305120000", "a1520251200000000000"},
           {"T20180305120000.500", "a1520251200500000000"},
           {"P0.250", "r250000000"},
           {"Q0", "r0"},
           {"P9223372036.854775807", "r9223372036854775807"},
           {"K00000000000000000000000000000000", "g0"},
           {"(0)", "[0 ]"},
           {"\r\n{\n(\r\n2+1\n2,\"a~\r\n20\"\n)\n}\n", "{ [2 i12 , s%6120 ] }"},
       }) {
    zotest::Script const parsed = zotest::parse_script(script);
    for (auto const& [name, read] : text_format().readers) {
      auto const reader = read(text);
      zotest::read_script(*reader, parsed);
      EXPECT_TRUE(reader->is_eof()) << text << " " << name;
    }
    EXPECT_EQ(copied(*open(text)), text_of([&](Writer& w) { zotest::write_script(w, parsed); }));
  }
}

TEST(TextReaderTest, TokensOfTags) {
  // The tags of each token, by the token's value (Null = 1 ... MarkerEnd = 15).
  std::string const tags[] = {"Z", "YN", "+-I", "UX", "R", "\"S", "T", "PQ",
                              "K", "[",  "(",   ",",  ")", "{",   "}"};
  for (int c = 1; c < 256; ++c) {
    EToken want = EToken::Unknown;
    for (int t = 0; t < 15; ++t) {
      if (tags[t].find(static_cast<char>(c)) != std::string::npos)
        want = static_cast<EToken>(t + 1);
    }
    EXPECT_EQ(TextReader::token_from_tag(static_cast<char>(c)), want) << c;
  }
  EXPECT_EQ(TextReader::token_from_tag(0), EToken::Unknown);
  auto const reader = open("\n\r\nZ\n");
  EXPECT_EQ(reader->next_token(), EToken::Null);
  EXPECT_TRUE(reader->try_read_null());
  EXPECT_FALSE(reader->try_read_null());
  EXPECT_EQ(reader->next_token(), EToken::Eof);
  EXPECT_TRUE(reader->is_eof());
}

constexpr char kSigned[] =
    "Number of bits required to represent marshaled signed number exceeds expected number of "
    "bits.  Expected={@expectedBits}bits, Actual={@actualBits}bits";
constexpr char kUnsigned[] =
    "Number of bits required to represent marshaled unsigned number exceeds expected number of "
    "bits.  Expected={@expectedBits}bits, Actual={@actualBits}bits";

// Typed reads take what fits their width and refuse the rest.
TEST(TextReaderTest, IntegersFitTheWidthAsked) {
  auto reader = open(
      "I0ffffffIf000000+127-128+128U255U256+9223372036854775807-9223372036854775808"
      "+9223372036854775808X10000000000000000Xffffffffffffffff");
  Reader& r = *reader;
  auto const bits = [](zotest::ErrorPtr const& info) {
    return zotest::param(info, "expectedBits") + "/" + zotest::param(info, "actualBits");
  };
  EXPECT_EQ(r.read_int32(), 16777215);
  EXPECT_EQ(r.read_int32(), -16777216);
  EXPECT_EQ(r.read_int8(), 127);
  EXPECT_EQ(r.read_int8(), -128);
  EXPECT_EQ(
      bits(ZO_EXPECT_ERROR(r.read_int8(), error::zoserialize_reader_data_type_range, kSigned)),
      "8/16");
  EXPECT_EQ(r.read_uint8(), 255);
  EXPECT_EQ(
      bits(ZO_EXPECT_ERROR(r.read_uint8(), error::zoserialize_reader_data_type_range, kUnsigned)),
      "8/16");
  EXPECT_EQ(r.read_int64(), INT64_MAX);
  EXPECT_EQ(r.read_int64(), INT64_MIN);
  // 2^63 needs a ninth byte to stay positive.
  EXPECT_EQ(
      bits(ZO_EXPECT_ERROR(r.read_int64(), error::zoserialize_reader_data_type_range, kSigned)),
      "64/72");
  EXPECT_EQ(
      bits(ZO_EXPECT_ERROR(r.read_uint64(), error::zoserialize_reader_data_type_range, kUnsigned)),
      "64/72");
  EXPECT_EQ(r.read_uint64(), UINT64_MAX);
  // Zero bytes hold 0 and, signed, -1.
  reader = open("+-1+5");
  unsigned char none[1];
  reader->read_int_big_endian(none, 0);
  reader->read_int_big_endian(none, 0);
  EXPECT_EQ(bits(ZO_EXPECT_ERROR(reader->read_int_big_endian(none, 0),
                                 error::zoserialize_reader_data_type_range, kSigned)),
            "0/8");
}

struct FailureCase {
  char const* text;
  char const* ops;  // zotest::run_ops; the last one must fail
  zocore::ErrorCode const* code;
  char const* message;
  char const* function;
  // "name=value" entries separated by '|' (values may hold spaces).
  char const* params = "";
  // The message when the text comes through a stream source, if it differs.
  char const* stream_message = nullptr;
};

constexpr char kUnexpectedTags[] =
    "Unexpected tags in text stream.  ExpectedType: {@expectedTypes} (\"{@expectedTags}\"), "
    "ActualType: '{@actualType}' (Tag: '{@actualTag}')";
constexpr char kEscape[] =
    "Unexpected character in string escape sequence.  Expected: {@expected}, Actual: '{@actual}'";
constexpr char kBase64[] = "Invalid base64 text at offset {@offset}";
constexpr char kAbsolute[] = "Invalid absolute time.  Expected: {@expected}";
constexpr char kAbsoluteExpected[] = "expected=8digit[2digit[2digit[2digit[\".\"1*9digit]]]]";

FailureCase const kFailures[] = {
    // Tags, and where the reader stands when it fails.
    {"", "b", &error::zoserialize_reader_eof, "Unable to read token, reader is EOF", "read_bool",
     "line=1|linePos=0|sourcePos=0"},
    {"+1", "b", &error::zoserialize_reader_data_type_mismatch, kUnexpectedTags, "read_bool",
     "expectedTypes=Boolean|expectedTags=YN|actualType=SignedInteger|actualTag=+|sourcePos=0"},
    {"Z\nZ\r\n\x01", "n n n", &error::zoserialize_reader_data_type_mismatch, kUnexpectedTags,
     "read_null",
     "expectedTypes=Null|expectedTags=Z|actualType=Unknown|actualTag=\\x1x|line=3|linePos=0|"
     "sourcePos=5"},
    {"Z\rZ\r\xE9", "n n n", &error::zoserialize_reader_data_type_mismatch, kUnexpectedTags,
     "read_null", "actualTag=\\x233x|line=1|linePos=4|sourcePos=4"},
    {"Y", "s", &error::zoserialize_reader_data_type_mismatch, kUnexpectedTags, "read_string",
     "expectedTypes=String|expectedTags=\"S|actualType=Boolean|actualTag=Y"},
    // Numbers.
    {"I100000000", "i", &error::zoserialize_reader_data_type_range, kSigned, "read_int_big_endian",
     "expectedBits=32|actualBits=40|line=1|linePos=10|sourcePos=10"},
    {"-2147483649", "i", &error::zoserialize_reader_data_type_range, kSigned, "read_int_big_endian",
     "expectedBits=32|actualBits=40"},
    {"X100000000", "u", &error::zoserialize_reader_data_type_range, kUnsigned,
     "read_uint_big_endian", "expectedBits=32|actualBits=40"},
    {"+18446744073709551616", "i", &error::zoserialize_reader_data_size,
     "Error parsing decimal integer", "read_int_big_endian", "sourcePos=21"},
    {"U99999999999999999999", "u", &error::zoserialize_reader_data_size,
     "Error parsing decimal integer", "read_uint_big_endian"},
    // Strings.
    {"\"a~4", "s", &error::zoserialize_reader_data_invalid, kEscape,
     "TextReader::SourceBase::read_string_buffer", "expected=[0-9a-f]|actual=EOF|sourcePos=4"},
    {"\"a~4G\"", "s", &error::zoserialize_reader_data_invalid, kEscape,
     "TextReader::SourceBase::read_string_buffer", "actual=G|sourcePos=4"},
    {"\"a~\nA0\"", "s", &error::zoserialize_reader_data_invalid, kEscape,
     "TextReader::SourceBase::read_string_buffer", "actual=A|line=2|linePos=0|sourcePos=4"},
    {"\"a\x01\"", "s", &error::zoserialize_reader_data_invalid,
     "Unexpected control character while reading string (must be escaped).",
     "TextReader::SourceBase::read_string_buffer", "actual=#x01|sourcePos=2"},
    {"\"abc", "s", &error::zoserialize_reader_eof, "End of data reached in string.",
     "TextReader::SourceBase::read_string_buffer", "sourcePos=4",
     "Unexpected EOF while reading string."},
    {"\"ab\xFF\"", "s", &error::zoserialize_reader_data_size,
     "Unmarshaled string failed UTF-8 validation check", "read_string", "sourcePos=5"},
    {"\"ab\xC3\"", "S .r10", &zocore::error::zocore_utf8,
     "Invalid UTF-8 sequence at offset {@offset}", "", ""},
    // Times and UUIDs.
    {"T2018", "a", &error::zoserialize_reader_data_size, kAbsolute, "read_absolute_time",
     kAbsoluteExpected},
    {"T201803051", "a", &error::zoserialize_reader_data_size, kAbsolute, "read_absolute_time",
     kAbsoluteExpected},
    {"T20181305", "a", &error::zoserialize_reader_data_size, kAbsolute, "read_absolute_time",
     kAbsoluteExpected},
    {"T20180305120000.", "a", &error::zoserialize_reader_data_size,
     "Invalid fractional seconds in absolute time.  Expected: {@expected}", "read_absolute_time",
     "expected=\".\"1*9digit"},
    {"T20180305120000.1234567890", "a", &error::zoserialize_reader_data_size,
     "Invalid fractional seconds in absolute time.  Expected: {@expected}", "read_absolute_time",
     "expected=\".\"1*9digit"},
    {"Q", "r", &error::zoserialize_reader_data_size,
     "Invalid relative time.  Expected: {@expected}", "read_relative_time",
     "expected=1*digit/*digit\".\"1*9digit"},
    {"P1.", "r", &error::zoserialize_reader_data_size,
     "Invalid fractional seconds in relative time.  Expected: {@expected}", "read_relative_time",
     "expected=.1*9[0-9]"},
    {"P9223372036.854775808", "r", &error::zoserialize_reader_data_type_range,
     "Seconds in relative time exceed maximum value.  MaxValue: {@maxValue}", "read_relative_time",
     "maxValue=9223372036.854775807|sourcePos=21"},
    {"Q9223372036.854775809", "r", &error::zoserialize_reader_data_type_range,
     "Seconds in relative time exceed maximum value.  MaxValue: {@maxValue}", "read_relative_time",
     "maxValue=9223372036.854775808"},
    {"P99999999999999999999999", "r", &error::zoserialize_reader_data_type_range,
     "Seconds in relative time exceed maximum value.  MaxValue: {@maxValue}", "read_relative_time",
     "maxValue=9223372036.854775807"},
    {"K123", "g", &error::zoserialize_reader_data_size,
     "Error parsing UUID.  Expected: {@expected}", "read_uuid", "expected=32hexdigit|sourcePos=4"},
    // Binaries.
    {"[aGk", "B .r10", &error::zoserialize_reader_eof,
     "Unexpected EOF while reading binary (base-64).",
     "TextReader::SourceBase::read_binary_base64_buffer", "sourcePos=4"},
    {"[aG*k]", "B .r10", &zocore::error::zocore_format, kBase64, "TextReader::ReadStreamImpl::read",
     "offset=2|sourcePos=3"},
    {"[aGk=]", "B .r10", &zocore::error::zocore_format, kBase64, "TextReader::ReadStreamImpl::read",
     "offset=3"},
    {"[aGkaa]", "B .r10", &zocore::error::zocore_format, kBase64,
     "TextReader::ReadStreamImpl::read", "offset=5"},
    {"[a]", "B .r10", &zocore::error::zocore_format, kBase64, "TextReader::ReadStreamImpl::read",
     "offset=1"},
    {"[aR]", "B .r10", &zocore::error::zocore_format, kBase64, "TextReader::ReadStreamImpl::read",
     "offset=1"},
    {"[aGl]", "B .r10", &zocore::error::zocore_format, kBase64, "TextReader::ReadStreamImpl::read",
     "offset=2"},
    // Sequences.
    {"(4294967296)", "[", &error::zoserialize_reader_data_size,
     "Error parsing sequence count hint.  Expecting: {@expected}", "read_sequence_start",
     "expected=*digit"},
    {"(2+1)", "[ > i >", &error::zoserialize_reader_sequence_element_count,
     "Premature end of sequence, expecting separator.  CountHint={@countHint}, "
     "ElementCount={@elementCount}",
     "read_sequence_next", "countHint=2|elementCount=1|sourcePos=5"},
    {"(1+1,+2)", "[ > i >", &error::zoserialize_reader_sequence_element_count,
     "Expecting end of sequence but found separator.  CountHint={@countHint}", "read_sequence_next",
     "countHint=1|elementCount=1|sourcePos=4"},
    {"(1)", "[ >", &error::zoserialize_reader_sequence_element_count,
     "Count hint of sequence does not match number of elements in sequence.  "
     "CountHint={@countHint}, ElementCount={@elementCount}",
     "read_sequence_next", "countHint=1|elementCount=0"},
    {"(", "[ >", &error::zoserialize_reader_eof, "End of data reached in sequence",
     "read_sequence_next", "sourcePos=1"},
    {"(+1", "[ > i >", &error::zoserialize_reader_eof, "Unable to read token, reader is EOF",
     "read_sequence_next"},
    {"(+1+2)", "[ > i >", &error::zoserialize_reader_data_type_mismatch, kUnexpectedTags,
     "read_sequence_next",
     "expectedTypes=SequenceSeparator or SequenceEnd|expectedTags=,)|actualType=SignedInteger"},
    {"", ">", &error::zoserialize_reader_sequence_nesting,
     "Attempt to advance to next sequence element but no sequence is open", "read_sequence_next"},
    {"{", "{ >", &error::zoserialize_reader_sequence_nesting,
     "Attempt to advance to next sequence element but top of element stack is not sequence",
     "read_sequence_next"},
    // Markers.
    {"}", "?", &error::zoserialize_reader_marker_mismatch, "No markers are currently open",
     "read_marker_is_end"},
    {"}", "}", &error::zoserialize_reader_marker_mismatch, "No markers are currently open",
     "read_marker_end"},
    {"(", "[ ?", &error::zoserialize_reader_marker_mismatch, "Top of element stack is not a marker",
     "read_marker_is_end"},
    {"(", "[ }", &error::zoserialize_reader_marker_mismatch, "Top of element stack is not a marker",
     "read_marker_end"},
    {"{+1", "{ }", &error::zoserialize_reader_eof,
     "Unexpected end of data in marker, expecting marker end tag", "read_marker_end",
     "sourcePos=3"},
    {"{", "{ X", &error::zoserialize_reader_marker_nesting,
     "Attempt to close reader with open markers", "close"},
    // Skipping and copying a whole element.
    {"", "k", &error::zoserialize_reader_eof, "Unexpected end of data, expecting token",
     "skip_element"},
    {"{+1", "k", &error::zoserialize_reader_eof, "Unexpected end of data, expecting token",
     "skip_element", "sourcePos=3"},
    {")", "k", &error::zoserialize_reader_state, "Not at start of element.  Token: {@token}",
     "skip_element", "token=SequenceEnd"},
    {",", "c", &error::zoserialize_reader_state, "Not at start of element.  Token: {@token}",
     "read_copy", "token=SequenceSeparator"},
    {"}", "k", &error::zoserialize_reader_state, "Not at start of element.  Token: {@token}",
     "skip_element", "token=MarkerEnd"},
    {"{)}", "k", &error::zoserialize_reader_state, "Unexpected token.  Token: {@token}",
     "skip_element", "token=SequenceEnd|sourcePos=1"},
    {"(!)", "c", &error::zoserialize_reader_state, "Unexpected token.  Token: {@token}",
     "read_copy", "token=Unknown|actualTag=!"},
    {"{(1)}", "{ }", &error::zoserialize_reader_sequence_element_count,
     "Count hint of sequence does not match number of elements in sequence.  "
     "CountHint={@countHint}, ElementCount={@elementCount}",
     "read_sequence_next"},
    // The reader's and the streams' states.
    {"Z", "X n", &error::zoserialize_reader_closed, "TextReader has already been closed",
     "read_null"},
    {"Z", "X e", &error::zoserialize_reader_closed, "TextReader has already been closed", "is_eof"},
    {"\"ab\"Z", "S n .r1", &error::zoserialize_reader_state,
     "Reader has already been detached from stream", "TextReader::ReadStreamImpl::read"},
    {"[aGk]Z", "B .r1 t .q", &error::zoserialize_reader_state,
     "Reader has already been detached from stream", "TextReader::ReadStreamImpl::bytes_remaining"},
    {"[aGk]", "B .c .c", &error::zoserialize_reader_state,
     "Reader has already been detached from stream", "TextReader::ReadStreamImpl::close"},
    {"[aGk]", "B X .x1", &error::zoserialize_reader_state,
     "Reader has already been detached from stream", "TextReader::ReadStreamImpl::skip"},
};

// The operations run in one go (a payload stream lives from one to the next); only the last
// may fail.
void check_failure(FailureCase const& c, bool stream) {
  auto const reader = open(c.text, stream ? 3 : 1);  // "Stream3" or "Chars"
  char const* const message = stream && c.stream_message ? c.stream_message : c.message;
  auto const info = ZO_EXPECT_ERROR(zotest::run_ops(*reader, c.ops), *c.code, message);
  if (!info) return;
  if (*c.function != 0) {
    std::string const function = c.function;
    EXPECT_EQ(info->location().function().view(),
              std::string("zoserialize::") +
                  (function.find(':') == std::string::npos ? "TextReader::" : "") + function +
                  "()");
  }
  zotest::expect_params(info, c.params);
}

TEST(TextReaderTest, FailuresReportCodeMessageParametersAndPlace) {
  for (FailureCase const& c : kFailures) {
    SCOPED_TRACE(::testing::Message() << '"' << c.text << "\" / " << c.ops);
    check_failure(c, false);
    check_failure(c, true);
  }
}

// The causes nested in the reader's own failures: code and rendered message.
TEST(TextReaderTest, FailuresNestTheirCause) {
  auto const cause = [](char const* text, auto read) {
    auto const reader = open(text);
    try {
      read(*reader);
    } catch (zocore::ErrorException const& e) {
      auto const& nested = e.info()->nested();
      return nested ? std::string(nested->code().view()) + ": " + nested->rendered() : "none";
    }
    return std::string("no failure");
  };
  EXPECT_EQ(cause("+99999999999999999999", [](Reader& r) { r.read_int64(); }),
            "error.zocore.range: Decimal number exceeds 64 bits: 99999999999999999999");
  EXPECT_EQ(cause("K123", [](Reader& r) { r.read_uuid(); }),
            "error.zocore.format: Invalid UUID text: \"123\"");
  EXPECT_EQ(cause("\"\xC3(\"", [](Reader& r) { r.read_string(); }),
            "error.zocore.utf8: Invalid UTF-8 sequence at offset 0");
}

TEST(TextReaderTest, SourcesReportTheirOwnFailures) {
  ZO_EXPECT_ERROR(TextReader(InterfacePtr<IReadStream>(), 16), error::zoserialize_reader,
                  "NULL source stream specified");
  ZO_EXPECT_ERROR(TextReader(static_cast<std::string const*>(nullptr)), error::zoserialize_reader,
                  "NULL source string specified");
  ZO_EXPECT_ERROR(TextReader(static_cast<char const*>(nullptr), 3), error::zoserialize_reader,
                  "NULL source string specified");
  TextReader empty(static_cast<char const*>(nullptr), 0);
  EXPECT_TRUE(empty.is_eof());

  auto failing = make_ref_counted<zotest::ByteSource>("ZZZZ");
  failing->fail_at_call(1);
  TextReader from_stream(InterfacePtr<IReadStream>(failing), 2);
  from_stream.read_null();
  from_stream.read_null();
  auto const info = ZO_EXPECT_ERROR(from_stream.read_null(), error::zoserialize_reader_data_source,
                                    "Error reading from zocore::IReadStream");
  if (info) {
    ASSERT_TRUE(info->nested());
    EXPECT_EQ(info->nested()->code(), zotest::test_stream_error);
  }

  // A stream buffer that fails: the istream goes bad, or throws when told to.
  class BadBuffer : public std::streambuf {
    int_type underflow() override { throw std::runtime_error("device gone"); }
  };
  for (bool throws : {false, true}) {
    BadBuffer buffer;
    std::istream in(&buffer);
    if (throws) in.exceptions(std::ios::badbit);
    TextReader reader(in, 16);
    auto const bad = ZO_EXPECT_ERROR(reader.next_token(), error::zoserialize_reader_data_source,
                                     "Error reading from std::istream");
    if (bad) {
      EXPECT_EQ(static_cast<bool>(bad->nested()), throws);
    }
  }
  // An istream told to throw at its end has merely ended.
  std::istringstream in("Z");
  in.exceptions(std::ios::failbit | std::ios::eofbit);
  TextReader reader(in, 16);
  reader.read_null();
  EXPECT_TRUE(reader.is_eof());
}

// Payload streams decode as they are read; the reader's next operation consumes what is left.
TEST(TextReaderTest, PayloadStreamsDecodeInPieces) {
  std::string const data = zotest::pattern_string(0, 10000);
  std::string const chars = zotest::golden_text(9000) + "~\"\x01";
  std::string const text = text_of(
      [&](Writer& w) {
        w.write_binary(data.data(), static_cast<unsigned>(data.size()));
        w << chars;
        w.write_binary(data.data(), 5);
        w << chars << 7;
      },
      TextWriter::Options().line_width(61));
  for (auto const& [name, read] : text_format().readers) {
    for (unsigned piece : {1u, 2u, 3u, 3072u, 5000u}) {
      auto const reader = read(text);
      Reader& r = *reader;
      EXPECT_EQ(zotest::read_all(*r.read_binary(), piece), data);
      InterfacePtr<IReadStream> const s = r.read_string_stream();
      EXPECT_EQ(s->bytes_remaining(), IReadStream::kUnknownSize);
      EXPECT_EQ(zotest::read_all(*s, piece), chars);
      EXPECT_EQ(s->bytes_remaining(), 0u);
      InterfacePtr<IReadStream> const b = r.read_binary();
      EXPECT_EQ(b->skip(2), 2u);
      std::string rest(8, '\0');
      EXPECT_EQ(b->read(rest.data(), 8), 3u);
      EXPECT_EQ(rest.substr(0, 3), data.substr(2, 3));
      InterfacePtr<IReadStream> const half = r.read_string_stream();
      EXPECT_EQ(half->skip(piece), piece);
      EXPECT_EQ(r.read_int32(), 7);  // the rest of the string is consumed first
      EXPECT_TRUE(r.is_eof());
    }
  }
}

// Random documents of every element kind, written as text with random options and line widths,
// read back as written, compare equal with their binary rendering, and survive a copy to binary
// and back unchanged.
TEST(TextReaderTest, RandomDocumentsRoundTrip) {
  std::mt19937_64 rng(20240611);
  for (int round = 0; round < 40; ++round) {
    std::uint64_t const seed = rng();
    auto const options = TextWriter::Options()
                             .ascii_only(rng() % 2 == 0)
                             .escape_spaces(rng() % 2 == 0)
                             .line_separator_crlf(rng() % 2 == 0)
                             .line_width(static_cast<unsigned>(rng() % 81));
    SCOPED_TRACE(::testing::Message() << "seed " << seed << ", width " << options.line_width());
    std::string text;
    {
      TextWriter writer(text, options);
      zotest::RandomDocument(seed).write(writer, [&] { return text.size(); });
      writer.close();
    }
    std::string const binary = binary_format().write(
        [&](Writer& w) { zotest::RandomDocument(seed).write(w, [] { return 0; }); });
    std::size_t const source = rng() % text_format().readers.size();
    zotest::RandomDocument(seed).read(*open(text, source));
    EXPECT_TRUE(Reader::read_compare_equal_all(*open(text, source), *binary_format().read(binary)));
    std::string const copy =
        binary_format().write([&](Writer& w) { open(text)->read_copy_all(w); });
    EXPECT_EQ(copied(*binary_format().read(copy), options), text);
  }
}

}  // namespace
