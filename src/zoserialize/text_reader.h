// Reader of the single-byte text format.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include <zocore/error_info.h>
#include <zocore/error_params.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/stream.h>
#include <zoserialize/export.h>
#include <zoserialize/reader.h>

namespace zoserialize {

// TextReader reads what TextWriter writes: it classifies the next element by its tag character,
// parses it with the writer's exact syntax, checks nesting and count hints, and reports every
// syntax error with its place in the source (parameters "line", counted from 1, and "linePos"
// and "sourcePos", character offsets counted from 0 in the line and in the whole source). Line
// breaks (CR and LF) are skipped wherever they stand, even inside numbers, escapes and base64, so
// wrapped text reads as if it were one line. docs/text-format.md describes the grammar and the
// errors.
//
// Strings read by value are limited to kMaxStringByValue bytes and checked as UTF-8; longer ones
// must be read through read_string_stream(), which checks UTF-8 as it goes. A payload stream
// (read_string_stream(), read_binary()) decodes as it is read and is valid until the reader moves
// on: the next operation consumes its unread rest and detaches it, after which every call on it
// fails with error::zoserialize_reader_state. Destroying or closing the reader detaches it too.
//
// Hostile input is safe: nothing is allocated in proportion to what the input claims, and
// skipping and copying walk nested sequences and markers without recursion. Not thread-safe: one
// thread at a time, together with the payload streams it hands out.
class ZOSERIALIZE_API TextReader : public Reader {
 public:
  static constexpr unsigned kDefaultBufferSize = 16384;
  // The largest string read_string() returns; longer ones fail with
  // error::zoserialize_reader_data_string_size.
  static constexpr std::size_t kMaxStringByValue = 0x8000000;

  // Where the characters come from. A source hands the parser a window of characters and
  // refills it when it runs out; it counts characters and lines so that errors can say where
  // they happened. Line breaks are skipped before every character the parser looks at.
  class ZOSERIALIZE_API SourceBase {
   public:
    SourceBase(SourceBase const&) = delete;
    SourceBase& operator=(SourceBase const&) = delete;
    virtual ~SourceBase();

    // The next character (0-255) after any line breaks, or -1 at the end; peek_char() leaves
    // it, read_char() takes it.
    int peek_char() {
      if (cur_ != end_ && !is_line_break(*cur_)) [[likely]]
        return static_cast<unsigned char>(*cur_);
      return peek_char_slow();
    }
    int read_char() {
      int const c = peek_char();
      if (c >= 0) ++cur_;
      return c;
    }
    // Takes the character that peek_char() returned.
    void skip_peeked() noexcept { ++cur_; }

    // Copy consecutive decimal / lowercase hexadecimal digits, at most `max`, and return how
    // many.
    unsigned read_digit_buffer(char* out, unsigned max);
    unsigned read_hexdigit_buffer(char* out, unsigned max);
    // Decodes the body of a quoted string (after its opening quote) into `out`, at most `size`
    // bytes, and returns how many; `ended` becomes true when the closing quote was taken. A null
    // `out` skips. Fails on a bad escape, a raw control character or the end of the input.
    std::size_t read_string_buffer(char* out, std::size_t size, bool& ended);
    // Reads the rest of a quoted string (after its opening quote) into `out`, replacing its
    // content; longer than `max_size` bytes fails. Returns true when the text is plain ASCII
    // (false says nothing: the caller checks UTF-8 where it matters).
    bool read_string(std::string& out, std::size_t max_size);
    // Copies the base64 characters of a binary (after its `[`), at most `max`, and returns how
    // many; `ended` becomes true when the closing `]` was taken. Stops early, without taking it,
    // at a character that is neither; fails at the end of the input.
    unsigned read_binary_base64_buffer(char* out, unsigned max, bool& ended);

    // Characters consumed so far (line breaks included), the line number (from 1) and the
    // offset in that line.
    std::uint64_t source_pos() const noexcept {
      return window_pos_ + static_cast<std::uint64_t>(cur_ - begin_);
    }
    std::uint64_t line() const noexcept { return line_; }
    std::uint64_t line_pos() const noexcept { return source_pos() - line_start_; }
    // Adds "line", "linePos" and "sourcePos" of the current position.
    void add_location_error_params(zocore::ErrorParams& params) const;
    // Raises error::zoserialize_reader_data_invalid with the parameters "expected" (when not
    // null) and "actual" (the character at the current position: itself when printable, "#xhh"
    // otherwise, "EOF" at the end) and the location.
    [[noreturn]] void throw_syntax_error(char const* message, char const* expected,
                                         char const* function);

   protected:
    SourceBase() = default;

    // Makes more characters available in [cur_, end_) once the window is used up (cur_ ==
    // end_); false at the end of the input.
    virtual bool refill() = 0;
    // The message for the end of the input inside a string.
    virtual char const* eof_in_string_message() const noexcept = 0;

    // The window: [cur_, end_) is unread; begin_ is where it started, at source position
    // window_pos_.
    char const* begin_ = nullptr;
    char const* cur_ = nullptr;
    char const* end_ = nullptr;
    std::uint64_t window_pos_ = 0;

   private:
    // The reader parses whole tokens straight from the window when they lie in it.
    friend class TextReader;

    static bool is_line_break(char c) noexcept { return c == '\n' || c == '\r'; }
    int peek_char_slow();
    // Takes the line breaks at cur_ within the window.
    void skip_line_breaks() noexcept;
    [[noreturn]] void throw_eof_in_string(char const* function);
    [[noreturn]] void throw_eof_in_binary(char const* function);

    std::uint64_t line_ = 1;
    std::uint64_t line_start_ = 0;  // source position where the current line starts
  };

  // Reads characters in place from memory it borrows (which must outlive the reader).
  class ZOSERIALIZE_API StringSource final : public SourceBase {
   public:
    StringSource(char const* text, std::size_t length) noexcept;

   protected:
    bool refill() override { return false; }
    char const* eof_in_string_message() const noexcept override;
  };

  // A source that reads through a buffer of `buffer_size` characters (at least 1), refilled by
  // impl_read. A refill that delivers fewer characters than asked ends the input: the source is
  // not asked again.
  class ZOSERIALIZE_API StreamSourceBase : public SourceBase {
   protected:
    explicit StreamSourceBase(unsigned buffer_size);
    // Reads up to `size` characters into `out`; fewer means the input has ended.
    virtual unsigned impl_read(char* out, unsigned size) = 0;
    bool refill() override;
    char const* eof_in_string_message() const noexcept override;

   private:
    std::unique_ptr<char[]> buffer_;
    unsigned capacity_;
    bool ended_ = false;
  };

  // Reads from an istream it borrows (which must outlive the reader). A stream that goes bad, or
  // throws, fails with error::zoserialize_reader_data_source ("Error reading from
  // std::istream").
  class ZOSERIALIZE_API StdStreamSource final : public StreamSourceBase {
   public:
    StdStreamSource(std::istream& in, unsigned buffer_size);

   protected:
    unsigned impl_read(char* out, unsigned size) override;

   private:
    std::istream& in_;
  };

  // Reads from a stream it shares. A null stream fails with error::zoserialize_reader; a stream
  // that throws fails with error::zoserialize_reader_data_source ("Error reading from
  // zocore::IReadStream"), the stream's error nested.
  class ZOSERIALIZE_API ReadStreamSource final : public StreamSourceBase {
   public:
    ReadStreamSource(InterfacePtr<IReadStream>& stream, unsigned buffer_size);

   protected:
    unsigned impl_read(char* out, unsigned size) override;

   private:
    InterfacePtr<IReadStream> stream_;
  };

  // An open sequence or marker.
  struct StackItem {
    enum class EType : std::uint8_t { Marker, Sequence };
    EType type;
    unsigned count_hint;  // 0: none
    unsigned elements;    // elements entered so far (sequences)
  };

  // The payload stream of read_string_stream() and read_binary().
  class ReadStreamImpl;

  // Reads `length` characters at `text`, in place; the text must outlive the reader.
  TextReader(char const* text, unsigned length);
  // Reads the string in place; it must outlive the reader and not change meanwhile.
  explicit TextReader(std::string const* text);
  // The istream is borrowed; the IReadStream is shared.
  TextReader(std::istream& in, unsigned buffer_size = kDefaultBufferSize);
  TextReader(InterfacePtr<IReadStream> stream, unsigned buffer_size = kDefaultBufferSize);
  TextReader(TextReader const&) = delete;
  TextReader& operator=(TextReader const&) = delete;
  ~TextReader() override;

  // The token of a tag character; EToken::Unknown for a character that starts no element.
  static EToken token_from_tag(char tag) noexcept;

  // Fails while markers are open (nothing changes then); otherwise detaches an open payload
  // stream, without reading its rest, and releases the source. Closing a closed reader does
  // nothing; every other operation then fails with error::zoserialize_reader_closed.
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

  // The string element at the source's position (`S` or a quoted string), read by value into
  // `out` with the limit and the UTF-8 check of read_string(); `function` names the caller in
  // errors. Shared with the XML reader, which reads its strings from the same syntax.
  static void read_string_element(SourceBase& source, std::string& out, char const* function);
  // Takes a null (`Z`) at the source's position and returns true; otherwise takes nothing.
  static bool try_read_null(SourceBase& source) {
    if (source.peek_char() != 'Z') return false;
    source.skip_peeked();
    return true;
  }

  // Raises error::zoserialize_reader_data_size with the parameter "expected" (when not null),
  // the source's location parameters and the cause `nested` (when not null).
  [[noreturn]] static void throw_syntax_error(SourceBase const& source, char const* message,
                                              char const* function, char const* expected,
                                              zocore::RefCountPtr<zocore::ErrorInfo const> nested);

 private:
  // The source, after checking that the reader is open and detaching an open payload stream.
  SourceBase& prepare(char const* function) {
    if (!source_ || stream_) [[unlikely]]
      return prepare_slow(function);
    return *source_;
  }
  SourceBase& prepare_slow(char const* function);
  void detach_stream();
  void read_integer(void* data, unsigned size, bool is_signed, char const* function);
  // A whole integer token of at most 64 bits in the source's window, fitted to `size` bytes;
  // false (nothing taken) for anything else, which the general path then reads or refuses.
  static bool read_integer_in_window(SourceBase& s, unsigned char* out, unsigned size,
                                     bool is_signed) noexcept;
  InterfacePtr<IReadStream> open_stream(SourceBase& s, bool binary, bool ended);
  // Skips (writer null) or copies one whole element.
  void walk(Writer* writer, char const* function);
  void copy_or_skip_scalar(SourceBase& s, EToken token, Writer* writer, char const* function);
  StackItem& top_marker(char const* function);

  std::unique_ptr<SourceBase> source_;  // null once closed
  std::vector<StackItem> stack_;
  zocore::RefCountPtr<ReadStreamImpl> stream_;        // the open payload stream
  zocore::RefCountPtr<ReadStreamImpl> spare_binary_;  // a detached binary stream to reuse

  friend class ReadStreamImpl;
};

}  // namespace zoserialize
