// A binary and a string of more than 4 GiB each through TextWriter's value streams into an
// IWriteStream, and back through a TextReader over an IReadStream. The payloads and the text are
// generated and checked on the fly, so memory use must stay flat however much passes through.
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <support/large_streams.h>
#include <support/script.h>
#include <support/test_streams.h>
#include <zocore/memory_stream.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/text_reader.h>
#include <zoserialize/text_writer.h>

namespace {

using zoserialize::InterfacePtr;
using zoserialize::IReadStream;
using zoserialize::IWriteStream;
using zotest::kLargeTotal;

// The text TextWriter must produce for the payloads of zotest::write_large_payloads: `[`, base64
// without padding, `]`, `"`, the escaped string, `"`.
class ExpectedText final : public zotest::StagedSource {
  bool stage(std::string& out) override {
    out.clear();
    if (phase_ == 0) {
      out = "[";
      phase_ = 1;
    } else if (phase_ == 1) {
      auto const n = static_cast<unsigned>(
          std::min<std::uint64_t>(std::uint64_t{3 * 4096}, kLargeTotal - offset_));
      block_.resize(n);
      zotest::pattern_fill(offset_, block_.data(), n);
      zotest::append_base64(out, block_, false);
      offset_ += n;
      if (offset_ == kLargeTotal) phase_ = 2, offset_ = 0;
    } else if (phase_ == 2) {
      out = "]\"";
      phase_ = 3;
    } else if (phase_ == 3) {
      auto const n = static_cast<unsigned>(std::min<std::uint64_t>(8192, kLargeTotal - offset_));
      block_.resize(n);
      zotest::printable_fill(offset_, block_.data(), n);
      for (char const c : block_) {
        if (c == '"' || c == '~') {
          out += c == '"' ? "~22" : "~7e";
        } else {
          out += c;
        }
      }
      offset_ += n;
      if (offset_ == kLargeTotal) phase_ = 4;
    } else if (phase_ == 4) {
      out = "\"";
      phase_ = 5;
    }
    return !out.empty();
  }

  int phase_ = 0;
  std::uint64_t offset_ = 0;
  std::string block_;
};

using TextStreamLargeTest = zotest::FlatMemoryTest;

TEST_F(TextStreamLargeTest, WriterStreamsMoreThan4GiB) {
  auto const sink =
      zocore::make_ref_counted<zotest::CheckingSink>(zocore::make_ref_counted<ExpectedText>());
  {
    zoserialize::TextWriter writer{InterfacePtr<IWriteStream>(sink)};
    zotest::write_large_payloads(writer);
    writer.close();
  }
  EXPECT_TRUE(sink->matches()) << "first difference at " << sink->mismatch_offset();
  EXPECT_TRUE(sink->expected_exhausted());
}

TEST_F(TextStreamLargeTest, ReaderStreamsMoreThan4GiB) {
  zoserialize::TextReader reader(
      InterfacePtr<IReadStream>(zocore::make_ref_counted<ExpectedText>()), 65536);
  zotest::read_large_payloads(reader);
}

// Read by value, a string longer than the limit fails, whether it lies whole in the window or
// comes through a stream source; read as a stream it reads whole. The limit itself reads.
TEST(TextStringLimitTest, LongerStringsReadOnlyAsStreams) {
  constexpr std::size_t kMax = zoserialize::TextReader::kMaxStringByValue;
  std::string text = "\"" + std::string(kMax + 1, 'a') + "\"";
  for (bool in_place : {true, false}) {
    auto reader = in_place ? std::make_unique<zoserialize::TextReader>(&text)
                           : std::make_unique<zoserialize::TextReader>(
                                 InterfacePtr<IReadStream>(
                                     zocore::make_ref_counted<zocore::MemoryReadStream>(text)),
                                 65536);
    auto const info = ZO_EXPECT_ERROR(reader->read_string(),
                                      zoserialize::error::zoserialize_reader_data_string_size,
                                      "String is too large to be read by value, it must be read "
                                      "as stream.  MaxSize={@maxSize}");
    EXPECT_EQ(zotest::param(info, "maxSize"), "134217728");
  }
  zoserialize::TextReader streamed(&text);
  EXPECT_EQ(zotest::read_all(*streamed.read_string_stream(), 1 << 20).size(), kMax + 1);
  EXPECT_TRUE(streamed.is_eof());
  text.erase(1, 1);
  zoserialize::TextReader at_limit(&text);
  EXPECT_EQ(at_limit.read_string().size(), kMax);
}

}  // namespace
