// Writer of the XML document format.
#pragma once

#include <iosfwd>
#include <memory>

#include <zocore/interface_ptr.h>
#include <zocore/stream.h>
#include <zoserialize/export.h>
#include <zoserialize/writer.h>

namespace zoserialize {

// XmlWriter renders every element as one child element of the root `Serialized`: `<Int>5</Int>`,
// `<String>a&lt;b</String>`, `<Sequence count="2"><Item>...</Item>...</Sequence>`, and so on
// (docs/xml-format.md describes the whole document). XmlReader reads it back.
//
// Every call writes its element to the ostream at once, in one or a few runs through the
// ostream's stream buffer; nothing is held back but the open sequences and markers and the
// pending value stream's last 4095 bytes. The ostream is never flushed. Scalars cause no
// allocation; binaries and strings of any size are encoded in fixed chunks, so value streams and
// write_binary(IReadStream&) run in constant memory.
//
// The output is handled as std::ostream::write handles it: a stream buffer that takes fewer
// characters than offered, or throws, makes the ostream bad, and the exception reaches the caller
// when the ostream has exceptions enabled for that. When an exception from the ostream, or from
// the source of write_binary(IReadStream&) / write_string_stream(IReadStream&) after the value
// began, passes through an operation, the document is incomplete: every later operation, close()
// included, fails with error::zoserialize_writer_state. The writer's own failures (a count
// mismatch, an unbalanced end) leave it usable.
//
// Strings are written as they are given; bytes that XML cannot carry as characters (malformed
// UTF-8, U+FFFE, U+FFFF) make a document that no XML parser reads. Strings with control
// characters are written in base64 and are safe.
//
// Not thread-safe: one thread at a time, together with the value streams it hands out.
class ZOSERIALIZE_API XmlWriter final : public Writer {
 public:
  using Writer::write_string;

  // The namespace of every element of the document.
  static constexpr char kNamespace[] = "http://schemas.zoserialize.org/tav/serialization";

  // `out` is borrowed and must outlive the writer. Before every tag that starts a line the writer
  // writes `line_prefix` followed by `indent_unit` once per level of nesting; both are copied,
  // and null counts as empty. Typical: "  " and "\n". Two empty strings put the whole document on
  // one line, without any white space. The root start tag is written here.
  explicit XmlWriter(std::ostream& out, char const* indent_unit = nullptr,
                     char const* line_prefix = nullptr);
  XmlWriter(XmlWriter const&) = delete;
  XmlWriter& operator=(XmlWriter const&) = delete;
  // Calls close() and swallows its failure; a caller who still holds a value stream gets
  // failures from it afterwards.
  ~XmlWriter() override;

  // Ends an open value stream, checks that no sequence or marker is open, and writes the root end
  // tag "</Serialized>" (without a line end). A second close() writes nothing. Writing after
  // close() is not refused, but puts text after the root element: no reader accepts that.
  void close() override;
  // Ends an open value stream; the ostream itself is not flushed.
  void flush() override;
  void write_null() override;
  void write_bool(bool value) override;
  // Decimal while the value has at most 3 significant bytes, else "0x" and the minimal bytes.
  void write_int_big_endian(void const* data, unsigned size) override;
  void write_uint_big_endian(void const* data, unsigned size) override;
  // 19 significant digits, trailing zeros dropped ("1", "1.235E2"), or INF, -INF, NaN.
  void write_double(double value) override;
  // Empty: <String/>; with a byte below 0x20: base64; of 512 bytes or more, or with a space at
  // either end: CDATA; otherwise escaped text.
  void write_string(char const* data, unsigned size) override;
  // Gathers 4095 bytes before anything is written: a shorter string is written as
  // write_string() writes it, a longer one in base64. The string ends with the next operation,
  // flush() or close().
  InterfacePtr<IWriteStream> write_string_stream() override;
  // Reads the source to its end (a short read ends it) in blocks of 4098 bytes: a string that
  // fits one block is written as write_string() writes it, a longer one in base64.
  void write_string_stream(IReadStream& source) override;
  void write_absolute_time(AbsoluteTime const& value) override;
  void write_relative_time(RelativeTime const& value) override;
  void write_uuid(Uuid const& value) override;
  // Writes the start tag at once, then the base64 of every 4095 bytes gathered; the end tag when
  // the value ends.
  InterfacePtr<IWriteStream> write_binary() override;
  void write_binary(IReadStream& source) override;
  void write_binary(void const* data, unsigned size) override;
  void write_sequence_start(unsigned count_hint) override;
  void write_sequence_start() override;
  void write_sequence_separator() override;
  void write_sequence_end() override;
  void write_marker_start() override;
  // Closes whatever scope is innermost, a sequence included (its end tag is then "</Marker>").
  void write_marker_end() override;

  // The value streams of write_binary() and write_string_stream().
  class BinaryStreamImpl;
  class StringStreamImpl;

 private:
  struct Core;

  // Checks the writer's state and ends an open value stream: the start of every operation.
  Core& begin(char const* function);
  [[noreturn]] void settle_failed(char const* function);

  std::unique_ptr<Core> core_;
};

}  // namespace zoserialize
