// Encoder of the tagged binary encoding, shared by the stream and memory writers.
#pragma once

#include <zocore/atomic_ref_count.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/ref_counted.h>
#include <zocore/stream.h>
#include <zoserialize/binary_encoding.h>
#include <zoserialize/export.h>
#include <zoserialize/writer.h>

#include <cstring>
#include <vector>

namespace zoserialize {

// BinaryWriterBase turns every element into its tag and payload (integers and floats in their
// shortest form, strings and binaries whole or chunked) and checks the structure of sequences
// against their count hints. It does not know where bytes go: every byte is handed to the
// concrete writer, either through the hooks impl_write_byte / impl_write or, on the fast path,
// straight into an output window that the concrete writer lends it (see below).
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
  void write_null() override;
  void write_bool(bool value) override;
  void write_int_big_endian(void const* data, unsigned size) override;
  void write_uint_big_endian(void const* data, unsigned size) override;
  void write_double(double value) override;
  void write_string(char const* data, unsigned size) override;
  InterfacePtr<IWriteStream> write_string_stream() override;
  void write_string_stream(IReadStream& source) override;
  void write_absolute_time(AbsoluteTime const& value) override;
  void write_relative_time(RelativeTime const& value) override;
  void write_uuid(Uuid const& value) override;
  InterfacePtr<IWriteStream> write_binary() override;
  void write_binary(IReadStream& source) override;
  void write_binary(void const* data, unsigned size) override;
  void write_sequence_start(unsigned count_hint) override;
  void write_sequence_start() override;
  void write_sequence_separator() override;
  void write_sequence_end() override;
  ~BinaryWriterBase() override;

  // The value stream handed out by write_string_stream() and write_binary(). It gathers bytes in
  // a 4096-byte buffer and emits full buffers as chunks; a write of 4096 bytes or more into an
  // empty buffer goes out directly as chunks of up to 65535 bytes. A value that never filled the
  // buffer is written whole, so short streamed values look exactly like values written whole.
  // The value ends when the stream is closed or the writer's next operation starts; writes after
  // that fail. The stream only refers back to its writer, which must outlive its use.
  class BinaryStreamImpl;

 protected:
  using ETypePrefix = impl::ETypePrefix;

  // Finishes and releases an open value stream. Every element operation calls this first.
  void finalize_previous_element() {
    if (open_stream_) [[unlikely]]
      finalize_binary_writer_stream();
  }
  // The tag and length field of a whole string or binary of `length` bytes.
  void write_binary_tag_aux(ETypePrefix prefix, unsigned length);
  void write_binary_aux(ETypePrefix prefix, void const* data, unsigned size);
  void write_binary_aux(ETypePrefix prefix, IReadStream& source);
  void write_marker_start_tag();
  // A marker start with a size field: field_size 0 picks the shortest form; 1..8 asks for a
  // field of that many bytes (rounded up to 1, 2, 4 or 8).
  void write_marker_start_tag(unsigned size, unsigned field_size);
  void write_marker_end_tag();
  InterfacePtr<IWriteStream> create_binary_write_stream(ETypePrefix prefix);
  void finalize_binary_writer_stream();

  // Emit one byte / `size` bytes. Every byte of the encoding that does not fit the output
  // window passes through one of them.
  virtual void impl_write_byte(unsigned char byte) = 0;
  virtual void impl_write(void const* data, unsigned size) = 0;

  // Output window: free bytes in the concrete writer's buffer that the encoder may fill
  // directly, without a virtual call. Bytes stored at out_cur_ (which is then advanced) are
  // exactly as if they had been passed to impl_write. The concrete writer sets the window, reads
  // back how far out_cur_ moved whenever one of its own operations runs, and empties it
  // (out_cur_ == out_end_) whenever its output must not be written directly.
  unsigned char* out_cur_ = nullptr;
  unsigned char* out_end_ = nullptr;

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

 private:
  struct SequenceEntry {
    unsigned count_hint;
    unsigned separators;
  };

  void write_chunk(ETypePrefix prefix, bool first, void const* data, unsigned size);
  void write_chunk_end(ETypePrefix prefix);
  void write_time(ETypePrefix prefix, std::int64_t count);
  void write_signed_wide(unsigned char const* image, unsigned size);
  void write_unsigned_wide(unsigned char const* image, unsigned size);

  std::vector<SequenceEntry> sequences_;
  zocore::RefCountPtr<BinaryStreamImpl> open_stream_;

  friend class BinaryStreamImpl;
};

}  // namespace zoserialize
