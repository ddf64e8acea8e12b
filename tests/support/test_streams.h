// Streams for archive tests: a byte source whose every call is recorded and that can end early,
// a sink that keeps each write separately, and generating/checking streams for payloads far too
// large to hold in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <zocore/atomic_ref_count.h>
#include <zocore/error_code.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/ref_counted.h>
#include <zocore/stream.h>

namespace zotest {

// ---- Deterministic byte pattern --------------------------------------------------------------

// The byte at `offset` of an endless pattern with a period of 65521 bytes (a prime, so no chunk
// or buffer size used by the archives divides it: a payload byte delivered at the wrong offset
// does not match by accident).
unsigned char pattern_byte(std::uint64_t offset) noexcept;
// Fills out[0, size) with the pattern from `offset` on (memcpy speed).
void pattern_fill(std::uint64_t offset, void* out, std::size_t size) noexcept;
// Offset of the first byte of data[0, size) that differs from the pattern at `offset`, or size.
std::size_t pattern_mismatch(std::uint64_t offset, void const* data, std::size_t size) noexcept;
// The pattern bytes [offset, offset + size) as a string.
std::string pattern_string(std::uint64_t offset, std::size_t size);

// ---- ByteSource -------------------------------------------------------------------------------

// An IReadStream over a copy of some bytes that records every read() and skip() with its
// requested size and its result. Options:
// - limit(n): deliver at most n bytes in total, then behave as ended (a source that ends early);
// - unknown_size(): bytes_remaining() answers kUnknownSize;
// - announce(n): bytes_remaining() always answers n, whatever is left (a source that lies);
// - fail_at_call(i): the i-th call (0-based, reads and skips counted together) throws
//   test_stream_error instead of transferring anything; the call is still recorded.
// Follows the stream contract: a call returns fewer bytes than asked only once the data has ended.
// Create it with zocore::make_ref_counted; an archive shares it through an InterfacePtr.
//
// The counted base comes first in every stream here: GCC 12 at -O3 otherwise reports the
// (correct) delete of a devirtualised object at a base offset as freeing a non-heap pointer.
class ByteSource final : public zocore::RefCounted<zocore::AtomicRefCount>,
                         public zocore::IReadStream {
 public:
  struct Call {
    bool skip;
    unsigned requested;
    unsigned returned;
    friend bool operator==(Call const&, Call const&) = default;
    // "read(4)=4", "skip(7)=7".
    friend std::ostream& operator<<(std::ostream& os, Call const& call);
  };

  explicit ByteSource(std::string bytes) : data_(std::move(bytes)) {}

  ByteSource& limit(std::size_t total) noexcept {
    limit_ = total;
    return *this;
  }
  ByteSource& unknown_size() noexcept {
    unknown_size_ = true;
    return *this;
  }
  ByteSource& announce(unsigned size) noexcept {
    announced_ = size;
    has_announced_ = true;
    return *this;
  }
  ByteSource& fail_at_call(std::size_t index) noexcept {
    fail_at_ = index;
    return *this;
  }

  unsigned read(void* buffer, unsigned size) override;
  unsigned skip(unsigned size) override;
  unsigned bytes_remaining() const override;

  std::vector<Call> const& calls() const noexcept { return calls_; }
  // Calls made after a call that returned nothing for a non-zero request (the end could not be
  // missed any more).
  std::size_t calls_after_end() const noexcept { return calls_after_end_; }
  // Bytes delivered or skipped so far.
  std::size_t position() const noexcept { return pos_; }

 private:
  std::size_t available() const noexcept;
  unsigned transfer(void* buffer, unsigned size, bool skip);

  std::string data_;
  std::size_t pos_ = 0;
  std::size_t limit_ = std::numeric_limits<std::size_t>::max();
  std::size_t fail_at_ = std::numeric_limits<std::size_t>::max();
  bool unknown_size_ = false;
  bool has_announced_ = false;
  unsigned announced_ = 0;
  bool ended_ = false;
  std::size_t calls_after_end_ = 0;
  std::vector<Call> calls_;
};

// Code of the failures the test streams inject: "error.zotest.test_stream".
extern zocore::ErrorCode const test_stream_error;

// ---- RecordingSink ----------------------------------------------------------------------------

// An IWriteStream that keeps every write() as its own string, so tests can check how output was
// cut into stream writes. fail_at_write(i) makes the i-th write (0-based) throw test_stream_error
// without keeping its bytes.
class RecordingSink final : public zocore::RefCounted<zocore::AtomicRefCount>,
                            public zocore::IWriteStream {
 public:
  void write(void const* data, unsigned size) override;

  RecordingSink& fail_at_write(std::size_t index) noexcept {
    fail_at_ = index;
    return *this;
  }

  std::vector<std::string> const& writes() const noexcept { return writes_; }
  std::vector<unsigned> write_sizes() const;
  // Everything written, in order.
  std::string bytes() const;
  void clear() noexcept { writes_.clear(); }

 private:
  std::vector<std::string> writes_;
  std::size_t calls_ = 0;
  std::size_t fail_at_ = std::numeric_limits<std::size_t>::max();
};

// ---- Generating sources and the checking sink -------------------------------------------------

// The pattern bytes [0, total) as a stream, produced on the fly. bytes_remaining() tells the
// remaining size (kUnknownSize when it does not fit 32 bits) or, with report_size false, always
// kUnknownSize.
class PatternSource final : public zocore::RefCounted<zocore::AtomicRefCount>,
                            public zocore::IReadStream {
 public:
  explicit PatternSource(std::uint64_t total, bool report_size = true) noexcept
      : total_(total), report_size_(report_size) {}

  unsigned read(void* buffer, unsigned size) override;
  unsigned skip(unsigned size) override;
  unsigned bytes_remaining() const override;

  std::uint64_t position() const noexcept { return pos_; }
  std::uint64_t reads() const noexcept { return reads_; }

 private:
  std::uint64_t total_;
  std::uint64_t pos_ = 0;
  std::uint64_t reads_ = 0;
  bool report_size_;
};

// The binary encoding of one chunked String or Binary value whose payload is the pattern
// [0, total): chunks of `chunk_size` bytes (the last one shorter), the first with value nibble B
// or C, the others D or E (1-byte length below 256, else 2 bytes), then the end tag F. This is
// exactly what a writer's value stream emits when it receives the payload in pieces of
// chunk_size (4096: pieces below 4096 bytes; 65535: direct writes of 65535 bytes). Generated on
// the fly in constant memory; bytes_remaining() is unknown.
class ChunkedPatternSource final : public zocore::RefCounted<zocore::AtomicRefCount>,
                                   public zocore::IReadStream {
 public:
  // prefix: 0x50 (String) or 0x90 (Binary). total must be at least 1.
  ChunkedPatternSource(unsigned char prefix, std::uint64_t total, unsigned chunk_size) noexcept;

  unsigned read(void* buffer, unsigned size) override;
  unsigned skip(unsigned size) override;
  unsigned bytes_remaining() const override { return kUnknownSize; }

  std::uint64_t position() const noexcept { return pos_; }

 private:
  // Builds the header of the chunk that starts at payload offset `payload_pos_`.
  void start_chunk();

  unsigned char prefix_;
  std::uint64_t total_;
  unsigned chunk_size_;
  std::uint64_t pos_ = 0;          // encoded bytes delivered
  std::uint64_t payload_pos_ = 0;  // payload bytes delivered
  unsigned char header_[3] = {};
  unsigned header_size_ = 0;
  unsigned header_done_ = 0;
  unsigned chunk_left_ = 0;  // payload bytes left in the current chunk
  bool end_tag_done_ = false;
};

// An IWriteStream that compares everything written against what `expected` delivers, in
// constant memory. It records the first mismatch instead of throwing, so a writer under test
// runs to its end.
class CheckingSink final : public zocore::RefCounted<zocore::AtomicRefCount>,
                           public zocore::IWriteStream {
 public:
  explicit CheckingSink(zocore::InterfacePtr<zocore::IReadStream> expected);

  void write(void const* data, unsigned size) override;

  // True when no byte differed and nothing was written past the end of `expected`.
  bool matches() const noexcept { return !mismatch_; }
  // Offset of the first differing byte (meaningful when matches() is false).
  std::uint64_t mismatch_offset() const noexcept { return mismatch_at_; }
  std::uint64_t bytes_written() const noexcept { return written_; }
  std::uint64_t writes() const noexcept { return writes_; }
  unsigned largest_write() const noexcept { return largest_; }
  // True when `expected` has no byte left (everything it had was written).
  bool expected_exhausted();

 private:
  zocore::InterfacePtr<zocore::IReadStream> expected_;
  std::vector<unsigned char> scratch_;
  std::uint64_t written_ = 0;
  std::uint64_t writes_ = 0;
  std::uint64_t mismatch_at_ = 0;
  unsigned largest_ = 0;
  bool mismatch_ = false;
};

}  // namespace zotest
