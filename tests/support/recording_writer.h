// A Writer that records its core calls as text, for tests that compare whole call logs.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <zocore/error_code.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/writer.h>

namespace zotest {

// Code of the failures RecordingWriter raises itself.
extern zocore::ErrorCode const recording_writer_error;  // "error.zotest.recording_writer"

// Each core call appends one line to calls(): "null", "bool true", "int FF FE" (the image as
// handed over), "double 3FB99999A0000000" (the bits), "string \"a\x0A\"" (printable ASCII but '"'
// and '\' as is, other bytes as \xHH), "binary 01 02", "absolute_time 1500" (nanoseconds),
// "uuid 123e4567-...", "sequence_start 3" or "sequence_start" without a hint, "marker_end", ...
// Value streams are recorded as "string_stream ..." / "binary_stream ..." once finished (closed,
// or the next core call starts: that call's line follows), the from-stream forms as
// "string_from ..." / "binary_from ..."; with merge_value_forms(true) all as "string ..." /
// "binary ...". Not thread-safe; handed-out streams may outlive the writer (they then only fail).
class RecordingWriter : public zoserialize::Writer {
 public:
  using Stream = zoserialize::InterfacePtr<zoserialize::IWriteStream>;

  RecordingWriter();
  RecordingWriter(RecordingWriter const&) = delete;
  RecordingWriter& operator=(RecordingWriter const&) = delete;
  ~RecordingWriter() override;

  std::vector<std::string> const& calls() const noexcept { return calls_; }
  void merge_value_forms(bool merge) noexcept { merge_ = merge; }
  // The next core call whose line starts with `call` ("marker_end", "int", ...) throws
  // recording_writer_error instead; only once.
  void fail_on(std::string call) { fail_on_ = std::move(call); }

  void close() override { record("close"); }
  void flush() override { record("flush"); }
  void write_null() override { record("null"); }
  void write_bool(bool value) override { record(value ? "bool true" : "bool false"); }
  void write_int_big_endian(void const* data, unsigned size) override {
    record(image("int", data, size));
  }
  void write_uint_big_endian(void const* data, unsigned size) override {
    record(image("uint", data, size));
  }
  void write_double(double value) override;
  void write_string(char const* data, unsigned size) override {
    record(text("string", std::string_view(data, size)));
  }
  Stream write_string_stream() override { return open_stream(true); }
  void write_string_stream(zoserialize::IReadStream& source) override;
  void write_absolute_time(zoserialize::AbsoluteTime const& value) override {
    record("absolute_time " + std::to_string(value.count()));
  }
  void write_relative_time(zoserialize::RelativeTime const& value) override {
    record("relative_time " + std::to_string(value.count()));
  }
  void write_uuid(zoserialize::Uuid const& value) override { record("uuid " + value.as_string()); }
  Stream write_binary() override { return open_stream(false); }
  void write_binary(zoserialize::IReadStream& source) override;
  void write_binary(void const* data, unsigned size) override {
    record(image("binary", data, size));
  }
  void write_sequence_start(unsigned count_hint) override {
    record("sequence_start " + std::to_string(count_hint));
  }
  void write_sequence_start() override { record("sequence_start"); }
  void write_sequence_separator() override { record("sequence_separator"); }
  void write_sequence_end() override { record("sequence_end"); }
  void write_marker_start() override { record("marker_start"); }
  void write_marker_end() override { record("marker_end"); }

  // The typed front end stays visible next to the overrides.
  using Writer::write_string;

  class ValueStream;

 private:
  friend class ValueStream;

  static std::string image(char const* name, void const* data, std::size_t size);
  static std::string text(char const* name, std::string_view bytes);
  // Every core call ends here: finishes an open value stream, applies fail_on(), then logs.
  void record(std::string line);
  Stream open_stream(bool is_string);
  void finish_stream();

  std::vector<std::string> calls_;
  zocore::RefCountPtr<ValueStream> open_;
  std::string fail_on_;
  bool merge_ = false;
};

}  // namespace zotest
