// What the large streaming tests share: payloads of more than 4 GiB generated and checked on the
// fly, expected renderings staged piece by piece, and a fixture that fails a test whose memory use
// did not stay flat.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include <zocore/ref_count_ptr.h>
#include <zoserialize/reader.h>
#include <zoserialize/writer.h>

namespace zotest {

constexpr std::uint64_t kLargeTotal = (std::uint64_t{4} << 30) + 4099;  // past every 32-bit count

long peak_rss_kib();

// Fails the test when the process's peak resident size grew by 64 MiB or more during it.
class FlatMemoryTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_LT(peak_rss_kib() - rss_before_, 64L * 1024) << "KiB"; }
  long rss_before_ = peak_rss_kib();
};

// Printable ASCII made from the pattern, so that `"`, `~` and spaces turn up throughout.
void printable_fill(std::uint64_t offset, char* out, std::size_t size);

// A source of unknown size that reads what stage() produces, piece after piece.
class StagedSource : public zocore::RefCounted<zocore::AtomicRefCount>,
                     public zoserialize::IReadStream {
 public:
  unsigned read(void* buffer, unsigned size) override;
  unsigned skip(unsigned) override { return 0; }
  unsigned bytes_remaining() const override { return kUnknownSize; }

 protected:
  // Replaces `out` with the next piece; false at the end.
  virtual bool stage(std::string& out) = 0;

 private:
  std::string staged_;
  std::size_t at_ = 0;
};

// The binary [0, kLargeTotal) of the pattern, then the string [0, kLargeTotal) of printable_fill,
// each written through its value stream in pieces of 1 MiB.
void write_large_payloads(zoserialize::Writer& writer);
// Reads them back through the payload streams, checking every byte, and expects the end.
void read_large_payloads(zoserialize::Reader& reader);

}  // namespace zotest
