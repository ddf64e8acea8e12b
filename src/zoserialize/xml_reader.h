// Reader of the XML document format.
#pragma once

#include <cstddef>
#include <iosfwd>
#include <memory>
#include <string>

#include <zocore/interface_ptr.h>
#include <zocore/stream.h>
#include <zoserialize/export.h>
#include <zoserialize/reader.h>

namespace zoxml {
class XmlReader;
}  // namespace zoxml

namespace zoserialize {

// XmlReader reads the documents that XmlWriter writes (docs/xml-format.md): the root element
// `Serialized`, one element per value, `Sequence` elements of `Item`s and `Marker` elements, all
// in the namespace XmlWriter::kNamespace. Whatever the writer's layout, white space between
// elements, comments and processing instructions are skipped. It reads through the library's
// XML pull parser, which checks that the document is well-formed UTF-8 XML; the parser's
// failures pass through unchanged (codes under "error.zoxml", compare them by name).
//
// Nothing is read at construction: the first operation reads up to the root element. The reader
// stops at the root's end tag and does not read what follows it.
//
// Values read whole are held at most 134,217,728 bytes long (the parser's limit); strings and
// binaries of any size are read in constant memory through read_string_stream() and
// read_binary(), decoding base64 as they go. Such a stream is valid until the reader moves on: the
// next operation skips its unread rest and detaches it, after which every call on it fails with
// error::zoserialize_reader_state. A failing value read (a malformed number, say) has consumed its
// element, so the reader can go on with the next one.
//
// Errors about the document carry the parameters "line", "linePos" and "sourcePos" of the node
// where they were found. Not thread-safe: one thread at a time, together with its streams.
class ZOSERIALIZE_API XmlReader final : public Reader {
 public:
  static constexpr std::size_t kDefaultBlockSize = 65536;
  // The longest string read by value (read_string); longer ones are read as streams.
  static constexpr std::size_t kMaxStringByValue = 0x8000000;

  // Reads through `parser`, which it borrows (it must outlive the reader) and which must stand
  // before the document. The parser is not part of the installed package: users read with the
  // other constructors.
  explicit XmlReader(zoxml::XmlReader& parser);
  // Reads from an istream it borrows (which must outlive the reader), or from a stream it shares,
  // `block_size` bytes at a time (at least 1). The reader owns its parser.
  explicit XmlReader(std::istream& in, std::size_t block_size = kDefaultBlockSize);
  explicit XmlReader(InterfacePtr<IReadStream> stream, std::size_t block_size = kDefaultBlockSize);
  XmlReader(XmlReader const&) = delete;
  XmlReader& operator=(XmlReader const&) = delete;
  // Detaches an open value stream: its holder gets failures from it afterwards.
  ~XmlReader() override;

  // True once the next node is the root's end tag (false inside a sequence or marker).
  bool is_eof() const override;
  EToken next_token() override;
  // Skips one element with everything in it, without looking inside.
  void skip_element() override;
  void read_null() override;
  bool try_read_null() override;
  bool read_bool() override;
  // Decimal or "0x" hex of any number of bytes, fitted into `size` bytes.
  void read_int_big_endian(void* data, unsigned size) override;
  void read_uint_big_endian(void* data, unsigned size) override;
  double read_double() override;
  // The content as it stands (no trimming), or decoded from base64 when the element says so; a
  // decoded string must be UTF-8. error::zoserialize_reader_data_string_size beyond 134,217,728
  // bytes.
  void read_string(SourceString& out) override;
  void read_string(std::string& out) override;
  std::string read_string() override;
  // The string's bytes as a stream, checked as UTF-8 as they are read.
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
  // Strings and binaries are copied through their streams, whose size is not known up front: the
  // writer chooses the form as for a source of unknown size (XmlWriter: base64 for strings of
  // 4098 bytes or more).
  void read_copy(Writer& writer) override;

  // The value stream of read_binary() and, checked as UTF-8, of read_string_stream().
  class BinaryStreamImpl;

 private:
  struct Core;

  std::unique_ptr<Core> core_;
};

}  // namespace zoserialize
