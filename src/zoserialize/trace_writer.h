// A write-only archive that prints every element as one readable, indented line.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

#include <zoserialize/export.h>
#include <zoserialize/impl/scope_stack.h>
#include <zoserialize/impl/value_stream_base.h>
#include <zoserialize/writer.h>

namespace zoserialize {

// TraceWriter prints what it is given on a std::ostream, one line per element, for logs and
// debugging; nothing it prints is meant to be read back. A document traced with an empty prefix
// and the indent "  " looks like
//
//   Marker{
//     Sequence[2]{
//       Int: 5
//     }{
//       String[3]: "a b"
//     }
//   }
//   Double: 1.5
//
// It keeps the scope bookkeeping and count-hint checks of the text writer (same codes, same
// messages), so a faulty series of calls fails the same way while traced. Output is bounded:
// strings and binaries show at most their first 256 bytes (a string is also cut at 255 characters
// by the quoted rendering), value streams keep 256 bytes and count the rest, and the constructor
// with limits caps the number of traced elements and the depth shown; elided runs print one
// "..." line each (see check_trace in the source for the exact rule).
//
// Unlike the other writers it has no closed state: close() checks that every scope was closed,
// and writing afterwards prints as before. The stream is not flushed by flush() or close(). One
// thread at a time; the stream must not be written by anyone else meanwhile.
class ZOSERIALIZE_API TraceWriter final : public Writer {
 public:
  using Writer::write_string;

  // `out` is borrowed and must outlive the writer. `prefix` (null: empty) starts every line;
  // `indent` (null: one space) is added once per open scope. Both are copied.
  TraceWriter(std::ostream& out, char const* prefix, char const* indent);
  // At most `max_elements` - 1 elements are printed, the next one as "..." and the rest not at
  // all; elements nested `max_depth` scopes deep or more are replaced by one "..." line per run.
  // 0 for either means unlimited.
  TraceWriter(std::ostream& out, char const* prefix, char const* indent, unsigned max_elements,
              unsigned max_depth);
  TraceWriter(TraceWriter const&) = delete;
  TraceWriter& operator=(TraceWriter const&) = delete;
  // Releases an open value stream without printing it (its later writes fail).
  ~TraceWriter() override;

  // Prints an open value stream's element, then fails while scopes are open.
  void close() override;
  // Prints an open value stream's element.
  void flush() override;
  void write_null() override;
  void write_bool(bool value) override;
  void write_int_big_endian(void const* data, unsigned size) override;
  void write_uint_big_endian(void const* data, unsigned size) override;
  void write_double(double value) override;
  void write_string(char const* data, unsigned size) override;
  // The returned stream keeps the first 256 bytes and counts the rest; the element is printed
  // when the stream is closed or the writer's next operation starts.
  InterfacePtr<IWriteStream> write_string_stream() override;
  // Reads up to 256 bytes and skips the rest of `source` (in 16 MiB steps when it cannot tell
  // its size); reads nothing when the element is not printed.
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
  // Pops whatever scope is on top (a sequence too, without its count check).
  void write_marker_end() override;

 private:
  class StreamImplBase;
  class BinaryStreamImpl;
  class StringStreamImpl;

  static constexpr unsigned kUnlimited = 0xFFFFFFFFu;
  static constexpr unsigned kMaxStringBytes = 256;
  static constexpr unsigned kMaxBinaryBytes = 256;

  void initialize(char const* prefix, char const* indent);
  bool check_trace();
  std::ostream& indented();
  void indent_increment() noexcept;
  void indent_decrement() noexcept;
  void render_string(char const* data, unsigned length, std::uint64_t total);
  void render_binary(unsigned char const* data, unsigned length, std::uint64_t total);
  void finalize_binary_writer_stream();
  void finalize_previous_element();
  void write_from_source(IReadStream& source, bool is_string);
  // One line at the current indent.
  void line(char const* text, std::size_t size);

  std::ostream& out_;
  bool open_ = true;
  bool depth_elided_ = false;
  impl::ScopeStack scopes_;
  unsigned remaining_elements_ = kUnlimited;
  unsigned max_depth_ = kUnlimited;
  // The prefix followed by one or more indent units, grown on demand.
  std::string indent_text_;
  unsigned prefix_length_ = 0;
  unsigned indent_unit_length_ = 0;
  unsigned indent_length_ = 0;
  impl::ValueStreamSlot stream_slot_;
  std::string scratch_;  // reused for escaped copies, hex forms and dump prefixes
};

}  // namespace zoserialize
