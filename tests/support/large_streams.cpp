#include <algorithm>
#include <vector>

#include <sys/resource.h>

#include <support/large_streams.h>
#include <support/test_streams.h>

namespace zotest {

using zoserialize::InterfacePtr;

namespace {
constexpr unsigned kPiece = 1u << 20;
}  // namespace

long peak_rss_kib() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

void printable_fill(std::uint64_t offset, char* out, std::size_t size) {
  pattern_fill(offset, out, size);
  for (std::size_t i = 0; i < size; ++i)
    out[i] = static_cast<char>(0x20 + static_cast<unsigned char>(out[i]) % 95);
}

unsigned StagedSource::read(void* buffer, unsigned size) {
  auto* out = static_cast<char*>(buffer);
  unsigned done = 0;
  while (done < size) {
    if (at_ == staged_.size()) {
      at_ = 0;
      if (!stage(staged_) || staged_.empty()) break;
    }
    auto const n = static_cast<unsigned>(std::min<std::size_t>(size - done, staged_.size() - at_));
    std::copy_n(staged_.data() + at_, n, out + done);
    at_ += n;
    done += n;
  }
  return done;
}

void write_large_payloads(zoserialize::Writer& writer) {
  std::vector<char> piece(kPiece);
  for (bool binary : {true, false}) {
    InterfacePtr<zoserialize::IWriteStream> const stream =
        binary ? writer.write_binary() : writer.write_string_stream();
    for (std::uint64_t done = 0; done < kLargeTotal; done += kPiece) {
      auto const n = static_cast<unsigned>(std::min<std::uint64_t>(kPiece, kLargeTotal - done));
      if (binary) {
        pattern_fill(done, piece.data(), n);
      } else {
        printable_fill(done, piece.data(), n);
      }
      stream->write(piece.data(), n);
    }
  }
}

void read_large_payloads(zoserialize::Reader& reader) {
  std::vector<char> block(kPiece);
  std::vector<char> want(kPiece);
  for (bool binary : {true, false}) {
    InterfacePtr<zoserialize::IReadStream> const stream =
        binary ? reader.read_binary() : reader.read_string_stream();
    std::uint64_t done = 0;
    for (unsigned n = kPiece; n == kPiece; done += n) {
      n = stream->read(block.data(), kPiece);
      if (binary) {
        std::size_t const bad = pattern_mismatch(done, block.data(), n);
        ASSERT_EQ(bad, n) << "binary differs at offset " << done + bad;
      } else {
        printable_fill(done, want.data(), n);
        ASSERT_TRUE(std::equal(block.begin(), block.begin() + n, want.begin()))
            << "string differs in the piece at " << done;
      }
    }
    EXPECT_EQ(done, kLargeTotal);
  }
  EXPECT_TRUE(reader.is_eof());
}

}  // namespace zotest
