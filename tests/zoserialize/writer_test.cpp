#include <climits>
#include <cstdint>
#include <functional>
#include <limits>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <support/error_matchers.h>
#include <support/recording_writer.h>
#include <zocore/memory_stream.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/writer.h>

namespace {

using zoserialize::AbsoluteTime;
using zoserialize::RelativeTime;
using zoserialize::SourceLocation;
using zoserialize::SourceString;
using zoserialize::StringKey;
using zoserialize::Uuid;
using zoserialize::UuidKey;
using zoserialize::Writer;
using zotest::RecordingWriter;
using Calls = std::vector<std::string>;

static_assert(sizeof(long) == 8, "the expectations below are for LP64 Linux");
static_assert(sizeof(wchar_t) == 4, "the expectations below are for Linux wide strings");

Uuid const kUuid(std::array<unsigned char, 16>{0x12, 0x3e, 0x45, 0x67, 0xe8, 0x9b, 0x12, 0xd3, 0xa4,
                                               0x56, 0x42, 0x66, 0x14, 0x17, 0x40, 0x00});
constexpr char kUuidLine[] = "uuid 123e4567-e89b-12d3-a456-426614174000";

struct FrontEndCase {
  char const* name;
  std::function<void(Writer&)> write;
  Calls expected;
};

std::ostream& operator<<(std::ostream& os, FrontEndCase const& c) {
  return os << c.name;
}

class WriterFrontEndTest : public ::testing::TestWithParam<FrontEndCase> {};

TEST_P(WriterFrontEndTest, HandsTheCoreTheExpectedCall) {
  RecordingWriter writer;
  GetParam().write(writer);
  EXPECT_EQ(writer.calls(), GetParam().expected);
}

// Every overload is reached through a Writer& so that the front end, not the concrete class,
// resolves it.
// NOLINTNEXTLINE(cert-err58-cpp): a test table
FrontEndCase const kFrontEndCases[] = {
    {"BoolTrue", [](Writer& w) { w << true; }, {"bool true"}},
    {"BoolFalse", [](Writer& w) { w << false; }, {"bool false"}},
    {"CharMinusOne", [](Writer& w) { w << static_cast<char>(-1); }, {"int FF"}},
    {"CharLetter", [](Writer& w) { w << 'A'; }, {"int 41"}},
    {"SignedChar", [](Writer& w) { w << static_cast<signed char>(-128); }, {"int 80"}},
    {"WriteInt8", [](Writer& w) { w.write_int8(static_cast<char>(-1)); }, {"int FF"}},
    {"UnsignedChar", [](Writer& w) { w << static_cast<unsigned char>(255); }, {"uint FF"}},
    {"WriteUint8", [](Writer& w) { w.write_uint8(0x80); }, {"uint 80"}},
    {"Short", [](Writer& w) { w << static_cast<short>(-2); }, {"int FF FE"}},
    {"WriteInt16", [](Writer& w) { w.write_int16(0x1234); }, {"int 12 34"}},
    {"UnsignedShort", [](Writer& w) { w << static_cast<unsigned short>(0xABCD); }, {"uint AB CD"}},
    {"WriteUint16", [](Writer& w) { w.write_uint16(1); }, {"uint 00 01"}},
    {"Int", [](Writer& w) { w << 5; }, {"int 00 00 00 05"}},
    {"IntMinusOne", [](Writer& w) { w << -1; }, {"int FF FF FF FF"}},
    {"IntMin", [](Writer& w) { w << INT_MIN; }, {"int 80 00 00 00"}},
    {"WriteInt32", [](Writer& w) { w.write_int32(0x01020304); }, {"int 01 02 03 04"}},
    {"WriteInt", [](Writer& w) { w.write_int(-0x01020304); }, {"int FE FD FC FC"}},
    {"Unsigned", [](Writer& w) { w << 0x01020304u; }, {"uint 01 02 03 04"}},
    {"WriteUint32", [](Writer& w) { w.write_uint32(UINT_MAX); }, {"uint FF FF FF FF"}},
    {"WriteUint", [](Writer& w) { w.write_uint(7); }, {"uint 00 00 00 07"}},
    {"Long", [](Writer& w) { w << 5L; }, {"int 00 00 00 00 00 00 00 05"}},
    {"WriteLong", [](Writer& w) { w.write_long(-2L); }, {"int FF FF FF FF FF FF FF FE"}},
    {"UnsignedLong",
     [](Writer& w) { w << 0x0102030405060708UL; },
     {"uint 01 02 03 04 05 06 07 08"}},
    {"WriteUlong", [](Writer& w) { w.write_ulong(ULONG_MAX); }, {"uint FF FF FF FF FF FF FF FF"}},
    {"LongLong", [](Writer& w) { w << 0x0102030405060708LL; }, {"int 01 02 03 04 05 06 07 08"}},
    {"WriteInt64", [](Writer& w) { w.write_int64(LLONG_MIN); }, {"int 80 00 00 00 00 00 00 00"}},
    {"UnsignedLongLong", [](Writer& w) { w << ULLONG_MAX; }, {"uint FF FF FF FF FF FF FF FF"}},
    {"WriteUint64",
     [](Writer& w) { w.write_uint64(0x8000000000000000ULL); },
     {"uint 80 00 00 00 00 00 00 00"}},
    // Widened exactly: the float nearest to 0.1, not the double nearest to 0.1.
    {"FloatTenth", [](Writer& w) { w << 0.1f; }, {"double 3FB99999A0000000"}},
    {"WriteFloat", [](Writer& w) { w.write_float(0.1f); }, {"double 3FB99999A0000000"}},
    {"FloatNegativeZero", [](Writer& w) { w << -0.0f; }, {"double 8000000000000000"}},
    {"FloatInfinity",
     [](Writer& w) { w << std::numeric_limits<float>::infinity(); },
     {"double 7FF0000000000000"}},
    {"FloatNaN",
     [](Writer& w) { w << std::numeric_limits<float>::quiet_NaN(); },
     {"double 7FF8000000000000"}},
    {"DoubleTenth", [](Writer& w) { w << 0.1; }, {"double 3FB999999999999A"}},
    {"CharPointer", [](Writer& w) { w << "abc"; }, {"string \"abc\""}},
    {"CharPointerEmpty", [](Writer& w) { w << ""; }, {"string \"\""}},
    {"WriteStringCharPointer", [](Writer& w) { w.write_string("text"); }, {"string \"text\""}},
    {"StdStringWithZeroByte",
     [](Writer& w) { w << std::string("a\0b", 3); },
     {"string \"a\\x00b\""}},
    {"StringView", [](Writer& w) { w << std::string_view("xyz", 2); }, {"string \"xy\""}},
    {"SourceStringStatic", [](Writer& w) { w << SourceString("src", true); }, {"string \"src\""}},
    {"SourceStringOwned", [](Writer& w) { w << SourceString("own", false); }, {"string \"own\""}},
    {"WideAccented", [](Writer& w) { w << L"h\u00e9"; }, {"string \"h\\xC3\\xA9\""}},
    {"WideNonBmp", [](Writer& w) { w << L"\U0001F600"; }, {"string \"\\xF0\\x9F\\x98\\x80\""}},
    {"WideSurrogatePair",
     [](Writer& w) {
       wchar_t const pair[] = {0xD83D, 0xDE00, 0};
       w << pair;
     },
     {"string \"\\xF0\\x9F\\x98\\x80\""}},
    {"WriteStringWide", [](Writer& w) { w.write_string(L"wide"); }, {"string \"wide\""}},
    {"WriteStringWideCount", [](Writer& w) { w.write_string(L"wide", 2); }, {"string \"wi\""}},
    {"StdWstring",
     [](Writer& w) { w << std::wstring(L"a\0\U0001F600", 3); },
     {"string \"a\\x00\\xF0\\x9F\\x98\\x80\""}},
    {"StdWstringSurrogates",
     [](Writer& w) {
       w << std::wstring{L'x', wchar_t{0xD83D}, wchar_t{0xDE00}};
     },
     {"string \"x\\xF0\\x9F\\x98\\x80\""}},
    {"StringKey", [](Writer& w) { w << StringKey::token_from_string("key"); }, {"string \"key\""}},
    {"WriteStringKey",
     [](Writer& w) { w.write_string_key(StringKey::token_from_string("k2")); },
     {"string \"k2\""}},
    {"UuidKey", [](Writer& w) { w << UuidKey(kUuid); }, {kUuidLine}},
    {"WriteUuidKey", [](Writer& w) { w.write_uuid_key(UuidKey(kUuid)); }, {kUuidLine}},
    {"Uuid", [](Writer& w) { w << kUuid; }, {kUuidLine}},
    {"NullUuid", [](Writer& w) { w << Uuid(); }, {"uuid 00000000-0000-0000-0000-000000000000"}},
    {"AbsoluteTime", [](Writer& w) { w << AbsoluteTime(1500); }, {"absolute_time 1500"}},
    {"AbsoluteTimeInfinite",
     [](Writer& w) { w << AbsoluteTime::infinite(); },
     {"absolute_time 9223372036854775807"}},
    {"RelativeTime", [](Writer& w) { w << RelativeTime(-5); }, {"relative_time -5"}},
    {"SourceLocation",
     [](Writer& w) { w << SourceLocation("ns::Class::f()", "$Id: src/a.cpp $", 0x01020304); },
     {"marker_start", "string \"ns::Class::f()\"", "string \"$Id: src/a.cpp $\"",
      "uint 01 02 03 04", "marker_end"}},
    {"DefaultSourceLocation",
     [](Writer& w) { w << SourceLocation(); },
     {"marker_start", "string \"\"", "string \"\"", "uint 00 00 00 00", "marker_end"}},
    {"Chained",
     [](Writer& w) { w << 1 << "a" << true << 2.0; },
     {"int 00 00 00 01", "string \"a\"", "bool true", "double 4000000000000000"}},
};

INSTANTIATE_TEST_SUITE_P(AllOverloads, WriterFrontEndTest, ::testing::ValuesIn(kFrontEndCases),
                         [](auto const& test) { return std::string(test.param.name); });

TEST(WriterTest, BaseCloseAndFlushDoNothing) {
  RecordingWriter writer;
  writer.Writer::close();
  writer.Writer::flush();
  EXPECT_TRUE(writer.calls().empty());
}

// The size check comes before any byte is read: the view's bytes are reserved address space
// that faults on access.
TEST(WriterTest, TooLongStringIsRefusedBeforeReading) {
  std::size_t const size = (std::size_t{1} << 32) + 1;
  void* const region =
      ::mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (region == MAP_FAILED) GTEST_SKIP() << "cannot reserve 4 GiB of address space";
  std::string_view const huge(static_cast<char const*>(region), size);
  RecordingWriter writer;
  Writer& w = writer;
  auto const info = ZO_EXPECT_ERROR(
      w << huge, zoserialize::error::zoserialize_writer_data_range,
      "Value is too large to be written whole; write it through a stream.  Size={@size}");
  EXPECT_EQ(zotest::param(info, "size"), "4294967297");
  if (info) {
    EXPECT_EQ(info->location().function().view(), "zoserialize::Writer::size_of()");
    EXPECT_EQ(info->location().file().view(), "$Id: src/zoserialize/writer.cpp $");
  }
  EXPECT_TRUE(writer.calls().empty());
  ::munmap(region, size);
}

TEST(WriteMarkerTest, CloseThenDestroyWritesExactlyOneEnd) {
  RecordingWriter writer;
  {
    zoserialize::WriteMarker marker(writer);
    writer << 1;
    marker.close();
    marker.close();
    writer << 2;
  }
  EXPECT_EQ(writer.calls(),
            (Calls{"marker_start", "int 00 00 00 01", "marker_end", "int 00 00 00 02"}));
}

TEST(WriteMarkerTest, DestructorEndsNestedMarkersInnermostFirst) {
  RecordingWriter writer;
  {
    zoserialize::WriteMarker outer(writer);
    zoserialize::WriteMarker const inner(writer);
    writer << true;
  }
  EXPECT_EQ(writer.calls(),
            (Calls{"marker_start", "marker_start", "bool true", "marker_end", "marker_end"}));
}

TEST(WriteMarkerTest, LeavingByAnExceptionEndsTheMarker) {
  RecordingWriter writer;
  try {
    zoserialize::WriteMarker const marker(writer);
    writer << 1;
    throw std::runtime_error("leave");
  } catch (std::runtime_error const&) {
  }
  EXPECT_EQ(writer.calls(), (Calls{"marker_start", "int 00 00 00 01", "marker_end"}));
}

TEST(WriteMarkerTest, DestructorSwallowsAFailingEnd) {
  RecordingWriter writer;
  writer.fail_on("marker_end");
  EXPECT_NO_THROW({ zoserialize::WriteMarker const marker(writer); });
  EXPECT_EQ(writer.calls(), (Calls{"marker_start"}));
}

TEST(WriteMarkerTest, FailingCloseReportsOnceAndIsNotRetried) {
  RecordingWriter writer;
  {
    zoserialize::WriteMarker marker(writer);
    writer.fail_on("marker_end");
    auto const info = ZO_EXPECT_ERROR(marker.close(), zotest::recording_writer_error,
                                      "Recording writer: injected failure of {@call}");
    EXPECT_EQ(zotest::param(info, "call"), "marker_end");
  }
  // The guard forgot the writer before ending the marker, so its destructor wrote nothing.
  EXPECT_EQ(writer.calls(), (Calls{"marker_start"}));
}

// ---- The recording writer itself -----------------------------------------------------------

TEST(RecordingWriterTest, CoreCallsWithoutFrontEnd) {
  RecordingWriter writer;
  writer.write_null();
  writer.write_sequence_start(3);
  writer.write_sequence_start(0);
  writer.write_sequence_start();
  writer.write_sequence_separator();
  writer.write_sequence_end();
  writer.write_binary("\x01\x02", 2);
  writer.write_binary(nullptr, 0);
  writer.write_int_big_endian(nullptr, 0);
  writer.flush();
  writer.close();
  EXPECT_EQ(writer.calls(), (Calls{"null", "sequence_start 3", "sequence_start 0", "sequence_start",
                                   "sequence_separator", "sequence_end", "binary 01 02", "binary",
                                   "int", "flush", "close"}));
  EXPECT_EQ(writer.take_calls().size(), 11u);
  EXPECT_TRUE(writer.calls().empty());
}

TEST(RecordingWriterTest, QuotingEscapesEverythingButPrintableAscii) {
  EXPECT_EQ(RecordingWriter::quote("plain text 1~"), "plain text 1~");
  EXPECT_EQ(RecordingWriter::quote(std::string_view("a\"b\\c\n\0\x7F\x80\xFF", 10)),
            "a\\x22b\\x5Cc\\x0A\\x00\\x7F\\x80\\xFF");
}

TEST(RecordingWriterTest, ValueStreamsAreRecordedWhenTheNextElementStarts) {
  RecordingWriter writer;
  auto const text = writer.write_string_stream();
  text->write("ab", 2);
  text->write("c", 1);
  writer.write_null();
  auto const data = writer.write_binary();
  data->write("\x01\x02", 2);
  writer.flush();
  auto const empty = writer.write_binary();
  writer.close();
  EXPECT_EQ(writer.calls(), (Calls{"string_stream \"abc\"", "null", "binary_stream 01 02", "flush",
                                   "binary_stream", "close"}));
}

TEST(RecordingWriterTest, ClosingAValueStreamRecordsItAtOnce) {
  RecordingWriter writer;
  auto const text = writer.write_string_stream();
  text->write("x", 1);
  text->close();
  text->close();
  EXPECT_EQ(writer.calls(), (Calls{"string_stream \"x\""}));
}

TEST(RecordingWriterTest, WritingAFinishedStreamFails) {
  RecordingWriter writer;
  auto const text = writer.write_string_stream();
  writer.write_null();
  auto const info = ZO_EXPECT_ERROR(text->write("late", 4), zotest::recording_writer_error,
                                    "Recording writer: value stream written after it was finished");
  if (info) {
    EXPECT_EQ(info->location().function().view(), "zotest::RecordingWriter::ValueStream::write()");
  }
  // A stream that outlives its writer fails the same way.
  zoserialize::InterfacePtr<zoserialize::IWriteStream> orphan;
  {
    RecordingWriter gone;
    orphan = gone.write_binary();
  }
  ZO_EXPECT_ERROR(orphan->write("x", 1), zotest::recording_writer_error,
                  "Recording writer: value stream written after it was finished");
}

TEST(RecordingWriterTest, FromStreamFormsDrainTheSource) {
  std::string const big(5000, 'q');
  zocore::MemoryReadStream text(big);
  zocore::MemoryReadStream data(std::string_view("\xAB\xCD", 2));
  RecordingWriter writer;
  writer.write_string_stream(text);
  writer.write_binary(data);
  EXPECT_EQ(writer.calls(), (Calls{"string_from \"" + big + "\"", "binary_from AB CD"}));
}

TEST(RecordingWriterTest, MergedValueFormsLookLikeWholeValues) {
  zocore::MemoryReadStream text(std::string_view("from"));
  zocore::MemoryReadStream data(std::string_view("\x03", 1));
  RecordingWriter writer;
  writer.merge_value_forms(true);
  writer.write_string_stream()->write("streamed", 8);
  writer.write_string_stream(text);
  writer.write_binary()->write("\x01", 1);
  writer.write_binary(data);
  writer.write_string("whole", 5);
  EXPECT_EQ(writer.calls(), (Calls{"string \"streamed\"", "string \"from\"", "binary 01",
                                   "binary 03", "string \"whole\""}));
}

TEST(RecordingWriterTest, InjectedFailureFiresOnce) {
  RecordingWriter writer;
  writer.fail_on("bool");
  writer << 1;
  ZO_EXPECT_ERROR(writer << true, zotest::recording_writer_error,
                  "Recording writer: injected failure of {@call}");
  writer << false;
  EXPECT_EQ(writer.calls(), (Calls{"int 00 00 00 01", "bool false"}));
}

}  // namespace
