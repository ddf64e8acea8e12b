// Decoder of the tagged binary encoding, shared by the stream and memory readers.
#pragma once

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include <zocore/source_location.h>
#include <zoserialize/binary_encoding.h>
#include <zoserialize/export.h>
#include <zoserialize/reader.h>

namespace zoserialize {

// BinaryReaderBase decodes tags and payloads and checks sequence structure against count hints.
// Where bytes come from is left to the concrete reader's hooks; on the fast path the decoder
// reads straight from an input window that the concrete reader lends it (see below).
//
// Hostile input is safe: lengths are checked before use, nothing is allocated in proportion to
// a declared length before the bytes arrive, and skipping and copying walk nested sequences and
// markers without recursion.
//
// Not thread-safe: one thread at a time.
class ZOSERIALIZE_API BinaryReaderBase : public Reader {
 public:
  BinaryReaderBase();
  BinaryReaderBase(BinaryReaderBase const&) = delete;
  BinaryReaderBase& operator=(BinaryReaderBase const&) = delete;

  // The element operations are final: concrete readers only decide where bytes come from. That
  // is what lets the inline front end below skip the virtual call.
  EToken next_token() final;
  void skip_element() final;
  void read_null() final;
  bool try_read_null() final;
  bool read_bool() final;
  void read_int_big_endian(void* data, unsigned size) final;
  void read_uint_big_endian(void* data, unsigned size) final;
  double read_double() final;
  void read_string(SourceString& out) final;
  void read_string(std::string& out) final;
  std::string read_string() final;
  AbsoluteTime read_absolute_time() final;
  RelativeTime read_relative_time() final;
  Uuid read_uuid() final;
  unsigned read_sequence_start() final;
  bool read_sequence_next() final;
  void read_copy(Writer& writer) final;
  ~BinaryReaderBase() override;

  // ---- Inline front end ----
  // Shadows of Reader's typed front end for callers that know they hold a binary reader: the
  // common forms are decoded straight from the input window; anything else (a value that does
  // not fit, a window too short, a malformed tag) takes the generic path, which gives the same
  // results and the same failures.
  using Reader::operator>>;
  BinaryReaderBase& operator>>(bool& v) { return v = decode_bool(), *this; }
  BinaryReaderBase& operator>>(char& v) {
    return v = static_cast<char>(decode_signed<signed char>()), *this;
  }
  BinaryReaderBase& operator>>(signed char& v) { return v = decode_signed<signed char>(), *this; }
  BinaryReaderBase& operator>>(unsigned char& v) {
    return v = decode_unsigned<unsigned char>(), *this;
  }
  BinaryReaderBase& operator>>(short& v) { return v = decode_signed<short>(), *this; }
  BinaryReaderBase& operator>>(unsigned short& v) {
    return v = decode_unsigned<unsigned short>(), *this;
  }
  BinaryReaderBase& operator>>(int& v) { return v = decode_signed<int>(), *this; }
  BinaryReaderBase& operator>>(unsigned int& v) { return v = decode_unsigned<unsigned>(), *this; }
  BinaryReaderBase& operator>>(long& v) { return v = decode_signed<long>(), *this; }
  BinaryReaderBase& operator>>(unsigned long& v) {
    return v = decode_unsigned<unsigned long>(), *this;
  }
  BinaryReaderBase& operator>>(long long& v) { return v = decode_signed<long long>(), *this; }
  BinaryReaderBase& operator>>(unsigned long long& v) {
    return v = decode_unsigned<unsigned long long>(), *this;
  }
  BinaryReaderBase& operator>>(double& v) { return v = decode_double(), *this; }
  BinaryReaderBase& operator>>(std::string& v) { return read_string_value(v), *this; }
  char read_int8() { return static_cast<char>(decode_signed<signed char>()); }
  unsigned char read_uint8() { return decode_unsigned<unsigned char>(); }
  short read_int16() { return decode_signed<short>(); }
  unsigned short read_uint16() { return decode_unsigned<unsigned short>(); }
  int read_int32() { return decode_signed<int>(); }
  int read_int() { return decode_signed<int>(); }
  long read_long() { return decode_signed<long>(); }
  unsigned read_uint32() { return decode_unsigned<unsigned>(); }
  unsigned read_uint() { return decode_unsigned<unsigned>(); }
  unsigned long read_ulong() { return decode_unsigned<unsigned long>(); }
  long long read_int64() { return decode_signed<long long>(); }
  unsigned long long read_uint64() { return decode_unsigned<unsigned long long>(); }

 protected:
  using SourceLocation = zocore::SourceLocation;

  // ---- Hooks of the concrete reader ----
  // Consumes the next tag; raises the type-mismatch failure (leaving the tag unconsumed) when
  // its high nibble is not `prefix`; stores it in current_tag_ and returns the low nibble.
  virtual int impl_read_tag_check_type(int prefix) = 0;
  // The next tag byte (0..255) without consuming it, or -1 at the end of the data.
  virtual int impl_peek_next_tag() = 0;
  // Reads up to `size` payload bytes; a short count means the data ended.
  virtual unsigned impl_read(void* data, unsigned size) = 0;
  virtual unsigned impl_skip(unsigned size) = 0;
  // Bytes left in the source, 0xFFFFFFFF when unknown.
  virtual unsigned impl_bytes_remaining() const = 0;
  // Raises the unexpected-tag failure for current_tag_. Must not return.
  [[noreturn]] virtual void impl_throw_unexpected_tag(SourceLocation const& location) = 0;

  // ---- Input window ----
  // Unread input bytes that the decoder may consume directly, without a virtual call:
  // consuming a byte is advancing in_cur_. The concrete reader sets the window, accounts for how
  // far in_cur_ moved whenever one of its own operations runs, and empties it
  // (in_cur_ == in_end_) whenever its hooks must see every access (for example while a payload
  // stream it handed out is open).
  // Mutable because is_eof() const may have to refill the concrete reader's buffer.
  mutable unsigned char const* in_cur_ = nullptr;
  mutable unsigned char const* in_end_ = nullptr;
  // The last tag consumed.
  unsigned char current_tag_ = 0;

  unsigned window_size() const noexcept { return static_cast<unsigned>(in_end_ - in_cur_); }

  int peek_next_tag() {
    if (in_cur_ != in_end_) [[likely]]
      return *in_cur_;
    return impl_peek_next_tag();
  }
  int read_tag_check_type(int prefix) {
    if (in_cur_ != in_end_ && (*in_cur_ & 0xF0) == prefix) [[likely]] {
      current_tag_ = *in_cur_++;
      return current_tag_ & 0x0F;
    }
    return impl_read_tag_check_type(prefix);
  }
  // Reads exactly `size` bytes or raises the end-of-data failure.
  void impl_read_checked(void* data, unsigned size) {
    if (size <= window_size()) [[likely]] {
      if (size != 0) std::memcpy(data, in_cur_, size);
      in_cur_ += size;
      return;
    }
    read_checked_slow(data, size);
  }
  // Skips exactly `size` bytes or raises the end-of-data failure.
  void impl_skip_checked(unsigned size) {
    if (size <= window_size()) [[likely]] {
      in_cur_ += size;
      return;
    }
    skip_checked_slow(size);
  }

  // A 1-, 2-, 4- or 8-byte big-endian size field (n = 0..3); 8-byte values of 4 GiB or more
  // fail.
  unsigned read_size(unsigned n);
  // "End of data reached reading from source".
  [[noreturn]] static void throw_eof_error(unsigned expected, unsigned actual);
  // Calls impl_throw_unexpected_tag and never returns.
  [[noreturn]] void throw_unexpected_tag(SourceLocation const& location);

  // Consumes a marker start tag and its size field; returns the size (0: none given).
  unsigned read_marker_start_tag();
  // The steps of read_marker_is_end / read_marker_end that every concrete reader shares: fail
  // when no marker is open (and, for the end, when the data end before the end tag); true when
  // the marker end tag comes next. Inline: they run at every marker end, and the concrete
  // reader's peek is devirtualised there.
  bool marker_end_is_next(bool any_marker_open, SourceLocation const& location) {
    if (!any_marker_open) [[unlikely]]
      throw_no_marker_open(location);
    return peek_next_tag() == impl::kTagMarkerEnd;
  }
  bool marker_end_is_next_or_fail(bool any_marker_open, SourceLocation const& location) {
    if (marker_end_is_next(any_marker_open, location)) return true;
    if (peek_next_tag() < 0) [[unlikely]]
      throw_eof_in_marker(location);
    return false;
  }
  [[noreturn]] static void throw_no_marker_open(SourceLocation const& location);
  [[noreturn]] static void throw_eof_in_marker(SourceLocation const& location);

  // Failures shared by the concrete readers (the location names the detecting operation).
  [[noreturn]] static void throw_type_mismatch(int expected_prefix, unsigned tag,
                                               SourceLocation const& location);
  // "Tag has unexpected value" for current_tag_.
  [[noreturn]] void throw_unexpected_tag_value(SourceLocation const& location) const;
  [[noreturn]] static void throw_marker_overrun(std::uint64_t marker_end, std::uint64_t position,
                                                SourceLocation const& location);
  [[noreturn]] static void throw_inconsistent_marker_size(SourceLocation const& location);
  // Skips whole elements until the marker end tag that closes the current marker is next; the
  // end tag itself is not consumed.
  void skip_to_marker_end_tag();
  // Skips the payload of a string or binary whose tag (with value nibble `nibble`) was read.
  void skip_binary_aux(int prefix, unsigned nibble);

  bool has_open_sequences() const noexcept { return !sequences_.empty(); }

  // ---- Decoders of the inline front end ----
  // A tag and up to 8 payload bytes: with this much in the window a value is decoded in place.
  static constexpr unsigned kMaxInlineElement = 9;

  template <class T>
  T decode_signed() {
    if (window_size() >= kMaxInlineElement) [[likely]] {
      unsigned char const tag = in_cur_[0];
      std::int64_t v;
      unsigned length;
      switch (tag) {
        case 0x20:
          v = 0, length = 1;
          break;
        case 0x21:
          v = 1, length = 1;
          break;
        case 0x22:
          v = -1, length = 1;
          break;
        case 0x24:
          // Sign extension of one byte, without a detour through signed char.
          v = static_cast<std::int64_t>(in_cur_[1] ^ 0x80) - 0x80, length = 2;
          break;
        case 0x25:
          v = impl::load_big_endian<std::int16_t>(in_cur_ + 1), length = 3;
          break;
        case 0x26:
          v = impl::load_big_endian<std::int32_t>(in_cur_ + 1), length = 5;
          break;
        case 0x27:
          v = impl::load_big_endian<std::int64_t>(in_cur_ + 1), length = 9;
          break;
        default:
          return read_signed_generic<T>();
      }
      if (v >= std::numeric_limits<T>::min() && v <= std::numeric_limits<T>::max()) {
        current_tag_ = tag;
        in_cur_ += length;
        return static_cast<T>(v);
      }
    }
    return read_signed_generic<T>();
  }

  template <class T>
  T decode_unsigned() {
    if (window_size() >= kMaxInlineElement) [[likely]] {
      unsigned char const tag = in_cur_[0];
      std::uint64_t v;
      unsigned length;
      switch (tag) {
        case 0x30:
          v = 0, length = 1;
          break;
        case 0x31:
          v = 1, length = 1;
          break;
        case 0x34:
          v = in_cur_[1], length = 2;
          break;
        case 0x35:
          v = impl::load_big_endian<std::uint16_t>(in_cur_ + 1), length = 3;
          break;
        case 0x36:
          v = impl::load_big_endian<std::uint32_t>(in_cur_ + 1), length = 5;
          break;
        case 0x37:
          v = impl::load_big_endian<std::uint64_t>(in_cur_ + 1), length = 9;
          break;
        default:
          return read_unsigned_generic<T>();
      }
      if (v <= std::numeric_limits<T>::max()) {
        current_tag_ = tag;
        in_cur_ += length;
        return static_cast<T>(v);
      }
    }
    return read_unsigned_generic<T>();
  }

  bool decode_bool() {
    if (in_cur_ != in_end_ && (*in_cur_ | 1) == impl::kTagTrue) [[likely]] {
      current_tag_ = *in_cur_++;
      return current_tag_ == impl::kTagTrue;
    }
    return read_bool();
  }

  double decode_double() {
    if (window_size() >= kMaxInlineElement) [[likely]] {
      unsigned char const tag = in_cur_[0];
      // Payload widths of the forms 0x44..0x47; the other bytes of the binary64 are zero.
      static constexpr unsigned char kWidth[4] = {2, 3, 4, 8};
      if (tag >= 0x44 && tag <= 0x47) {
        unsigned const width = kWidth[tag - 0x44];
        std::uint64_t bits = impl::load_big_endian<std::uint64_t>(in_cur_ + 1);
        if (width < 8) bits &= ~std::uint64_t{0} << (64 - 8 * width);
        current_tag_ = tag;
        in_cur_ += 1 + width;
        double v;
        std::memcpy(&v, &bits, sizeof v);
        return v;
      }
    }
    return read_double();
  }

  // A string by value; short strings whose bytes are in the window are copied at once.
  void read_string_value(std::string& out);
  // For readers that can be copied: takes over (or drops) the open sequence records.
  void copy_sequences_from(BinaryReaderBase const& other) { sequences_ = other.sequences_; }
  void clear_sequences() noexcept { sequences_.clear(); }
  void swap(BinaryReaderBase& other) noexcept;

 private:
  struct SequenceEntry {
    unsigned count_hint;
    unsigned elements;
  };

  void read_checked_slow(void* data, unsigned size);
  void skip_checked_slow(unsigned size);
  void read_integer(void* data, unsigned size, bool is_signed, char const* function);
  void read_integer_payload(unsigned char* out, unsigned size, unsigned width, bool is_signed,
                            char const* function);
  void read_string_slow(std::string& out);
  void read_large_string_aux(unsigned nibble, std::string& out);
  template <class T>
  T read_signed_generic() {
    unsigned char image[sizeof(T)];
    read_int_big_endian(image, sizeof(T));
    return impl::load_big_endian<T>(image);
  }
  template <class T>
  T read_unsigned_generic() {
    unsigned char image[sizeof(T)];
    read_uint_big_endian(image, sizeof(T));
    return impl::load_big_endian<T>(image);
  }
  std::int64_t read_time(int prefix, char const* function);
  void copy_scalar(EToken token, Writer& writer);

  std::vector<SequenceEntry> sequences_;
};

}  // namespace zoserialize
