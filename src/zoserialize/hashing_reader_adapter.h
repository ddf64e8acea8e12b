// A Reader in front of another that feeds a hash sink with a canonical record of every element.
#pragma once

#include <cstdint>
#include <string>
#include <type_traits>

#include <zocore/ref_count_ptr.h>
#include <zoserialize/export.h>
#include <zoserialize/hash_record.h>
#include <zoserialize/reader.h>

namespace zoserialize {

// HashingReaderAdapter reads through the reader it wraps and gives the sink the canonical record
// of every element read, the same bytes HashingWriterAdapter gives for the element written
// (docs/trace-and-hashing.md). So a message read from any format hashes as it did when written,
// however the caller reads it:
//
// - payloads read whole, through read_string_stream() / read_binary() in any pieces, or left
//   unread (closing the stream or the next operation reads and hashes the rest);
// - elements passed over with skip_element(), and the rest of a marker that read_marker_end()
//   skips, are read through the adapter and hashed: their cost is that of reading them;
// - read_copy() copies through the adapter's own operations, so the copy is hashed too;
// - in a sequence, the record has one "next" code per separator: none for the first element.
//
// Records reach the sink in batches through a 4 KiB buffer; the sink holds every byte after
// close(), which adds the record's total length as 8 bytes and releases the sink. The wrapped
// reader is not closed (the caller closes it); any later operation fails with
// error::zoserialize_reader_closed. Errors of the wrapped reader pass through unchanged. One
// thread at a time.
class ZOSERIALIZE_API HashingReaderAdapter final : public Reader {
 public:
  // Borrows `reader`, which must outlive the adapter or its close(); shares `sink` (may be null:
  // nothing is hashed).
  HashingReaderAdapter(Reader& reader, InterfacePtr<IWriteStream> sink);
  HashingReaderAdapter(HashingReaderAdapter const&) = delete;
  HashingReaderAdapter& operator=(HashingReaderAdapter const&) = delete;
  // An open payload stream is detached: its later reads fail.
  ~HashingReaderAdapter() override;

  // Finishes an open payload stream (hashing its rest and count), gives the sink the record's
  // total length and releases it. A second close() does nothing.
  void close() override;
  bool is_eof() const override;
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
  // A stream over the wrapped reader's stream that hashes exactly the bytes it delivers or
  // skips; closing it (or the adapter's next operation) reads and hashes the rest.
  InterfacePtr<IReadStream> read_string_stream() override;
  AbsoluteTime read_absolute_time() override;
  RelativeTime read_relative_time() override;
  Uuid read_uuid() override;
  InterfacePtr<IReadStream> read_binary() override;
  unsigned read_sequence_start() override;
  bool read_sequence_next() override;
  void read_marker_start() override;
  bool read_marker_is_end() override;
  void read_marker_end() override;
  void read_copy(Writer& writer) override;

  // ---- Inline front end ----
  // Shadows of Reader's typed front end for callers that hold the concrete type: the wrapped
  // reader gets the same calls, and the record is built from the value read, without the
  // adapter's own virtual call or an image to scan. (float is read through read_double.)
  using Reader::operator>>;
  HashingReaderAdapter& operator>>(bool& v) {
    finalize_previous();
    v = reader_->read_bool();
    record_.put_bool(v);
    return *this;
  }
  HashingReaderAdapter& operator>>(char& v) { return read_signed(v); }
  HashingReaderAdapter& operator>>(signed char& v) { return read_signed(v); }
  HashingReaderAdapter& operator>>(unsigned char& v) { return read_unsigned(v); }
  HashingReaderAdapter& operator>>(short& v) { return read_signed(v); }
  HashingReaderAdapter& operator>>(unsigned short& v) { return read_unsigned(v); }
  HashingReaderAdapter& operator>>(int& v) { return read_signed(v); }
  HashingReaderAdapter& operator>>(unsigned int& v) { return read_unsigned(v); }
  HashingReaderAdapter& operator>>(long& v) { return read_signed(v); }
  HashingReaderAdapter& operator>>(unsigned long& v) { return read_unsigned(v); }
  HashingReaderAdapter& operator>>(long long& v) { return read_signed(v); }
  HashingReaderAdapter& operator>>(unsigned long long& v) { return read_unsigned(v); }
  HashingReaderAdapter& operator>>(double& v) {
    finalize_previous();
    v = reader_->read_double();
    record_.put_double(v);
    return *this;
  }
  HashingReaderAdapter& operator>>(std::string& v) {
    finalize_previous();
    reader_->read_string(v);
    record_.put_payload(HashRecord::ECode::String, v.data(), v.size());
    return *this;
  }

  // Bytes of the record so far (buffered ones included, the close() trailer not).
  std::uint64_t bytes_hashed() const noexcept { return record_.count(); }

 private:
  class ReadStreamAdapter;

  // Scopes opened through the adapter, innermost last.
  enum EScope : char {
    kSequenceBeforeFirst = 'S',  // no element announced yet: the next one has no separator
    kSequence = 's',
    kMarker = 'M',
  };

  // Inline: every operation starts here, and is rarely closed or behind an open payload stream.
  void finalize_previous() const {
    if (reader_ == nullptr || payload_open_) [[unlikely]]
      settle();
  }
  // Fails when closed; otherwise finishes the open payload stream, so that its rest and trailer
  // come before the next record.
  void settle() const;
  [[noreturn]] static void throw_closed();
  InterfacePtr<IReadStream> open_payload_stream(bool is_string);
  template <class T>
  HashingReaderAdapter& read_signed(T& v) {
    finalize_previous();
    *reader_ >> v;
    // char counts as signed, as in Reader's front end, whatever the platform's char.
    if constexpr (std::is_same_v<T, char>) {
      record_.put_signed(static_cast<signed char>(v));
    } else {
      record_.put_signed(v);
    }
    return *this;
  }
  template <class T>
  HashingReaderAdapter& read_unsigned(T& v) {
    finalize_previous();
    *reader_ >> v;
    record_.put_unsigned(v);
    return *this;
  }
  // Integers wider than 8 bytes: their minimal form is found by scanning, and refused when
  // longer than 255 bytes.
  void hash_wide_integer(void const* data, unsigned size, bool is_signed);
  // Reads one element through the adapter (so it is hashed), copying it into `writer` if given.
  void walk(Writer* writer);
  void walk_scalar(EToken token, Writer* writer);
  // Reads and hashes what is left of the innermost sequence.
  void finish_sequence();

  Reader* reader_;
  // Mutable: is_eof() const finishes an open payload stream, whose rest and trailer are hashed.
  mutable HashRecord record_;
  // The last payload stream handed out; reused once its holder has let go of it. Its value is
  // open while payload_open_ is set (the stream clears it when it is closed).
  mutable zocore::RefCountPtr<ReadStreamAdapter> stream_;
  mutable bool payload_open_ = false;
  std::string scopes_;
};

}  // namespace zoserialize
