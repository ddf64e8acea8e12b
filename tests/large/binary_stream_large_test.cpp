// Values of more than 4 GiB through the stream writer and reader. Payloads are generated and
// checked on the fly, so memory use must stay flat however much passes through.
#include <algorithm>
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include <support/large_streams.h>
#include <support/test_streams.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/binary_writer.h>

namespace {

using zoserialize::BinaryReader;
using zotest::ChunkedPatternSource;

constexpr std::uint64_t kTotal = 4608ull << 20;  // 4.5 GiB: past every 32-bit count

// Size of the chunked encoding of kTotal bytes in chunks of `chunk` bytes.
std::uint64_t chunked_size(unsigned chunk) {
  std::uint64_t const rest = kTotal % chunk;
  return kTotal + 1 + kTotal / chunk * (chunk < 256 ? 2 : 3) + (rest == 0 ? 0 : rest < 256 ? 2 : 3);
}

using BinaryStreamLargeTest = zotest::FlatMemoryTest;

// Written through a value stream in pieces of 65535 bytes (each goes out directly as a chunk), or
// copied from a source too large to announce its size in 32 bits (in chunks of 4096).
TEST_F(BinaryStreamLargeTest, WritersStreamMoreThan4GiB) {
  for (unsigned chunk : {65535u, 4096u}) {
    auto const sink = zocore::make_ref_counted<zotest::CheckingSink>(
        zocore::make_ref_counted<ChunkedPatternSource>(0x90, kTotal, chunk));
    auto const source = zocore::make_ref_counted<zotest::PatternSource>(kTotal);
    EXPECT_EQ(source->bytes_remaining(), zoserialize::IReadStream::kUnknownSize);
    {
      zoserialize::BinaryWriter writer(sink);
      zoserialize::InterfacePtr<zoserialize::IWriteStream> stream;
      if (chunk == 4096) writer.write_binary(*source);
      if (chunk == 65535) stream = writer.write_binary();
      std::vector<unsigned char> piece(chunk);
      for (std::uint64_t done = 0; stream && done < kTotal; done += chunk) {
        auto const n = static_cast<unsigned>(std::min<std::uint64_t>(chunk, kTotal - done));
        zotest::pattern_fill(done, piece.data(), n);
        stream->write(piece.data(), n);
      }
    }
    EXPECT_TRUE(sink->matches()) << "first difference at " << sink->mismatch_offset();
    EXPECT_EQ(sink->bytes_written(), chunked_size(chunk));
    EXPECT_TRUE(sink->expected_exhausted());
    EXPECT_LE(sink->largest_write(), 65535u);
    EXPECT_EQ(source->position(), chunk == 4096 ? kTotal : 0);
  }
}

// Read back through a payload stream (chunks of 65535 and of 4096), or skipped.
TEST_F(BinaryStreamLargeTest, ReaderStreamsAndSkipsMoreThan4GiB) {
  for (auto [chunk, buffer, piece] :
       {std::tuple{65535u, 16384u, 1u << 20}, {4096u, 4096u, 100000u}}) {
    BinaryReader reader(zocore::make_ref_counted<ChunkedPatternSource>(0x90, kTotal, chunk),
                        buffer);
    auto const stream = reader.read_binary();
    EXPECT_EQ(stream->bytes_remaining(), zoserialize::IReadStream::kUnknownSize);
    std::vector<unsigned char> block(piece);
    std::uint64_t done = 0;
    for (unsigned n = piece; n == piece; done += n) {
      n = stream->read(block.data(), piece);
      std::size_t const bad = zotest::pattern_mismatch(done, block.data(), n);
      ASSERT_EQ(bad, n) << "payload differs at offset " << done + bad;
    }
    EXPECT_EQ(done, kTotal);
    EXPECT_EQ(reader.next_token(), zoserialize::Reader::EToken::Eof);
    EXPECT_EQ(reader.position(), chunked_size(chunk));
  }
  BinaryReader reader(zocore::make_ref_counted<ChunkedPatternSource>(0x90, kTotal, 65535u), 1000);
  reader.skip_element();
  EXPECT_TRUE(reader.is_eof());
  EXPECT_EQ(reader.position(), chunked_size(65535));
}

}  // namespace
