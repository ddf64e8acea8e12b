// Decoder of the tagged binary encoding, shared by the stream and memory readers.
#pragma once

#include <zocore/source_location.h>
#include <zoserialize/binary_encoding.h>
#include <zoserialize/export.h>
#include <zoserialize/reader.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

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

  EToken next_token() override;
  void skip_element() override;
  void read_null() override;
  bool try_read_null() override;
  bool read_bool() override;
  void read_int_big_endian(void* data, unsigned size) override;
  void read_uint_big_endian(void* data, unsigned size) override;
  double read_double() override;
  void read_string(SourceString& out) override;
  void read_string(std::string& out) override;
  std::string read_string() override;
  AbsoluteTime read_absolute_time() override;
  RelativeTime read_relative_time() override;
  Uuid read_uuid() override;
  unsigned read_sequence_start() override;
  bool read_sequence_next() override;
  void read_copy(Writer& writer) override;
  ~BinaryReaderBase() override;

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
  // Skips whole elements until the marker end tag that closes the current marker is next; the
  // end tag itself is not consumed.
  void skip_to_marker_end_tag();
  // Skips the payload of a string or binary whose tag (with value nibble `nibble`) was read.
  void skip_binary_aux(int prefix, unsigned nibble);

  bool has_open_sequences() const noexcept { return !sequences_.empty(); }
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
  void read_integer_payload(unsigned char* out, unsigned size, unsigned width, bool is_signed,
                            char const* function);
  void read_string_value(std::string& out);
  void read_large_string_aux(unsigned nibble, std::string& out);
  std::int64_t read_time(int prefix, char const* function);
  void copy_scalar(EToken token, Writer& writer);

  std::vector<SequenceEntry> sequences_;
};

}  // namespace zoserialize
