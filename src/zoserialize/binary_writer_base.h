// Encoder of the tagged binary encoding, shared by the stream and memory writers.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <zocore/atomic_ref_count.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/ref_counted.h>
#include <zocore/stream.h>
#include <zoserialize/export.h>
#include <zoserialize/impl/binary_encoding.h>
#include <zoserialize/impl/byte_order.h>
#include <zoserialize/impl/scope_stack.h>
#include <zoserialize/impl/value_stream_base.h>
#include <zoserialize/writer.h>

namespace zoserialize {

// BinaryWriterBase turns every element into its tag and payload (integers and floats in their
// shortest form, strings and binaries whole or chunked) and checks the structure of sequences
// against their count hints. It does not know where bytes go: every byte is handed to the
// concrete writer, either through the hooks impl_write_byte / impl_write or, on the fast path,
// straight into an output window that the concrete writer lends it (see below).
//
// When the output stream (through the concrete writer's hooks) or the source of
// write_binary(IReadStream&) / write_string_stream(IReadStream&) throws in the middle of an
// element, the output cannot be read back any more: every later operation, close() included,
// fails with error::zoserialize_writer_state instead of reporting success over it. The writer's
// own failures (a count mismatch, a value out of range) leave it usable.
//
// Not thread-safe: one thread at a time.
class ZOSERIALIZE_API BinaryWriterBase : public Writer {
 public:
  using Writer::write_string;

  BinaryWriterBase();
  BinaryWriterBase(BinaryWriterBase const&) = delete;
  BinaryWriterBase& operator=(BinaryWriterBase const&) = delete;

  // Finishes an open value stream; fails if a sequence is still open.
  void close() override;
  // Finishes an open value stream.
  void flush() override;
  // The element operations are final: concrete writers only decide where bytes go. That is
  // what lets the inline front end below skip the virtual call.
  void write_null() final;
  void write_bool(bool value) final;
  void write_int_big_endian(void const* data, unsigned size) final;
  void write_uint_big_endian(void const* data, unsigned size) final;
  void write_double(double value) final;
  void write_string(char const* data, unsigned size) final;
  InterfacePtr<IWriteStream> write_string_stream() override;
  void write_string_stream(IReadStream& source) final;
  void write_absolute_time(AbsoluteTime const& value) final;
  void write_relative_time(RelativeTime const& value) final;
  void write_uuid(Uuid const& value) final;
  InterfacePtr<IWriteStream> write_binary() override;
  void write_binary(IReadStream& source) final;
  void write_binary(void const* data, unsigned size) final;
  void write_sequence_start(unsigned count_hint) final;
  void write_sequence_start() final;
  void write_sequence_separator() final;
  void write_sequence_end() final;
  ~BinaryWriterBase() override;

  // The value stream handed out by write_string_stream() and write_binary(). It gathers bytes in
  // a 4096-byte buffer and emits full buffers as chunks; a write of 4096 bytes or more into an
  // empty buffer goes out directly as chunks of up to 65535 bytes. A value that never filled the
  // buffer is written whole, so short streamed values look exactly like values written whole.
  // The value ends when the stream is closed or the writer's next operation starts; writes after
  // that fail. The stream only refers back to its writer, which must outlive its use.
  class BinaryStreamImpl;

  // Markers opened with write_marker_start() and not yet ended.
  unsigned open_markers() const noexcept { return open_markers_; }

  // ---- Inline front end ----
  // Shadows of Writer's typed front end for callers that know they hold a binary writer: they
  // encode straight into the output window, without the big-endian image and the virtual call
  // of the generic path, and write exactly the same bytes.
  using Writer::operator<<;
  BinaryWriterBase& operator<<(bool v) { return encode_bool(v), *this; }
  BinaryWriterBase& operator<<(char v) { return encode_signed(static_cast<signed char>(v)), *this; }
  BinaryWriterBase& operator<<(signed char v) { return encode_signed(v), *this; }
  BinaryWriterBase& operator<<(unsigned char v) { return encode_unsigned(v), *this; }
  BinaryWriterBase& operator<<(short v) { return encode_signed(v), *this; }
  BinaryWriterBase& operator<<(unsigned short v) { return encode_unsigned(v), *this; }
  BinaryWriterBase& operator<<(int v) { return encode_signed(v), *this; }
  BinaryWriterBase& operator<<(unsigned int v) { return encode_unsigned(v), *this; }
  BinaryWriterBase& operator<<(long v) { return encode_signed(v), *this; }
  BinaryWriterBase& operator<<(unsigned long v) { return encode_unsigned(v), *this; }
  BinaryWriterBase& operator<<(long long v) { return encode_signed(v), *this; }
  BinaryWriterBase& operator<<(unsigned long long v) { return encode_unsigned(v), *this; }
  BinaryWriterBase& operator<<(float v) { return encode_double(static_cast<double>(v)), *this; }
  BinaryWriterBase& operator<<(double v) { return encode_double(v), *this; }
  BinaryWriterBase& operator<<(char const* text) {
    return encode_string(text, std::strlen(text)), *this;
  }
  BinaryWriterBase& operator<<(std::string const& s) {
    return encode_string(s.data(), s.size()), *this;
  }
  BinaryWriterBase& operator<<(std::string_view s) {
    return encode_string(s.data(), s.size()), *this;
  }
  void write_int8(char v) { encode_signed(static_cast<signed char>(v)); }
  void write_uint8(unsigned char v) { encode_unsigned(v); }
  void write_int16(short v) { encode_signed(v); }
  void write_uint16(unsigned short v) { encode_unsigned(v); }
  void write_int32(int v) { encode_signed(v); }
  void write_int(int v) { encode_signed(v); }
  void write_long(long v) { encode_signed(v); }
  void write_uint32(unsigned v) { encode_unsigned(v); }
  void write_uint(unsigned v) { encode_unsigned(v); }
  void write_ulong(unsigned long v) { encode_unsigned(v); }
  void write_int64(long long v) { encode_signed(v); }
  void write_uint64(unsigned long long v) { encode_unsigned(v); }
  void write_float(float v) { encode_double(static_cast<double>(v)); }

 protected:
  using ETypePrefix = impl::ETypePrefix;

  // Every operation calls this first: it finishes and releases an open value stream, and
  // refuses to go on once the output is incomplete. The common case is one test.
  void finalize_previous_element() {
    if (pending_ != 0) [[unlikely]]
      settle();
  }
  // Called by a concrete writer when its output stream threw: the output is incomplete.
  void mark_output_failed() noexcept;
  // The tag and length field of a whole string or binary of `length` bytes.
  void write_binary_tag_aux(ETypePrefix prefix, unsigned length);
  void write_binary_aux(ETypePrefix prefix, void const* data, unsigned size);
  void write_binary_aux(ETypePrefix prefix, IReadStream& source);
  void write_marker_start_tag() { emit_byte(impl::kTagMarkerStart); }
  // A marker start with a size field: field_size 0 picks the shortest form; 1..8 asks for a
  // field of that many bytes (rounded up to 1, 2, 4 or 8).
  void write_marker_start_tag(unsigned size, unsigned field_size);
  void write_marker_end_tag() { emit_byte(impl::kTagMarkerEnd); }
  InterfacePtr<IWriteStream> create_binary_write_stream(ETypePrefix prefix);
  void finalize_binary_writer_stream();

  // Emit one byte / `size` bytes. Every byte of the encoding that does not fit the output
  // window passes through one of them.
  virtual void impl_write_byte(unsigned char byte) = 0;
  virtual void impl_write(void const* data, unsigned size) = 0;

  // Output window: free bytes in the concrete writer's buffer that the encoder may fill
  // directly, without a virtual call. Bytes stored at out_cur_ (which is then advanced) are
  // exactly as if they had been passed to impl_write. The concrete writer sets the window with
  // set_window(), reads back how far out_cur_ moved whenever one of its own operations runs, and
  // empties it (out_cur_ == window_end()) whenever its output must not be written directly.
  unsigned char* out_cur_ = nullptr;

  void set_window(unsigned char* cur, unsigned char* end) noexcept {
    out_cur_ = cur;
    out_end_ = end;
    update_fast_end();
  }
  unsigned char* window_end() const noexcept { return out_end_; }
  unsigned window_room() const noexcept { return static_cast<unsigned>(out_end_ - out_cur_); }

  void emit_byte(unsigned char byte) {
    if (out_cur_ != out_end_) [[likely]] {
      *out_cur_++ = byte;
    } else {
      impl_write_byte(byte);
    }
  }
  void emit(void const* data, unsigned size) {
    if (size <= window_room()) [[likely]] {
      if (size != 0) std::memcpy(out_cur_, data, size);
      out_cur_ += size;
    } else {
      impl_write(data, size);
    }
  }
  // A tag and its payload; on the slow path they go out as two pieces.
  void emit_tagged(unsigned char tag, void const* payload, unsigned size) {
    if (size < window_room()) [[likely]] {
      *out_cur_++ = tag;
      std::memcpy(out_cur_, payload, size);
      out_cur_ += size;
    } else {
      emit_byte(tag);
      emit(payload, size);
    }
  }

  bool has_open_sequences() const noexcept { return !sequences_.empty(); }
  bool is_complete() const noexcept { return sequences_.empty() && open_markers_ == 0; }

  // Markers without a size: the concrete writers' write_marker_start/end. `function` names the
  // operation in the failure raised when no marker is open. Markers and sequences are checked
  // independently of each other, so markers are only counted.
  void start_counted_marker() {
    if (fast_room() > 0) [[likely]] {
      put_tag(impl::kTagMarkerStart);
      ++open_markers_;
    } else {
      start_counted_marker_slow();
    }
  }
  void end_counted_marker(char const* function) {
    if (fast_room() > 0 && open_markers_ != 0) [[likely]] {
      --open_markers_;
      put_tag(impl::kTagMarkerEnd);
    } else {
      end_counted_marker_slow(function);
    }
  }
  [[noreturn]] static void throw_no_marker_to_close(char const* function);

  // The open sequences (the markers are counted apart).
  impl::SequenceCounter sequences_;
  unsigned open_markers_ = 0;

  // ---- Encoders: one element each, inline when the window has room ----
  // Each element has one inline fast path, taken when the window has room for it and nothing has
  // to run first (fast_room() says both), and one out-of-line slow path that runs the whole
  // operation: finishing an open value stream, the checks, and the bytes through the hooks.
  // Scalars are encoded by one function into a 9-byte area: straight into the output window, or
  // into a local buffer that the slow path emits.
  void encode_bool(bool v) { encode_tag(v ? impl::kTagTrue : impl::kTagFalse); }
  void encode_tag(unsigned char tag) {
    if (fast_room() > 0) [[likely]] {
      put_tag(tag);
    } else {
      encode_tag_slow(tag);
    }
  }
  void encode_signed(std::int64_t v) {
    if (fast_room() >= kMaxInlineElement) [[likely]] {
      out_cur_ = put_signed(out_cur_, v);
    } else {
      encode_signed_slow(v);
    }
  }
  void encode_unsigned(std::uint64_t v) {
    if (fast_room() >= kMaxInlineElement) [[likely]] {
      out_cur_ = put_unsigned(out_cur_, v);
    } else {
      encode_unsigned_slow(v);
    }
  }
  void encode_double(double v) {
    if (fast_room() >= kMaxInlineElement) [[likely]] {
      out_cur_ = put_double(out_cur_, v);
    } else {
      encode_double_slow(v);
    }
  }
  void encode_string(char const* data, std::size_t size) { encode_payload(0x50, data, size); }
  // A string or binary given whole (`tag` 0x50 or 0x90): short ones (1-byte length at most)
  // whose bytes fit the window go in directly. A size beyond 32 bits is refused on the slow path.
  void encode_payload(unsigned char tag, void const* data, std::size_t size) {
    if (size <= 0xFF && static_cast<std::intptr_t>(size) + 2 <= fast_room()) [[likely]] {
      unsigned char* out = out_cur_;
      auto const n = static_cast<unsigned>(size);
      // The length byte is stored in any case (the room is there) and kept only from 8 bytes on.
      // The form is computed, not branched on: lengths vary from value to value, and a branch on
      // them is mispredicted often enough to cost more than the whole element.
      unsigned const has_length = (n + 0xF8) >> 8;  // n <= 0xFF: 1 from 8 bytes on, else 0
      out[0] = static_cast<unsigned char>(tag | (n & (has_length - 1)) | (has_length << 3));
      out[1] = static_cast<unsigned char>(n);
      out += 1 + has_length;
      impl::copy_short(out, data, n);
      out_cur_ = out + n;
    } else {
      encode_payload_slow(tag, data, size);
    }
  }

 private:
  // A tag and up to 8 payload bytes: the encoders store 9 bytes at once.
  static constexpr std::intptr_t kMaxInlineElement = 9;

  // Free bytes of the window as the fast paths see them: none (or fewer than none) while an
  // operation has to run its slow path first, because a value stream is open or the output is
  // incomplete. That folds the per-element test of pending_ into the test of the room. fast_end_
  // is window_end(), or 0 while pending_ is set.
  std::intptr_t fast_room() const noexcept {
    return static_cast<std::intptr_t>(fast_end_ - reinterpret_cast<std::uintptr_t>(out_cur_));
  }
  void update_fast_end() noexcept {
    fast_end_ = pending_ != 0 ? 0 : reinterpret_cast<std::uintptr_t>(out_end_);
  }
  void put_tag(unsigned char tag) noexcept {
    unsigned char* const out = out_cur_;
    *out = tag;
    out_cur_ = out + 1;
  }

  // The window's end as the concrete writer set it.
  unsigned char* out_end_ = nullptr;
  std::uintptr_t fast_end_ = 0;

  // The tag, then the low `width` bytes of v big-endian, as one 9-byte store at `out` (only
  // 1 + width bytes count); returns the end of the element.
  static unsigned char* put_low_bytes(unsigned char* out, unsigned char tag, std::uint64_t v,
                                      unsigned width) noexcept {
    out[0] = tag;
    std::uint64_t const be = impl::byte_swap(v << (64 - 8 * width));
    std::memcpy(out + 1, &be, sizeof be);
    return out + 1 + width;
  }
  // The width of 1, 2, 4 or 8 bytes is computed from the count of significant bits rather than
  // found by comparisons: magnitudes that vary from value to value cost no mispredicted branch.
  // `bits` is that count (the sign bit included for signed values); returns the value nibble.
  static unsigned width_nibble_of(unsigned bits) noexcept { return kWidthNibble[bits]; }
  static constexpr std::array<unsigned char, 66> kWidthNibble = [] {
    std::array<unsigned char, 66> nibbles{};
    for (unsigned bits = 0; bits < nibbles.size(); ++bits) {
      nibbles[bits] = bits <= 8 ? 4 : bits <= 16 ? 5 : bits <= 32 ? 6 : 7;
    }
    return nibbles;
  }();
  static unsigned char* put_signed(unsigned char* out, std::int64_t v) noexcept {
    auto const u = static_cast<std::uint64_t>(v);
    if (u + 1 <= 2) {
      *out = v == 0 ? 0x20 : v > 0 ? 0x21 : 0x22;
      return out + 1;
    }
    // v is neither 0 nor -1, so the magnitude below is not 0.
    auto const magnitude = u ^ static_cast<std::uint64_t>(v >> 63);
    unsigned const nibble = width_nibble_of(65 - std::countl_zero(magnitude));
    return put_low_bytes(out, static_cast<unsigned char>(0x20 | nibble), u, 1u << (nibble - 4));
  }
  static unsigned char* put_unsigned(unsigned char* out, std::uint64_t v) noexcept {
    if (v <= 1) {
      *out = v == 0 ? 0x30 : 0x31;
      return out + 1;
    }
    unsigned const nibble = width_nibble_of(64 - std::countl_zero(v));
    return put_low_bytes(out, static_cast<unsigned char>(0x30 | nibble), v, 1u << (nibble - 4));
  }
  // The shortest float form: the most significant bytes of the binary64 that are not all zero
  // beyond them.
  static unsigned char* put_double(unsigned char* out, double v) noexcept {
    std::uint64_t bits;
    std::memcpy(&bits, &v, sizeof bits);
    auto const hi = static_cast<std::uint32_t>(bits >> 32);
    unsigned char tag;
    unsigned width;
    if (static_cast<std::uint32_t>(bits) != 0) {
      tag = 0x47, width = 8;
    } else if ((hi & 0xFFFF) == 0) {
      if (hi == 0 || (hi & 0x7FFFFFFF) == 0x3FF00000) {
        *out = hi == 0 ? 0x40 : (hi & 0x80000000) ? 0x42 : 0x41;
        return out + 1;
      }
      tag = 0x44, width = 2;
    } else if ((hi & 0xFF) != 0) {
      tag = 0x46, width = 4;
    } else {
      tag = 0x45, width = 3;
    }
    out[0] = tag;
    std::uint64_t const be = impl::byte_swap(bits);
    std::memcpy(out + 1, &be, sizeof be);
    return out + 1 + width;
  }
  // The slow paths of the inline operations: each runs the whole operation.
  void start_counted_marker_slow();
  void end_counted_marker_slow(char const* function);
  void encode_tag_slow(unsigned char tag);
  void encode_payload_slow(unsigned char tag, void const* data, std::size_t size);
  void write_sequence_start_slow(unsigned count_hint);
  void write_sequence_separator_slow();
  void write_sequence_end_slow();
  void encode_signed_slow(std::int64_t v);
  void encode_unsigned_slow(std::uint64_t v);
  void encode_double_slow(double v);
  // Emits an element that an encoder put into `element` (tag first) up to `end`.
  void emit_element(unsigned char const* element, unsigned char const* end);

  // Bits of pending_.
  static constexpr std::uint8_t kStreamOpen = 1;
  static constexpr std::uint8_t kOutputFailed = 2;
  static impl::ScopeMessages const kScopeMessages;

  void settle();
  // source.read(), marking the output failed when it throws after the element has begun.
  unsigned read_source(IReadStream& source, void* dest, unsigned size, bool element_begun);
  void write_chunk(ETypePrefix prefix, bool first, void const* data, unsigned size);
  void write_chunk_end(ETypePrefix prefix);
  void write_time(ETypePrefix prefix, std::int64_t count);
  void write_signed_wide(unsigned char const* image, unsigned size);
  void write_unsigned_wide(unsigned char const* image, unsigned size);

  impl::ValueStreamSlot stream_slot_;
  std::uint8_t pending_ = 0;  // kStreamOpen | kOutputFailed

  friend class BinaryStreamImpl;
};

// The structural operations are small and frequent: defined here so that callers holding a
// concrete writer get them inline. The failures are out of line.

inline void BinaryWriterBase::write_null() {
  encode_tag(impl::kTagNull);
}

inline void BinaryWriterBase::write_binary(void const* data, unsigned size) {
  encode_payload(0x90, data, size);
}

inline void BinaryWriterBase::write_sequence_start(unsigned count_hint) {
  if (fast_room() > 0 && count_hint < 8) [[likely]] {
    put_tag(static_cast<unsigned char>(0xA0 | count_hint));
    sequences_.start(count_hint);
  } else {
    write_sequence_start_slow(count_hint);
  }
}

inline void BinaryWriterBase::write_sequence_separator() {
  if (fast_room() > 0 && sequences_.separator_allowed()) [[likely]] {
    sequences_.count_separator();
    put_tag(impl::kTagSequenceSeparator);
  } else {
    write_sequence_separator_slow();
  }
}

inline void BinaryWriterBase::write_sequence_end() {
  if (fast_room() > 0 && sequences_.end_allowed()) [[likely]] {
    sequences_.end_checked();
    put_tag(impl::kTagSequenceEnd);
  } else {
    write_sequence_end_slow();
  }
}

}  // namespace zoserialize
