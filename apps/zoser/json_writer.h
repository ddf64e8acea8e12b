// A write-only JSON rendering of the data model, for jq and other JSON tools.
#pragma once

#include <memory>

#include <zocore/stream.h>
#include <zoserialize/writer.h>

namespace zoser {

// JsonWriter renders a document as one JSON array holding its top-level elements, written with
// RapidJSON's Writer (so escaping is RapidJSON's), ending with a newline. The mapping, which
// docs/cli.md describes for users:
//
//   null, boolean           null, true / false
//   integer                 a number when it fits 64 bits, else "$int:DECIMAL" / "$uint:DECIMAL"
//   double                  a number (shortest form that reads back the same); "$double:inf",
//                           "$double:-inf", "$double:nan"
//   string                  the string; one that starts with "$" gets a second "$" in front
//   absolute time           "$time:2018-03-05 12:00:00.5", "$time:inf"
//   relative time           "$reltime:1.5s", "$reltime:inf"
//   UUID                    "$uuid:123e4567-e89b-12d3-a456-426614174000"
//   binary                  "$binary:" and base64 with padding
//   sequence                an array with one entry per element (item); an item holding no
//                           value is {"item":[]}; a second (third, ...) value of the same item
//                           is written {"also":VALUE} after the first
//   marker                  {"marker":[VALUES...]}
//
// So every string that starts with "$" is tagged, and a plain string never does. Count hints
// are not shown (when present they equal the array's length), and a non-negative integer does
// not say whether it was signed or unsigned: JSON has one kind of number.
//
// Output is streamed in constant memory: text gathers in a 64 KiB buffer handed to the sink when
// full, at flush() and at close(); strings and binaries that arrive through streams are escaped
// or base64-encoded piece by piece. Scope misuse fails as in TextWriter (same codes and
// messages); after close() every operation fails with "JsonWriter has already been closed"
// (error::zoserialize_writer_closed). Errors of the sink pass through. One thread at a time.
class JsonWriter final : public zoserialize::Writer {
 public:
  using Writer::write_string;

  // Shares `sink`.
  explicit JsonWriter(zocore::InterfacePtr<zocore::IWriteStream> sink);
  JsonWriter(JsonWriter const&) = delete;
  JsonWriter& operator=(JsonWriter const&) = delete;
  // Closes, swallowing a failure.
  ~JsonWriter() override;

  // Ends an open value stream, fails while scopes are open (the writer stays open), ends the
  // array and hands everything to the sink, then releases it. A second close() does nothing.
  void close() override;
  // Ends an open value stream and hands the buffered text to the sink.
  void flush() override;
  void write_null() override;
  void write_bool(bool value) override;
  void write_int_big_endian(void const* data, unsigned size) override;
  void write_uint_big_endian(void const* data, unsigned size) override;
  void write_double(double value) override;
  void write_string(char const* data, unsigned size) override;
  zocore::InterfacePtr<zocore::IWriteStream> write_string_stream() override;
  void write_string_stream(zocore::IReadStream& source) override;
  void write_absolute_time(zocore::AbsoluteTime const& value) override;
  void write_relative_time(zocore::RelativeTime const& value) override;
  void write_uuid(zocore::Uuid const& value) override;
  zocore::InterfacePtr<zocore::IWriteStream> write_binary() override;
  void write_binary(zocore::IReadStream& source) override;
  void write_binary(void const* data, unsigned size) override;
  void write_sequence_start(unsigned count_hint) override;
  void write_sequence_start() override;
  void write_sequence_separator() override;
  void write_sequence_end() override;
  void write_marker_start() override;
  // Closes whatever scope is innermost, a sequence included.
  void write_marker_end() override;

  struct Impl;
  class StringStream;
  class BinaryStream;

 private:
  Impl& begin_value(char const* function);
  Impl& open(char const* function);

  std::unique_ptr<Impl> impl_;
};

}  // namespace zoser
