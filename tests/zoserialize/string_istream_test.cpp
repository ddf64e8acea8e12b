#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/test_streams.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/string_istream.h>

namespace {

using Calls = std::vector<zotest::ByteSource::Call>;

struct Input {
  explicit Input(std::string bytes) : source(zocore::make_ref_counted<zotest::ByteSource>(bytes)) {}
  zocore::RefCountPtr<zotest::ByteSource> source;
  zoserialize::StringIStream in{zocore::InterfacePtr<zocore::IReadStream>(source)};
};

// Blocks of 1,024, or a direct read beyond what is buffered plus 1,032; an ended source is not
// asked again. Eight characters go back in front of a fresh block, a ninth does not.
TEST(StringIStreamTest, SourceCallsAndPutBack) {
  Input empty("");
  EXPECT_EQ(empty.in.get(), EOF);
  empty.in.clear();
  EXPECT_EQ(empty.in.get(), EOF);
  EXPECT_EQ(empty.source->calls(), (Calls{{false, 1024, 0}}));

  Input input(zotest::pattern_string(0, 6000));
  std::string got(8000, '\0');
  EXPECT_TRUE(input.in.read(got.data(), 2000));          // nothing buffered: straight through
  got[2000] = static_cast<char>(input.in.get());         // a block: 1,023 left buffered
  EXPECT_TRUE(input.in.read(got.data() + 2001, 2055));   // 1,023 + 1,032: through the buffer
  EXPECT_TRUE(input.in.read(got.data() + 4056, 1000));   // from the 1,016 left
  EXPECT_FALSE(input.in.read(got.data() + 5056, 2000));  // 16 buffered, 1,984 asked directly
  EXPECT_EQ(input.in.gcount(), 944);
  input.in.clear();
  EXPECT_EQ(input.in.get(), EOF);  // the short direct read was the end
  EXPECT_EQ(zotest::pattern_mismatch(0, got.data(), 6000), 6000u);
  EXPECT_EQ(input.source->calls(), (Calls{{false, 2000, 2000},
                                          {false, 1024, 1024},
                                          {false, 1024, 1024},
                                          {false, 1024, 1024},
                                          {false, 1984, 928}}));

  Input abc("abc");
  EXPECT_EQ(abc.in.peek(), 'a');
  for (char c : std::string("01234567"))
    EXPECT_TRUE(abc.in.putback(c));
  EXPECT_FALSE(abc.in.putback('8'));
  abc.in.clear();
  std::string text;
  EXPECT_TRUE(abc.in >> text);
  EXPECT_EQ(text, "76543210abc");
}

// After close, buffered characters are still handed out one at a time, but every call reaching
// the buffer class fails, even with enough buffered; the locations name the output buffer class.
// The source's own errors pass through as the exception mask decides.
TEST(StringIStreamTest, ClosedStreamAndSourceFailures) {
  Input input("abcd");
  input.in.exceptions(std::ios::badbit);
  EXPECT_EQ(input.in.get(), 'a');
  input.in.close();
  EXPECT_EQ(input.source->ref_count(), 1u);
  EXPECT_EQ(input.in.get(), 'b');
  char buffer[2];
  for (auto [call, message, function] :
       {std::tuple<std::function<void()>, char const*, char const*>{
            [&] { input.in.read(buffer, 2); }, "Attempt to read from a closed StringIStream",
            "zoserialize::impl::StringOStreamBuf::xsgetn()"},
        {[&] { input.in.ignore(2).get(); }, "Attempt to read from a closed StringIStream",
         "zoserialize::impl::StringOStreamBuf::underflow()"},
        {[&] { input.in.rdbuf()->in_avail(); }, "Attempt to access a closed StringIStream",
         "zoserialize::impl::StringOStreamBuf::showmanyc()"}}) {
    input.in.clear();
    std::function<void()> const read = call;  // a binding cannot be captured (Clang 14)
    auto const info = ZO_EXPECT_ERROR(read(), zoserialize::error::zoserialize_stream, message);
    EXPECT_EQ(info ? info->location().function().view() : "", function);
  }
  Input failing("abc");
  failing.source->fail_at_call(0);
  EXPECT_EQ(failing.in.get(), EOF);
  EXPECT_TRUE(failing.in.bad());
  failing.in.clear();
  failing.in.exceptions(std::ios::badbit);
  failing.source->fail_at_call(1);
  ZO_EXPECT_ERROR(failing.in.get(), zotest::test_stream_error, "Injected source failure");
  zoserialize::StringIStream null_source{nullptr};  // behaves as closed
  EXPECT_EQ(null_source.get(), EOF);
}

}  // namespace
