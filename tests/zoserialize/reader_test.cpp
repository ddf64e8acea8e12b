#include <sstream>
#include <string>
#include <type_traits>
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
using zotest::Script;
using zotest::ScriptedReader;
using Calls = std::vector<std::string>;
using EToken = Reader::EToken;

#define ZO_UUID "01020304-0506-0708-090a-0b0c0d0e0f10"

template <class T>
std::string text_of(T const& v) {
  std::ostringstream out;
  if constexpr (std::is_arithmetic_v<T>) {
    out << +v;  // chars as numbers
  } else if constexpr (requires { v.count(); }) {
    out << v.count();
  } else if constexpr (requires { v.uuid(); }) {
    out << v.uuid().as_string();
  } else if constexpr (requires { v.as_string(); }) {
    out << v.as_string();
  } else if constexpr (requires { v.value(); }) {
    out << v.value();
  } else if constexpr (std::is_same_v<T, std::wstring>) {
    for (wchar_t const c : v)
      out << static_cast<long>(c) << ' ';
  } else {
    out << std::string_view(v.data(), v.size());
  }
  return out.str();
}

template <class T>
std::string extract(Reader& r) {
  T v{};
  r >> v;
  return text_of(v);
}

template <auto Method>
std::string call(Reader& r) {
  return text_of((r.*Method)());
}

// Values whose bytes differ from their byte-swapped image, read through a Reader& so that the
// front end, not the concrete class, resolves the overload.
TEST(ReaderTest, FrontEndAsksTheCoreForExactlyItsWidthAndConverts) {
  struct Row {
    char const* script{};
    std::string (*read)(Reader&){};
    char const* call{};
    char const* value = nullptr;  // when not the script's text after its letter
  };
  Row const rows[] = {
      {"t", extract<bool>, "read_bool", "1"},
      {"i-1", extract<char>, "read_int_big_endian 1"},
      {"i-128", extract<signed char>, "read_int_big_endian 1"},
      {"i-2", call<&Reader::read_int8>, "read_int_big_endian 1"},
      {"u255", extract<unsigned char>, "read_uint_big_endian 1"},
      {"u128", call<&Reader::read_uint8>, "read_uint_big_endian 1"},
      {"i-292", extract<short>, "read_int_big_endian 2"},
      {"i4660", call<&Reader::read_int16>, "read_int_big_endian 2"},
      {"u65534", extract<unsigned short>, "read_uint_big_endian 2"},
      {"u32769", call<&Reader::read_uint16>, "read_uint_big_endian 2"},
      {"i-16909060", extract<int>, "read_int_big_endian 4"},
      {"i16909060", call<&Reader::read_int32>, "read_int_big_endian 4"},
      {"i-2147483648", call<&Reader::read_int>, "read_int_big_endian 4"},
      {"u4294967294", extract<unsigned>, "read_uint_big_endian 4"},
      {"u2147483649", call<&Reader::read_uint32>, "read_uint_big_endian 4"},
      {"u16909060", call<&Reader::read_uint>, "read_uint_big_endian 4"},
      {"i-9223372036854775807", extract<long>, "read_int_big_endian 8"},
      {"i-72623859790382856", call<&Reader::read_long>, "read_int_big_endian 8"},
      {"u18446744073709551614", extract<unsigned long>, "read_uint_big_endian 8"},
      {"u72623859790382856", call<&Reader::read_ulong>, "read_uint_big_endian 8"},
      {"i72623859790382856", extract<long long>, "read_int_big_endian 8"},
      {"i-72623859790382856", call<&Reader::read_int64>, "read_int_big_endian 8"},
      {"u9223372036854775809", extract<unsigned long long>, "read_uint_big_endian 8"},
      {"u72623859790382856", call<&Reader::read_uint64>, "read_uint_big_endian 8"},
      {"d0.5", extract<float>, "read_double"},
      {"d-0.25", call<&Reader::read_float>, "read_double"},
      {"d0.1", extract<double>, "read_double"},
      {"stext", extract<std::string>, "read_string(string&)"},
      {"sowned", extract<zoserialize::SourceString>, "read_string(SourceString&)"},
      {"sa\xF0\x9F\x98\x80", extract<std::wstring>, "read_string()", "97 128512 "},
      {"skey", extract<zoserialize::StringKey>, "read_string()"},
      {"sk2", call<&Reader::read_string_key>, "read_string()"},
      {"g" ZO_UUID, extract<zoserialize::Uuid>, "read_uuid"},
      {"g" ZO_UUID, extract<zoserialize::UuidKey>, "read_uuid"},
      {"g" ZO_UUID, call<&Reader::read_uuid_key>, "read_uuid"},
      {"a1500", extract<zoserialize::AbsoluteTime>, "read_absolute_time"},
      {"r-5", extract<zoserialize::RelativeTime>, "read_relative_time"},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.script);
    ScriptedReader reader(row.script);
    EXPECT_EQ(row.read(reader), row.value ? row.value : row.script + 1);
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
  for (char const* value : {"3.402823466385289e+38", "-3.402823466385289e+38", "3.5e+38",
                            "-3.5e+38", "inf", "-inf", "nan"}) {
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
  ScriptedReader reader("{ sns::C::f() s$Id:a.cpp$ u16909060 sappended } i9");
  zoserialize::SourceLocation location;
  int after = 0;
  reader >> location >> after;
  EXPECT_EQ(location, zoserialize::SourceLocation("ns::C::f()", "$Id:a.cpp$", 0x01020304));
  EXPECT_EQ(after, 9);
  EXPECT_EQ(reader.calls(),
            (Calls{"read_marker_start", "read_string(SourceString&)", "read_string(SourceString&)",
                   "read_uint_big_endian 4", "read_marker_end", "read_int_big_endian 4"}));
}

TEST(ReadMarkerTest, IsEndCloseAndDestructor) {
  ScriptedReader reader("{ i1 } { i2 } n");
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
  EXPECT_EQ(reader.calls(), (Calls{"read_marker_start", "read_marker_is_end",
                                   "read_int_big_endian 4", "read_marker_is_end", "read_marker_end",
                                   "read_marker_start", "read_marker_end"}));
  EXPECT_EQ(reader.next_token(), EToken::Null);
}

TEST(ReadMarkerTest, FailingEndIsReportedByCloseOnceAndSwallowedByTheDestructor) {
  ScriptedReader reader("{");  // the marker never ends
  {
    zoserialize::ReadMarker marker(reader);
    auto const info = ZO_EXPECT_ERROR(marker.close(), zotest::scripted_reader_error,
                                      "Scripted reader: expected {@expected}, found {@found}");
    EXPECT_EQ(zotest::param(info, "found"), "EOF");
  }  // the guard forgot the reader before ending the marker: no second attempt
  ScriptedReader unended("{ i1");
  EXPECT_NO_THROW({ zoserialize::ReadMarker const marker(unended); });
  EXPECT_EQ(reader.calls(), (Calls{"read_marker_start", "read_marker_end"}));
  EXPECT_EQ(unended.calls(), reader.calls());
}

TEST(ReaderTest, ReadCopyAllCopiesEachTopLevelElement) {
  ScriptedReader reader("n [2 IFE , { sin } ] t");
  zotest::RecordingWriter writer;
  reader.read_copy_all(writer);
  EXPECT_EQ(writer.calls(),
            (Calls{"null", "sequence_start 2", "int FE", "sequence_separator", "marker_start",
                   "string \"in\"", "marker_end", "sequence_end", "bool true"}));
  EXPECT_EQ(reader.calls(), Calls(3, "read_copy"));
  ScriptedReader empty("");
  empty.read_copy_all(writer);
  EXPECT_TRUE(empty.calls().empty());
}

Script string_of(std::size_t size, std::size_t changed_at = std::string::npos) {
  std::string text(size, 'x');
  if (changed_at < size) text[changed_at] = 'y';
  return {{EToken::String, text}};
}

TEST(ReaderCompareTest, ComparesWholeArchivesStructurallyInBothDirections) {
  struct Row {
    char const* name;
    Script a;
    Script b;
    bool equal;
  };
  auto const S = zotest::parse_script;
  std::string const varied =
      "n t i-2 u300 d0.1 stext bab a10 r-3 g" ZO_UUID " [2 i1 , { sin } ] [ ] { [ n ] }";
  Row const rows[] = {
      {"Empty", {}, {}, true},
      {"EveryKind", S(varied), S(varied), true},
      {"CountHintsDiffer", S("[2 i1 , i2 ]"), S("[ i1 , i2 ]"), true},
      {"StringVsBinary", S("sab"), S("bab"), false},
      {"SignedVsUnsigned", S("i1"), S("u1"), false},
      {"Bools", S("t"), S("f"), false},
      {"PlusMinusZero", S("d0"), S("d-0"), true},
      {"NaN", S("dnan"), S("dnan"), false},
      {"Doubles", S("d1"), S("d1.0000000000000002"), false},
      {"SignedWidths", S("I05"), S("I00000005"), true},
      {"NegativeWidths", S("IFF"), S("IFFFFFFFFFFFFFFFF"), true},
      {"MinusOneVs255", S("IFF"), S("I00FF"), false},
      {"UnsignedWidths", S("UFF"), S("U0000FF"), true},
      {"Unsigned", S("u256"), S("u257"), false},
      {"WideImageLowByte",
       {{EToken::SignedInteger, std::string(128, 'A')}},
       {{EToken::SignedInteger, std::string(127, 'A') + "B"}},
       false},
      {"EmptyVsOneByte", S("s"), S("sa"), false},
      {"Binaries", S("bab"), S("bac"), false},
      {"LongStrings", string_of(5000), string_of(5000), true},
      {"DifferInSecondBlock", string_of(5000), string_of(5000, 4500), false},
      {"LengthsDifferPastTwoBlocks", string_of(8192), string_of(8193), false},
      {"AbsoluteTimes", S("a5"), S("a6"), false},
      {"RelativeTimes", S("r5"), S("r-5"), false},
      {"Uuids", S("g" ZO_UUID), S("g01020304-0506-0708-090a-0b0c0d0e0f11"), false},
      {"SequenceLonger", S("[ i1 , i2 ]"), S("[ i1 ]"), false},
      {"SequenceEmptyVsOne", S("[ ]"), S("[ i1 ]"), false},
      {"SequencesEmpty", S("[ ]"), S("[5 ]"), true},
      {"SequenceElements", S("[ i1 , i2 ]"), S("[ i1 , i3 ]"), false},
      {"SlotOfTwoElements", S("[ i1 sx , n ]"), S("[ i1 sx , n ]"), true},
      {"SlotLengths", S("[ i1 sx ]"), S("[ i1 ]"), false},
      {"MarkerLonger", S("{ i1 i2 }"), S("{ i1 }"), false},
      {"MarkersEmpty", S("{ }"), S("{ }"), true},
      {"MarkerContents", S("{ sa }"), S("{ sb }"), false},
      {"Nested", S("{ [1 { n } ] }"), S("{ [ { n } ] }"), true},
      {"TwoElementsVsOne", S("i1 i2"), S("i1"), false},
      {"OneVsNone", S("i1"), {}, false},
      {"SequenceCutShort", S("[ i1"), S("[ i1"), false},
      {"MarkerCutShort", S("{ i1"), S("{ i1"), false},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.name);
    ScriptedReader a(row.a);
    ScriptedReader b(row.b);
    EXPECT_EQ(Reader::read_compare_equal_all(a, b), row.equal);
    ScriptedReader b2(row.b);
    ScriptedReader a2(row.a);
    EXPECT_EQ(Reader::read_compare_equal_all(b2, a2), row.equal);
  }
}

TEST(ReaderCompareTest, CompareEqualReadsOneElementOfEachAsTheModelSays) {
  ScriptedReader a("[1 i1 , u1 sx bq ] n");
  ScriptedReader b("[ i1 , u1 sx bq ] t");
  EXPECT_TRUE(Reader::read_compare_equal(a, b));
  EXPECT_EQ(a.next_token(), EToken::Null);
  EXPECT_EQ(b.next_token(), EToken::Boolean);
  EXPECT_EQ(a.calls(),
            (Calls{"read_sequence_start", "read_sequence_next", "read_int_big_endian 128",
                   "read_sequence_next", "read_uint_big_endian 128", "read_string_stream",
                   "read_binary", "read_sequence_next"}));
  // Different tokens decide without reading either value; two ended readers are equal.
  ScriptedReader text("sab");
  ScriptedReader binary("bab");
  EXPECT_FALSE(Reader::read_compare_equal(text, binary));
  EXPECT_EQ(text.position() + binary.position(), 0u);
  EXPECT_TRUE(text.calls().empty() && binary.calls().empty());
  ScriptedReader ended("");
  ScriptedReader also_ended("");
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
      {"{ , }", &error::zoserialize_reader_sequence_nesting, kSequence, nullptr},
      {"}", &error::zoserialize_reader_marker_nesting,
       "Dangling end of marker that was not opened in this method", nullptr},
      {"?0", &error::zoserialize_reader_state, kState, "Unknown"},
      {"?16", &error::zoserialize_reader_state, kState, "##UNKNOWN(16)##"},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.script);
    ScriptedReader a(row.script);
    ScriptedReader b(row.script);
    auto const info = ZO_EXPECT_ERROR(Reader::read_compare_equal(a, b), *row.code, row.message);
    if (!info) continue;
    EXPECT_EQ(info->location().function().view(), "zoserialize::Reader::read_compare_equal()");
    EXPECT_EQ(info->location().file().view(), "$Id: src/zoserialize/reader.cpp $");
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
    EXPECT_EQ(zoserialize::token_name(static_cast<EToken>(value)), name);
  }
  EXPECT_EQ(::testing::PrintToString(static_cast<EToken>(16)), "##UNKNOWN(16)##");
  EXPECT_EQ(::testing::PrintToString(static_cast<EToken>(-2)), "##UNKNOWN(-2)##");
}

}  // namespace
