#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/test_streams.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/string_ostream.h>

namespace {

using zotest::RecordingSink;
using Sizes = std::vector<unsigned>;

struct Output {
  zocore::RefCountPtr<RecordingSink> sink = zocore::make_ref_counted<RecordingSink>();
  zoserialize::StringOStream out{zocore::InterfacePtr<zocore::IWriteStream>(sink)};
};

// Up to 256 characters go through the buffer (255 held, the 256th written with them); more go
// straight to the sink after what was buffered. flush() does not reach the sink; close() does.
TEST(StringOStreamTest, WritesAbove256BytesBypassTheBuffer) {
  for (auto [writes, before_close, after_close] :
       {std::tuple{Sizes{256}, Sizes{256}, Sizes{256}},
        {Sizes{257}, Sizes{257}, Sizes{257}},
        {Sizes{10, 257}, Sizes{10, 257}, Sizes{10, 257}},
        {Sizes{10, 256}, Sizes{256}, Sizes{256, 10}},
        {Sizes{100, 100, 100}, Sizes{256}, Sizes{256, 44}},
        {Sizes{0, 1}, Sizes{}, Sizes{1}}}) {
    Output output;
    std::string expected;
    for (unsigned size : writes) {
      std::string const piece = zotest::pattern_string(expected.size(), size);
      output.out.write(piece.data(), size);
      expected += piece;
    }
    output.out.flush();
    EXPECT_EQ(output.sink->write_sizes(), before_close);
    output.out.close();
    EXPECT_EQ(output.sink->write_sizes(), after_close);
    EXPECT_EQ(output.sink->bytes(), expected);
  }
}

// Destruction writes what is buffered; overflow() stores end-of-file unchecked, as 0xFF.
TEST(StringOStreamTest, DestructionFlushesAndOverflowOfEofWritesFF) {
  struct Peer : zoserialize::impl::StringOStreamBuf {
    using StringOStreamBuf::overflow;
    using StringOStreamBuf::StringOStreamBuf;
  };
  auto const sink = zocore::make_ref_counted<RecordingSink>();
  {
    Peer buf{zocore::InterfacePtr<zocore::IWriteStream>(sink)};
    buf.sputn("ab", 2);
    EXPECT_EQ(buf.overflow(EOF), 0xFF);
    buf.sputn("cd", 2);
  }
  EXPECT_EQ(sink->writes(), (std::vector<std::string>{"ab\xFF", "cd"}));
  EXPECT_EQ(sink->ref_count(), 1u);
}

// After close every write fails; a sink error at close is thrown and still releases the sink.
TEST(StringOStreamTest, ClosedStreamAndSinkFailures) {
  Output output;
  output.out.exceptions(std::ios::badbit);
  output.out << 'x';
  output.out.close();
  output.out.close();  // does nothing
  for (auto [write, function] :
       {std::pair<std::function<void()>, char const*>{
            [&] { output.out.put('y'); }, "zoserialize::impl::StringOStreamBuf::overflow()"},
        {[&] { output.out.write("yz", 2); }, "zoserialize::impl::StringOStreamBuf::xsputn()"}}) {
    output.out.clear();
    std::function<void()> const attempt = write;  // a binding cannot be captured (Clang 14)
    auto const info = ZO_EXPECT_ERROR(attempt(), zoserialize::error::zoserialize_stream,
                                      "Attempt to write into a closed StringOStream");
    EXPECT_EQ(info ? info->location().function().view() : "", function);
  }
  EXPECT_EQ(output.sink->bytes(), "x");
  EXPECT_EQ(output.sink->ref_count(), 1u);
  Output failing;
  failing.sink->fail_at_write(0);
  failing.out << "abc";
  ZO_EXPECT_ERROR(failing.out.close(), zotest::test_stream_error, "Injected sink failure");
  EXPECT_EQ(failing.sink->ref_count(), 1u);
}

}  // namespace
