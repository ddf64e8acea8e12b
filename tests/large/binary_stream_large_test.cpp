// Values of more than 4 GiB through the stream writer and reader. Payloads are generated and
// checked on the fly, so memory use must stay flat however much passes through.
#include <algorithm>
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <support/test_streams.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/binary_writer.h>

namespace {

using zoserialize::BinaryReader;
using zoserialize::BinaryWriter;
using zoserialize::Reader;
using zotest::CheckingSink;
using zotest::ChunkedPatternSource;
using zotest::PatternSource;

// 4.5 GiB: past every 32-bit count.
constexpr std::uint64_t kTotal = 4608ull << 20;
constexpr long kMaxGrowthKiB = 64L * 1024;

long peak_rss_kib() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

// Size of the chunked encoding of kTotal bytes in chunks of `chunk` bytes.
std::uint64_t chunked_size(std::uint64_t total, unsigned chunk) {
  std::uint64_t const full = total / chunk;
  std::uint64_t const rest = total % chunk;
  std::uint64_t size = total + 1 + full * (chunk < 256 ? 2 : 3);
  if (rest != 0) size += rest < 256 ? 2 : 3;
  return size;
}

TEST(BinaryStreamLargeTest, ValueStreamWritesMoreThan4GiBInConstantMemory) {
  long const before = peak_rss_kib();
  // Pieces of 65535 bytes into an empty value buffer: each goes out directly as one chunk.
  constexpr unsigned kPiece = 65535;
  auto const sink =
      zocore::make_ref_counted<CheckingSink>(zocore::make_ref_counted<ChunkedPatternSource>(
          static_cast<unsigned char>(0x90), kTotal, kPiece));
  {
    BinaryWriter writer(sink);
    auto const stream = writer.write_binary();
    std::vector<unsigned char> piece(kPiece);
    for (std::uint64_t done = 0; done < kTotal;) {
      auto const n = static_cast<unsigned>(std::min<std::uint64_t>(kPiece, kTotal - done));
      zotest::pattern_fill(done, piece.data(), n);
      stream->write(piece.data(), n);
      done += n;
    }
    writer.close();
  }
  EXPECT_TRUE(sink->matches()) << "first difference at " << sink->mismatch_offset();
  EXPECT_EQ(sink->bytes_written(), chunked_size(kTotal, kPiece));
  EXPECT_TRUE(sink->expected_exhausted());
  EXPECT_LE(sink->largest_write(), 65535u);
  EXPECT_LT(peak_rss_kib() - before, kMaxGrowthKiB);
}

TEST(BinaryStreamLargeTest, SourceOfMoreThan4GiBIsCopiedInConstantMemory) {
  long const before = peak_rss_kib();
  // A source this large cannot announce its size in 32 bits: it is copied in chunks of 4096.
  auto const source = zocore::make_ref_counted<PatternSource>(kTotal);
  EXPECT_EQ(source->bytes_remaining(), zoserialize::IReadStream::kUnknownSize);
  auto const sink =
      zocore::make_ref_counted<CheckingSink>(zocore::make_ref_counted<ChunkedPatternSource>(
          static_cast<unsigned char>(0x90), kTotal, 4096u));
  {
    BinaryWriter writer(sink);
    writer.write_binary(*source);
    writer.close();
  }
  EXPECT_EQ(source->position(), kTotal);
  EXPECT_TRUE(sink->matches()) << "first difference at " << sink->mismatch_offset();
  EXPECT_EQ(sink->bytes_written(), chunked_size(kTotal, 4096));
  EXPECT_TRUE(sink->expected_exhausted());
  EXPECT_LT(peak_rss_kib() - before, kMaxGrowthKiB);
}

void read_back(unsigned chunk, unsigned reader_buffer, unsigned piece) {
  long const before = peak_rss_kib();
  auto const source = zocore::make_ref_counted<ChunkedPatternSource>(
      static_cast<unsigned char>(0x90), kTotal, chunk);
  BinaryReader reader(source, reader_buffer);
  auto const stream = reader.read_binary();
  EXPECT_EQ(stream->bytes_remaining(), zoserialize::IReadStream::kUnknownSize);
  std::vector<unsigned char> block(piece);
  std::uint64_t done = 0;
  for (;;) {
    unsigned const n = stream->read(block.data(), piece);
    std::size_t const bad = zotest::pattern_mismatch(done, block.data(), n);
    ASSERT_EQ(bad, n) << "payload differs at offset " << done + bad;
    done += n;
    if (n < piece) break;
  }
  EXPECT_EQ(done, kTotal);
  EXPECT_EQ(reader.next_token(), Reader::EToken::Eof);
  EXPECT_EQ(reader.position(), chunked_size(kTotal, chunk));
  EXPECT_LT(peak_rss_kib() - before, kMaxGrowthKiB);
}

TEST(BinaryStreamLargeTest, ReaderStreamsMoreThan4GiBOf65535ByteChunks) {
  read_back(65535, BinaryReader::kDefaultBufferSize, 1u << 20);
}

TEST(BinaryStreamLargeTest, ReaderStreamsMoreThan4GiBOf4096ByteChunks) {
  read_back(4096, 4096, 100000);
}

TEST(BinaryStreamLargeTest, ReaderSkipsMoreThan4GiB) {
  long const before = peak_rss_kib();
  auto const source = zocore::make_ref_counted<ChunkedPatternSource>(
      static_cast<unsigned char>(0x90), kTotal, 65535u);
  BinaryReader reader(source, 1000);
  reader.skip_element();
  EXPECT_TRUE(reader.is_eof());
  EXPECT_EQ(reader.position(), chunked_size(kTotal, 65535));
  EXPECT_LT(peak_rss_kib() - before, kMaxGrowthKiB);
}

}  // namespace
