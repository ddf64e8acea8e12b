#include <bit>
#include <cstdint>
#include <cstdio>
#include <utility>

#include <support/hex_bytes.h>
#include <support/recording_writer.h>
#include <zocore/atomic_ref_count.h>
#include <zocore/error_composer.h>
#include <zocore/ref_counted.h>
#include <zocore/throw_error.h>

namespace zotest {
namespace {

constexpr char kModuleId[] = "$Id: tests/support/recording_writer.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

std::string image_line(char const* name, void const* data, unsigned size) {
  std::string line = name;
  if (size != 0) {
    line += ' ';
    line += hex(std::string_view(static_cast<char const*>(data), size));
  }
  return line;
}

std::string uuid_text(zoserialize::Uuid const& value) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  unsigned i = 0;
  for (unsigned char const b : value.bytes()) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += kDigits[b >> 4];
    text += kDigits[b & 15];
    ++i;
  }
  return text;
}

std::string drain(zoserialize::IReadStream& source) {
  std::string bytes;
  char block[4096];
  for (;;) {
    unsigned const n = source.read(block, sizeof block);
    bytes.append(block, n);
    if (n < sizeof block) return bytes;
  }
}

}  // namespace

// NOLINTNEXTLINE(cert-err58-cpp): constant-initialised, nothing runs at load
constinit zocore::ErrorCode const recording_writer_error("error.zotest.recording_writer", true);

// The stream handed out for a string or binary value. It collects the bytes until the writer
// finishes it; the writer keeps a reference while it is open, the caller another.
class RecordingWriter::ValueStream : public zocore::IWriteStream,
                                     public zocore::RefCounted<zocore::AtomicRefCount> {
 public:
  ValueStream(RecordingWriter* owner, bool is_string) : owner_(owner), is_string_(is_string) {}

  void write(void const* data, unsigned size) override {
    if (!owner_) {
      zocore::throw_error(recording_writer_error,
                          "Recording writer: value stream written after it was finished",
                          here("zotest::RecordingWriter::ValueStream::write()"));
    }
    bytes_.append(static_cast<char const*>(data), size);
  }

  void close() override {
    if (owner_) owner_->finish_stream();
  }

 private:
  friend class RecordingWriter;

  RecordingWriter* owner_;
  bool is_string_;
  std::string bytes_;
};

RecordingWriter::RecordingWriter() = default;

RecordingWriter::~RecordingWriter() {
  if (open_) open_->owner_ = nullptr;
}

std::vector<std::string> RecordingWriter::take_calls() {
  return std::exchange(calls_, {});
}

std::string RecordingWriter::quote(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char const c : text) {
    auto const b = static_cast<unsigned char>(c);
    if (b >= 0x20 && b < 0x7F && c != '"' && c != '\\') {
      out += c;
    } else {
      char escaped[5];
      std::snprintf(escaped, sizeof escaped, "\\x%02X", b);
      out += escaped;
    }
  }
  return out;
}

void RecordingWriter::begin(std::string_view call) {
  finish_stream();
  if (!fail_on_.empty() && call == fail_on_) {
    fail_on_.clear();
    zocore::ErrorComposer("Recording writer: injected failure of {@call}")
        .add("call", call)
        .throw_error(recording_writer_error, here("zotest::RecordingWriter::begin()"));
  }
}

void RecordingWriter::finish_stream() {
  if (!open_) return;
  zocore::RefCountPtr<ValueStream> const stream = std::exchange(open_, nullptr);
  stream->owner_ = nullptr;
  if (stream->is_string_) {
    record((merge_ ? "string \"" : "string_stream \"") + quote(stream->bytes_) + "\"");
  } else {
    record(image_line(merge_ ? "binary" : "binary_stream", stream->bytes_.data(),
                      static_cast<unsigned>(stream->bytes_.size())));
  }
}

zoserialize::InterfacePtr<zoserialize::IWriteStream> RecordingWriter::open_stream(bool is_string) {
  open_ = zocore::make_ref_counted<ValueStream>(this, is_string);
  return open_;
}

void RecordingWriter::close() {
  begin("close");
  record("close");
}

void RecordingWriter::flush() {
  begin("flush");
  record("flush");
}

void RecordingWriter::write_null() {
  begin("null");
  record("null");
}

void RecordingWriter::write_bool(bool value) {
  begin("bool");
  record(value ? "bool true" : "bool false");
}

void RecordingWriter::write_int_big_endian(void const* data, unsigned size) {
  begin("int");
  record(image_line("int", data, size));
}

void RecordingWriter::write_uint_big_endian(void const* data, unsigned size) {
  begin("uint");
  record(image_line("uint", data, size));
}

void RecordingWriter::write_double(double value) {
  begin("double");
  char text[32];
  std::snprintf(text, sizeof text, "double %016llX",
                static_cast<unsigned long long>(std::bit_cast<std::uint64_t>(value)));
  record(text);
}

void RecordingWriter::write_string(char const* data, unsigned size) {
  begin("string");
  record("string \"" + quote(std::string_view(data, size)) + "\"");
}

zoserialize::InterfacePtr<zoserialize::IWriteStream> RecordingWriter::write_string_stream() {
  begin("string_stream");
  return open_stream(true);
}

void RecordingWriter::write_string_stream(zoserialize::IReadStream& source) {
  begin("string_from");
  record((merge_ ? "string \"" : "string_from \"") + quote(drain(source)) + "\"");
}

void RecordingWriter::write_absolute_time(zoserialize::AbsoluteTime const& value) {
  begin("absolute_time");
  record("absolute_time " + std::to_string(value.count()));
}

void RecordingWriter::write_relative_time(zoserialize::RelativeTime const& value) {
  begin("relative_time");
  record("relative_time " + std::to_string(value.count()));
}

void RecordingWriter::write_uuid(zoserialize::Uuid const& value) {
  begin("uuid");
  record("uuid " + uuid_text(value));
}

zoserialize::InterfacePtr<zoserialize::IWriteStream> RecordingWriter::write_binary() {
  begin("binary_stream");
  return open_stream(false);
}

void RecordingWriter::write_binary(zoserialize::IReadStream& source) {
  begin("binary_from");
  std::string const bytes = drain(source);
  record(image_line(merge_ ? "binary" : "binary_from", bytes.data(),
                    static_cast<unsigned>(bytes.size())));
}

void RecordingWriter::write_binary(void const* data, unsigned size) {
  begin("binary");
  record(image_line("binary", data, size));
}

void RecordingWriter::write_sequence_start(unsigned count_hint) {
  begin("sequence_start");
  record("sequence_start " + std::to_string(count_hint));
}

void RecordingWriter::write_sequence_start() {
  begin("sequence_start");
  record("sequence_start");
}

void RecordingWriter::write_sequence_separator() {
  begin("sequence_separator");
  record("sequence_separator");
}

void RecordingWriter::write_sequence_end() {
  begin("sequence_end");
  record("sequence_end");
}

void RecordingWriter::write_marker_start() {
  begin("marker_start");
  record("marker_start");
}

void RecordingWriter::write_marker_end() {
  begin("marker_end");
  record("marker_end");
}

}  // namespace zotest
