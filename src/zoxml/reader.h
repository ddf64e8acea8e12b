// zoxml::XmlReader: a non-validating pull parser for UTF-8 XML 1.0 documents with namespaces.
//
// The parser hands out one node at a time and keeps nothing of the document but the open
// elements, their namespace declarations and the current node, so memory stays bounded however
// long the document is: a node value is held whole only when asked for (at most
// kMaxValueSize bytes), and can instead be read in pieces or skipped.
//
// Walking a document:
//
//   zoxml::XmlReader parser(in, "file:///data.xml");      // borrows `in`
//   while (parser.read_next()) {                           // false once the document ended
//     zoxml::XmlReader::Node const& node = parser.node();
//     switch (node.kind()) {
//       case zoxml::EToken::StartTagStart:                 // <a ...> or <a .../>
//         use(node.local_name(), node.namespace_uri());    // the namespace is resolved
//         if (auto const* a = node.find_attribute("count")) use(a->value());   // no namespace
//         if (auto const* a = node.find_attribute("type", kXsi)) use(a->value());
//         break;                                           // <a/> is followed by its EndTag
//       case zoxml::EToken::EndTag:                        // </a>
//         break;
//       case zoxml::EToken::CharData:                      // text between two tags
//         if (node.is_whitespace()) break;                 // layout; value() is whole here
//         use(parser.read_value_into_buffer());            // the whole value, or:
//         // char buffer[4096];                            // the value in pieces, or:
//         // for (unsigned n; (n = parser.value_stream().read(buffer, 4096)) != 0;) ...
//         // parser.discard_chardata();                    // skip it (read_next() also does)
//         break;
//       default:
//         break;
//     }
//   }
//
// Nodes. read_next() moves to the next node; the node and every view it hands out stay valid
// until the next read_next(). Kinds:
//   StartTagStart: an element starts. qname(), local_name(), prefix(), namespace_uri(),
//     attributes() (namespace declarations included, in document order), find_attribute(local,
//     namespace) (unprefixed attributes have no namespace: pass "" or omit it), and
//     is_empty_element() for "<a/>", which is followed by an EndTag node of its own.
//   EndTag: the element ends; the same names as its start. The element leaves the stack of open
//     elements (depth()) at the following read_next().
//   CharData: character data between two tags: text, CDATA sections and references (resolved),
//     joined into one value; comments and processing instructions inside are left out. A node
//     whose value is only white space (space, tab, line feed; no CDATA section or reference) is
//     is_whitespace(), and its value() is already complete. xml:space does not change how text
//     is reported; preserve_space() tells the mode in force.
//   DocumentEnd: read_next() returned false; the document is complete and well-formed.
//
// The value of a CharData node is read in one of three ways, and only one of them:
//   read_value_into_buffer(): the whole value, at most kMaxValueSize bytes (134,217,728),
//     returned as a view (also node().value()); calling it again returns the same view.
//   value_stream() / read_value(): the value in pieces of any size, without holding it whole,
//     for values of any length (base64 content); the end of the value is a short read.
//   discard_chardata(): skips the value. read_next() also skips an unread value.
//
// Expectations: expect_element(local, namespace) and expect_token(kind) check the current node
// and raise the parser's "Unexpected element" / "Unexpected tokenizer token" errors otherwise.
//
// Errors are thrown as zocore::ErrorException with the codes of zoxml/errors.h and a message
// prefixed with the location, "[line L, pos P]: " (", uri <U>" before the "]" when a URI was
// given), and the parameters "uri", "line", "linePos" (1-based byte column) and "sourcePos"
// (0-based byte offset). After any error the parser only raises "Cannot continue after error".
//
// Input is read in blocks of block_size bytes; UTF-8 only (a declared encoding must be "UTF-8"
// in any letter case). Line ends inside and after the root element are normalised to line
// feeds, attribute values are normalised (white space to spaces). A DOCTYPE declaration is
// checked against its grammar and skipped: entities declared in it are not expanded (a
// reference to one fails unless an entity resolver supplies it) and no default attributes are
// added. docs/xml-parser.md describes every such reading in full.
//
// Not thread-safe: one parser is used by one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <iosfwd>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <zocore/stream.h>
#include <zoxml/errors.h>
#include <zoxml/token.h>

namespace zoxml {

namespace impl {
class InputSource;
class Tokenizer;
}  // namespace impl

class XmlReader {
 public:
  // The most bytes a value read whole (and an attribute value) may hold.
  static constexpr std::size_t kMaxValueSize = 0x8000000;
  static constexpr std::size_t kDefaultBlockSize = std::size_t{64} * 1024;
  // The namespace names bound to the prefixes "xml" and "xmlns" in every document.
  static constexpr std::string_view kXmlNamespace = "http://www.w3.org/XML/1998/namespace";
  static constexpr std::string_view kXmlnsNamespace = "http://www.w3.org/2000/xmlns/";
  // The only encoding read; a declared encoding must match it (ignoring ASCII letter case).
  static constexpr std::string_view kEncoding = "UTF-8";

  // Supplies the replacement text of an entity reference other than the five predefined ones:
  // true and `replacement` filled when it knows `name`, false otherwise. The replacement text
  // is taken as character data as it stands (it is not parsed for markup) and must be UTF-8;
  // in an attribute value its white space is normalised like the rest of the value.
  using EntityResolver = std::function<bool(std::string_view name, std::string& replacement)>;

  // One entry of the stack of open elements.
  class Element {
   public:
    std::string_view qname() const noexcept { return qname_; }
    std::string_view local_name() const noexcept;
    std::string_view prefix() const noexcept;
    std::string_view namespace_uri() const noexcept { return namespace_uri_; }
    // xml:space of this element, or inherited: true for "preserve".
    bool preserve_space() const noexcept { return preserve_space_; }

   private:
    friend class XmlReader;
    std::string qname_;
    std::size_t colon_ = std::string::npos;
    std::string_view namespace_uri_;
    std::string_view default_namespace_;  // in scope for unprefixed child elements
    std::size_t bindings_begin_ = 0;      // the namespace declarations this element introduced
    bool preserve_space_ = false;
  };

  class Attribute {
   public:
    std::string_view qname() const noexcept { return qname_; }
    std::string_view local_name() const noexcept;
    std::string_view prefix() const noexcept;
    std::string_view namespace_uri() const noexcept { return namespace_uri_; }
    // Normalised, references resolved.
    std::string_view value() const noexcept { return value_; }

   private:
    friend class XmlReader;
    std::string qname_;
    std::string value_;
    std::size_t colon_ = std::string::npos;
    std::string_view namespace_uri_;
  };

  class Node {
   public:
    // DocumentStart before the first read_next(), then StartTagStart, EndTag, CharData, and
    // DocumentEnd at the end.
    EToken kind() const noexcept { return kind_; }

    // Element nodes (StartTagStart, EndTag); empty for the others.
    std::string_view qname() const noexcept { return element_ ? element_->qname() : ""; }
    std::string_view local_name() const noexcept { return element_ ? element_->local_name() : ""; }
    std::string_view prefix() const noexcept { return element_ ? element_->prefix() : ""; }
    std::string_view namespace_uri() const noexcept {
      return element_ ? element_->namespace_uri() : "";
    }
    bool is_empty_element() const noexcept { return empty_; }
    // StartTagStart only.
    std::span<Attribute const> attributes() const noexcept { return attributes_; }
    Attribute const* find_attribute(std::string_view local_name,
                                    std::string_view namespace_uri = {}) const noexcept;

    // CharData nodes.
    bool is_whitespace() const noexcept { return whitespace_; }
    bool preserve_space() const noexcept { return preserve_space_; }
    // The value as far as it has been read into the buffer: complete after
    // read_value_into_buffer() and for white-space nodes.
    std::string_view value() const noexcept { return value_; }

   private:
    friend class XmlReader;
    EToken kind_ = EToken::DocumentStart;
    Element const* element_ = nullptr;
    std::span<Attribute const> attributes_;
    std::string_view value_;
    bool empty_ = false;
    bool whitespace_ = false;
    bool preserve_space_ = false;
  };

  // The stream is borrowed and must outlive the reader. `uri` (copied) names the document in
  // error messages; it may be empty.
  explicit XmlReader(std::istream& in, std::string_view uri = {},
                     std::size_t block_size = kDefaultBlockSize);
  explicit XmlReader(zocore::IReadStream& in, std::string_view uri = {},
                     std::size_t block_size = kDefaultBlockSize);
  ~XmlReader();
  XmlReader(XmlReader const&) = delete;
  XmlReader& operator=(XmlReader const&) = delete;

  void set_entity_resolver(EntityResolver resolver) { resolver_ = std::move(resolver); }

  // Advances to the next node; false once the document has ended (the node is DocumentEnd).
  bool read_next();
  Node const& node() const noexcept { return node_; }

  // Open elements: element(0) is the root, element(depth() - 1) the innermost.
  std::size_t depth() const noexcept { return depth_; }
  Element const& element(std::size_t level) const { return elements_[level]; }

  // Reading the value of the current CharData node (on other nodes: empty, nothing read).
  std::string_view read_value_into_buffer();
  // Copies up to `size` bytes of the value (skips them when `buffer` is null); fewer, 0 at the
  // end, once the value is exhausted.
  unsigned read_value(void* buffer, unsigned size);
  // The same as an IReadStream (skip() without copying, bytes_remaining() unknown). It reads
  // whatever node is current; it belongs to the reader and is valid as long as the reader.
  zocore::IReadStream& value_stream() noexcept;
  void discard_chardata();

  // Raise the parser's errors unless the current node is an element with this local name and
  // namespace, or of this kind.
  void expect_element(std::string_view local_name, std::string_view namespace_uri);
  void expect_token(EToken kind);
  [[noreturn]] void throw_unexpected_element();

  std::string_view uri() const noexcept { return uri_; }
  // The location of the current node, and where the tokenizer stands.
  Location const& node_location() const noexcept { return node_at_; }
  Location location() const noexcept;

 private:
  friend class XmlReaderTestPeer;
  class ValueStream;

  enum class EState : unsigned char { kStart, kContent, kEnd, kError };
  enum class EValue : unsigned char { kPending, kComplete, kBuffered, kStreamed, kDiscarded };

  // Up to this many attributes, each new name is compared with the earlier ones as it comes.
  static constexpr std::size_t kLinearDuplicateCheck = 16;

  struct Binding {
    std::string prefix;
    std::string uri;
  };

  XmlReader(std::unique_ptr<impl::InputSource> source, std::string_view uri,
            std::size_t block_size);

  bool state_start();
  bool state_content();
  void read_xmldecl();
  void read_starttag();
  void read_attributes(Element& element);
  void read_attribute_value(std::string& value);
  void declare_namespace(Element& element, Attribute const& attribute, Location const& at);
  void resolve_namespaces(Element& element);
  void check_duplicates();
  void read_endtag();
  void epilog_text(EToken token);
  void begin_text();
  bool next_piece(std::string_view& piece);
  std::size_t transfer_value(char* out, std::size_t size);
  void skip_value();
  void finish_node();
  void pop_element();
  std::string_view eval_char_ref();
  std::string_view resolve_entity_ref();
  Binding const* lookup_prefix(std::string_view prefix) const noexcept;
  EToken next_token();
  void append_value(std::string& value, std::string_view piece);
  void expect_next(EToken kind, char const* function);

  [[noreturn, gnu::cold]] void fail(zocore::ErrorCode const& code, char const* message,
                                    char const* function, zocore::ErrorParams params,
                                    Location const& at, unsigned line = __builtin_LINE()) const;
  [[noreturn, gnu::cold]] void throw_string_size_error() const;
  [[noreturn, gnu::cold]] void throw_unexpected_token(EToken token, char const* function,
                                                      Location const& at) const;
  [[noreturn, gnu::cold]] void throw_name_error(char const* message, char const* parameter,
                                                std::string_view name, char const* function,
                                                Location const& at) const;

  std::string uri_;
  std::unique_ptr<impl::InputSource> source_;
  std::unique_ptr<impl::Tokenizer> tok_;
  std::unique_ptr<ValueStream> value_stream_;
  EntityResolver resolver_;
  std::size_t max_value_ = kMaxValueSize;

  EState state_ = EState::kStart;
  Node node_;
  Location node_at_;

  // Open elements and namespace bindings; slots are reused rather than destroyed, so that no
  // allocation recurs. Bindings are a deque: elements keep views of their URIs, which must stay
  // put while more bindings are pushed.
  std::vector<Element> elements_;
  std::size_t depth_ = 0;
  std::deque<Binding> bindings_;  // "xml" and "xmlns" first, never removed
  std::size_t binding_count_ = 0;
  std::vector<Attribute> attributes_;
  std::size_t attribute_count_ = 0;

  // The tokenizer's token that has been read but not yet acted on.
  EToken token_ = EToken::Unknown;
  bool have_token_ = false;

  // The value of the current CharData node: node_.value_ what has been read of it, kept in value_
  // or, for a value of one piece, in the tokenizer's buffer; pending_ the piece read from the
  // tokenizer but not yet taken; stream_offset_ what of node_.value_ the stream has delivered.
  std::string value_;
  std::string_view pending_;
  std::size_t stream_offset_ = 0;
  EValue value_state_ = EValue::kComplete;
  bool text_open_ = false;  // more pieces of the current text may follow
  bool in_cdata_ = false;
  bool piece_plain_ = false;      // the last piece is plain character data
  bool text_has_markup_ = false;  // the current text holds a CDATA section or a reference

  bool seen_token_ = false;   // anything after the start of the document
  bool seen_markup_ = false;  // markup before the root element
  bool seen_doctype_ = false;

  char char_ref_[4] = {};
  std::string replacement_;
  std::string decl_name_;
  std::string decl_value_;
  std::vector<std::size_t> order_;  // scratch for duplicate checks of long attribute lists
};

}  // namespace zoxml
