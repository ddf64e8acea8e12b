// A Writer that logs its core calls as text, for tests of code that writes through a Writer.
#pragma once

#include <bit>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <support/hex_bytes.h>
#include <zocore/error_code.h>
#include <zocore/throw_error.h>
#include <zoserialize/writer.h>

namespace zotest {

// Code of the failure that fail_on() injects.
inline constinit zocore::ErrorCode const recording_writer_error("error.zotest.recording_writer",
                                                                true);

// Each core call appends one line to calls(): "null", "bool true", "int FF FE" (the image as
// handed over), "double 3FB99999A0000000" (the bits), "string " and the bytes as they are,
// "uuid 123e4567-...", "absolute_time 1500" (nanoseconds), "sequence_start 3" or
// "sequence_start" without a hint, "marker_end", ... Value streams are not offered (null), and
// the from-stream forms log only "string_from" / "binary_from". Not thread-safe.
class RecordingWriter : public zoserialize::Writer {
 public:
  using Stream = zoserialize::InterfacePtr<zoserialize::IWriteStream>;
  using Writer::write_string;  // the typed front end stays visible next to the override

  std::vector<std::string> const& calls() const noexcept { return calls_; }
  // The next core call whose line starts with `call` throws recording_writer_error instead; once.
  void fail_on(std::string call) { fail_on_ = std::move(call); }

  void write_null() override { record("null"); }
  void write_bool(bool value) override { record(value ? "bool true" : "bool false"); }
  void write_int_big_endian(void const* data, unsigned size) override { record("int", data, size); }
  void write_uint_big_endian(void const* data, unsigned size) override {
    record("uint", data, size);
  }
  void write_double(double value) override {
    char line[32];
    std::snprintf(line, sizeof line, "double %016llX",
                  static_cast<unsigned long long>(std::bit_cast<std::uint64_t>(value)));
    record(line);
  }
  void write_string(char const* data, unsigned size) override {
    record("string " + std::string(data, size));
  }
  Stream write_string_stream() override { return nullptr; }
  void write_string_stream(zoserialize::IReadStream&) override { record("string_from"); }
  void write_absolute_time(zoserialize::AbsoluteTime const& value) override {
    record("absolute_time " + std::to_string(value.count()));
  }
  void write_relative_time(zoserialize::RelativeTime const& value) override {
    record("relative_time " + std::to_string(value.count()));
  }
  void write_uuid(zoserialize::Uuid const& value) override { record("uuid " + value.as_string()); }
  Stream write_binary() override { return nullptr; }
  void write_binary(zoserialize::IReadStream&) override { record("binary_from"); }
  void write_binary(void const* data, unsigned size) override { record("binary", data, size); }
  void write_sequence_start(unsigned count_hint) override {
    record("sequence_start " + std::to_string(count_hint));
  }
  void write_sequence_start() override { record("sequence_start"); }
  void write_sequence_separator() override { record("sequence_separator"); }
  void write_sequence_end() override { record("sequence_end"); }
  void write_marker_start() override { record("marker_start"); }
  void write_marker_end() override { record("marker_end"); }

 private:
  void record(char const* name, void const* image, unsigned size) {
    record(name + (' ' + hex(std::string_view(static_cast<char const*>(image), size))));
  }
  void record(std::string line) {
    if (!fail_on_.empty() && line.starts_with(fail_on_)) {
      fail_on_.clear();
      zocore::throw_error(recording_writer_error, "Recording writer: injected failure",
                          {"zotest::RecordingWriter::record()", "recording_writer.h", __LINE__});
    }
    calls_.push_back(std::move(line));
  }

  std::vector<std::string> calls_;
  std::string fail_on_;
};

}  // namespace zotest
