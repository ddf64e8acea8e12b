#include <climits>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/recording_writer.h>
#include <support/scripted_reader.h>
#include <zocore/memory_stream.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/reader.h>

namespace {

namespace error = zoserialize::error;
using zoserialize::Reader;
using zotest::ScriptedReader;
using Calls = std::vector<std::string>;
using EToken = Reader::EToken;

#define ZO_UUID "01020304-0506-0708-090a-0b0c0d0e0f10"

template <class T>
T get(Reader& r) {
  T v{};
  r >> v;
  return v;
}

// Through a Reader& so that the front end, not the concrete class, resolves the overload.
TEST(ReaderTest, FrontEndAsksTheCoreForExactlyItsWidthAndConverts) {
  struct Row {
    char const* script;
    char const* call;
    void (*read)(Reader&);
  };
#define ROW(script, call, expression, expected)                      \
  Row {                                                              \
    script, call, [](Reader& r) { EXPECT_EQ(expression, expected); } \
  }
  char const kInt1[] = "read_int_big_endian 1", kUint1[] = "read_uint_big_endian 1";
  char const kInt2[] = "read_int_big_endian 2", kUint2[] = "read_uint_big_endian 2";
  char const kInt4[] = "read_int_big_endian 4", kUint4[] = "read_uint_big_endian 4";
  char const kInt8[] = "read_int_big_endian 8", kUint8[] = "read_uint_big_endian 8";
  Row const rows[] = {
      ROW("t", "read_bool", get<bool>(r), true),
      ROW("iFF", kInt1, get<char>(r), -1),
      ROW("i80", kInt1, get<signed char>(r), -128),
      ROW("iFE", kInt1, r.read_int8(), -2),
      ROW("uFF", kUint1, get<unsigned char>(r), 255),
      ROW("u80", kUint1, r.read_uint8(), 128),
      ROW("iFEDC", kInt2, get<short>(r), -292),
      ROW("i1234", kInt2, r.read_int16(), 0x1234),
      ROW("uFFFE", kUint2, get<unsigned short>(r), 0xFFFE),
      ROW("u8001", kUint2, r.read_uint16(), 0x8001),
      ROW("iFEFDFCFC", kInt4, get<int>(r), -0x01020304),
      ROW("i01020304", kInt4, r.read_int32(), 0x01020304),
      ROW("i80000000", kInt4, r.read_int(), INT_MIN),
      ROW("uFFFFFFFE", kUint4, get<unsigned>(r), 0xFFFFFFFEu),
      ROW("u80000001", kUint4, r.read_uint32(), 0x80000001u),
      ROW("u01020304", kUint4, r.read_uint(), 0x01020304u),
      ROW("i8000000000000001", kInt8, get<long>(r), LONG_MIN + 1),
      ROW("iFEFDFCFBFAF9F8F8", kInt8, r.read_long(), -0x0102030405060708L),
      ROW("uFFFFFFFFFFFFFFFE", kUint8, get<unsigned long>(r), ULONG_MAX - 1),
      ROW("u0102030405060708", kUint8, r.read_ulong(), 0x0102030405060708UL),
      ROW("i0102030405060708", kInt8, get<long long>(r), 0x0102030405060708LL),
      ROW("iFEFDFCFBFAF9F8F8", kInt8, r.read_int64(), -0x0102030405060708LL),
      ROW("u8000000000000001", kUint8, get<unsigned long long>(r), 0x8000000000000001ULL),
      ROW("u0102030405060708", kUint8, r.read_uint64(), 0x0102030405060708ULL),
      ROW("d0.5", "read_double", get<float>(r), 0.5f),
      ROW("d-0.25", "read_double", r.read_float(), -0.25f),
      ROW("d0.1", "read_double", get<double>(r), 0.1),
      ROW("stext", "read_string(string&)", get<std::string>(r), "text"),
      ROW("sowned", "read_string(SourceString&)", get<zoserialize::SourceString>(r), "owned"),
      ROW("sa\xF0\x9F\x98\x80", "read_string()", get<std::wstring>(r), L"a\U0001F600"),
      ROW("skey", "read_string()", get<zoserialize::StringKey>(r).value(), "key"),
      ROW("sk2", "read_string()", r.read_string_key().value(), "k2"),
      ROW("g" ZO_UUID, "read_uuid", get<zoserialize::Uuid>(r).as_string(), ZO_UUID),
      ROW("g" ZO_UUID, "read_uuid", get<zoserialize::UuidKey>(r).uuid().as_string(), ZO_UUID),
      ROW("g" ZO_UUID, "read_uuid", r.read_uuid_key().uuid().as_string(), ZO_UUID),
      ROW("a1500", "read_absolute_time", get<zoserialize::AbsoluteTime>(r).count(), 1500),
      ROW("r-5", "read_relative_time", get<zoserialize::RelativeTime>(r).count(), -5),
  };
#undef ROW
  for (Row const& row : rows) {
    SCOPED_TRACE(row.script);
    ScriptedReader reader(row.script);
    row.read(reader);
    EXPECT_EQ(reader.calls(), Calls{row.call});
    EXPECT_TRUE(reader.is_eof());
  }
}

// Through operator>> for the failures, so that it cannot bypass read_float's check.
TEST(ReaderTest, ReadFloatNarrowsOrFailsOutsideTheFloatRange) {
  for (char const* value : {"3.4028234663852886e+38", "-3.4028234663852886e+38", "0.1"}) {
    ScriptedReader reader(std::string("d") + value);
    EXPECT_EQ(reader.read_float(), static_cast<float>(std::stod(value))) << value;
  }
  for (char const* value :
       {"3.402823466385289e+38", "-3.402823466385289e+38", "inf", "-inf", "nan"}) {
    SCOPED_TRACE(value);
    ScriptedReader reader(std::string("d") + value);
    float result = 42.0f;
    auto const info = ZO_EXPECT_ERROR(reader >> result, error::zoserialize_reader_data_type_range,
                                      "Read floating point value exceeeds range for 'float' data "
                                      "type.  Value={@value}, Range=({@minValue}, {@maxValue})");
    EXPECT_EQ(result, 42.0f);
    EXPECT_EQ(zotest::param(info, "value"), value);
    EXPECT_EQ(zotest::param(info, "minValue"), "-3.4028234663852886e+38");
    EXPECT_EQ(zotest::param(info, "maxValue"), "3.4028234663852886e+38");
    EXPECT_EQ(info ? info->location().function().view() : "", "zoserialize::Reader::read_float()");
  }
}

TEST(ReaderTest, SourceLocationIsReadAsWrittenSkippingAppendedFields) {
  ScriptedReader reader("{ sns::C::f() s$Id:a.cpp$ u01020304 sappended } i09");
  zoserialize::SourceLocation location;
  int after = 0;
  reader >> location >> after;
  EXPECT_EQ(location, zoserialize::SourceLocation("ns::C::f()", "$Id:a.cpp$", 0x01020304));
  EXPECT_EQ(after, 9);
  EXPECT_EQ(reader.calls(),
            (Calls{"read_marker_start", "read_string(SourceString&)", "read_string(SourceString&)",
                   "read_uint_big_endian 4", "read_marker_end", "read_int_big_endian 4"}));
}

// A second end would skip past the next marker; a marker that never ends fails to end.
TEST(ReadMarkerTest, EndsOnceAndItsDestructorSwallowsAFailingEnd) {
  ScriptedReader reader("{ i01 } { i02 } n { {");
  {
    zoserialize::ReadMarker marker(reader);
    EXPECT_FALSE(marker.is_end());
    reader.read_int32();
    EXPECT_TRUE(marker.is_end());
    marker.close();
    EXPECT_FALSE(marker.is_end());
    marker.close();
  }
  { zoserialize::ReadMarker const skipped(reader); }
  reader.read_null();
  {
    zoserialize::ReadMarker marker(reader);
    ZO_EXPECT_ERROR(marker.close(), zotest::scripted_reader_error,
                    "Scripted reader: expected {@expected}, found {@found}");
  }
  EXPECT_NO_THROW({ zoserialize::ReadMarker const marker(reader); });
  EXPECT_EQ(reader.calls(),
            (Calls{"read_marker_start", "read_marker_is_end", "read_int_big_endian 4",
                   "read_marker_is_end", "read_marker_end", "read_marker_start", "read_marker_end",
                   "read_null", "read_marker_start", "read_marker_end", "read_marker_start",
                   "read_marker_end"}));
}

TEST(ReaderTest, ReadCopyAllCopiesEachTopLevelElement) {
  ScriptedReader reader("n iFE t");
  zotest::RecordingWriter writer;
  reader.read_copy_all(writer);
  EXPECT_EQ(writer.calls(), (Calls{"string Null", "string SignedInteger", "string Boolean"}));
  ScriptedReader empty("");
  empty.read_copy_all(writer);
  EXPECT_TRUE(empty.calls().empty());
}

TEST(ReaderCompareTest, ComparesWholeArchivesStructurallyInBothDirections) {
  struct Row {
    char const* name;
    std::string a;
    std::string b;
    bool equal;
  };
  std::string const varied =
      "n t iFE u0100 d0.1 stext bab a10 r-3 g" ZO_UUID " [2 i01 , { sin } ] [ ] { [ n ] } { }";
  std::string const long_text = "s" + std::string(5000, 'x');
  std::string changed_late = long_text;
  changed_late[4500] = 'y';
  Row const rows[] = {
      {"Empty", "", "", true},
      {"EveryKind", varied, varied, true},
      {"CountHintsDiffer", "[2 i01 , i02 ]", "[ i01 , i02 ]", true},
      {"StringVsBinary", "sab", "bab", false},
      {"Bools", "t", "f", false},
      {"PlusMinusZero", "d0", "d-0", true},
      {"NaN", "dnan", "dnan", false},
      {"NotNarrowed", "d1", "d1.0000000000000002", false},
      {"IntegerLowBytes", "u0100", "u0101", false},
      {"EmptyVsOneByte", "s", "sa", false},
      {"Binaries", "bab", "bac", false},
      {"LongStrings", long_text, long_text, true},
      {"DifferInSecondBlock", long_text, changed_late, false},
      {"AbsoluteTimes", "a5", "a6", false},
      {"RelativeTimes", "r5", "r-5", false},
      {"Uuids", "g" ZO_UUID, "g01020304-0506-0708-090a-0b0c0d0e0f11", false},
      {"SequenceLonger", "[ i01 , i02 ]", "[ i01 ]", false},
      {"SequenceElements", "[ i01 , i02 ]", "[ i01 , i03 ]", false},
      {"SlotOfTwoElements", "[ i01 sx , n ]", "[ i01 sx , n ]", true},
      {"SlotLengths", "[ i01 sx ]", "[ i01 ]", false},
      {"MarkerLonger", "{ i01 i02 }", "{ i01 }", false},
      {"MarkerContents", "{ sa }", "{ sb }", false},
      {"TwoElementsVsOne", "i01 i02", "i01", false},
      {"SequenceCutShort", "[ i01", "[ i01", false},
      {"MarkerCutShort", "{ i01", "{ i01", false},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.name);
    ScriptedReader a(row.a), b(row.b);
    EXPECT_EQ(Reader::read_compare_equal_all(a, b), row.equal);
    ScriptedReader b2(row.b), a2(row.a);
    EXPECT_EQ(Reader::read_compare_equal_all(b2, a2), row.equal);
  }
}

TEST(ReaderCompareTest, CompareEqualReadsOneElementOfEachAsTheModelSays) {
  ScriptedReader a("[1 i01 , u01 sx bq ] n");
  ScriptedReader b("[ i01 , u01 sx bq ] t");
  EXPECT_TRUE(Reader::read_compare_equal(a, b));
  EXPECT_EQ(a.next_token(), EToken::Null);
  EXPECT_EQ(b.next_token(), EToken::Boolean);
  EXPECT_EQ(a.calls(),
            (Calls{"read_sequence_start", "read_sequence_next", "read_int_big_endian 128",
                   "read_sequence_next", "read_uint_big_endian 128", "read_string_stream",
                   "read_binary", "read_sequence_next"}));
  // Different tokens decide without reading either value; two ended readers are equal.
  ScriptedReader text("sab"), binary("bab");
  EXPECT_FALSE(Reader::read_compare_equal(text, binary));
  EXPECT_TRUE(text.calls().empty() && binary.calls().empty());
  ScriptedReader ended(""), also_ended("");
  EXPECT_TRUE(Reader::read_compare_equal(ended, also_ended));
}

// Over binary archives, which nest cheaply: a sequence and a marker on each level.
TEST(ReaderCompareTest, DeepNestingIsComparedWithoutRecursion) {
  std::string opens;
  std::string closes;
  for (int level = 0; level < 200000; ++level) {
    opens += "\xA0\xB0";
    closes += "\xBF\xAF";
  }
  auto const equal = [&](char const* a, char const* b) {
    std::string const doc_a = opens + a + closes;
    std::string const doc_b = opens + b + closes;
    zoserialize::BinaryReader reader_a(zocore::make_ref_counted<zocore::MemoryReadStream>(doc_a));
    zoserialize::BinaryReader reader_b(zocore::make_ref_counted<zocore::MemoryReadStream>(doc_b));
    return Reader::read_compare_equal_all(reader_a, reader_b);
  };
  EXPECT_TRUE(equal("\x11", "\x11"));  // true inside
  EXPECT_FALSE(equal("\x11", "\x10"));
}

TEST(ReaderCompareTest, TokensThatStartNoElementFail) {
  struct Row {
    char const* script;
    zocore::ErrorCode const* code;
    char const* message;
    char const* token;  // the "token" parameter, if any
  };
  char const kSequence[] = "Dangling sequence that was not opened in this method";
  char const kState[] = "Invalid/unhandled reader state for comparison.  Token: {@token}";
  Row const rows[] = {
      {",", &error::zoserialize_reader_sequence_nesting, kSequence, nullptr},
      {"]", &error::zoserialize_reader_sequence_nesting, kSequence, nullptr},
      {"}", &error::zoserialize_reader_marker_nesting,
       "Dangling end of marker that was not opened in this method", nullptr},
      {"?0", &error::zoserialize_reader_state, kState, "Unknown"},
      {"?16", &error::zoserialize_reader_state, kState, "##UNKNOWN(16)##"},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.script);
    ScriptedReader a(row.script), b(row.script);
    auto const info = ZO_EXPECT_ERROR(Reader::read_compare_equal(a, b), *row.code, row.message);
    if (!info) continue;
    EXPECT_EQ(info->location().function().view(), "zoserialize::Reader::read_compare_equal()");
    EXPECT_EQ(zotest::param(info, "token"), row.token ? row.token : "<missing>");
  }
}

TEST(ReaderTest, PrintsTokenNames) {
  std::istringstream names(
      "EOF Unknown Null Boolean SignedInteger UnsignedInteger Double String AbsoluteTime "
      "RelativeTime Uuid Binary SequenceStart SequenceSeparator SequenceEnd MarkerStart MarkerEnd");
  std::string name;
  for (int value = -1; names >> name; ++value) {
    EXPECT_EQ(::testing::PrintToString(static_cast<EToken>(value)), name);
  }
  EXPECT_EQ(::testing::PrintToString(static_cast<EToken>(16)), "##UNKNOWN(16)##");
  EXPECT_EQ(::testing::PrintToString(static_cast<EToken>(-2)), "##UNKNOWN(-2)##");
}

}  // namespace
