// The canonical hash record: what the hashing adapters give their sink for each element.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include <zocore/stream.h>
#include <zocore/uuid.h>
#include <zoserialize/impl/byte_order.h>
#include <zoserialize/writer.h>

namespace zoserialize {

// HashRecord builds the canonical record of elements (docs/trace-and-hashing.md has the table)
// and gives it to a sink in batches: bytes gather in a 4 KiB buffer that goes out when full, on
// drain() and on finish(); payload runs longer than the free room go to the sink directly,
// without a copy. HashingWriterAdapter and HashingReaderAdapter both build their records here,
// so the two sides cannot disagree; it can also hash values directly.
//
// Everything is inline: an element costs a few stores into the buffer. Without a sink the bytes
// are counted and dropped. Not thread-safe.
class HashRecord {
 public:
  // The first byte of each element's record (the reader's EToken values).
  enum class ECode : unsigned char {
    Null = 1,
    Boolean = 2,
    SignedInteger = 3,
    UnsignedInteger = 4,
    Double = 5,
    String = 6,
    AbsoluteTime = 7,
    RelativeTime = 8,
    Uuid = 9,
    Binary = 10,
    SequenceStart = 11,
    SequenceSeparator = 12,
    SequenceEnd = 13,
    MarkerStart = 14,
    MarkerEnd = 15,
  };

  static constexpr unsigned kCapacity = 4096;
  // An integer's length byte limits its minimal form to 255 bytes.
  static constexpr unsigned kMaxIntegerBytes = 255;
  // Every NaN is hashed as this one pattern, whatever payload a format kept.
  static constexpr std::uint64_t kCanonicalNaN = 0x7FF1000000000000ull;

  // Shares `sink` (may be null). The buffer is left uninitialised: only bytes put are read.
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init)
  explicit HashRecord(InterfacePtr<IWriteStream> sink) noexcept : sink_(std::move(sink)) {}
  HashRecord(HashRecord const&) = delete;
  HashRecord& operator=(HashRecord const&) = delete;
  ~HashRecord() = default;

  // Bytes of the record so far, buffered ones included.
  std::uint64_t count() const noexcept { return drained_ + fill_; }

  // ---- Raw bytes ----
  void put_code(ECode code) { put_byte(static_cast<unsigned char>(code)); }
  void put_byte(unsigned char b) {
    *room(1) = b;
    commit(1);
  }
  void put_bytes(void const* data, std::size_t size) {
    if (size <= kCapacity - fill_) [[likely]] {
      std::memcpy(buffer_ + fill_, data, size);
      commit(static_cast<unsigned>(size));
      return;
    }
    put_large(data, size);
  }
  // 8 bytes, most significant first: the count trailers.
  void put_u64(std::uint64_t value) {
    impl::store_big_endian(value, room(8));
    commit(8);
  }

  // ---- Whole records ----
  void put_bool(bool value) {
    unsigned char* const p = room(2);
    p[0] = static_cast<unsigned char>(ECode::Boolean);
    p[1] = value ? 0 : 1;  // inverted, deliberately
    commit(2);
  }
  // Integers from a value of at most 8 bytes: the significant bytes are counted with one bit
  // scan and stored with one 8-byte store.
  void put_signed(std::int64_t value) {
    auto const n = static_cast<unsigned>(64 - __builtin_clrsbll(value) + 7) / 8;  // 1..8
    put_value(ECode::SignedInteger, static_cast<std::uint64_t>(value), n);
  }
  void put_unsigned(std::uint64_t value) {
    unsigned const n =
        value == 0 ? 0 : static_cast<unsigned>(64 - __builtin_clzll(value) + 7) / 8;  // 0..8
    put_value(ECode::UnsignedInteger, value, n);
  }
  // An integer's record from its minimal bytes (at most kMaxIntegerBytes; for a signed value at
  // least one byte).
  void put_integer(ECode code, unsigned char const* bytes, unsigned size) {
    unsigned char* const p = room(2 + size);
    p[0] = static_cast<unsigned char>(code);
    p[1] = static_cast<unsigned char>(size);
    std::memcpy(p + 2, bytes, size);
    commit(2 + size);
  }
  void put_double(double value) {
    std::uint64_t const bits = value != value ? kCanonicalNaN : std::bit_cast<std::uint64_t>(value);
    put_fixed8(ECode::Double, bits);
  }
  // AbsoluteTime or RelativeTime: the code, 8 and the count.
  void put_time(ECode code, std::int64_t count) {
    put_fixed8(code, static_cast<std::uint64_t>(count));
  }
  void put_uuid(zocore::Uuid const& value) {
    unsigned char* const p = room(17);
    p[0] = static_cast<unsigned char>(ECode::Uuid);
    value.write_binary(p + 1);
    commit(17);
  }
  // A whole string or binary: the code, the bytes, their count as 8 bytes.
  void put_payload(ECode code, void const* data, std::size_t size) {
    if (size <= kCapacity - 9 && fill_ <= kCapacity - 9 - size) [[likely]] {
      unsigned char* const p = buffer_ + fill_;
      p[0] = static_cast<unsigned char>(code);
      std::memcpy(p + 1, data, size);
      impl::store_big_endian(static_cast<std::uint64_t>(size), p + 1 + size);
      commit(static_cast<unsigned>(size) + 9);
      return;
    }
    put_code(code);
    put_bytes(data, size);
    put_u64(size);
  }

  // Gives the buffered bytes to the sink.
  void drain() {
    unsigned const n = std::exchange(fill_, 0);
    drained_ += n;
    if (sink_ && n != 0) sink_->write(buffer_, n);
  }
  // Ends the record with its length so far as 8 bytes, gives everything to the sink and
  // releases it. Later bytes are dropped.
  void finish() {
    put_u64(count());
    drain();
    sink_.reset();
  }

 private:
  // Room for `n` <= kCapacity bytes at the returned place; commit(n) once they are written.
  unsigned char* room(unsigned n) {
    if (kCapacity - fill_ < n) [[unlikely]]
      drain();
    return buffer_ + fill_;
  }
  void commit(unsigned n) noexcept { fill_ += n; }
  // The `n` low bytes of `value`, most significant first.
  void put_value(ECode code, std::uint64_t value, unsigned n) {
    unsigned char* const p = room(10);
    p[0] = static_cast<unsigned char>(code);
    p[1] = static_cast<unsigned char>(n);
    impl::store_big_endian(n == 0 ? 0 : value << (64 - 8 * n), p + 2);
    commit(2 + n);
  }
  void put_fixed8(ECode code, std::uint64_t value) {
    unsigned char* const p = room(10);
    p[0] = static_cast<unsigned char>(code);
    p[1] = 8;
    impl::store_big_endian(value, p + 2);
    commit(10);
  }
  [[gnu::noinline]] void put_large(void const* data, std::size_t size) {
    drain();
    if (size < kCapacity) {
      std::memcpy(buffer_, data, size);
      fill_ = static_cast<unsigned>(size);
      return;
    }
    auto const* p = static_cast<unsigned char const*>(data);
    for (std::size_t left = size; sink_ && left != 0;) {
      unsigned const n = left > 0x80000000u ? 0x80000000u : static_cast<unsigned>(left);
      sink_->write(p, n);
      p += n;
      left -= n;
    }
    drained_ += size;
  }

  InterfacePtr<IWriteStream> sink_;
  unsigned fill_ = 0;
  std::uint64_t drained_ = 0;  // bytes that left the buffer (to the sink, if any)
  unsigned char buffer_[kCapacity];
};

}  // namespace zoserialize
