// The canonical hash record shared by the hashing adapters: both sides must give the sink the
// same bytes for the same element, so both build them here.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <utility>

#include <zocore/stream.h>
#include <zocore/uuid.h>
#include <zoserialize/impl/integer_form.h>
#include <zoserialize/writer.h>

namespace zoserialize::impl {

// Record codes, one per element kind (the reader's EToken values).
enum class EHashCode : unsigned char {
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
  SequenceNext = 12,
  SequenceEnd = 13,
  MarkerStart = 14,
  MarkerEnd = 15,
};

// An integer's length byte limits its minimal form to 255 bytes.
inline constexpr unsigned kMaxHashedIntegerBytes = 255;

// Every NaN hashes as this one pattern, so that equal data hashes equal whatever NaN payload a
// format kept.
inline constexpr std::uint64_t kCanonicalNaN = 0x7FF1000000000000ull;

// HashFeed gathers record bytes in a fixed buffer and gives them to the sink in batches: the
// sink (a digest, typically) sees few large writes instead of one per element. Payload runs
// longer than the free room go to the sink directly, without a copy. Without a sink the bytes
// are counted and dropped. Not thread-safe.
class HashFeed {
 public:
  static constexpr unsigned kCapacity = 4096;

  // Shares `sink` (may be null).
  explicit HashFeed(InterfacePtr<IWriteStream> sink) noexcept : sink_(std::move(sink)) {}
  HashFeed(HashFeed const&) = delete;
  HashFeed& operator=(HashFeed const&) = delete;
  ~HashFeed() = default;

  // Bytes of the record so far, buffered ones included.
  std::uint64_t count() const noexcept { return count_; }

  void put_code(EHashCode code) { put_byte(static_cast<unsigned char>(code)); }
  void put_byte(unsigned char b) {
    if (fill_ == kCapacity) [[unlikely]]
      drain();
    buffer_[fill_++] = b;
    ++count_;
  }
  void put_bytes(void const* data, std::size_t size) {
    if (size <= kCapacity - fill_) [[likely]] {
      std::memcpy(buffer_ + fill_, data, size);
      fill_ += static_cast<unsigned>(size);
      count_ += size;
      return;
    }
    put_large(data, size);
  }
  void put_u64(std::uint64_t value) {
    unsigned char be[8];
    store_big_endian(value, be);
    put_bytes(be, 8);
  }

  // ---- Whole records ----
  void put_bool(bool value) {
    unsigned char const record[2] = {static_cast<unsigned char>(EHashCode::Boolean),
                                     static_cast<unsigned char>(value ? 0 : 1)};
    put_bytes(record, 2);
  }
  // `form` is minimal_signed_form(image, ...), at most kMaxHashedIntegerBytes long. Zero and -1
  // keep their one sign byte.
  void put_signed(unsigned char const* image, SignedForm form) {
    if (form.length == 0) {
      unsigned char const record[3] = {static_cast<unsigned char>(EHashCode::SignedInteger), 1,
                                       form.sign};
      return put_bytes(record, 3);
    }
    unsigned char const head[2] = {static_cast<unsigned char>(EHashCode::SignedInteger),
                                   static_cast<unsigned char>(form.length)};
    put_header_and(head, image + form.offset, form.length);
  }
  // `form` is minimal_unsigned_form(image, ...), at most kMaxHashedIntegerBytes long. Zero has no
  // bytes.
  void put_unsigned(unsigned char const* image, UnsignedForm form) {
    unsigned char const head[2] = {static_cast<unsigned char>(EHashCode::UnsignedInteger),
                                   static_cast<unsigned char>(form.length)};
    put_header_and(head, image + form.offset, form.length);
  }
  void put_double(double value) {
    std::uint64_t const bits = value != value ? kCanonicalNaN : std::bit_cast<std::uint64_t>(value);
    put_fixed8(EHashCode::Double, bits);
  }
  void put_time(EHashCode code, std::int64_t count) {
    put_fixed8(code, static_cast<std::uint64_t>(count));
  }
  void put_uuid(zocore::Uuid const& value) {
    unsigned char record[17];
    record[0] = static_cast<unsigned char>(EHashCode::Uuid);
    value.write_binary(record + 1);
    put_bytes(record, sizeof record);
  }
  // A whole string or binary: code, bytes, 8-byte count.
  void put_payload(EHashCode code, void const* data, std::size_t size) {
    put_code(code);
    put_bytes(data, size);
    put_u64(size);
  }

  // Gives the buffered bytes to the sink.
  void drain() {
    unsigned const n = std::exchange(fill_, 0);
    if (sink_ && n != 0) sink_->write(buffer_, n);
  }
  // Ends the record: the total so far as 8 bytes, then everything goes to the sink, which is
  // released. Later bytes are dropped.
  void finish() {
    put_u64(count_);
    drain();
    sink_.reset();
  }

 private:
  template <std::size_t N>
  void put_header_and(unsigned char const (&head)[N], unsigned char const* bytes, unsigned size) {
    if (N + size <= kCapacity - fill_) [[likely]] {
      std::memcpy(buffer_ + fill_, head, N);
      std::memcpy(buffer_ + fill_ + N, bytes, size);
      fill_ += static_cast<unsigned>(N) + size;
      count_ += N + size;
      return;
    }
    put_bytes(head, N);
    put_bytes(bytes, size);
  }
  void put_fixed8(EHashCode code, std::uint64_t value) {
    unsigned char record[10];
    record[0] = static_cast<unsigned char>(code);
    record[1] = 8;
    store_big_endian(value, record + 2);
    put_bytes(record, sizeof record);
  }
  [[gnu::noinline]] void put_large(void const* data, std::size_t size) {
    drain();
    if (size < kCapacity) {
      std::memcpy(buffer_, data, size);
      fill_ = static_cast<unsigned>(size);
    } else if (sink_) {
      auto const* p = static_cast<unsigned char const*>(data);
      for (std::size_t left = size; left != 0;) {
        unsigned const n = left > 0x80000000u ? 0x80000000u : static_cast<unsigned>(left);
        sink_->write(p, n);
        p += n;
        left -= n;
      }
    }
    count_ += size;
  }

  InterfacePtr<IWriteStream> sink_;
  unsigned fill_ = 0;
  std::uint64_t count_ = 0;
  unsigned char buffer_[kCapacity];  // NOLINT(cppcoreguidelines-pro-type-member-init)
};

}  // namespace zoserialize::impl
