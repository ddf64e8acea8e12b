// A Writer in front of another that feeds a hash sink with a canonical record of every element.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include <zocore/ref_count_ptr.h>
#include <zoserialize/export.h>
#include <zoserialize/hash_record.h>
#include <zoserialize/writer.h>

namespace zoserialize {

// HashingWriterAdapter passes every element on to the writer it wraps (if any) and gives the
// sink the element's canonical record, a format of its own that does not depend on the archive:
// a message hashes the same whether it is written in binary, memory, text or XML, and the same as
// a HashingReaderAdapter hashes it when reading it back from any of them. docs/trace-and-hashing.md
// lists the record bytes.
//
// Records are gathered in a 4 KiB buffer and reach the sink in batches (large payload runs
// directly): the sink holds every byte after flush() or close(). The element operations are
// inline: through the concrete type an element costs a few stores besides the wrapped writer's
// call. close() adds the total record
// length as 8 bytes and releases the sink; an adapter destroyed without close() leaves its last
// batch unhashed. After close() the adapter has neither writer nor sink and later operations do
// nothing.
//
// An integer whose minimal form exceeds 255 bytes has no record; it is refused before the wrapped
// writer sees it (error::zoserialize_writer_data_range). Errors of the wrapped writer pass
// through unchanged, and the hash then holds the records before the failing element. One thread
// at a time.
class ZOSERIALIZE_API HashingWriterAdapter final : public Writer {
 public:
  using Writer::write_string;

  // Borrows `writer`, which must outlive the adapter or its close(); shares `sink`. A null sink
  // hashes nothing.
  HashingWriterAdapter(Writer& writer, InterfacePtr<IWriteStream> sink);
  // Hashes only: no writer behind.
  explicit HashingWriterAdapter(InterfacePtr<IWriteStream> sink);
  HashingWriterAdapter(HashingWriterAdapter const&) = delete;
  HashingWriterAdapter& operator=(HashingWriterAdapter const&) = delete;
  // An open payload stream is detached: its later writes fail.
  ~HashingWriterAdapter() override;

  // Closes an open payload stream, forgets the wrapped writer without closing it (the caller
  // closes it), gives the sink the record's total length and releases the sink.
  void close() override;
  // Closes an open payload stream, flushes the wrapped writer and hands the buffered record bytes
  // to the sink.
  void flush() override;
  void write_null() override {
    close_payload_stream();
    if (writer_ != nullptr) writer_->write_null();
    record_.put_code(HashRecord::ECode::Null);
  }
  void write_bool(bool value) override {
    close_payload_stream();
    if (writer_ != nullptr) writer_->write_bool(value);
    record_.put_bool(value);
  }
  void write_int_big_endian(void const* data, unsigned size) override {
    if (size > 8) [[unlikely]]
      return write_wide_integer(data, size, true);
    close_payload_stream();
    if (writer_ != nullptr) writer_->write_int_big_endian(data, size);
    record_.put_signed(static_cast<std::int64_t>(load(data, size, true)));
  }
  void write_uint_big_endian(void const* data, unsigned size) override {
    if (size > 8) [[unlikely]]
      return write_wide_integer(data, size, false);
    close_payload_stream();
    if (writer_ != nullptr) writer_->write_uint_big_endian(data, size);
    record_.put_unsigned(load(data, size, false));
  }
  void write_double(double value) override {
    close_payload_stream();
    if (writer_ != nullptr) writer_->write_double(value);
    record_.put_double(value);
  }
  void write_string(char const* data, unsigned size) override {
    close_payload_stream();
    if (writer_ != nullptr) writer_->write_string(data, size);
    record_.put_payload(HashRecord::ECode::String, data, size);
  }
  // The returned stream forwards to the wrapped writer's value stream and hashes what passes;
  // closing it (or the adapter's next operation) ends the value.
  InterfacePtr<IWriteStream> write_string_stream() override;
  // Hashes what the wrapped writer pulls from `source` (borrowed), then reads what it left.
  void write_string_stream(IReadStream& source) override;
  void write_absolute_time(AbsoluteTime const& value) override {
    close_payload_stream();
    if (writer_ != nullptr) writer_->write_absolute_time(value);
    record_.put_time(HashRecord::ECode::AbsoluteTime, value.count());
  }
  void write_relative_time(RelativeTime const& value) override {
    close_payload_stream();
    if (writer_ != nullptr) writer_->write_relative_time(value);
    record_.put_time(HashRecord::ECode::RelativeTime, value.count());
  }
  void write_uuid(Uuid const& value) override {
    close_payload_stream();
    if (writer_ != nullptr) writer_->write_uuid(value);
    record_.put_uuid(value);
  }
  InterfacePtr<IWriteStream> write_binary() override;
  void write_binary(IReadStream& source) override;
  void write_binary(void const* data, unsigned size) override {
    close_payload_stream();
    if (writer_ != nullptr) writer_->write_binary(data, size);
    record_.put_payload(HashRecord::ECode::Binary, data, size);
  }
  void write_sequence_start(unsigned count_hint) override {
    close_payload_stream();
    if (writer_ != nullptr) writer_->write_sequence_start(count_hint);
    record_.put_code(HashRecord::ECode::SequenceStart);
  }
  void write_sequence_start() override {
    close_payload_stream();
    if (writer_ != nullptr) writer_->write_sequence_start();
    record_.put_code(HashRecord::ECode::SequenceStart);
  }
  void write_sequence_separator() override {
    close_payload_stream();
    if (writer_ != nullptr) writer_->write_sequence_separator();
    record_.put_code(HashRecord::ECode::SequenceSeparator);
  }
  void write_sequence_end() override {
    close_payload_stream();
    if (writer_ != nullptr) writer_->write_sequence_end();
    record_.put_code(HashRecord::ECode::SequenceEnd);
  }
  void write_marker_start() override {
    close_payload_stream();
    if (writer_ != nullptr) writer_->write_marker_start();
    record_.put_code(HashRecord::ECode::MarkerStart);
  }
  void write_marker_end() override {
    close_payload_stream();
    if (writer_ != nullptr) writer_->write_marker_end();
    record_.put_code(HashRecord::ECode::MarkerEnd);
  }

  // ---- Inline front end ----
  // Shadows of Writer's typed front end for callers that hold the concrete type: the wrapped
  // writer gets the same calls, and the record is built from the value itself, without an
  // image to scan or a virtual call.
  using Writer::operator<<;
  HashingWriterAdapter& operator<<(bool v) { return write_bool(v), *this; }
  HashingWriterAdapter& operator<<(char v) { return hash_signed(v), *this; }
  HashingWriterAdapter& operator<<(signed char v) { return hash_signed(v), *this; }
  HashingWriterAdapter& operator<<(unsigned char v) { return hash_unsigned(v), *this; }
  HashingWriterAdapter& operator<<(short v) { return hash_signed(v), *this; }
  HashingWriterAdapter& operator<<(unsigned short v) { return hash_unsigned(v), *this; }
  HashingWriterAdapter& operator<<(int v) { return hash_signed(v), *this; }
  HashingWriterAdapter& operator<<(unsigned int v) { return hash_unsigned(v), *this; }
  HashingWriterAdapter& operator<<(long v) { return hash_signed(v), *this; }
  HashingWriterAdapter& operator<<(unsigned long v) { return hash_unsigned(v), *this; }
  HashingWriterAdapter& operator<<(long long v) { return hash_signed(v), *this; }
  HashingWriterAdapter& operator<<(unsigned long long v) { return hash_unsigned(v), *this; }
  HashingWriterAdapter& operator<<(float v) { return write_double(static_cast<double>(v)), *this; }
  HashingWriterAdapter& operator<<(double v) { return write_double(v), *this; }
  // `text` must not be null.
  HashingWriterAdapter& operator<<(char const* text) {
    return write_string(text, size_of(std::strlen(text))), *this;
  }
  HashingWriterAdapter& operator<<(std::string const& s) {
    return write_string(s.data(), size_of(s.size())), *this;
  }
  HashingWriterAdapter& operator<<(std::string_view s) {
    return write_string(s.data(), size_of(s.size())), *this;
  }

  // Bytes of the record so far (buffered ones included, the close() trailer not).
  std::uint64_t bytes_hashed() const noexcept { return record_.count(); }

 private:
  class WriteStreamAdapter;
  class ReadStreamAdapter;

  // Inline: every operation starts here, and a payload stream is rarely open.
  void close_payload_stream() {
    if (payload_open_) [[unlikely]]
      finish_payload_stream();
  }
  void finish_payload_stream();
  InterfacePtr<IWriteStream> open_payload_stream(bool is_string);
  void write_from_source(IReadStream& source, bool is_string);
  template <class T>
  void hash_signed(T v) {
    close_payload_stream();
    if (writer_ != nullptr) *writer_ << v;
    // char counts as signed, as in Writer's front end, whatever the platform's char.
    if constexpr (std::is_same_v<T, char>) {
      record_.put_signed(static_cast<signed char>(v));
    } else {
      record_.put_signed(v);
    }
  }
  template <class T>
  void hash_unsigned(T v) {
    close_payload_stream();
    if (writer_ != nullptr) *writer_ << v;
    record_.put_unsigned(v);
  }
  // Integers wider than 8 bytes: their minimal form is found by scanning, and refused when
  // longer than 255 bytes.
  void write_wide_integer(void const* data, unsigned size, bool is_signed);
  // The value of an image of at most 8 bytes, sign-extended when `is_signed`. Inline, so that
  // the image the typed front end has just stored folds back into the value.
  static std::uint64_t load(void const* data, unsigned size, bool is_signed) noexcept {
    auto const* p = static_cast<unsigned char const*>(data);
    switch (size) {
      case 8:
        return impl::load_big_endian<std::uint64_t>(p);
      case 4:
        return is_signed ? static_cast<std::uint64_t>(impl::load_big_endian<std::int32_t>(p))
                         : impl::load_big_endian<std::uint32_t>(p);
      case 2:
        return is_signed ? static_cast<std::uint64_t>(impl::load_big_endian<std::int16_t>(p))
                         : impl::load_big_endian<std::uint16_t>(p);
      case 1:
        return is_signed ? static_cast<std::uint64_t>(static_cast<std::int8_t>(p[0])) : p[0];
      default:
        break;
    }
    std::uint64_t u = is_signed && size != 0 && (p[0] & 0x80) != 0 ? ~std::uint64_t{0} : 0;
    for (unsigned i = 0; i < size; ++i)
      u = (u << 8) | p[i];
    return u;
  }

  Writer* writer_;
  HashRecord record_;
  // The last payload stream handed out; reused once its holder has let go of it. Its value is
  // open while payload_open_ is set (the stream clears it when it is closed).
  zocore::RefCountPtr<WriteStreamAdapter> stream_;
  bool payload_open_ = false;
};

}  // namespace zoserialize
