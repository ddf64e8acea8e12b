#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zocore/memory_stream.h>
#include <zocore/ref_count_ptr.h>

namespace {

using zocore::IReadStream;
using zocore::MemoryReadStream;
using zocore::StringWriteStream;

// Alternating reads and skips of the given sizes over ten bytes, as (returned count, bytes read,
// bytes_remaining afterwards).
struct Step {
  bool skip;
  unsigned size;
  unsigned returned;
  char const* read;
  unsigned remaining;
};

struct StepCase {
  char const* name;
  std::vector<Step> steps;
};

class MemoryReadStreamStepTest : public ::testing::TestWithParam<StepCase> {};

TEST_P(MemoryReadStreamStepTest, FollowsTheEndRule) {
  std::string const data = "0123456789";
  MemoryReadStream stream(data);
  EXPECT_EQ(stream.bytes_remaining(), 10u);
  for (Step const& step : GetParam().steps) {
    std::string buffer(step.skip ? 0 : step.size, '#');
    unsigned const n = step.skip ? stream.skip(step.size) : stream.read(buffer.data(), step.size);
    EXPECT_EQ(n, step.returned);
    if (!step.skip) {
      EXPECT_EQ(buffer.substr(0, n), step.read);
      EXPECT_EQ(buffer.substr(n), std::string(step.size - n, '#')) << "wrote past the result";
    }
    EXPECT_EQ(stream.bytes_remaining(), step.remaining);
    EXPECT_EQ(stream.remaining(), step.remaining);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Sequences, MemoryReadStreamStepTest,
    ::testing::Values(
        StepCase{"ReadAll", {{false, 10, 10, "0123456789", 0}, {false, 4, 0, "", 0}}},
        StepCase{"ReadSpanningTheEnd",
                 {{false, 7, 7, "0123456", 3}, {false, 5, 3, "789", 0}, {false, 1, 0, "", 0}}},
        StepCase{"ZeroSizedCalls",
                 {{false, 0, 0, "", 10}, {true, 0, 0, "", 10}, {false, 2, 2, "01", 8}}},
        StepCase{"SkipThenRead",
                 {{true, 3, 3, "", 7},
                  {false, 2, 2, "34", 5},
                  {true, 4, 4, "", 1},
                  {false, 3, 1, "9", 0}}},
        StepCase{
            "SkipSpanningTheEnd",
            {{true, 8, 8, "", 2}, {true, 5, 2, "", 0}, {true, 5, 0, "", 0}, {false, 1, 0, "", 0}}},
        StepCase{"SkipHuge", {{false, 1, 1, "0", 9}, {true, 0xFFFFFFFFu, 9, "", 0}}}),
    [](auto const& p) { return std::string(p.param.name); });

TEST(MemoryReadStreamTest, EmptyAndNullSource) {
  MemoryReadStream stream(nullptr, 0);
  char c = '#';
  EXPECT_EQ(stream.bytes_remaining(), 0u);
  EXPECT_EQ(stream.read(&c, 1), 0u);
  EXPECT_EQ(stream.skip(1), 0u);
  EXPECT_EQ(c, '#');
}

// The stream is built over a size larger than the buffer; only the first bytes are ever
// touched, and the position is moved forward with skip, which reads nothing.
TEST(MemoryReadStreamTest, MoreThanFourGigabytesIsUnknownSize) {
  static char const buffer[8] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};
  std::size_t const size = (std::size_t{1} << 32) + 10;
  MemoryReadStream stream(buffer, size);
  EXPECT_EQ(stream.bytes_remaining(), IReadStream::kUnknownSize);
  char out[3];
  ASSERT_EQ(stream.read(out, 3), 3u);
  EXPECT_EQ(std::string(out, 3), "abc");
  EXPECT_EQ(stream.remaining(), size - 3);
  // 0xFFFFFFFF left still cannot be told apart from "unknown"; one less can.
  EXPECT_EQ(stream.skip(8), 8u);
  EXPECT_EQ(stream.remaining(), 0xFFFFFFFFu);
  EXPECT_EQ(stream.bytes_remaining(), IReadStream::kUnknownSize);
  EXPECT_EQ(stream.skip(1), 1u);
  EXPECT_EQ(stream.bytes_remaining(), 0xFFFFFFFEu);
  EXPECT_EQ(stream.skip(0xFFFFFFFFu), 0xFFFFFFFEu);
  EXPECT_EQ(stream.bytes_remaining(), 0u);
}

TEST(MemoryReadStreamTest, UsableThroughInterfacePtr) {
  std::string const data = "xyz";
  zocore::RefCountPtr<MemoryReadStream> const impl(new MemoryReadStream(data));
  zocore::InterfacePtr<IReadStream> const stream(impl);
  char out[4];
  EXPECT_EQ(stream->read(out, 4), 3u);
  EXPECT_EQ(std::string(out, 3), "xyz");
}

TEST(StringWriteStreamTest, AppendsTakesAndClears) {
  StringWriteStream stream;
  stream.write("ab", 2);
  stream.write(nullptr, 0);
  stream.write(std::string("c\0d", 3).data(), 3);
  EXPECT_EQ(stream.str(), std::string("abc\0d", 5));
  std::string const taken = stream.take();
  EXPECT_EQ(taken, std::string("abc\0d", 5));
  stream.write("e", 1);
  EXPECT_EQ(stream.str(), "e");
  stream.clear();
  EXPECT_EQ(stream.str(), "");
  stream.reserve(100);
  stream.write("f", 1);
  EXPECT_EQ(stream.str(), "f");
}

TEST(StringWriteStreamTest, UsableThroughInterfacePtr) {
  zocore::RefCountPtr<StringWriteStream> const impl(new StringWriteStream);
  zocore::InterfacePtr<zocore::IWriteStream> const stream(impl);
  stream->write("hello", 5);
  stream->close();
  EXPECT_EQ(impl->str(), "hello");
}

}  // namespace
