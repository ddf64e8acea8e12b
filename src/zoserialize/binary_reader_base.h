// Decoder of the tagged binary encoding, shared by the stream and memory readers.
#pragma once

#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <type_traits>
#include <vector>

#include <zocore/source_location.h>
#include <zoserialize/export.h>
#include <zoserialize/impl/binary_encoding.h>
#include <zoserialize/impl/byte_order.h>
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

  // Inside a marker this reader has opened, whether its end comes next, answered from the input
  // window without a call: 1 it does, 0 another element comes, -1 the window is empty (then
  // read_marker_is_end() answers). Checks nothing else.
  int peek_marker_end() const noexcept {
    if (in_cur_ == in_end_) return -1;
    return *in_cur_ == impl::kTagMarkerEnd ? 1 : 0;
  }
  // The inline front end's fast path alone, for callers that have something cheaper to try than
  // its failure (a record reader that must see whether its marker ends before a missing field):
  // reads `v` and returns true when the next element lies whole in the input window in a form
  // that fits, as `>> v` would; otherwise returns false having consumed nothing.
  bool try_read_inline(bool& v) noexcept { return decode_bool_inline(v); }
  bool try_read_inline(double& v) noexcept { return decode_double_inline(v); }
  bool try_read_inline(std::string& v) { return read_string_inline(v); }
  // The integers of the front end but char (which reads as signed char).
  template <class T>
  requires(std::is_same_v<T, signed char> || std::is_same_v<T, unsigned char> ||
           std::is_same_v<T, short> || std::is_same_v<T, unsigned short> ||
           std::is_same_v<T, int> || std::is_same_v<T, unsigned> || std::is_same_v<T, long> ||
           std::is_same_v<T, unsigned long> || std::is_same_v<T, long long> ||
           std::is_same_v<T, unsigned long long>) bool try_read_inline(T& v) noexcept {
    if constexpr (std::is_signed_v<T>) {
      return decode_signed_inline(v);
    } else {
      return decode_unsigned_inline(v);
    }
  }

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
  // stream it handed out is open). Mutable because is_eof() const may have to refill the
  // concrete reader's buffer.
  mutable unsigned char const* in_cur_ = nullptr;
  mutable unsigned char const* in_end_ = nullptr;
  // The last tag consumed (0..255). Wider than a byte on purpose: a store through a character
  // type may alias the window pointers, and the compiler would reload them after every element.
  unsigned current_tag_ = 0;

  unsigned window_size() const noexcept { return static_cast<unsigned>(in_end_ - in_cur_); }

  int peek_next_tag() {
    if (in_cur_ != in_end_) [[likely]]
      return *in_cur_;
    return impl_peek_next_tag();
  }
  int read_tag_check_type(int prefix) {
    if (in_cur_ != in_end_ && (*in_cur_ & 0xF0) == prefix) [[likely]] {
      current_tag_ = *in_cur_++;
      return static_cast<int>(current_tag_ & 0x0F);
    }
    return impl_read_tag_check_type(prefix);
  }
  // The body of impl_read_tag_check_type: the concrete reader has made the next byte the first
  // of the window, or found that there is none (`available` false: fails with `eof_message`).
  int take_tag(bool available, int prefix, char const* eof_message, char const* function);
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

  // ---- Payloads of strings and binaries ----
  struct PayloadHeader {
    unsigned length;  // the whole payload, or the first chunk of a chunked one
    bool chunked;
  };
  // Consumes a String or Binary tag (`prefix`) and its length field. A tag of neither form
  // raises the unexpected tag, located at `function`.
  PayloadHeader read_payload_header(int prefix, char const* function);
  // Between two chunks of a chunked payload the decoder walks itself: consumes the next
  // continuation tag and its length field; false at the end tag.
  bool read_next_chunk_header(int prefix, unsigned& length, char const* function);
  // Skips the payload of a string or binary whose tag (with value nibble `nibble`) was read.
  void skip_binary_aux(int prefix, unsigned nibble);

  // ---- Markers ----
  // Consumes a marker start tag and its size field; returns the size (0: none given).
  unsigned read_marker_start_tag();
  // The steps of read_marker_is_end / read_marker_end that every concrete reader shares: fail
  // when no marker is open (and, for the end, when the data end before the end tag); true when
  // the marker end tag comes next. Inline: they run at every marker end, and the concrete
  // reader's peek is devirtualised there.
  bool marker_end_is_next(bool any_marker_open, char const* function) {
    if (!any_marker_open) [[unlikely]]
      throw_no_marker_open(function);
    return peek_next_tag() == impl::kTagMarkerEnd;
  }
  bool marker_end_is_next_or_fail(bool any_marker_open, char const* function) {
    if (marker_end_is_next(any_marker_open, function)) return true;
    if (peek_next_tag() < 0) [[unlikely]]
      throw_eof_in_marker(function);
    return false;
  }
  // The last step of read_marker_end, once the concrete reader stands where the marker ends:
  // after the skip to a sized marker's end (`sized`) the end tag must be next; otherwise the
  // elements up to the end tag are walked. Then the end tag is consumed.
  void finish_marker_end(bool sized, char const* function);
  // Skips whole elements until the marker end tag that closes the current marker is next; the
  // end tag itself is not consumed.
  void skip_to_marker_end_tag();

  // ---- Failures, cold and out of line; `function` names the detecting operation ----
  // "End of data reached reading from source".
  [[noreturn]] static void throw_eof_error(unsigned expected, unsigned actual);
  // Calls impl_throw_unexpected_tag with the location of `function` and never returns.
  [[noreturn]] void throw_unexpected_tag(char const* function);
  // "Tag has unexpected value" for current_tag_: the concrete readers' impl_throw_unexpected_tag.
  [[noreturn]] void throw_unexpected_tag_value(SourceLocation const& location) const;
  [[noreturn]] static void throw_no_marker_open(char const* function);
  [[noreturn]] static void throw_eof_in_marker(char const* function);
  [[noreturn]] static void throw_marker_overrun(std::uint64_t marker_end, std::uint64_t position,
                                                char const* function);

  bool has_open_sequences() const noexcept { return !sequences_.empty(); }

  // ---- Decoders of the inline front end ----
  // Each form is decoded by one function from the bytes of the whole element (tag and payload
  // of up to 8 bytes, 9 bytes readable): in place when the window holds that much, else from a
  // local copy that the slow path reads through the hooks.
  static constexpr unsigned kMaxInlineElement = 9;

  // An integer of the tags 0x20..0x27 (signed) or 0x30..0x37 (unsigned) at p: its value as 64
  // bits (sign-extended) and the element's length; false for the wide forms and other tags.
  template <bool Signed>
  static bool decode_integer_at(unsigned char const* p, std::uint64_t& v,
                                unsigned& length) noexcept {
    unsigned const nibble = p[0] - (Signed ? 0x20u : 0x30u);
    if (nibble <= 2) {
      if (!Signed && nibble == 2) return false;
      v = nibble == 2 ? ~std::uint64_t{0} : nibble;
      length = 1;
      return true;
    }
    if (nibble < 4 || nibble > 7) return false;
    unsigned const shift = 64 - (8u << (nibble - 4));
    std::uint64_t const raw = impl::load_big_endian<std::uint64_t>(p + 1);
    v = Signed ? static_cast<std::uint64_t>(static_cast<std::int64_t>(raw) >> shift) : raw >> shift;
    length = 1 + (1u << (nibble - 4));
    return true;
  }

  // A double of the forms 0x40..0x42 and 0x44..0x47 at p; length 0 for any other tag.
  static double decode_double_at(unsigned char const* p, unsigned& length) noexcept {
    unsigned const nibble = p[0] - 0x40u;
    if (nibble <= 2) {
      length = 1;
      return nibble == 0 ? 0.0 : nibble == 1 ? 1.0 : -1.0;
    }
    // Payload widths of the forms 0x44..0x47; the other bytes of the binary64 are zero.
    static constexpr unsigned char kWidth[4] = {2, 3, 4, 8};
    if (nibble < 4 || nibble > 7) {
      length = 0;
      return 0.0;
    }
    unsigned const width = kWidth[nibble - 4];
    std::uint64_t bits = impl::load_big_endian<std::uint64_t>(p + 1);
    if (width < 8) bits &= ~std::uint64_t{0} << (64 - 8 * width);
    length = 1 + width;
    double v;
    std::memcpy(&v, &bits, sizeof v);
    return v;
  }

  // Each decoder's fast path on its own: true with the value when the element lies whole in the
  // window in a form that fits, false having consumed nothing.
  template <class T>
  bool decode_signed_inline(T& out) noexcept {
    std::uint64_t v;
    unsigned length;
    if (window_size() >= kMaxInlineElement && decode_integer_at<true>(in_cur_, v, length)) {
      auto const s = static_cast<std::int64_t>(v);
      if (s >= std::numeric_limits<T>::min() && s <= std::numeric_limits<T>::max()) [[likely]] {
        current_tag_ = *in_cur_;
        in_cur_ += length;
        out = static_cast<T>(s);
        return true;
      }
    }
    return false;
  }
  template <class T>
  bool decode_unsigned_inline(T& out) noexcept {
    std::uint64_t v;
    unsigned length;
    if (window_size() >= kMaxInlineElement && decode_integer_at<false>(in_cur_, v, length) &&
        v <= std::numeric_limits<T>::max()) [[likely]] {
      current_tag_ = *in_cur_;
      in_cur_ += length;
      out = static_cast<T>(v);
      return true;
    }
    return false;
  }
  bool decode_bool_inline(bool& out) noexcept {
    if (in_cur_ != in_end_ && (*in_cur_ | 1) == impl::kTagTrue) [[likely]] {
      current_tag_ = *in_cur_++;
      out = current_tag_ == impl::kTagTrue;
      return true;
    }
    return false;
  }
  bool decode_double_inline(double& out) noexcept {
    if (window_size() >= kMaxInlineElement) [[likely]] {
      unsigned length;
      double const v = decode_double_at(in_cur_, length);
      if (length != 0) [[likely]] {
        current_tag_ = *in_cur_;
        in_cur_ += length;
        out = v;
        return true;
      }
    }
    return false;
  }
  // Short strings whose bytes are in the window are copied at once.
  bool read_string_inline(std::string& out) {
    if (in_cur_ != in_end_) [[likely]] {
      unsigned char const tag = *in_cur_;
      unsigned header = 0;
      unsigned length = 0;
      if (tag >= 0x50 && tag <= 0x57) {
        header = 1, length = tag & 0x0Fu;
      } else if (tag == 0x58 && window_size() >= 2) {
        header = 2, length = in_cur_[1];
      }
      if (header != 0 && header + length <= window_size()) [[likely]] {
        current_tag_ = tag;
        // Strings read again and again keep their capacity: append to an empty one copies
        // without the checks of assign.
        out.clear();
        out.append(reinterpret_cast<char const*>(in_cur_ + header), length);
        in_cur_ += header + length;
        return true;
      }
    }
    return false;
  }

  template <class T>
  T decode_signed() {
    T v;
    if (decode_signed_inline(v)) [[likely]]
      return v;
    return static_cast<T>(read_integer_value(true, sizeof(T), kSignedFunction));
  }
  template <class T>
  T decode_unsigned() {
    T v;
    if (decode_unsigned_inline(v)) [[likely]]
      return v;
    return static_cast<T>(read_integer_value(false, sizeof(T), kUnsignedFunction));
  }
  bool decode_bool() {
    bool v;
    if (decode_bool_inline(v)) [[likely]]
      return v;
    return read_bool_slow();
  }
  double decode_double() {
    double v;
    if (decode_double_inline(v)) [[likely]]
      return v;
    return read_double_slow();
  }
  // A string by value.
  void read_string_value(std::string& out) {
    if (!read_string_inline(out)) [[unlikely]]
      read_string_slow(out);
  }
  // For readers that can be copied: takes over (or drops) the open sequence records.
  void copy_sequences_from(BinaryReaderBase const& other) { sequences_ = other.sequences_; }
  void clear_sequences() noexcept { sequences_.clear(); }
  void swap(BinaryReaderBase& other) noexcept;

 private:
  struct SequenceEntry {
    unsigned count_hint;
    unsigned elements;
  };

  static constexpr char kSignedFunction[] = "zoserialize::BinaryReaderBase::read_int_big_endian()";
  static constexpr char kUnsignedFunction[] =
      "zoserialize::BinaryReaderBase::read_uint_big_endian()";

  void read_checked_slow(void* data, unsigned size);
  void skip_checked_slow(unsigned size);
  // The slow paths of the decoders: the element is read through the hooks.
  // An integer into `size` bytes (at most 8), sign- or zero-extended to 64 bits.
  std::uint64_t read_integer_value(bool is_signed, unsigned size, char const* function);
  void read_integer_image(void* data, unsigned size, bool is_signed, char const* function);
  void read_integer_payload(unsigned char* out, unsigned size, unsigned width, bool is_signed,
                            char const* function);
  bool read_bool_slow();
  unsigned read_sequence_start_slow();
  bool read_sequence_next_slow();
  double read_double_slow();
  void read_string_slow(std::string& out);
  // A whole string's length field against the known rest of the data and the by-value limit.
  void check_string_length(unsigned length);
  [[noreturn]] static void throw_string_too_large(char const* message, std::uint64_t size);
  std::int64_t read_time(int prefix, char const* function);
  void copy_scalar(EToken token, Writer& writer);

  std::vector<SequenceEntry> sequences_;
};

// The structural reads are small and frequent: their common forms are decoded here, inline for
// callers holding a concrete reader; everything else (and every failure) is out of line.

[[gnu::always_inline]] inline unsigned BinaryReaderBase::read_sequence_start() {
  if (in_cur_ != in_end_ && (*in_cur_ & 0xF8) == 0xA0) [[likely]] {
    current_tag_ = *in_cur_++;
    unsigned const hint = current_tag_ & 0x07u;
    sequences_.push_back({hint, 0});
    return hint;
  }
  return read_sequence_start_slow();
}

inline bool BinaryReaderBase::read_sequence_next() {
  if (!sequences_.empty() && in_cur_ != in_end_) [[likely]] {
    SequenceEntry& top = sequences_.back();
    unsigned char const tag = *in_cur_;
    if (top.elements == 0) {
      if (tag != impl::kTagSequenceEnd) {
        top.elements = 1;
        return true;
      }
    } else if (tag == impl::kTagSequenceSeparator) {
      if (top.count_hint == 0 || top.elements < top.count_hint) {
        current_tag_ = tag;
        ++in_cur_;
        ++top.elements;
        return true;
      }
    } else if (tag == impl::kTagSequenceEnd &&
               (top.count_hint == 0 || top.count_hint == top.elements)) {
      current_tag_ = tag;
      ++in_cur_;
      sequences_.pop_back();
      return false;
    }
  }
  return read_sequence_next_slow();
}

}  // namespace zoserialize
