#include <cfloat>
#include <climits>
#include <cmath>
#include <functional>
#include <limits>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/recording_writer.h>
#include <support/scripted_reader.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/reader.h>

namespace {

namespace script = zotest::script;
namespace error = zoserialize::error;
using zoserialize::AbsoluteTime;
using zoserialize::Reader;
using zoserialize::RelativeTime;
using zoserialize::SourceLocation;
using zoserialize::SourceString;
using zoserialize::Uuid;
using zotest::RecordingWriter;
using zotest::ScriptedReader;
using zotest::ScriptElement;
using Calls = std::vector<std::string>;
using Script = std::vector<ScriptElement>;
using EToken = Reader::EToken;

constexpr char kReaderFile[] = "$Id: src/zoserialize/reader.cpp $";
constexpr char kRangeMessage[] =
    "Read floating point value exceeeds range for 'float' data type.  Value={@value}, "
    "Range=({@minValue}, {@maxValue})";
constexpr char kScriptMismatch[] = "Scripted reader: expected {@expected}, found {@found}";

Uuid const kUuid(std::array<unsigned char, 16>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15,
                                               16});

template <class T>
std::string text_of(T const& value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

// ---- Typed front end -----------------------------------------------------------------------

struct FrontEndCase {
  char const* name;
  ScriptElement element;
  // Reads through a Reader& and prints what it got.
  std::function<std::string(Reader&)> read;
  std::string expected;
  Calls calls;
};

std::ostream& operator<<(std::ostream& os, FrontEndCase const& c) {
  return os << c.name;
}

template <class T>
std::function<std::string(Reader&)> extract() {
  return [](Reader& r) {
    T value{};
    r >> value;
    if constexpr (sizeof(T) == 1) {
      return std::to_string(static_cast<int>(value));
    } else {
      return text_of(value);
    }
  };
}

template <auto Method>
std::function<std::string(Reader&)> call() {
  return [](Reader& r) {
    auto const value = (r.*Method)();
    if constexpr (sizeof(value) == 1) {
      return std::to_string(static_cast<int>(value));
    } else {
      return text_of(value);
    }
  };
}

class ReaderFrontEndTest : public ::testing::TestWithParam<FrontEndCase> {};

TEST_P(ReaderFrontEndTest, AsksTheCoreForExactlyItsWidth) {
  ScriptedReader reader{GetParam().element};
  EXPECT_EQ(GetParam().read(reader), GetParam().expected);
  EXPECT_EQ(reader.calls(), GetParam().calls);
  EXPECT_TRUE(reader.is_eof());
}

// NOLINTNEXTLINE(cert-err58-cpp): a test table
FrontEndCase const kFrontEndCases[] = {
    {"Bool", script::boolean(true), extract<bool>(), "1", {"read_bool"}},
    {"CharNegative", script::sint(-1), extract<char>(), "-1", {"read_int_big_endian 1"}},
    {"CharFromWideImage",
     script::sint_image("FF FF FF 80"),
     extract<char>(),
     "-128",
     {"read_int_big_endian 1"}},
    {"SignedChar", script::sint(-128), extract<signed char>(), "-128", {"read_int_big_endian 1"}},
    {"ReadInt8", script::sint(127), call<&Reader::read_int8>(), "127", {"read_int_big_endian 1"}},
    {"UnsignedChar",
     script::uint(255),
     extract<unsigned char>(),
     "255",
     {"read_uint_big_endian 1"}},
    {"ReadUint8",
     script::uint(0x80),
     call<&Reader::read_uint8>(),
     "128",
     {"read_uint_big_endian 1"}},
    {"Short", script::sint(-2), extract<short>(), "-2", {"read_int_big_endian 2"}},
    {"ReadInt16",
     script::sint(0x1234),
     call<&Reader::read_int16>(),
     "4660",
     {"read_int_big_endian 2"}},
    {"UnsignedShort",
     script::uint(65535),
     extract<unsigned short>(),
     "65535",
     {"read_uint_big_endian 2"}},
    {"ReadUint16",
     script::uint(0x8000),
     call<&Reader::read_uint16>(),
     "32768",
     {"read_uint_big_endian 2"}},
    {"Int", script::sint(-5), extract<int>(), "-5", {"read_int_big_endian 4"}},
    {"IntMin", script::sint(INT_MIN), extract<int>(), "-2147483648", {"read_int_big_endian 4"}},
    {"ReadInt32",
     script::sint(0x01020304),
     call<&Reader::read_int32>(),
     "16909060",
     {"read_int_big_endian 4"}},
    {"ReadInt", script::sint(128), call<&Reader::read_int>(), "128", {"read_int_big_endian 4"}},
    {"Unsigned",
     script::uint(UINT_MAX),
     extract<unsigned>(),
     "4294967295",
     {"read_uint_big_endian 4"}},
    {"ReadUint32",
     script::uint(0x80000000u),
     call<&Reader::read_uint32>(),
     "2147483648",
     {"read_uint_big_endian 4"}},
    {"ReadUint", script::uint(0), call<&Reader::read_uint>(), "0", {"read_uint_big_endian 4"}},
    {"Long",
     script::sint(LONG_MIN),
     extract<long>(),
     "-9223372036854775808",
     {"read_int_big_endian 8"}},
    {"ReadLong", script::sint(-1), call<&Reader::read_long>(), "-1", {"read_int_big_endian 8"}},
    {"UnsignedLong",
     script::uint(ULONG_MAX),
     extract<unsigned long>(),
     "18446744073709551615",
     {"read_uint_big_endian 8"}},
    {"ReadUlong", script::uint(1), call<&Reader::read_ulong>(), "1", {"read_uint_big_endian 8"}},
    {"LongLong",
     script::sint(LLONG_MAX),
     extract<long long>(),
     "9223372036854775807",
     {"read_int_big_endian 8"}},
    {"ReadInt64",
     script::sint(-0x0102030405060708LL),
     call<&Reader::read_int64>(),
     "-72623859790382856",
     {"read_int_big_endian 8"}},
    {"UnsignedLongLong",
     script::uint(ULLONG_MAX),
     extract<unsigned long long>(),
     "18446744073709551615",
     {"read_uint_big_endian 8"}},
    {"ReadUint64",
     script::uint(0x8000000000000000ULL),
     call<&Reader::read_uint64>(),
     "9223372036854775808",
     {"read_uint_big_endian 8"}},
    {"Float", script::dbl(0.5), extract<float>(), "0.5", {"read_double"}},
    {"ReadFloat", script::dbl(-0.25), call<&Reader::read_float>(), "-0.25", {"read_double"}},
    {"Double", script::dbl(0.1), extract<double>(), "0.1", {"read_double"}},
    {"String", script::str("text"), extract<std::string>(), "text", {"read_string(string&)"}},
    {"SourceString",
     script::str("owned"),
     [](Reader& r) {
       SourceString s;
       r >> s;
       return s.str() + (s.is_static() ? " static" : " owned");
     },
     "owned owned",
     {"read_string(SourceString&)"}},
    {"WideString",
     script::str("a\xF0\x9F\x98\x80"),
     [](Reader& r) {
       std::wstring s;
       r >> s;
       return std::to_string(s.size()) + ":" + std::to_string(static_cast<long>(s[1]));
     },
     "2:128512",
     {"read_string()"}},
    {"StringKey",
     script::str("key"),
     [](Reader& r) {
       zoserialize::StringKey k;
       r >> k;
       return std::string(k.value()) +
              (k == zoserialize::StringKey::token_from_string("key") ? " interned" : " other");
     },
     "key interned",
     {"read_string()"}},
    {"ReadStringKey",
     script::str("k2"),
     [](Reader& r) { return std::string(r.read_string_key().value()); },
     "k2",
     {"read_string()"}},
    {"UuidKey",
     script::uuid(kUuid),
     [](Reader& r) {
       zoserialize::UuidKey k;
       r >> k;
       return std::string(k.uuid() == kUuid ? "same" : "other");
     },
     "same",
     {"read_uuid"}},
    {"ReadUuidKey",
     script::uuid(kUuid),
     [](Reader& r) { return std::string(r.read_uuid_key().uuid() == kUuid ? "same" : "other"); },
     "same",
     {"read_uuid"}},
    {"Uuid",
     script::uuid(kUuid),
     [](Reader& r) {
       Uuid u;
       r >> u;
       return std::string(u == kUuid ? "same" : "other");
     },
     "same",
     {"read_uuid"}},
    {"AbsoluteTime",
     script::abs_time(1500),
     [](Reader& r) {
       AbsoluteTime t;
       r >> t;
       return std::to_string(t.count());
     },
     "1500",
     {"read_absolute_time"}},
    {"RelativeTime",
     script::rel_time(-5),
     [](Reader& r) {
       RelativeTime t;
       r >> t;
       return std::to_string(t.count());
     },
     "-5",
     {"read_relative_time"}},
};

INSTANTIATE_TEST_SUITE_P(AllOverloads, ReaderFrontEndTest, ::testing::ValuesIn(kFrontEndCases),
                         [](auto const& test) { return std::string(test.param.name); });

TEST(ReaderTest, ChainedExtraction) {
  ScriptedReader reader{script::sint(7), script::str("x"), script::boolean(false)};
  int i = 0;
  std::string s;
  bool b = true;
  reader >> i >> s >> b;
  EXPECT_EQ(i, 7);
  EXPECT_EQ(s, "x");
  EXPECT_FALSE(b);
}

TEST(ReaderTest, ValueTooWideForTheTypeIsTheConcreteReadersFailure) {
  ScriptedReader reader{script::sint(300)};
  char c = 0;
  auto const info = ZO_EXPECT_ERROR(
      reader >> c, zotest::scripted_reader_error,
      "Scripted reader: integer of {@needed} bytes does not fit into {@size} bytes");
  EXPECT_EQ(zotest::param(info, "needed"), "2");
  EXPECT_EQ(zotest::param(info, "size"), "1");
  EXPECT_EQ(reader.calls(), (Calls{"read_int_big_endian 1"}));

  ScriptedReader unsigned_reader{script::uint(0x10000)};
  ZO_EXPECT_ERROR(unsigned_reader.read_uint16(), zotest::scripted_reader_error,
                  "Scripted reader: integer of {@needed} bytes does not fit into {@size} bytes");
}

TEST(ReaderTest, BaseCloseDoesNothing) {
  ScriptedReader reader{script::null()};
  reader.Reader::close();
  EXPECT_TRUE(reader.calls().empty());
  EXPECT_EQ(reader.next_token(), EToken::Null);
}

// ---- read_float ------------------------------------------------------------------------------

struct FloatCase {
  char const* name;
  double value;
  bool fits;
  char const* value_text;  // the "value" parameter when it does not fit
};

std::ostream& operator<<(std::ostream& os, FloatCase const& c) {
  return os << c.name;
}

class ReadFloatTest : public ::testing::TestWithParam<FloatCase> {};

TEST_P(ReadFloatTest, NarrowsOrFailsWithTheRange) {
  FloatCase const& c = GetParam();
  for (bool const through_operator : {false, true}) {
    SCOPED_TRACE(through_operator ? "operator>>" : "read_float");
    ScriptedReader reader{script::dbl(c.value)};
    float result = 42.0f;
    auto read = [&] {
      if (through_operator) {
        reader >> result;
      } else {
        result = reader.read_float();
      }
    };
    if (c.fits) {
      read();
      EXPECT_EQ(result, static_cast<float>(c.value));
      continue;
    }
    auto const info =
        ZO_EXPECT_ERROR(read(), error::zoserialize_reader_data_type_range, kRangeMessage);
    EXPECT_EQ(result, 42.0f);
    EXPECT_EQ(zotest::param(info, "value"), c.value_text);
    EXPECT_EQ(zotest::param(info, "minValue"), "-3.4028234663852886e+38");
    EXPECT_EQ(zotest::param(info, "maxValue"), "3.4028234663852886e+38");
    if (info) {
      EXPECT_EQ(info->location().function().view(), "zoserialize::Reader::read_float()");
      EXPECT_EQ(info->location().file().view(), kReaderFile);
      EXPECT_EQ(info->rendered(),
                std::string("Read floating point value exceeeds range for 'float' data type.  "
                            "Value=") +
                    c.value_text + ", Range=(-3.4028234663852886e+38, 3.4028234663852886e+38)");
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Bounds, ReadFloatTest,
    ::testing::Values(FloatCase{"Max", 3.4028234663852886e+38, true, ""},
                      FloatCase{"NegativeMax", -3.4028234663852886e+38, true, ""},
                      FloatCase{"Tenth", 0.1, true, ""}, FloatCase{"NegativeZero", -0.0, true, ""},
                      FloatCase{"Denormal", 1.401298464324817e-45, true, ""},
                      FloatCase{"JustAboveMax", std::nextafter(3.4028234663852886e+38, 1e39), false,
                                "3.402823466385289e+38"},
                      FloatCase{"TooBig", 3.5e+38, false, "3.5e+38"},
                      FloatCase{"TooSmall", -3.5e+38, false, "-3.5e+38"},
                      FloatCase{"Infinity", std::numeric_limits<double>::infinity(), false, "inf"},
                      FloatCase{"NegativeInfinity", -std::numeric_limits<double>::infinity(), false,
                                "-inf"},
                      FloatCase{"NaN", std::numeric_limits<double>::quiet_NaN(), false, "nan"}),
    [](auto const& test) { return std::string(test.param.name); });

// ---- SourceLocation and ReadMarker -----------------------------------------------------------

TEST(ReaderTest, SourceLocationIsReadAsWritten) {
  ScriptedReader reader{script::marker_start(), script::str("ns::Class::f()"),
                        script::str("$Id: src/a.cpp $"), script::uint(0x01020304),
                        script::marker_end()};
  SourceLocation location;
  reader >> location;
  EXPECT_EQ(location.function().view(), "ns::Class::f()");
  EXPECT_EQ(location.file().view(), "$Id: src/a.cpp $");
  EXPECT_EQ(location.line(), 0x01020304u);
  EXPECT_FALSE(location.function().is_static());
  EXPECT_EQ(reader.calls(),
            (Calls{"read_marker_start", "read_string(SourceString&)", "read_string(SourceString&)",
                   "read_uint_big_endian 4", "read_marker_end"}));
  EXPECT_TRUE(reader.is_eof());
}

TEST(ReaderTest, SourceLocationSkipsFieldsANewerWriterAppended) {
  ScriptedReader reader{script::marker_start(), script::str("f()"),   script::str("file"),
                        script::uint(3),        script::str("extra"), script::marker_end(),
                        script::sint(9)};
  SourceLocation location;
  int after = 0;
  reader >> location >> after;
  EXPECT_EQ(location, SourceLocation("f()", "file", 3));
  EXPECT_EQ(after, 9);
}

TEST(ReadMarkerTest, IsEndCloseAndDestroy) {
  ScriptedReader reader{script::marker_start(), script::sint(1), script::sint(2),
                        script::marker_end(), script::null()};
  {
    zoserialize::ReadMarker marker(reader);
    EXPECT_FALSE(marker.is_end());
    EXPECT_EQ(reader.read_int32(), 1);
    marker.close();  // skips the unread 2
    EXPECT_FALSE(marker.is_end());
    marker.close();
  }
  EXPECT_EQ(reader.calls(), (Calls{"read_marker_start", "read_marker_is_end",
                                   "read_int_big_endian 4", "read_marker_end"}));
  EXPECT_EQ(reader.next_token(), EToken::Null);
}

TEST(ReadMarkerTest, IsEndTrueAtTheEnd) {
  ScriptedReader reader{script::marker_start(), script::marker_end()};
  zoserialize::ReadMarker const marker(reader);
  EXPECT_TRUE(marker.is_end());
}

TEST(ReadMarkerTest, DestructorSkipsTheRestOfTheMarker) {
  ScriptedReader reader{script::marker_start(), script::seq_start(1), script::sint(1),
                        script::seq_end(),      script::marker_end(), script::boolean(true)};
  { zoserialize::ReadMarker const marker(reader); }
  EXPECT_TRUE(reader.read_bool());
  EXPECT_EQ(reader.depth(), 0u);
}

TEST(ReadMarkerTest, DestructorSwallowsAFailingEnd) {
  // The marker never ends: skipping to its end runs off the script.
  ScriptedReader reader{script::marker_start(), script::sint(1)};
  EXPECT_NO_THROW({ zoserialize::ReadMarker const marker(reader); });
  EXPECT_EQ(reader.calls(), (Calls{"read_marker_start", "read_marker_end"}));
}

TEST(ReadMarkerTest, FailingCloseReportsOnceAndIsNotRetried) {
  ScriptedReader reader{script::marker_start()};
  {
    zoserialize::ReadMarker marker(reader);
    auto const info =
        ZO_EXPECT_ERROR(marker.close(), zotest::scripted_reader_error, kScriptMismatch);
    EXPECT_EQ(zotest::param(info, "expected"), "MarkerEnd");
    EXPECT_EQ(zotest::param(info, "found"), "EOF");
    EXPECT_FALSE(marker.is_end());
  }
  EXPECT_EQ(reader.calls(), (Calls{"read_marker_start", "read_marker_end"}));
}

// ---- Copying -----------------------------------------------------------------------------

Script varied_script() {
  return {
      script::null(),       script::boolean(true),  script::sint(-2),        script::uint(300),
      script::dbl(0.1),     script::str("text"),    script::bin("\x01\x02"), script::abs_time(10),
      script::rel_time(-3), script::uuid(kUuid),    script::seq_start(2),    script::sint(1),
      script::sep(),        script::marker_start(), script::str("in"),       script::marker_end(),
      script::seq_end(),    script::seq_start(),    script::seq_end(),       script::marker_start(),
      script::seq_start(),  script::null(),         script::seq_end(),       script::marker_end()};
}

TEST(ReaderTest, ReadCopyAllCopiesEveryElement) {
  ScriptedReader reader(varied_script());
  RecordingWriter writer;
  reader.read_copy_all(writer);
  EXPECT_TRUE(reader.is_eof());
  EXPECT_EQ(writer.calls(), (Calls{"null",
                                   "bool true",
                                   "int FE",
                                   "uint 01 2C",
                                   "double 3FB999999999999A",
                                   "string \"text\"",
                                   "binary 01 02",
                                   "absolute_time 10",
                                   "relative_time -3",
                                   "uuid 01020304-0506-0708-090a-0b0c0d0e0f10",
                                   "sequence_start 2",
                                   "int 01",
                                   "sequence_separator",
                                   "marker_start",
                                   "string \"in\"",
                                   "marker_end",
                                   "sequence_end",
                                   "sequence_start",
                                   "sequence_end",
                                   "marker_start",
                                   "sequence_start",
                                   "null",
                                   "sequence_end",
                                   "marker_end"}));
  // One read_copy per top-level element.
  EXPECT_EQ(reader.calls(), Calls(13, "read_copy"));
}

TEST(ReaderTest, ReadCopyAllOfAnEmptyReaderWritesNothing) {
  ScriptedReader reader{};
  RecordingWriter writer;
  reader.read_copy_all(writer);
  EXPECT_TRUE(writer.calls().empty());
}

// ---- Comparison --------------------------------------------------------------------------

struct CompareCase {
  char const* name;
  Script a;
  Script b;
  bool equal;
};

std::ostream& operator<<(std::ostream& os, CompareCase const& c) {
  return os << c.name;
}

class CompareAllTest : public ::testing::TestWithParam<CompareCase> {};

TEST_P(CompareAllTest, ComparesStructurally) {
  ScriptedReader a(GetParam().a);
  ScriptedReader b(GetParam().b);
  EXPECT_EQ(Reader::read_compare_equal_all(a, b), GetParam().equal);
  // The relation is symmetric.
  ScriptedReader a2(GetParam().b);
  ScriptedReader b2(GetParam().a);
  EXPECT_EQ(Reader::read_compare_equal_all(a2, b2), GetParam().equal);
}

std::string repeated(std::size_t n, char c, std::size_t changed_at = std::string::npos) {
  std::string s(n, c);
  if (changed_at < n) s[changed_at] = static_cast<char>(c + 1);
  return s;
}

// NOLINTNEXTLINE(cert-err58-cpp): a test table
CompareCase const kCompareCases[] = {
    {"BothEmpty", {}, {}, true},
    {"SameVariedArchive", varied_script(), varied_script(), true},
    {"CountHintsDifferOnly",
     {script::seq_start(2), script::sint(1), script::sep(), script::sint(2), script::seq_end()},
     {script::seq_start(), script::sint(1), script::sep(), script::sint(2), script::seq_end()},
     true},
    {"StringVersusBinary", {script::str("ab")}, {script::bin("ab")}, false},
    {"SignedVersusUnsigned", {script::sint(1)}, {script::uint(1)}, false},
    {"NullVersusBool", {script::null()}, {script::boolean(false)}, false},
    {"BoolsDiffer", {script::boolean(true)}, {script::boolean(false)}, false},
    {"PositiveAndNegativeZero", {script::dbl(0.0)}, {script::dbl(-0.0)}, true},
    {"NaNEqualsNothing",
     {script::dbl(std::numeric_limits<double>::quiet_NaN())},
     {script::dbl(std::numeric_limits<double>::quiet_NaN())},
     false},
    {"DoublesDiffer", {script::dbl(1.0)}, {script::dbl(1.0000000000000002)}, false},
    {"SignedWidthsDifferValueSame",
     {script::sint_image("05")},
     {script::sint_image("00 00 00 05")},
     true},
    {"NegativeWidthsDifferValueSame",
     {script::sint_image("FF")},
     {script::sint_image("FF FF FF FF FF FF FF FF")},
     true},
    {"MinusOneVersus255", {script::sint_image("FF")}, {script::sint_image("00 FF")}, false},
    {"UnsignedWidthsDifferValueSame",
     {script::uint_image("FF")},
     {script::uint_image("00 00 FF")},
     true},
    {"UnsignedDiffer", {script::uint(256)}, {script::uint(257)}, false},
    {"WideIntegersDifferInLowByte",
     {script::sint_image(std::string(128, 'A'))},
     {script::sint_image(std::string(126, 'A') + "AB")},
     false},
    {"LongStringsEqual",
     {script::str(repeated(5000, 'x'))},
     {script::str(repeated(5000, 'x'))},
     true},
    {"LongStringsDifferInSecondBlock",
     {script::str(repeated(5000, 'x'))},
     {script::str(repeated(5000, 'x', 4500))},
     false},
    {"StringsDifferInLengthPastFirstBlock",
     {script::str(repeated(8192, 'x'))},
     {script::str(repeated(8193, 'x'))},
     false},
    {"StringsOfExactlyOneBlock",
     {script::str(repeated(4096, 'y'))},
     {script::str(repeated(4096, 'y'))},
     true},
    {"EmptyStrings", {script::str("")}, {script::str("")}, true},
    {"BinariesDifferInLastByte",
     {script::bin(repeated(4097, 'b'))},
     {script::bin(repeated(4097, 'b', 4096))},
     false},
    {"TimesAndUuids",
     {script::abs_time(5), script::rel_time(6), script::uuid(kUuid)},
     {script::abs_time(5), script::rel_time(6), script::uuid(kUuid)},
     true},
    {"AbsoluteTimesDiffer", {script::abs_time(5)}, {script::abs_time(6)}, false},
    {"RelativeTimesDiffer", {script::rel_time(5)}, {script::rel_time(-5)}, false},
    {"UuidsDiffer", {script::uuid(kUuid)}, {script::uuid(Uuid())}, false},
    {"SequenceLonger",
     {script::seq_start(), script::sint(1), script::sep(), script::sint(2), script::seq_end()},
     {script::seq_start(), script::sint(1), script::seq_end()},
     false},
    {"SequenceEmptyVersusOne",
     {script::seq_start(), script::seq_end()},
     {script::seq_start(), script::sint(1), script::seq_end()},
     false},
    {"SequencesEmpty",
     {script::seq_start(), script::seq_end()},
     {script::seq_start(5), script::seq_end()},
     true},
    {"SequenceElementsDiffer",
     {script::seq_start(), script::sint(1), script::sep(), script::sint(2), script::seq_end()},
     {script::seq_start(), script::sint(1), script::sep(), script::sint(3), script::seq_end()},
     false},
    {"SequenceSlotWithTwoElements",
     {script::seq_start(), script::sint(1), script::str("x"), script::sep(), script::null(),
      script::seq_end()},
     {script::seq_start(), script::sint(1), script::str("x"), script::sep(), script::null(),
      script::seq_end()},
     true},
    {"SequenceSlotLengthsDiffer",
     {script::seq_start(), script::sint(1), script::str("x"), script::seq_end()},
     {script::seq_start(), script::sint(1), script::seq_end()},
     false},
    {"MarkerLonger",
     {script::marker_start(), script::sint(1), script::sint(2), script::marker_end()},
     {script::marker_start(), script::sint(1), script::marker_end()},
     false},
    {"MarkersEmpty",
     {script::marker_start(), script::marker_end()},
     {script::marker_start(), script::marker_end()},
     true},
    {"MarkerContentsDiffer",
     {script::marker_start(), script::str("a"), script::marker_end()},
     {script::marker_start(), script::str("b"), script::marker_end()},
     false},
    {"Nested",
     {script::marker_start(), script::seq_start(1), script::marker_start(), script::null(),
      script::marker_end(), script::seq_end(), script::marker_end()},
     {script::marker_start(), script::seq_start(), script::marker_start(), script::null(),
      script::marker_end(), script::seq_end(), script::marker_end()},
     true},
    {"TwoElementsVersusOne", {script::sint(1), script::sint(2)}, {script::sint(1)}, false},
    {"OneElementVersusNone", {script::sint(1)}, {}, false},
    {"SequenceCutShort",
     {script::seq_start(), script::sint(1)},
     {script::seq_start(), script::sint(1)},
     false},
};

INSTANTIATE_TEST_SUITE_P(Archives, CompareAllTest, ::testing::ValuesIn(kCompareCases),
                         [](auto const& test) { return std::string(test.param.name); });

TEST(ReaderCompareTest, DifferentTokensAreDecidedWithoutReadingEitherValue) {
  ScriptedReader a{script::str("ab")};
  ScriptedReader b{script::bin("ab")};
  EXPECT_FALSE(Reader::read_compare_equal(a, b));
  EXPECT_TRUE(a.calls().empty());
  EXPECT_TRUE(b.calls().empty());
  EXPECT_EQ(a.position(), 0u);
  EXPECT_EQ(b.position(), 0u);
}

TEST(ReaderCompareTest, CompareEqualConsumesOneElementOfEach) {
  ScriptedReader a{script::seq_start(1), script::sint(1), script::seq_end(), script::null()};
  ScriptedReader b{script::seq_start(), script::sint(1), script::seq_end(), script::boolean(true)};
  EXPECT_TRUE(Reader::read_compare_equal(a, b));
  EXPECT_EQ(a.next_token(), EToken::Null);
  EXPECT_EQ(b.next_token(), EToken::Boolean);
  EXPECT_EQ(a.depth(), 0u);
}

TEST(ReaderCompareTest, EndOfInputOnBothIsEqual) {
  ScriptedReader a{};
  ScriptedReader b{};
  EXPECT_TRUE(Reader::read_compare_equal(a, b));
}

TEST(ReaderCompareTest, IntegersAreComparedAsWideImages) {
  ScriptedReader a{script::sint(-1), script::uint(1)};
  ScriptedReader b{script::sint(-1), script::uint(1)};
  EXPECT_TRUE(Reader::read_compare_equal_all(a, b));
  EXPECT_EQ(a.calls(), (Calls{"read_int_big_endian 128", "read_uint_big_endian 128"}));
}

TEST(ReaderCompareTest, StringsAndBinariesAreComparedAsStreams) {
  ScriptedReader a{script::str("s"), script::bin("b")};
  ScriptedReader b{script::str("s"), script::bin("b")};
  EXPECT_TRUE(Reader::read_compare_equal_all(a, b));
  EXPECT_EQ(a.calls(), (Calls{"read_string_stream", "read_binary"}));
}

// A reader that reports "not at the end" of a marker when its input has run out, as a lenient
// archive might: the comparison must still come to an end.
class LenientMarkerReader : public ScriptedReader {
 public:
  using ScriptedReader::ScriptedReader;
  bool read_marker_is_end() override {
    if (is_eof()) return false;
    return ScriptedReader::read_marker_is_end();
  }
};

TEST(ReaderCompareTest, MarkerCutShortEndsTheComparison) {
  LenientMarkerReader a{script::marker_start(), script::sint(1)};
  LenientMarkerReader b{script::marker_start(), script::sint(1)};
  EXPECT_FALSE(Reader::read_compare_equal(a, b));
}

struct DanglingCase {
  char const* name;
  ScriptElement element;
  zocore::ErrorCode const* code;
  char const* message;
  char const* token;  // the "token" parameter, if any
};

std::ostream& operator<<(std::ostream& os, DanglingCase const& c) {
  return os << c.name;
}

class CompareFailureTest : public ::testing::TestWithParam<DanglingCase> {};

TEST_P(CompareFailureTest, FirstTokenThatStartsNoElementFails) {
  DanglingCase const& c = GetParam();
  ScriptedReader a{c.element};
  ScriptedReader b{c.element};
  auto const info = ZO_EXPECT_ERROR(Reader::read_compare_equal(a, b), *c.code, c.message);
  if (info) {
    EXPECT_EQ(info->location().function().view(), "zoserialize::Reader::read_compare_equal()");
    EXPECT_EQ(info->location().file().view(), kReaderFile);
  }
  if (c.token) {
    EXPECT_EQ(zotest::param(info, "token"), c.token);
  } else if (info) {
    EXPECT_TRUE(info->params().empty());
  }
  // Nothing was consumed.
  EXPECT_TRUE(a.calls().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Tokens, CompareFailureTest,
    ::testing::Values(
        DanglingCase{"SequenceSeparator", script::sep(),
                     &error::zoserialize_reader_sequence_nesting,
                     "Dangling sequence that was not opened in this method", nullptr},
        DanglingCase{"SequenceEnd", script::seq_end(), &error::zoserialize_reader_sequence_nesting,
                     "Dangling sequence that was not opened in this method", nullptr},
        DanglingCase{"MarkerEnd", script::marker_end(), &error::zoserialize_reader_marker_nesting,
                     "Dangling end of marker that was not opened in this method", nullptr},
        DanglingCase{"Unknown", script::token(EToken::Unknown), &error::zoserialize_reader_state,
                     "Invalid/unhandled reader state for comparison.  Token: {@token}", "Unknown"},
        DanglingCase{
            "OutOfRange", script::token(static_cast<EToken>(16)), &error::zoserialize_reader_state,
            "Invalid/unhandled reader state for comparison.  Token: {@token}", "##UNKNOWN(16)##"}),
    [](auto const& test) { return std::string(test.param.name); });

TEST(ReaderCompareTest, DanglingSeparatorInsideAMarkerFails) {
  // The separator stands where an element of the marker should be.
  ScriptedReader a{script::marker_start(), script::sep(), script::marker_end()};
  ScriptedReader b{script::marker_start(), script::sep(), script::marker_end()};
  ZO_EXPECT_ERROR(Reader::read_compare_equal(a, b), error::zoserialize_reader_sequence_nesting,
                  "Dangling sequence that was not opened in this method");
}

// ---- Token names ---------------------------------------------------------------------------

TEST(ReaderTokenTest, PrintsEveryTokenName) {
  std::pair<int, char const*> const names[] = {
      {-1, "EOF"},
      {0, "Unknown"},
      {1, "Null"},
      {2, "Boolean"},
      {3, "SignedInteger"},
      {4, "UnsignedInteger"},
      {5, "Double"},
      {6, "String"},
      {7, "AbsoluteTime"},
      {8, "RelativeTime"},
      {9, "Uuid"},
      {10, "Binary"},
      {11, "SequenceStart"},
      {12, "SequenceSeparator"},
      {13, "SequenceEnd"},
      {14, "MarkerStart"},
      {15, "MarkerEnd"},
      {16, "##UNKNOWN(16)##"},
      {-2, "##UNKNOWN(-2)##"},
      {1000, "##UNKNOWN(1000)##"},
  };
  for (auto const& [value, name] : names) {
    SCOPED_TRACE(value);
    auto const token = static_cast<EToken>(value);
    EXPECT_EQ(text_of(token), name);
    EXPECT_EQ(zoserialize::token_name(token), name);
  }
}

// ---- The scripted reader itself --------------------------------------------------------------

TEST(ScriptedReaderTest, TypedReadOfTheWrongElementFails) {
  ScriptedReader reader{script::null()};
  auto const info =
      ZO_EXPECT_ERROR(reader.read_bool(), zotest::scripted_reader_error, kScriptMismatch);
  EXPECT_EQ(zotest::param(info, "expected"), "Boolean");
  EXPECT_EQ(zotest::param(info, "found"), "Null");
  // The failed read consumed nothing.
  EXPECT_EQ(reader.position(), 0u);
  reader.read_null();
  auto const at_end =
      ZO_EXPECT_ERROR(reader.read_null(), zotest::scripted_reader_error, kScriptMismatch);
  EXPECT_EQ(zotest::param(at_end, "found"), "EOF");
}

TEST(ScriptedReaderTest, TryReadNullConsumesOnlyANull) {
  ScriptedReader reader{script::sint(1), script::null()};
  EXPECT_FALSE(reader.try_read_null());
  EXPECT_EQ(reader.read_int32(), 1);
  EXPECT_TRUE(reader.try_read_null());
  EXPECT_FALSE(reader.try_read_null());
}

TEST(ScriptedReaderTest, SequenceProtocol) {
  ScriptedReader reader{script::seq_start(2), script::sint(1),   script::sep(),
                        script::sint(2),      script::seq_end(), script::seq_start(),
                        script::seq_end()};
  EXPECT_EQ(reader.read_sequence_start(), 2u);
  EXPECT_TRUE(reader.read_sequence_next());
  EXPECT_EQ(reader.read_int32(), 1);
  EXPECT_TRUE(reader.read_sequence_next());
  EXPECT_EQ(reader.read_int32(), 2);
  EXPECT_FALSE(reader.read_sequence_next());
  EXPECT_EQ(reader.read_sequence_start(), 0u);
  EXPECT_FALSE(reader.read_sequence_next());
  EXPECT_TRUE(reader.is_eof());
  EXPECT_EQ(reader.depth(), 0u);
}

TEST(ScriptedReaderTest, SequenceOperationsOutsideASequenceFail) {
  ScriptedReader reader{script::marker_start(), script::sep()};
  auto const none = ZO_EXPECT_ERROR(reader.read_sequence_next(), zotest::scripted_reader_error,
                                    "Scripted reader: the innermost open scope is not a {@scope}");
  EXPECT_EQ(zotest::param(none, "scope"), "sequence");
  reader.read_marker_start();
  ZO_EXPECT_ERROR(reader.read_sequence_next(), zotest::scripted_reader_error,
                  "Scripted reader: the innermost open scope is not a {@scope}");

  ScriptedReader sequence{script::seq_start(), script::null()};
  sequence.read_sequence_start();
  auto const marker =
      ZO_EXPECT_ERROR(sequence.read_marker_is_end(), zotest::scripted_reader_error,
                      "Scripted reader: the innermost open scope is not a {@scope}");
  EXPECT_EQ(zotest::param(marker, "scope"), "marker");
}

TEST(ScriptedReaderTest, MissingSeparatorFails) {
  ScriptedReader reader{script::seq_start(), script::sint(1), script::sint(2)};
  reader.read_sequence_start();
  EXPECT_TRUE(reader.read_sequence_next());
  reader.read_int32();
  auto const info =
      ZO_EXPECT_ERROR(reader.read_sequence_next(), zotest::scripted_reader_error,
                      "Scripted reader: expected a sequence separator or end, found {@found}");
  EXPECT_EQ(zotest::param(info, "found"), "SignedInteger");
}

TEST(ScriptedReaderTest, SkipElementTakesWholeScopes) {
  ScriptedReader reader{script::seq_start(),  script::marker_start(), script::sep(),
                        script::marker_end(), script::sep(),          script::seq_start(),
                        script::seq_end(),    script::seq_end(),      script::str("after")};
  // A separator directly inside a marker is malformed.
  ZO_EXPECT_ERROR(reader.skip_element(), zotest::scripted_reader_error, kScriptMismatch);

  ScriptedReader good{script::seq_start(),  script::marker_start(), script::null(),
                      script::marker_end(), script::sep(),          script::seq_start(),
                      script::seq_end(),    script::seq_end(),      script::str("after")};
  good.skip_element();
  EXPECT_EQ(good.read_string(), "after");
}

TEST(ScriptedReaderTest, SkippingSomethingThatIsNoElementFails) {
  for (ScriptElement const& e :
       {script::sep(), script::seq_end(), script::marker_end(), script::token(EToken::Unknown)}) {
    ScriptedReader reader{e};
    auto const info = ZO_EXPECT_ERROR(reader.skip_element(), zotest::scripted_reader_error,
                                      "Scripted reader: {@found} does not start an element");
    EXPECT_EQ(zotest::param(info, "found"), zoserialize::token_name(e.token));
  }
  ScriptedReader empty{};
  RecordingWriter writer;
  ZO_EXPECT_ERROR(empty.read_copy(writer), zotest::scripted_reader_error,
                  "Scripted reader: {@found} does not start an element");
}

TEST(ScriptedReaderTest, MismatchedEndWhileSkippingFails) {
  ScriptedReader reader{script::seq_start(), script::marker_end()};
  auto const info =
      ZO_EXPECT_ERROR(reader.skip_element(), zotest::scripted_reader_error, kScriptMismatch);
  EXPECT_EQ(zotest::param(info, "expected"), "SequenceEnd");
  EXPECT_EQ(zotest::param(info, "found"), "MarkerEnd");
}

TEST(ScriptedReaderTest, PayloadStreamsOutliveTheReader) {
  zoserialize::InterfacePtr<zoserialize::IReadStream> stream;
  {
    ScriptedReader reader{script::bin("\x01\x02\x03")};
    stream = reader.read_binary();
  }
  EXPECT_EQ(stream->bytes_remaining(), 3u);
  EXPECT_EQ(stream->skip(1), 1u);
  char buffer[4] = {};
  EXPECT_EQ(stream->read(buffer, 4), 2u);
  EXPECT_EQ(buffer[0], 2);
  EXPECT_EQ(buffer[1], 3);
  EXPECT_EQ(stream->read(buffer, 4), 0u);
}

}  // namespace
