// A Writer that records its core calls as text, for tests that compare whole call logs.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <zocore/error_code.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/writer.h>

namespace zotest {

// Code of the failures RecordingWriter raises itself (misuse of a value stream, injected
// failures).
extern zocore::ErrorCode const recording_writer_error;  // "error.zotest.recording_writer"

// RecordingWriter implements every core operation of zoserialize::Writer by appending one line
// to calls(), so a test states the expected traffic as a vector of strings. The lines are:
//
//   "close"  "flush"  "null"  "bool true"  "bool false"
//   "int 00 00 00 05"  "uint FF"         the image exactly as handed over (hex pairs); "int"
//                                          alone for an empty image
//   "double 3FB99999A0000000"            the binary64 bits
//   "string \"abc\""                     write_string(data, size)
//   "string_stream \"abc\""              write_string_stream(): the bytes written into the
//                                          returned stream
//   "string_from \"abc\""                write_string_stream(IReadStream&)
//   "binary 01 02"  "binary_stream 01 02"  "binary_from 01 02"   the same for binaries
//   "absolute_time 1500"  "relative_time -5"   the nanosecond counts
//   "uuid 123e4567-e89b-12d3-a456-426614174000"
//   "sequence_start 3"  "sequence_start"  "sequence_separator"  "sequence_end"
//   "marker_start"  "marker_end"
//
// Text is quoted with printable ASCII as is and every other byte, '"' and '\' escaped as \xHH,
// so a log is plain ASCII and shows the exact bytes.
//
// A stream returned by write_string_stream() / write_binary() is recorded when it is finished:
// when it is closed or when the writer's next core call starts (that call's line follows it).
// Writing into a finished stream fails. With merge_value_forms(true) the stream and from-stream
// forms are recorded as "string ..." / "binary ...", so tests of archive copies need not care
// which form a reader chose.
//
// Not thread-safe; the handed-out streams may outlive the writer (they then only fail).
class RecordingWriter : public zoserialize::Writer {
 public:
  RecordingWriter();
  RecordingWriter(RecordingWriter const&) = delete;
  RecordingWriter& operator=(RecordingWriter const&) = delete;
  ~RecordingWriter() override;

  std::vector<std::string> const& calls() const noexcept { return calls_; }
  // Returns the log and starts a new one.
  std::vector<std::string> take_calls();
  void clear() { calls_.clear(); }

  void merge_value_forms(bool merge) noexcept { merge_ = merge; }

  // The next core call named `call` (the first word of its line: "marker_end", "int",
  // "string_stream", ...) throws recording_writer_error instead of being recorded; only once.
  void fail_on(std::string call) { fail_on_ = std::move(call); }

  // Text as it appears inside the quotes of a "string" line.
  static std::string quote(std::string_view text);

  void close() override;
  void flush() override;
  void write_null() override;
  void write_bool(bool value) override;
  void write_int_big_endian(void const* data, unsigned size) override;
  void write_uint_big_endian(void const* data, unsigned size) override;
  void write_double(double value) override;
  void write_string(char const* data, unsigned size) override;
  zoserialize::InterfacePtr<zoserialize::IWriteStream> write_string_stream() override;
  void write_string_stream(zoserialize::IReadStream& source) override;
  void write_absolute_time(zoserialize::AbsoluteTime const& value) override;
  void write_relative_time(zoserialize::RelativeTime const& value) override;
  void write_uuid(zoserialize::Uuid const& value) override;
  zoserialize::InterfacePtr<zoserialize::IWriteStream> write_binary() override;
  void write_binary(zoserialize::IReadStream& source) override;
  void write_binary(void const* data, unsigned size) override;
  void write_sequence_start(unsigned count_hint) override;
  void write_sequence_start() override;
  void write_sequence_separator() override;
  void write_sequence_end() override;
  void write_marker_start() override;
  void write_marker_end() override;

  // The typed front end stays visible next to the overrides.
  using Writer::write_string;

  class ValueStream;

 private:
  friend class ValueStream;

  // Every core call starts here: finishes an open value stream, then applies fail_on().
  void begin(std::string_view call);
  void record(std::string line) { calls_.push_back(std::move(line)); }
  zoserialize::InterfacePtr<zoserialize::IWriteStream> open_stream(bool is_string);
  void finish_stream();

  std::vector<std::string> calls_;
  zocore::RefCountPtr<ValueStream> open_;
  std::string fail_on_;
  bool merge_ = false;
};

}  // namespace zotest
