#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/test_streams.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/string_istream.h>

namespace {

using zoserialize::StringIStream;
using zotest::ByteSource;
using Calls = std::vector<ByteSource::Call>;

constexpr char kClosedRead[] = "Attempt to read from a closed StringIStream";

zocore::RefCountPtr<ByteSource> source_of(std::string bytes) {
  return zocore::make_ref_counted<ByteSource>(std::move(bytes));
}

// A source that delivers nothing is asked once; the end it reported is remembered.
TEST(StringIStreamTest, EmptySourceIsAskedOnce) {
  auto const source = source_of("");
  StringIStream in{zocore::InterfacePtr<zocore::IReadStream>(source)};
  EXPECT_EQ(in.get(), EOF);
  in.clear();
  EXPECT_EQ(in.get(), EOF);
  char buffer[4000];
  in.clear();
  EXPECT_FALSE(in.read(buffer, sizeof buffer));
  EXPECT_EQ(in.gcount(), 0);
  EXPECT_EQ(source->calls(), (Calls{{false, 1024, 0}}));
}

// A read larger than what is buffered plus the whole buffer (1,032) bypasses the buffer; one
// within it is served through blocks of 1,024. A short direct read ends the source.
TEST(StringIStreamTest, LargeReadsGoStraightToTheSource) {
  auto const source = source_of(zotest::pattern_string(0, 6000));
  StringIStream in{zocore::InterfacePtr<zocore::IReadStream>(source)};
  std::string got(8000, '\0');
  ASSERT_TRUE(in.read(got.data(), 2000));          // nothing buffered: all of it direct
  got[2000] = static_cast<char>(in.get());         // one block is buffered, 1,023 left of it
  ASSERT_TRUE(in.read(got.data() + 2001, 2055));   // 1,023 + 1,032: still through the buffer
  ASSERT_TRUE(in.read(got.data() + 4056, 1000));   // 1,016 buffered: no source call
  EXPECT_FALSE(in.read(got.data() + 5056, 2000));  // 16 buffered, then 1,984 asked directly
  EXPECT_EQ(in.gcount(), 944);
  EXPECT_EQ(zotest::pattern_mismatch(0, got.data(), 6000), 6000u);
  in.clear();
  EXPECT_EQ(in.get(), EOF);
  EXPECT_EQ(source->calls(), (Calls{{false, 2000, 2000},
                                    {false, 1024, 1024},
                                    {false, 1024, 1024},
                                    {false, 1024, 1024},
                                    {false, 1984, 928}}));
}

TEST(StringIStreamTest, ShortDirectReadIsTheEnd) {
  auto const source = source_of(std::string(500, 'x'));
  StringIStream in{zocore::InterfacePtr<zocore::IReadStream>(source)};
  char buffer[2000];
  EXPECT_FALSE(in.read(buffer, sizeof buffer));
  EXPECT_EQ(in.gcount(), 500);
  in.clear();
  EXPECT_EQ(in.get(), EOF);
  EXPECT_EQ(in.rdbuf()->in_avail(), 0);  // showmanyc of an open buffer: what is buffered
  EXPECT_EQ(source->calls(), (Calls{{false, 2000, 500}}));
}

// Up to eight characters go back in front of a freshly read block; a put-back of a character
// other than the one read, or a ninth, fails.
TEST(StringIStreamTest, PutBackInFrontOfTheBlock) {
  StringIStream in{zocore::InterfacePtr<zocore::IReadStream>(source_of("abc"))};
  EXPECT_EQ(in.peek(), 'a');
  for (char c : std::string("01234567"))
    EXPECT_TRUE(in.putback(c)) << c;
  EXPECT_FALSE(in.putback('8'));
  in.clear();
  std::string text;
  in >> text;
  EXPECT_EQ(text, "76543210abc");
  StringIStream other{zocore::InterfacePtr<zocore::IReadStream>(source_of("ab"))};
  EXPECT_EQ(other.get(), 'a');
  EXPECT_FALSE(other.putback('z'));
  other.clear();
  EXPECT_TRUE(other.unget());
  EXPECT_EQ(other.get(), 'a');
}

// After close, characters already buffered are still handed out one at a time, but every call
// that reaches the buffer class fails; the locations name the output buffer class.
TEST(StringIStreamTest, ClosedStreamKeepsOnlyTheBufferedCharacters) {
  auto const source = source_of("abcdef");
  StringIStream in{zocore::InterfacePtr<zocore::IReadStream>(source)};
  in.exceptions(std::ios::badbit);
  EXPECT_EQ(in.get(), 'a');
  in.close();
  EXPECT_EQ(source->ref_count(), 1u);  // released
  EXPECT_EQ(in.get(), 'b');
  char buffer[2];
  auto info =
      ZO_EXPECT_ERROR(in.read(buffer, 2), zoserialize::error::zoserialize_stream, kClosedRead);
  if (info) {
    EXPECT_EQ(info->location().function().view(), "zoserialize::impl::StringOStreamBuf::xsgetn()");
    EXPECT_EQ(info->location().file().view(), "$Id: src/zoserialize/string_istream.cpp $");
  }
  in.clear();
  for (char c : std::string("cdef"))
    EXPECT_EQ(in.get(), c);
  info = ZO_EXPECT_ERROR(in.get(), zoserialize::error::zoserialize_stream, kClosedRead);
  if (info) {
    EXPECT_EQ(info->location().function().view(),
              "zoserialize::impl::StringOStreamBuf::underflow()");
  }
  info = ZO_EXPECT_ERROR(in.rdbuf()->in_avail(), zoserialize::error::zoserialize_stream,
                         "Attempt to access a closed StringIStream");
  if (info) {
    EXPECT_EQ(info->location().function().view(),
              "zoserialize::impl::StringOStreamBuf::showmanyc()");
  }
  StringIStream null_source{nullptr};  // behaves as closed
  null_source.exceptions(std::ios::badbit);
  ZO_EXPECT_ERROR(null_source.get(), zoserialize::error::zoserialize_stream, kClosedRead);
}

// The source's own errors pass through; the stream's exception mask decides how.
TEST(StringIStreamTest, SourceErrorsFollowTheExceptionMask) {
  auto source = source_of("abc");
  source->fail_at_call(0);
  StringIStream quiet{zocore::InterfacePtr<zocore::IReadStream>(source)};
  EXPECT_EQ(quiet.get(), EOF);
  EXPECT_TRUE(quiet.bad());
  source = source_of("abc");
  source->fail_at_call(0);
  StringIStream loud{zocore::InterfacePtr<zocore::IReadStream>(source)};
  loud.exceptions(std::ios::badbit);
  ZO_EXPECT_ERROR(loud.get(), zotest::test_stream_error, "Injected source failure");
}

}  // namespace
