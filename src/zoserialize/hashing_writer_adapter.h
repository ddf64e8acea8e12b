// A Writer in front of another that feeds a hash sink with a canonical record of every element.
#pragma once

#include <cstdint>
#include <memory>

#include <zocore/ref_count_ptr.h>
#include <zoserialize/export.h>
#include <zoserialize/writer.h>

namespace zoserialize {

namespace impl {
class HashFeed;
}

// HashingWriterAdapter passes every element on to the writer it wraps (if any) and gives the
// sink the element's canonical record, a format of its own that does not depend on the archive:
// a message hashes the same whether it is written in binary, memory, text or XML, and the same as
// a HashingReaderAdapter hashes it when reading it back from any of them. docs/trace-and-hashing.md
// lists the record bytes.
//
// Records are gathered in a 4 KiB buffer and reach the sink in batches (large payload runs
// directly): the sink holds every byte after flush() or close(). close() adds the total record
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
  void write_null() override;
  void write_bool(bool value) override;
  void write_int_big_endian(void const* data, unsigned size) override;
  void write_uint_big_endian(void const* data, unsigned size) override;
  void write_double(double value) override;
  void write_string(char const* data, unsigned size) override;
  // The returned stream forwards to the wrapped writer's value stream and hashes what passes;
  // closing it (or the adapter's next operation) ends the value.
  InterfacePtr<IWriteStream> write_string_stream() override;
  // Hashes what the wrapped writer pulls from `source` (borrowed), then reads what it left.
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
  void write_marker_start() override;
  void write_marker_end() override;

  // Bytes of the record so far (buffered ones included, the close() trailer not).
  std::uint64_t bytes_hashed() const noexcept;

 private:
  class WriteStreamAdapter;
  class ReadStreamAdapter;

  void close_payload_stream();
  InterfacePtr<IWriteStream> open_payload_stream(bool is_string);
  void write_from_source(IReadStream& source, bool is_string);

  Writer* writer_;
  std::unique_ptr<impl::HashFeed> feed_;
  // The last payload stream handed out; reused once its holder has let go of it.
  zocore::RefCountPtr<WriteStreamAdapter> stream_;
};

}  // namespace zoserialize
