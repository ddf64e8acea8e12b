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

std::string drain(zoserialize::IReadStream& source) {
  std::string bytes;
  char block[4096];
  for (unsigned n = sizeof block; n == sizeof block;) {
    n = source.read(block, sizeof block);
    bytes.append(block, n);
  }
  return bytes;
}

}  // namespace

// NOLINTNEXTLINE(cert-err58-cpp): constant-initialised, nothing runs at load
constinit zocore::ErrorCode const recording_writer_error("error.zotest.recording_writer", true);

// Collects the bytes of a string or binary value until the writer finishes it; the writer holds
// a reference while it is open, the caller another.
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

  RecordingWriter* owner_;
  bool is_string_;
  std::string bytes_;
};

RecordingWriter::RecordingWriter() = default;

RecordingWriter::~RecordingWriter() {
  if (open_) open_->owner_ = nullptr;
}

std::string RecordingWriter::image(char const* name, void const* data, std::size_t size) {
  std::string line = name;
  if (size != 0) line += ' ' + hex(std::string_view(static_cast<char const*>(data), size));
  return line;
}

std::string RecordingWriter::text(char const* name, std::string_view bytes) {
  std::string line = std::string(name) + " \"";
  for (char const c : bytes) {
    auto const b = static_cast<unsigned char>(c);
    char escaped[5];
    std::snprintf(escaped, sizeof escaped, "\\x%02X", b);
    line += b >= 0x20 && b < 0x7F && c != '"' && c != '\\' ? std::string(1, c) : escaped;
  }
  return line + '"';
}

void RecordingWriter::record(std::string line) {
  finish_stream();
  if (!fail_on_.empty() && line.substr(0, line.find(' ')) == fail_on_) {
    zocore::ErrorComposer("Recording writer: injected failure of {@call}")
        .add("call", std::exchange(fail_on_, {}))
        .throw_error(recording_writer_error, here("zotest::RecordingWriter::record()"));
  }
  calls_.push_back(std::move(line));
}

void RecordingWriter::finish_stream() {
  if (!open_) return;
  zocore::RefCountPtr<ValueStream> const stream = std::exchange(open_, nullptr);
  stream->owner_ = nullptr;
  calls_.push_back(stream->is_string_ ? text(merge_ ? "string" : "string_stream", stream->bytes_)
                                      : image(merge_ ? "binary" : "binary_stream",
                                              stream->bytes_.data(), stream->bytes_.size()));
}

RecordingWriter::Stream RecordingWriter::open_stream(bool is_string) {
  finish_stream();
  open_ = zocore::make_ref_counted<ValueStream>(this, is_string);
  return open_;
}

void RecordingWriter::write_double(double value) {
  char line[32];
  std::snprintf(line, sizeof line, "double %016llX",
                static_cast<unsigned long long>(std::bit_cast<std::uint64_t>(value)));
  record(line);
}

void RecordingWriter::write_string_stream(zoserialize::IReadStream& source) {
  record(text(merge_ ? "string" : "string_from", drain(source)));
}

void RecordingWriter::write_binary(zoserialize::IReadStream& source) {
  std::string const bytes = drain(source);
  record(image(merge_ ? "binary" : "binary_from", bytes.data(), bytes.size()));
}

}  // namespace zotest
