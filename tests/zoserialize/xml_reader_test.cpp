#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/formats.h>
#include <support/hex_bytes.h>
#include <support/random_document.h>
#include <support/script.h>
#include <support/test_streams.h>
#include <support/xml_golden.h>
#include <zocore/core_errors.h>
#include <zocore/memory_stream.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/xml_reader.h>
#include <zoserialize/xml_writer.h>

namespace {

namespace error = zoserialize::error;
using zocore::make_ref_counted;
using zoserialize::InterfacePtr;
using zoserialize::IReadStream;
using zoserialize::Reader;
using zoserialize::Writer;
using zoserialize::XmlReader;
using zoserialize::XmlWriter;
using EToken = Reader::EToken;

// A reader with the text it reads, over a stream whose parser takes `block` bytes at a time.
struct Opened {
  std::string text;
  std::unique_ptr<XmlReader> reader;
};

std::unique_ptr<Opened> open(std::string text, std::size_t block = XmlReader::kDefaultBlockSize) {
  auto o = std::make_unique<Opened>();
  o->text = std::move(text);
  o->reader = std::make_unique<XmlReader>(
      InterfacePtr<IReadStream>(make_ref_counted<zocore::MemoryReadStream>(o->text)), block);
  return o;
}

std::unique_ptr<Opened> open_body(std::string const& body) {
  return open(zotest::xml_document(body));
}

// The binary format's writer and reader, to compare and copy documents against.
zotest::Format const& binary = zotest::formats().front();

// Where two byte strings first differ, for messages that do not print megabytes.
std::string difference(std::string const& a, std::string const& b) {
  std::size_t i = 0;
  while (i < a.size() && i < b.size() && a[i] == b[i])
    ++i;
  if (i == a.size() && i == b.size()) return "";
  return "differ at " + std::to_string(i) + ": " + zotest::hex(a.substr(i, 16)) + " / " +
         zotest::hex(b.substr(i, 16));
}

std::string xml_of(std::function<void(Writer&)> const& write, char const* unit = "  ",
                   char const* prefix = "\n") {
  std::ostringstream os;
  {
    XmlWriter writer(os, unit, prefix);
    write(writer);
    writer.close();
  }
  return os.str();
}

zocore::ErrorCode const kParserError("error.zoxml.reader", true);
zocore::ErrorCode const kParserUnexpectedElement("error.zoxml.reader.unexpected.element", true);

struct FailureCase {
  std::string body;  // the document inside the root element; a leading '!' for a whole document
  char const* ops;   // zotest::run_ops; the last one must fail
  zocore::ErrorCode const* code;
  char const* message;
  char const* function;
  // "name=value" entries separated by '|' (values may hold spaces).
  char const* params = "";
};

constexpr char kSchema[] = "Invalid XML serialized document schema";
constexpr char kUnexpectedType[] =
    "Unexpected type.  Expected={@expectedType}, Actual={@actualType}";
constexpr char kBits[] =
    "Number of bits required to represent marshaled signed number exceeds expected number of "
    "bits.  Expected={@expectedBits}bits, Actual={@actualBits}bits";
constexpr char kDecimalInt[] = "Invalid decimal 'Int' element value: \"{@actualValue}\"";
constexpr char kDouble[] = "Invalid 'Double' element value: \"{@actualValue}\"";
constexpr char kRelTime[] =
    "Invalid 'RelTime' element value.  Expecting [-]Pnnn[.nnn]S.  Actual: \"{@actualValue}\"";
constexpr char kStreamEncoding[] =
    "Invalid 'encoding' attribute value.  Expecting: \"base64\"; Actual: \"{@actualValue}\"";
constexpr char kNested[] = "Unexpected nested element in binary element";
constexpr char kDetached[] = "Reader has already been detached from stream";
constexpr char kNotAtStart[] = "Not at start of element";
constexpr char kPastEnd[] = "Attempt to read past end of </Serialized> element";

std::string items(int n) {
  std::string out;
  for (int i = 0; i < n; ++i)
    out += "<Item><Null/></Item>";
  return out;
}

std::vector<FailureCase> const& failures() {
  static std::vector<FailureCase> const cases = {
      // The parser's failures pass through; the root is read by the first operation.
      {"!", "t", &kParserError,
       "[line {@line}, pos {@linePos}]: Unexpected end of document; no root element",
       "zoxml::XmlReader::state_start"},
      {"!<Serialized/>", "t", &kParserUnexpectedElement,
       "[line {@line}, pos {@linePos}]: Unexpected element: Name='{@name}', "
       "Namespace=<{@namespace}>.  "
       "ExpectedLocalName='{@expectedLocalName}', ExpectedNamespace=<{@expectedNamespace}>",
       "zoxml::XmlReader::expect_element", "name=Serialized|namespace="},
      {"<Null/>", "n n", &error::zoserialize_reader_eof, "Reader reached </Serialized>, it is EOF",
       "read_null", "line=1|linePos=77|sourcePos=76"},
      {"<Marker></Marker>", "{ b", &error::zoserialize_reader_marker_overrun,
       "Attempt to read past end of Marker or Sequence", "read_bool"},
      {"<Sequence></Sequence>", "[ i", &error::zoserialize_reader_marker_overrun,
       "Attempt to read past end of Marker or Sequence", "read_int_big_endian"},
      {"<Null/>", "b", &error::zoserialize_reader_data_type_mismatch, kUnexpectedType, "read_bool",
       "expectedType=Boolean|actualType=Null|line=1|linePos=70|sourcePos=69"},
      {"<Sequence>" + items(2) + "</Sequence>", "[ > n i",
       &error::zoserialize_reader_data_type_mismatch, kUnexpectedType, "read_int_big_endian",
       "expectedType=SignedInteger|actualType=SequenceSeparator"},
      // Outside the vocabulary.
      {"<Foo/>", "b", &error::zoserialize_reader_xml_schema, kSchema, "read_bool"},
      {"<Null xmlns=\"urn:other\"/>", "n", &error::zoserialize_reader_xml_schema, kSchema,
       "read_null"},
      {"\n  abc<Null/>", "n", &error::zoserialize_reader_xml_schema, kSchema, "read_null",
       "line=1|linePos=70|sourcePos=69"},
      {"<Bool><Bool>true</Bool></Bool>", "b", &error::zoserialize_reader_xml_schema, kSchema,
       "read_bool"},
      {"<Int>5<x/></Int>", "i", &error::zoserialize_reader_xml_schema, kSchema,
       "read_int_big_endian"},
      {"<Null>x</Null>", "n", &error::zoserialize_reader_xml_schema, kSchema, "read_null",
       "actualValue=x"},
      // Values.
      {"<Bool>TRUE</Bool>", "b", &error::zoserialize_reader_xml_schema,
       "Invalid 'Bool' element value.  Valid values: \"true\", \"false\".  Actual: "
       "\"{@actualValue}\"",
       "read_bool", "actualValue=TRUE|line=1|linePos=70|sourcePos=69"},
      {"<Int></Int>", "i", &error::zoserialize_reader_xml_schema, "Empty 'Int' element",
       "read_int_big_endian", "actualValue="},
      {"<UInt/>", "u", &error::zoserialize_reader_xml_schema, "Empty 'UInt' element",
       "read_uint_big_endian", "actualValue="},
      {"<Int>" + std::string(513, '1') + "</Int>", "i", &error::zoserialize_reader_xml_schema,
       "Element value of 'Int' element contains too many characters", "read_int_big_endian"},
      {"<UInt>0x" + std::string(600, '0') + "</UInt>", "u", &error::zoserialize_reader_xml_schema,
       "Element value of 'UInt' element contains too many characters", "read_uint_big_endian"},
      {"<Int>12a</Int>", "i", &error::zoserialize_reader_xml_schema, kDecimalInt,
       "read_int_big_endian", "actualValue=12a"},
      {"<Int>-</Int>", "i", &error::zoserialize_reader_xml_schema, kDecimalInt,
       "read_int_big_endian", "actualValue=-"},
      {"<Int>0x</Int>", "i", &error::zoserialize_reader_xml_schema, kDecimalInt,
       "read_int_big_endian", "actualValue=0x"},
      {"<Int> 5</Int>", "i", &error::zoserialize_reader_xml_schema, kDecimalInt,
       "read_int_big_endian", "actualValue= 5"},
      {"<Int>9223372036854775808</Int>", "i64:", &error::zoserialize_reader_xml_schema, kDecimalInt,
       "read_int_big_endian", "actualValue=9223372036854775808"},
      {"<UInt>-1</UInt>", "u", &error::zoserialize_reader_xml_schema,
       "Invalid decimal 'UInt' element value: \"{@actualValue}\"", "read_uint_big_endian",
       "actualValue=-1"},
      {"<UInt>18446744073709551616</UInt>", "u64:", &error::zoserialize_reader_xml_schema,
       "Invalid decimal 'UInt' element value: \"{@actualValue}\"", "read_uint_big_endian"},
      {"<Int>0x123</Int>", "i", &error::zoserialize_reader_xml_schema,
       "Invalid hexadecimal 'Int' element value: \"{@actualValue}\"", "read_int_big_endian",
       "actualValue=0x123"},
      {"<UInt>0xfg</UInt>", "u", &error::zoserialize_reader_xml_schema,
       "Invalid hexadecimal 'UInt' element value: \"{@actualValue}\"", "read_uint_big_endian"},
      {"<Int>128</Int>", "i8:", &error::zoserialize_reader_data_type_range, kBits,
       "read_int_big_endian", "expectedBits=8|actualBits=16"},
      {"<Int>-129</Int>", "i8:", &error::zoserialize_reader_data_type_range, kBits,
       "read_int_big_endian", "expectedBits=8|actualBits=16"},
      {"<Int>0x0080000000</Int>", "i", &error::zoserialize_reader_data_type_range, kBits,
       "read_int_big_endian", "expectedBits=32|actualBits=40"},
      {"<UInt>256</UInt>", "u8:", &error::zoserialize_reader_data_type_range, kBits,
       "read_uint_big_endian", "expectedBits=8|actualBits=16|line=1|linePos=70"},
      {"<UInt>0x0000000100000000</UInt>", "u", &error::zoserialize_reader_data_type_range, kBits,
       "read_uint_big_endian", "expectedBits=32|actualBits=40"},
      {"<Double>inf</Double>", "d", &error::zoserialize_reader_xml_schema, kDouble, "read_double",
       "actualValue=inf"},
      {"<Double>-nan</Double>", "d", &error::zoserialize_reader_xml_schema, kDouble, "read_double"},
      {"<Double>1.5x</Double>", "d", &error::zoserialize_reader_xml_schema, kDouble, "read_double"},
      {"<Double/>", "d", &error::zoserialize_reader_xml_schema, kDouble, "read_double",
       "actualValue="},
      {"<Double>1E400</Double>", "d", &error::zoserialize_reader_xml_schema, kDouble, "read_double",
       "actualValue=1E400"},
      {"<AbsTime>2018-13-05 00:00:00</AbsTime>", "a", &error::zoserialize_reader_xml_schema,
       "Invalid 'AbsTime' element value.  Expecting ISO time format (YYYY-MM-DD hh:mm:ss.ssss) or "
       "'INF'.  Found: \"{@actualValue}\"",
       "read_absolute_time", "actualValue=2018-13-05 00:00:00"},
      {"<RelTime>PS</RelTime>", "r", &error::zoserialize_reader_xml_schema,
       "Element value of 'RelTime' element contains too few characters", "read_relative_time",
       "actualValue=PS"},
      {"<RelTime>P1.5</RelTime>", "r", &error::zoserialize_reader_xml_schema, kRelTime,
       "read_relative_time", "actualValue=P1.5"},
      {"<RelTime>P1.S</RelTime>", "r", &error::zoserialize_reader_xml_schema, kRelTime,
       "read_relative_time"},
      {"<RelTime>-PS</RelTime>", "r", &error::zoserialize_reader_xml_schema, kRelTime,
       "read_relative_time"},
      {"<RelTime>P1.1234567891S</RelTime>", "r", &error::zoserialize_reader_xml_schema, kRelTime,
       "read_relative_time"},
      {"<RelTime>P9223372036.854775808S</RelTime>", "r", &error::zoserialize_reader_xml_schema,
       kRelTime, "read_relative_time"},
      {"<RelTime>-P9223372036.854775809S</RelTime>", "r", &error::zoserialize_reader_xml_schema,
       kRelTime, "read_relative_time"},
      {"<Uuid>123</Uuid>", "g", &error::zoserialize_reader_xml_schema,
       "Invalid 'Uuid' element value.  Actual: \"{@actualValue}\"", "read_uuid", "actualValue=123"},
      // Strings and binaries.
      {"<String encoding=\"hex\">41</String>", "s", &error::zoserialize_reader_xml_schema,
       "Invalid 'encoding' attribute value in 'String' element.  Expected: \"base64\"; Actual: "
       "\"{@actualValue}\"",
       "read_string", "actualValue=hex"},
      {"<String encoding=\"hex\">41</String>", "S", &error::zoserialize_reader_xml_schema,
       kStreamEncoding, "read_string_stream", "actualValue=hex"},
      {"<Binary encoding=\"\">41</Binary>", "B", &error::zoserialize_reader_xml_schema,
       kStreamEncoding, "read_binary", "actualValue="},
      {"<String encoding=\"base64\">QUJ</String>", "s", &zocore::error::zocore_format,
       "Invalid base64 text at offset {@offset}", "read_string", "offset=2|linePos=70"},
      {"<String encoding=\"base64\">/w==</String>", "s", &zocore::error::zocore_utf8,
       "Invalid UTF-8 sequence at offset {@offset}", "", "offset=0"},
      {"<String encoding=\"base64\">/w==</String>", "S .r10", &zocore::error::zocore_utf8,
       "Invalid UTF-8 sequence at offset {@offset}", ""},
      {"<Binary encoding=\"base64\">QU*D</Binary>", "B .r10", &zocore::error::zocore_format,
       "Invalid base64 text at offset {@offset}", "XmlReader::BinaryStreamImpl::read", "offset=2"},
      {"<Binary encoding=\"base64\">QUJDR</Binary>", "B .x10", &zocore::error::zocore_format,
       "Invalid base64 text at offset {@offset}", "XmlReader::BinaryStreamImpl::read", "offset=5"},
      {"<Binary encoding=\"base64\">QUJD<x/></Binary>", "B .r10",
       &error::zoserialize_reader_xml_schema, kNested, "XmlReader::BinaryStreamImpl::read"},
      {"<Binary><x/></Binary>", "B .r1", &error::zoserialize_reader_xml_schema, kNested,
       "XmlReader::BinaryStreamImpl::read"},
      {"<Binary>abc<x/></Binary>", "B t", &error::zoserialize_reader_xml_schema, kNested,
       "XmlReader::BinaryStreamImpl::detach"},
      {"<Binary>abc</Binary><Null/>", "B n .r1", &error::zoserialize_reader_state, kDetached,
       "XmlReader::BinaryStreamImpl::read"},
      {"<Binary>abc</Binary>", "B e .x1", &error::zoserialize_reader_state, kDetached,
       "XmlReader::BinaryStreamImpl::skip"},
      {"<String>abc</String>", "S e .x1", &error::zoserialize_reader_state, kDetached,
       "XmlReader::BinaryStreamImpl::read"},  // the UTF-8 check reads what it skips
      {"<Binary>abc</Binary>", "B .c .q", &error::zoserialize_reader_state, kDetached,
       "XmlReader::BinaryStreamImpl::bytes_remaining"},
      {"<Binary>abc</Binary>", "B .c .c", &error::zoserialize_reader_state, kDetached,
       "XmlReader::BinaryStreamImpl::close"},
      // Sequences.
      {"<Sequence count=\"x\"></Sequence>", "[", &error::zoserialize_reader_xml_schema,
       "Invalid 'count' attribute value in 'Sequence' element.  Expecting unsigned integer; "
       "Actual: \"{@actualValue}\"",
       "read_sequence_start", "actualValue=x"},
      {"<Sequence count=\"4294967296\"></Sequence>", "[", &error::zoserialize_reader_xml_schema,
       "Invalid 'count' attribute value in 'Sequence' element.  Expecting unsigned integer; "
       "Actual: \"{@actualValue}\"",
       "read_sequence_start", "actualValue=4294967296"},
      {"", ">", &error::zoserialize_reader_sequence_nesting,
       "Attempt to advance to next sequence element but no sequence is open", "read_sequence_next"},
      {"<Marker></Marker>", "{ >", &error::zoserialize_reader_sequence_nesting,
       "Attempt to advance to next sequence element but top of element stack is not sequence",
       "read_sequence_next"},
      {"<Sequence><Null/></Sequence>", "[ >", &error::zoserialize_reader_xml_schema,
       "Only 'Item' element allowed as child of 'Sequence'", "read_sequence_next"},
      {"<Sequence>" + items(1) + "<Foo/></Sequence>", "[ > n >",
       &error::zoserialize_reader_xml_schema, "Only 'Item' element allowed as child of 'Sequence'",
       "read_sequence_next"},
      {"<Sequence><Null/></Sequence>", "[ t", &error::zoserialize_reader_state,
       "Expecting 'Item' that's a child of 'Sequence'", "next_token"},
      {"<Sequence>" + items(1) + "<Null/></Sequence>", "[ > n n", &error::zoserialize_reader_state,
       "Expecting 'Item' that's a child of 'Sequence'", "read_null"},
      {"<Sequence count=\"2\">" + items(3) + "</Sequence>", "[ > n > n >",
       &error::zoserialize_reader_sequence_element_count,
       "Expecting end of sequence but found another item.  CountHint={@countHint}",
       "read_sequence_next", "countHint=2"},
      {"<Sequence count=\"2\">" + items(1) + "</Sequence>", "[ > n >",
       &error::zoserialize_reader_sequence_element_count,
       "Count hint of sequence does not match number of elements in sequence.  "
       "CountHint={@countHint}, ElementCount={@elementCount}",
       "read_sequence_next", "countHint=2|elementCount=1"},
      {"<Sequence count=\"3\"></Sequence>", "[ >",
       &error::zoserialize_reader_sequence_element_count,
       "Count hint of sequence does not match number of elements in sequence.  "
       "CountHint={@countHint}, ElementCount={@elementCount}",
       "read_sequence_next", "countHint=3|elementCount=0"},
      {"<Sequence><Item><Null/><Null/></Item></Sequence>", "[ > n >",
       &error::zoserialize_reader_data_type_mismatch, kUnexpectedType, "read_sequence_next",
       "expectedType=SequenceSeparator|actualType=Null"},
      // Markers.
      {"", "?", &error::zoserialize_reader_marker_mismatch, "No markers are currently open",
       "read_marker_is_end"},
      {"", "}", &error::zoserialize_reader_marker_mismatch, "No markers are currently open",
       "read_marker_end"},
      {"<Sequence></Sequence>", "[ ?", &error::zoserialize_reader_marker_mismatch,
       "Top of element stack is not a marker", "read_marker_is_end"},
      {"<Sequence></Sequence>", "[ }", &error::zoserialize_reader_marker_mismatch,
       "Top of element stack is not a Marker", "read_marker_end"},
      // Skipping and copying a whole element.
      {"", "k", &error::zoserialize_reader_eof, kPastEnd, "skip_element"},
      {"", "c", &error::zoserialize_reader_eof, kPastEnd, "read_copy"},
      {"<Sequence></Sequence>", "[ k", &error::zoserialize_reader_state, kNotAtStart,
       "skip_element"},
      {"<Marker></Marker>", "{ c", &error::zoserialize_reader_state, kNotAtStart, "read_copy"},
      {"<Sequence>" + items(1) + "<Item/></Sequence>", "[ > n k", &error::zoserialize_reader_state,
       kNotAtStart, "skip_element"},
      {"<Foo/>", "k", &error::zoserialize_reader_xml_schema,
       "Unknown element or invalid reader state", "skip_element"},
      {"<Foo/>", "c", &error::zoserialize_reader_xml_schema, "Unknown element", "read_copy"},
      {"<Marker><Null/><Item/></Marker>", "c", &error::zoserialize_reader_xml_schema,
       "Unknown element", "read_copy"},
  };
  return cases;
}

void check_failure(FailureCase const& c, std::size_t block) {
  std::string const doc = c.body.starts_with('!') ? c.body.substr(1) : zotest::xml_document(c.body);
  auto o = open(doc, block);
  auto const info = ZO_EXPECT_ERROR(zotest::run_ops(*o->reader, c.ops), *c.code, c.message);
  if (!info) return;
  if (*c.function != 0) {
    std::string const function = c.function;
    EXPECT_EQ(info->location().function().view(),
              (function.starts_with("zoxml") ? "" : "zoserialize::") +
                  std::string(function.find(':') == std::string::npos ? "XmlReader::" : "") +
                  function + "()");
  }
  zotest::expect_params(info, c.params);
}

TEST(XmlReaderTest, FailuresReportCodeMessageParametersAndPlace) {
  for (FailureCase const& c : failures()) {
    SCOPED_TRACE(::testing::Message() << c.body.substr(0, 60) << " / " << c.ops);
    check_failure(c, XmlReader::kDefaultBlockSize);
    check_failure(c, 3);
  }
}

// A failing value read has consumed its element: the reader goes on with the next one.
TEST(XmlReaderTest, ValueFailuresLeaveTheReaderAfterTheElement) {
  auto o = open_body("<Bool>yes</Bool><Int>1x</Int><Double>?</Double><Uuid>u</Uuid><Null/>");
  XmlReader& r = *o->reader;
  EXPECT_THROW(r.read_bool(), zocore::ErrorException);
  EXPECT_THROW(r.read_int32(), zocore::ErrorException);
  EXPECT_THROW(r.read_double(), zocore::ErrorException);
  EXPECT_THROW(r.read_uuid(), zocore::ErrorException);
  r.read_null();
  EXPECT_TRUE(r.is_eof());
  // A count attribute that does not parse leaves the sequence to be skipped.
  o = open_body("<Sequence count=\"-1\"><Item><Null/></Item></Sequence><Bool>true</Bool>");
  EXPECT_THROW(o->reader->read_sequence_start(), zocore::ErrorException);
  o->reader->skip_element();
  EXPECT_TRUE(o->reader->read_bool());
}

// Every integer form into every width: what fits is sign- or zero-extended, what does not fails
// with the bits message. 512 characters are read, 513 are not.
TEST(XmlReaderTest, IntegersFitTheWidthAsked) {
  struct Case {
    char const* element;
    unsigned width;
    char const* image;  // hex of the bytes read; null when the value does not fit
  };
  Case const cases[] = {
      {"<Int>-1</Int>", 1, "FF"},
      {"<Int>-1</Int>", 0, ""},  // zero bytes hold 0 and, signed, -1
      {"<Int>0</Int>", 0, ""},
      {"<Int>1</Int>", 0, nullptr},
      {"<Int>127</Int>", 1, "7F"},
      {"<Int>0x7f</Int>", 1, "7F"},
      {"<Int>0XFF</Int>", 1, "FF"},
      {"<Int>0xff</Int>", 3, "FF FF FF"},
      {"<Int>0x00ff</Int>", 1, nullptr},
      {"<Int>0x00ff</Int>", 2, "00 FF"},
      {"<Int>0xffff80</Int>", 1, "80"},
      {"<Int>-8388609</Int>", 4, "FF 7F FF FF"},
      {"<Int>-9223372036854775808</Int>", 8, "80 00 00 00 00 00 00 00"},
      {"<Int>0x0000000000000000000001</Int>", 1, "01"},
      {"<UInt>0xABcd</UInt>", 2, "AB CD"},
      {"<UInt>0x00000000ff</UInt>", 1, "FF"},
      {"<UInt>255</UInt>", 1, "FF"},
      {"<UInt>007</UInt>", 4, "00 00 00 07"},
      {"<UInt>18446744073709551615</UInt>", 9, "00 FF FF FF FF FF FF FF FF"},
      {"<UInt>0x0100000000000000000000</UInt>", 10, nullptr},
      {"<UInt>0x0100000000000000000000</UInt>", 11, "01 00 00 00 00 00 00 00 00 00 00"},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(c.element);
    auto o = open_body(c.element);
    std::string got(c.width, '?');
    bool const is_signed = std::string_view(c.element).starts_with("<Int>");
    auto const read = [&] {
      is_signed ? o->reader->read_int_big_endian(got.data(), c.width)
                : o->reader->read_uint_big_endian(got.data(), c.width);
    };
    if (c.image == nullptr) {
      EXPECT_THROW(read(), zocore::ErrorException);
    } else {
      read();
      EXPECT_EQ(zotest::hex(got), zotest::hex(zotest::bytes(c.image)));
    }
  }
  // 512 characters: "0x" and 255 bytes of which only the last is significant.
  std::string const hex = "0x" + std::string(508, '0') + "05";
  EXPECT_EQ(open_body("<Int>" + hex + "</Int>")->reader->read_int32(), 5);
  EXPECT_THROW(open_body("<Int>" + hex + "0</Int>")->reader->read_int32(), zocore::ErrorException);
}

// Comments, processing instructions, a declaration, references and CDATA anywhere; prefixes.
TEST(XmlReaderTest, ReadsWhatAnyXmlToolMayMakeOfADocument) {
  std::string const ns = XmlWriter::kNamespace;
  auto o = open(
      "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<!-- x --><?pi?>"
      "<z:Serialized xmlns:z=\"" +
          ns +
          "\" xmlns:o=\"urn:other\">\r\n"
          "<!-- c --><z:Int o:a=\"1\">1<!-- c -->2</z:Int><?p x?>\t"
          "<z:String>a&#x41;&#66;&lt;&quot;<![CDATA[<]]>&amp;</z:String>"
          "<z:Binary encoding=\"base64\"> aG\r\n k= </z:Binary>"
          "<z:String encoding='base64'>\nYQ==\n</z:String>"
          "<z:Sequence count=\"0002\"><z:Item/><z:Item> <z:Null></z:Null> </z:Item>"
          "</z:Sequence><z:Bool>false</z:Bool></z:Serialized><!-- after -->",
      5);
  XmlReader& r = *o->reader;
  EXPECT_EQ(r.read_int32(), 12);
  EXPECT_EQ(r.read_string(), "aAB<\"<&");
  EXPECT_EQ(zotest::read_all(*r.read_binary()), "hi");
  EXPECT_EQ(r.read_string(), "a");
  EXPECT_EQ(r.read_sequence_start(), 2u);
  EXPECT_TRUE(r.read_sequence_next());
  EXPECT_TRUE(r.read_sequence_next());
  EXPECT_TRUE(r.try_read_null());
  EXPECT_FALSE(r.read_sequence_next());
  EXPECT_FALSE(r.try_read_null());
  EXPECT_FALSE(r.read_bool());
  EXPECT_TRUE(r.is_eof());
  EXPECT_EQ(r.next_token(), EToken::Eof);
}

// The forms the writer does not make but the reader takes.
TEST(XmlReaderTest, ReadsTheOtherForms) {
  auto o = open_body(
      "<Double>1.5e3</Double><Double>.5</Double><Double>-2</Double><Double>1E+2</Double>"
      "<Double>INF</Double><Double>NaN</Double><RelTime>P1S</RelTime><RelTime>-P0.5S</RelTime>"
      "<RelTime>P00.10S</RelTime><RelTime>INF</RelTime><RelTime>-P0S</RelTime>"
      "<AbsTime>2018-03-05T12:00:00.500</AbsTime><AbsTime>INF</AbsTime>"
      "<Uuid>123E4567E89B12D3A456426614174000</Uuid><String/><String></String>"
      "<String>  x  </String><Binary/><Binary>raw&amp;</Binary><Null> </Null><Bool>true</Bool>");
  XmlReader& r = *o->reader;
  for (double want : {1500.0, 0.5, -2.0, 100.0, std::numeric_limits<double>::infinity()})
    EXPECT_EQ(r.read_double(), want);
  double const nan = r.read_double();
  EXPECT_NE(nan, nan);
  for (std::int64_t want : {std::int64_t{1000000000}, std::int64_t{-500000000},
                            std::int64_t{100000000}, std::int64_t{INT64_MAX}, std::int64_t{0}})
    EXPECT_EQ(r.read_relative_time().count(), want);
  EXPECT_EQ(r.read_absolute_time().count(), 1520251200500000000LL);
  EXPECT_TRUE(r.read_absolute_time().is_infinite());
  EXPECT_EQ(r.read_uuid().as_string(), "123e4567-e89b-12d3-a456-426614174000");
  EXPECT_EQ(r.read_string(), "");
  zoserialize::SourceString s;
  r >> s;
  EXPECT_EQ(s.view(), "");
  EXPECT_EQ(r.read_string(), "  x  ");
  EXPECT_EQ(zotest::read_all(*r.read_binary()), "");
  InterfacePtr<IReadStream> const raw = r.read_binary();
  EXPECT_EQ(raw->bytes_remaining(), IReadStream::kUnknownSize);
  EXPECT_EQ(zotest::read_all(*raw), "raw&");
  EXPECT_EQ(raw->bytes_remaining(), 0u);
  r.read_null();
  EXPECT_TRUE(r.read_bool());
}

// What a newer writer appended to a marker, known elements or not, is skipped by its end.
TEST(XmlReaderTest, MarkerEndSkipsAnythingLeft) {
  auto o = open_body(
      "<Marker><Null/><Extra xmlns=\"urn:other\"><x/>text</Extra><Sequence><Item><Foo/></Item>"
      "</Sequence><Binary>abc</Binary></Marker><Bool>true</Bool>");
  XmlReader& r = *o->reader;
  r.read_marker_start();
  EXPECT_FALSE(r.read_marker_is_end());
  r.read_null();
  EXPECT_FALSE(r.read_marker_is_end());
  EXPECT_EQ(r.next_token(), EToken::Unknown);
  r.read_marker_end();
  EXPECT_TRUE(r.read_bool());
  EXPECT_TRUE(r.is_eof());
}

// A stream is detached by the reader's next operation; a binary stream the caller released is
// used again, one it still holds is not.
TEST(XmlReaderTest, StreamsDetachAndAreReused) {
  auto o = open_body(
      "<Binary>abc</Binary><Binary>def</Binary><Binary>ghi</Binary>"
      "<String>jkl</String>");
  XmlReader& r = *o->reader;
  InterfacePtr<IReadStream> first = r.read_binary();
  char c = 0;
  EXPECT_EQ(first->read(&c, 1), 1u);
  InterfacePtr<IReadStream> const second = r.read_binary();
  ZO_EXPECT_ERROR(first->read(&c, 1), error::zoserialize_reader_state, kDetached);
  EXPECT_EQ(zotest::read_all(*second), "def");
  first = nullptr;
  InterfacePtr<IReadStream> const third = r.read_binary();
  ZO_EXPECT_ERROR(second->read(&c, 1), error::zoserialize_reader_state, kDetached);
  EXPECT_EQ(zotest::read_all(*third), "ghi");
  InterfacePtr<IReadStream> const string = r.read_string_stream();
  EXPECT_EQ(zotest::read_all(*string), "jkl");
  o.reset();  // the reader is gone: its stream fails cleanly
  ZO_EXPECT_ERROR(string->read(&c, 1), error::zoserialize_reader_state, kDetached);
}

TEST(XmlReaderTest, Constructors) {
  std::string const doc = zotest::xml_document("<Int>7</Int>");
  std::istringstream in(doc);
  XmlReader from_istream(in, 1);
  EXPECT_EQ(from_istream.read_int32(), 7);
  EXPECT_TRUE(from_istream.is_eof());
  ZO_EXPECT_ERROR(XmlReader(InterfacePtr<IReadStream>()), error::zoserialize_reader,
                  "NULL source stream specified");
  // Nothing is read before the first operation.
  std::istringstream garbage("garbage");
  XmlReader lazy(garbage);
  EXPECT_THROW(lazy.is_eof(), zocore::ErrorException);
}

// Strings are copied through their streams: the writer takes base64 for long ones.
TEST(XmlReaderTest, CopiesStringsThroughTheirStreams) {
  std::string const text = zotest::golden_text(200000);
  std::string const doc = xml_of([&](Writer& w) { w << text << text.substr(0, 4097); });
  std::string const copy = xml_of([&](Writer& w) { open(doc)->reader->read_copy_all(w); });
  EXPECT_NE(copy.find("<String encoding=\"base64\">"), std::string::npos);
  EXPECT_NE(copy.find("<String><![CDATA["), std::string::npos);
  EXPECT_TRUE(Reader::read_compare_equal_all(*open(doc)->reader, *open(copy)->reader));
}

// Random element trees: binary -> XML -> binary gives the same bytes, the XML compares equal to
// the binary, and reads back as written under any layout.
TEST(XmlReaderTest, RandomDocumentsRoundTrip) {
  std::mt19937_64 rng(20240612);
  char const* const units[] = {"", "  ", "\t"};
  char const* const prefixes[] = {"", "\n", "\r\n"};
  for (int round = 0; round < 12; ++round) {
    std::uint64_t const seed = rng();
    char const* const unit = units[rng() % 3];
    char const* const prefix = prefixes[rng() % 3];
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::string const bytes =
        binary.write([&](Writer& w) { zotest::RandomDocument(seed).write(w, [] { return 0; }); });
    std::string const xml =
        xml_of([&](Writer& w) { binary.read(bytes)->read_copy_all(w); }, unit, prefix);
    std::string const back =
        binary.write([&](Writer& w) { open(xml, 1 + rng() % 64)->reader->read_copy_all(w); });
    EXPECT_EQ(difference(back, bytes), "");
    EXPECT_TRUE(Reader::read_compare_equal_all(*open(xml)->reader, *binary.read(bytes)));
    zotest::RandomDocument(seed).read(*open(xml, 1 + rng() % 4096)->reader);
  }
}

// A written document cut at any byte fails cleanly (an archive's or the parser's error), never
// reads back as complete: every golden row of up to 2000 bytes, under a layout with white space.
TEST(XmlReaderTest, TruncatedDocumentsFailCleanly) {
  for (zotest::GoldenRow const& row : zotest::golden_rows()) {
    if (zotest::xml_column().find(row.name) == nullptr) continue;
    std::string const xml = xml_of([&](Writer& w) { zotest::write_script(w, row.script); }, "\t");
    if (xml.size() > 2000) continue;
    SCOPED_TRACE(row.name);
    for (std::size_t cut = 0; cut < xml.size(); ++cut) {
      auto o = open(xml.substr(0, cut), 1 + cut % 7);
      zoserialize::BinaryWriter sink(make_ref_counted<zocore::StringWriteStream>());
      EXPECT_THROW(o->reader->read_copy_all(sink), zocore::ErrorException) << "cut at " << cut;
    }
  }
}

}  // namespace
