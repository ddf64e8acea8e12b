// A Reader in front of another that feeds a hash sink with a canonical record of every element.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <zocore/ref_count_ptr.h>
#include <zoserialize/export.h>
#include <zoserialize/reader.h>

namespace zoserialize {

namespace impl {
class HashFeed;
}

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

  // Bytes of the record so far (buffered ones included, the close() trailer not).
  std::uint64_t bytes_hashed() const noexcept;

 private:
  class ReadStreamAdapter;

  // Scopes opened through the adapter, innermost last.
  enum EScope : char {
    kSequenceBeforeFirst = 'S',  // no element announced yet: the next one has no separator
    kSequence = 's',
    kMarker = 'M',
  };

  void finalize_previous() const;
  [[noreturn]] static void throw_closed();
  InterfacePtr<IReadStream> open_payload_stream(bool is_string);
  void check_integer_length(unsigned length, char const* function) const;
  // Reads one element through the adapter (so it is hashed), copying it into `writer` if given.
  void walk(Writer* writer);
  void walk_scalar(EToken token, Writer* writer);
  // Reads and hashes what is left of the innermost sequence.
  void finish_sequence();

  Reader* reader_;
  std::unique_ptr<impl::HashFeed> feed_;
  // The last payload stream handed out; reused once its holder has let go of it. Mutable, like
  // the feed behind the pointer: is_eof() const finishes an open stream first.
  mutable zocore::RefCountPtr<ReadStreamAdapter> stream_;
  std::string scopes_;
};

}  // namespace zoserialize
