#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/test_streams.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/string_ostream.h>

namespace {

using zoserialize::StringOStream;
using zotest::RecordingSink;
using Sizes = std::vector<unsigned>;

constexpr char kClosed[] = "Attempt to write into a closed StringOStream";

// Reaches overflow() directly, as no standard stream passes it end-of-file.
struct OStreamBufPeer : zoserialize::impl::StringOStreamBuf {
  using StringOStreamBuf::overflow;
  using StringOStreamBuf::StringOStreamBuf;
};

// Up to 256 characters go through the buffer (which holds 255 and writes the 256th with them);
// more go straight to the sink after what was buffered. flush() does not reach the sink.
TEST(StringOStreamTest, WritesAbove256BytesBypassTheBuffer) {
  struct Row {
    std::vector<std::size_t> writes;
    Sizes before_close;
    Sizes after_close;
  };
  for (Row const& row :
       {Row{{256}, {256}, {256}}, Row{{257}, {257}, {257}}, Row{{10, 257}, {10, 257}, {10, 257}},
        Row{{10, 256}, {256}, {256, 10}}, Row{{255}, {}, {255}},
        Row{{100, 100, 100}, {256}, {256, 44}}, Row{{0, 1}, {}, {1}}}) {
    auto const sink = zocore::make_ref_counted<RecordingSink>();
    StringOStream out{zocore::InterfacePtr<zocore::IWriteStream>(sink)};
    std::string expected;
    for (std::size_t size : row.writes) {
      std::string const piece = zotest::pattern_string(expected.size(), size);
      out.write(piece.data(), static_cast<std::streamsize>(size));
      expected += piece;
    }
    out.flush();
    EXPECT_EQ(sink->write_sizes(), row.before_close) << ::testing::PrintToString(row.writes);
    out.close();
    EXPECT_EQ(sink->write_sizes(), row.after_close) << ::testing::PrintToString(row.writes);
    EXPECT_EQ(sink->bytes(), expected);
  }
}

TEST(StringOStreamTest, DestructionFlushesAndReleases) {
  auto const sink = zocore::make_ref_counted<RecordingSink>();
  {
    StringOStream out{zocore::InterfacePtr<zocore::IWriteStream>(sink)};
    out << "abc" << 42;
    EXPECT_TRUE(sink->writes().empty());
    EXPECT_EQ(sink->ref_count(), 2u);
  }
  EXPECT_EQ(sink->bytes(), "abc42");
  EXPECT_EQ(sink->ref_count(), 1u);
}

// overflow() stores its argument unchecked: end-of-file becomes the byte 0xFF.
TEST(StringOStreamTest, OverflowOfEofWritesFF) {
  auto const sink = zocore::make_ref_counted<RecordingSink>();
  OStreamBufPeer buf{zocore::InterfacePtr<zocore::IWriteStream>(sink)};
  buf.sputn("ab", 2);
  EXPECT_EQ(buf.overflow(EOF), 0xFF);
  EXPECT_EQ(buf.overflow('c'), 'c');
  EXPECT_EQ(sink->writes(), (std::vector<std::string>{"ab\xFF", "c"}));
}

TEST(StringOStreamTest, ClosedStreamRefusesWrites) {
  auto const sink = zocore::make_ref_counted<RecordingSink>();
  StringOStream out{zocore::InterfacePtr<zocore::IWriteStream>(sink)};
  out.exceptions(std::ios::badbit);
  out << 'x';
  out.close();
  out.close();  // a second close does nothing
  EXPECT_EQ(sink->bytes(), "x");
  EXPECT_EQ(sink->ref_count(), 1u);
  auto info = ZO_EXPECT_ERROR(out.put('y'), zoserialize::error::zoserialize_stream, kClosed);
  if (info) {
    EXPECT_EQ(info->location().function().view(),
              "zoserialize::impl::StringOStreamBuf::overflow()");
    EXPECT_EQ(info->location().file().view(), "$Id: src/zoserialize/string_ostream.cpp $");
  }
  out.clear();
  info = ZO_EXPECT_ERROR(out.write("yz", 2), zoserialize::error::zoserialize_stream, kClosed);
  if (info) {
    EXPECT_EQ(info->location().function().view(), "zoserialize::impl::StringOStreamBuf::xsputn()");
  }
  StringOStream null_sink{nullptr};  // behaves as closed
  null_sink.exceptions(std::ios::badbit);
  ZO_EXPECT_ERROR(null_sink << 'q', zoserialize::error::zoserialize_stream, kClosed);
}

// A sink error at close still releases the sink; the destructor swallows it.
TEST(StringOStreamTest, SinkErrorsPassThrough) {
  auto const sink = zocore::make_ref_counted<RecordingSink>();
  sink->fail_at_write(0);
  {
    StringOStream out{zocore::InterfacePtr<zocore::IWriteStream>(sink)};
    out << "abc";
    ZO_EXPECT_ERROR(out.close(), zotest::test_stream_error, "Injected sink failure");
    EXPECT_EQ(sink->ref_count(), 1u);
  }
  auto const quiet_sink = zocore::make_ref_counted<RecordingSink>();
  quiet_sink->fail_at_write(0);
  {
    StringOStream out{zocore::InterfacePtr<zocore::IWriteStream>(quiet_sink)};
    out << std::string(300, 'x');  // direct write fails: badbit, nothing thrown
    EXPECT_TRUE(out.bad());
    out << "abc";
  }
  EXPECT_TRUE(quiet_sink->writes().empty());
}

}  // namespace
