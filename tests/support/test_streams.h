// Streams for archive tests: a byte source that records its calls and can end early, a sink that
// keeps each write, and generating and checking streams for payloads too large to hold in memory.
// Each derives from its counted base first: GCC 12 at -O3 otherwise reports the (correct) delete
// of a devirtualised object at a base offset as freeing a non-heap pointer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <zocore/atomic_ref_count.h>
#include <zocore/error_code.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/ref_counted.h>
#include <zocore/stream.h>

namespace zotest {

// An endless byte pattern with a period of 65521 bytes (a prime, so no chunk or buffer size of
// the archives divides it: a byte delivered at the wrong offset does not match by accident).
void pattern_fill(std::uint64_t offset, void* out, std::size_t size) noexcept;
// Offset of the first byte of data[0, size) that differs from the pattern at `offset`, or size.
std::size_t pattern_mismatch(std::uint64_t offset, void const* data, std::size_t size) noexcept;
std::string pattern_string(std::uint64_t offset, std::size_t size);

// Code of the failures the test streams inject: "error.zotest.test_stream".
extern zocore::ErrorCode const test_stream_error;

// An IReadStream over a copy of some bytes that records every read() and skip(). Options:
// limit(n) delivers at most n bytes, then ends; unknown_size() makes bytes_remaining() answer
// kUnknownSize; announce(n) makes it always answer n (a source that lies); fail_at_call(i) makes
// the i-th call (reads and skips counted together) throw test_stream_error.
class ByteSource : public zocore::RefCounted<zocore::AtomicRefCount>, public zocore::IReadStream {
 public:
  struct Call {
    bool skip;
    unsigned requested;
    unsigned returned;
    friend bool operator==(Call const&, Call const&) = default;
    friend std::ostream& operator<<(std::ostream& os, Call const& call);  // "read(4)=4"
  };

  explicit ByteSource(std::string bytes) : data_(std::move(bytes)) {}

  ByteSource& limit(std::size_t total) noexcept { return limit_ = total, *this; }
  ByteSource& unknown_size() noexcept { return unknown_size_ = true, *this; }
  ByteSource& announce(unsigned size) noexcept { return announced_ = size, *this; }
  ByteSource& fail_at_call(std::size_t index) noexcept { return fail_at_ = index, *this; }

  unsigned read(void* buffer, unsigned size) override { return transfer(buffer, size, false); }
  unsigned skip(unsigned size) override { return transfer(nullptr, size, true); }
  unsigned bytes_remaining() const override;

  std::vector<Call> const& calls() const noexcept { return calls_; }
  // Calls made after one that returned nothing for a non-zero request (the end was reported).
  std::size_t calls_after_end() const noexcept { return calls_after_end_; }
  std::size_t position() const noexcept { return pos_; }

 private:
  unsigned transfer(void* buffer, unsigned size, bool skip);
  std::size_t end() const noexcept { return std::min(data_.size(), limit_); }

  std::string data_;
  std::size_t pos_ = 0;
  std::size_t limit_ = std::numeric_limits<std::size_t>::max();
  std::size_t fail_at_ = std::numeric_limits<std::size_t>::max();
  bool unknown_size_ = false;
  std::int64_t announced_ = -1;
  bool ended_ = false;
  std::size_t calls_after_end_ = 0;
  std::vector<Call> calls_;
};

// An IWriteStream that keeps every write() as its own string. fail_at_write(i) makes the i-th
// write throw test_stream_error without keeping its bytes.
class RecordingSink final : public zocore::RefCounted<zocore::AtomicRefCount>,
                            public zocore::IWriteStream {
 public:
  void write(void const* data, unsigned size) override;
  RecordingSink& fail_at_write(std::size_t index) noexcept { return fail_at_ = index, *this; }

  std::vector<std::string> const& writes() const noexcept { return writes_; }
  std::vector<unsigned> write_sizes() const;
  std::string bytes() const;  // everything written, in order

 private:
  std::vector<std::string> writes_;
  std::size_t fail_at_ = std::numeric_limits<std::size_t>::max();
};

// The pattern bytes [0, total) produced on the fly. bytes_remaining() tells what is left
// (kUnknownSize when that does not fit 32 bits).
class PatternSource final : public zocore::RefCounted<zocore::AtomicRefCount>,
                            public zocore::IReadStream {
 public:
  explicit PatternSource(std::uint64_t total) noexcept : total_(total) {}
  unsigned read(void* buffer, unsigned size) override;
  unsigned skip(unsigned size) override;
  unsigned bytes_remaining() const override;
  std::uint64_t position() const noexcept { return pos_; }

 private:
  std::uint64_t total_;
  std::uint64_t pos_ = 0;
};

// The encoding of one chunked String (prefix 0x50) or Binary (0x90) value whose payload is the
// pattern [0, total), total >= 1: chunks of `chunk_size` bytes (the last one shorter), first
// chunk nibble B or C, later ones D or E, then the end tag. This is what a value stream emits for
// the payload in pieces of chunk_size (4096: small pieces; 65535: direct writes). Generated in
// constant memory; bytes_remaining() is unknown.
class ChunkedPatternSource final : public zocore::RefCounted<zocore::AtomicRefCount>,
                                   public zocore::IReadStream {
 public:
  ChunkedPatternSource(unsigned char prefix, std::uint64_t total, unsigned chunk_size) noexcept
      : prefix_(prefix), total_(total), chunk_size_(chunk_size) {}
  unsigned read(void* buffer, unsigned size) override;
  unsigned skip(unsigned size) override { return read(nullptr, size); }
  unsigned bytes_remaining() const override { return kUnknownSize; }

 private:
  unsigned char prefix_;
  std::uint64_t total_;
  unsigned chunk_size_;
  std::uint64_t payload_pos_ = 0;  // payload bytes delivered
  std::string header_;             // rest of the current chunk's header (or the end tag)
  unsigned chunk_left_ = 0;        // payload bytes left in the current chunk
  bool end_tag_done_ = false;
};

// An IWriteStream that compares everything written against what `expected` delivers, in constant
// memory. It records the first mismatch instead of throwing, so the writer under test runs on.
class CheckingSink final : public zocore::RefCounted<zocore::AtomicRefCount>,
                           public zocore::IWriteStream {
 public:
  explicit CheckingSink(zocore::InterfacePtr<zocore::IReadStream> expected)
      : expected_(std::move(expected)) {}
  void write(void const* data, unsigned size) override;

  // True when no byte differed and nothing was written past the end of `expected`.
  bool matches() const noexcept { return !mismatch_; }
  std::uint64_t mismatch_offset() const noexcept { return mismatch_at_; }
  std::uint64_t bytes_written() const noexcept { return written_; }
  unsigned largest_write() const noexcept { return largest_; }
  bool expected_exhausted();  // `expected` has no byte left

 private:
  zocore::InterfacePtr<zocore::IReadStream> expected_;
  std::vector<unsigned char> scratch_;
  std::uint64_t written_ = 0;
  std::uint64_t mismatch_at_ = 0;
  unsigned largest_ = 0;
  bool mismatch_ = false;
};

}  // namespace zotest
