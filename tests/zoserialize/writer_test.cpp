#include <climits>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <support/error_matchers.h>
#include <support/recording_writer.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/writer.h>

namespace {

using namespace zoserialize;  // NOLINT(google-build-using-namespace): the table reads better
using namespace std::string_literals;
using zotest::RecordingWriter;
using Calls = std::vector<std::string>;

static_assert(sizeof(long) == 8 && sizeof(wchar_t) == 4, "expectations for LP64 Linux");

Uuid const kUuid = Uuid::from_string("123e4567-e89b-12d3-a456-426614174000", 36);
constexpr char kUuidLine[] = "uuid 123e4567-e89b-12d3-a456-426614174000";

struct Row {
  char const* statement;
  std::function<void(Writer&)> write;
  Calls expected;
};

// Each statement goes through a Writer& so that the front end, not the concrete class, resolves
// the overload.
// clang-format off
#define ROW(statement, ...) Row{#statement, [](Writer& w) { statement; }, {__VA_ARGS__}}
// clang-format on

TEST(WriterTest, FrontEndHandsTheCoreFullWidthBigEndianImagesAndUtf8) {
  Row const rows[] = {
    ROW(w << true << false, "bool true", "bool false"),
    ROW(w << static_cast<char>(-1) << static_cast<signed char>(-128), "int FF", "int 80"),
    ROW(w.write_int8(static_cast<char>(-2)), "int FE"),
    ROW(w << static_cast<unsigned char>(255); w.write_uint8(0x80), "uint FF", "uint 80"),
    ROW(w << static_cast<short>(-292); w.write_int16(0x1234), "int FE DC", "int 12 34"),
    ROW(w << static_cast<unsigned short>(0xABCD);
        w.write_uint16(0x8001), "uint AB CD", "uint 80 01"),
    ROW(w << -0x01020304; w.write_int32(0x01020304), "int FE FD FC FC", "int 01 02 03 04"),
    ROW(w.write_int(INT_MIN), "int 80 00 00 00"),
    ROW(w << 0x01020304u; w.write_uint32(0xFFFFFFFEu), "uint 01 02 03 04", "uint FF FF FF FE"),
    ROW(w.write_uint(7), "uint 00 00 00 07"),
    ROW(w << -0x0102030405060708L;
        w.write_long(5L), "int FE FD FC FB FA F9 F8 F8", "int 00 00 00 00 00 00 00 05"),
    ROW(w << 0x0102030405060708UL; w.write_ulong(ULONG_MAX - 1), "uint 01 02 03 04 05 06 07 08",
                                   "uint FF FF FF FF FF FF FF FE"),
    ROW(w << 0x0102030405060708LL;
        w.write_int64(LLONG_MIN), "int 01 02 03 04 05 06 07 08", "int 80 00 00 00 00 00 00 00"),
    ROW(w << 0x8000000000000001ULL; w.write_uint64(0x0102030405060708ULL),
                                    "uint 80 00 00 00 00 00 00 01", "uint 01 02 03 04 05 06 07 08"),
    // Widened exactly: the float nearest to 0.1, not the double nearest to 0.1.
    ROW(w << 0.1f; w.write_float(-0.1f), "double 3FB99999A0000000", "double BFB99999A0000000"),
    ROW(w << 0.1, "double 3FB999999999999A"),
    ROW(w << "abc"; w.write_string("text"), "string abc", "string text"),
    ROW(w << "a\0b"s << std::string_view("xyz", 2), "string a\0b"s, "string xy"),
    ROW(w << SourceString("src", true), "string src"),
    ROW(w << L"h\u00e9\U0001F600", "string h\xC3\xA9\xF0\x9F\x98\x80"),
    ROW(w.write_string(L"wide"); w.write_string(L"wide", 2), "string wide", "string wi"),
    ROW(w << std::wstring(L"a\0\xD83D\xDE00", 4), "string a\0\xF0\x9F\x98\x80"s),
    ROW(w << StringKey::token_from_string("key");
        w.write_string_key(StringKey::token_from_string("k2")), "string key", "string k2"),
    ROW(w << UuidKey(kUuid) << kUuid;
        w.write_uuid_key(UuidKey(kUuid)), kUuidLine, kUuidLine, kUuidLine),
    ROW(w << AbsoluteTime(1500) << RelativeTime(-5), "absolute_time 1500", "relative_time -5"),
    ROW(w << SourceLocation("ns::C::f()", "$Id: a.cpp $", 0x01020304), "marker_start",
        "string ns::C::f()", "string $Id: a.cpp $", "uint 01 02 03 04", "marker_end"),
  };
  for (Row const& row : rows) {
    RecordingWriter writer;
    row.write(writer);
    EXPECT_EQ(writer.calls(), row.expected) << row.statement;
  }
}

// The size check comes before any byte is read: the view's bytes are reserved address space
// that faults on access.
TEST(WriterTest, StringOver4GiBIsRefusedBeforeReading) {
  std::size_t const size = std::size_t{1} << 32;  // the smallest size refused
  void* const region =
      ::mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(region, MAP_FAILED);
  RecordingWriter writer;
  auto const info = ZO_EXPECT_ERROR(
      writer << std::string_view(static_cast<char const*>(region), size),
      error::zoserialize_writer_data_range,
      "Value is too large to be written whole; write it through a stream.  Size={@size}");
  EXPECT_EQ(zotest::param(info, "size"), "4294967296");
  EXPECT_EQ(info ? info->location().function().view() : "", "zoserialize::Writer::size_of()");
  EXPECT_TRUE(writer.calls().empty());
  ::munmap(region, size);
}

TEST(WriteMarkerTest, EndsOnceAndItsDestructorSwallowsAFailingEnd) {
  RecordingWriter writer;
  {
    WriteMarker marker(writer);
    writer << 1;
    marker.close();
    marker.close();
    writer << 2;
  }
  {
    WriteMarker marker(writer);
    writer.fail_on("marker_end");
    ZO_EXPECT_ERROR(marker.close(), zotest::recording_writer_error,
                    "Recording writer: injected failure");
  }  // the guard forgot the writer before ending the marker: no second attempt
  writer.fail_on("marker_end");
  EXPECT_NO_THROW({ WriteMarker const marker(writer); });
  { WriteMarker const ended(writer); }
  EXPECT_EQ(writer.calls(),
            (Calls{"marker_start", "int 00 00 00 01", "marker_end", "int 00 00 00 02",
                   "marker_start", "marker_start", "marker_start", "marker_end"}));
}

}  // namespace
