// Writer of the single-byte text format.
#pragma once

#include <iosfwd>
#include <memory>
#include <string>

#include <zocore/interface_ptr.h>
#include <zocore/stream.h>
#include <zoserialize/export.h>
#include <zoserialize/writer.h>

namespace zoserialize {

// TextWriter renders every element as one tag character followed by its payload, with nothing
// between elements: a document is one line of printable text unless a line width is set. Only
// `~`, `"` and control characters are ever escaped inside strings (optionally the space and
// every byte above 0x7E as well), so the text can be pasted into logs, mails and configuration
// values. docs/text-format.md describes the grammar; TextReader reads it back.
//
// Output is gathered in a buffer of 4 KiB inside the writer and handed to the target when the
// buffer is full, at flush(), at close() and at destruction: the target holds all that was
// written only after one of these. A run of string bytes that needs no escape is never split
// across target calls. Escapes and base64 are encoded straight into the buffer; scalars cause no
// allocation.
//
// When the target (or the source of write_binary(IReadStream&) / write_string_stream(
// IReadStream&), once the value has begun) throws, what was written so far cannot be read back:
// every later operation, close() included, fails with error::zoserialize_writer_state. The
// writer's own failures (a count mismatch, an unbalanced end) leave it usable.
//
// Not thread-safe: one thread at a time, together with the value streams it hands out.
class ZOSERIALIZE_API TextWriter final : public Writer {
 public:
  using Writer::write_string;

  // How the text is shaped. A plain value type; setters return the options for chaining:
  // TextWriter::Options().escape_spaces(true).line_width(76).
  class ZOSERIALIZE_API Options {
   public:
    Options() noexcept
        : ascii_only_(false), escape_spaces_(false), line_separator_crlf_(false), line_width_(0) {}

    // Escape every string byte of 0x7F or above (default false: only 0x7F is escaped, bytes
    // 0x80-0xFF pass through, so UTF-8 text stays readable).
    bool ascii_only() const noexcept { return ascii_only_; }
    Options& ascii_only(bool value) noexcept { return ascii_only_ = value, *this; }
    // Escape the space inside strings as well (default false).
    bool escape_spaces() const noexcept { return escape_spaces_; }
    Options& escape_spaces(bool value) noexcept { return escape_spaces_ = value, *this; }
    // Line breaks inserted by wrapping are CR LF instead of LF (default false).
    bool line_separator_crlf() const noexcept { return line_separator_crlf_; }
    Options& line_separator_crlf(bool value) noexcept {
      return line_separator_crlf_ = value, *this;
    }
    // 0 (the default): no wrapping. Otherwise every line but the last is exactly this many
    // characters long; values below 4 count as 4. A space never starts or ends a line.
    unsigned line_width() const noexcept { return line_width_; }
    Options& line_width(unsigned value) noexcept { return line_width_ = value, *this; }

   private:
    bool ascii_only_;
    bool escape_spaces_;
    bool line_separator_crlf_;
    unsigned line_width_;
  };

  // The character sink under a writer, reference-counted: an implementation derives from
  // zocore::RefCounted<zocore::AtomicRefCount> and this interface and is handed over as
  // InterfacePtr<ITextTarget>. Exceptions pass through the writer (see above).
  class ZOSERIALIZE_API ITextTarget {
   public:
    virtual void put(char c) = 0;
    virtual void write(char const* data, unsigned length) = 0;

   protected:
    ITextTarget() = default;
    ITextTarget(ITextTarget const&) = default;
    ITextTarget& operator=(ITextTarget const&) = default;
    ~ITextTarget() = default;
  };

  // Each constructor copies `options`. The ostream and the string are borrowed and must outlive
  // the writer; text is appended to them. The target and the stream are shared. A null target or
  // stream gives a writer that is closed from the start.
  explicit TextWriter(std::ostream& out, Options const& options = Options());
  explicit TextWriter(std::string& out, Options const& options = Options());
  explicit TextWriter(InterfacePtr<ITextTarget> target, Options const& options = Options());
  explicit TextWriter(InterfacePtr<IWriteStream> stream, Options const& options = Options());
  TextWriter(TextWriter const&) = delete;
  TextWriter& operator=(TextWriter const&) = delete;
  // Calls close(), swallowing its failure (open scopes), and hands what is still buffered to the
  // target even then; a caller who still holds a value stream gets failures from it afterwards.
  ~TextWriter() override;

  Options const& options() const noexcept;

  // Ends an open value stream, checks that no sequence or marker is open (the writer stays open
  // when one is), hands the buffered text to the target, then releases the target; there is no
  // end-of-document mark. Closing a closed writer does nothing.
  void close() override;
  // Ends an open value stream and hands the buffered text to the target; the target itself (an
  // ostream, a stream) is not flushed.
  void flush() override;
  void write_null() override;
  void write_bool(bool value) override;
  void write_int_big_endian(void const* data, unsigned size) override;
  void write_uint_big_endian(void const* data, unsigned size) override;
  void write_double(double value) override;
  // The bytes are escaped as needed but not checked as UTF-8.
  void write_string(char const* data, unsigned size) override;
  // Gathers 4096 bytes before it renders them; the string ends with the next operation, flush()
  // or close().
  InterfacePtr<IWriteStream> write_string_stream() override;
  void write_string_stream(IReadStream& source) override;
  void write_absolute_time(AbsoluteTime const& value) override;
  void write_relative_time(RelativeTime const& value) override;
  void write_uuid(Uuid const& value) override;
  // Writes `[` at once, then the base64 of every 4095 bytes gathered; `]` when the value ends.
  InterfacePtr<IWriteStream> write_binary() override;
  void write_binary(IReadStream& source) override;
  void write_binary(void const* data, unsigned size) override;
  // Hints of 1 to 9,999,999 are written; every hint other than 0 is checked.
  void write_sequence_start(unsigned count_hint) override;
  void write_sequence_start() override;
  void write_sequence_separator() override;
  void write_sequence_end() override;
  void write_marker_start() override;
  // Closes whatever scope is innermost, a sequence included.
  void write_marker_end() override;

  // The value streams of write_binary() and write_string_stream().
  class BinaryStreamImpl;
  class StringStreamImpl;

 private:
  struct Core;

  static InterfacePtr<ITextTarget> make_target(InterfacePtr<IWriteStream> stream);
  // Checks the writer's state and ends an open value stream: the start of every operation.
  Core& begin(char const* function);
  [[noreturn]] void settle_failed(char const* function);

  std::unique_ptr<Core> core_;
};

}  // namespace zoserialize
