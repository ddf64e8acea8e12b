// The tokenizer under zoxml::XmlReader: cuts a UTF-8 byte stream into the tokens of EToken and
// enforces the lexical rules of XML 1.0 (fifth edition). Internal to the parser.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string_view>

#include <zocore/stream.h>
#include <zoxml/errors.h>
#include <zoxml/token.h>

namespace zoxml::impl {

// Where the tokenizer's bytes come from, one block at a time (the only virtual call is per
// block, never per byte).
class InputSource {
 public:
  virtual ~InputSource() = default;
  // Reads up to `size` bytes; returns how many, 0 only once the input has ended. Failures of the
  // underlying stream are thrown (the tokenizer reports them under zoxml_tokenizer_stream).
  virtual std::size_t read(char* buffer, std::size_t size) = 0;
};

// A std::istream, borrowed: it must outlive the source. A stream already failed, or one that
// goes bad while read, is reported as a failure; reaching its end is the end of input.
class IStreamSource final : public InputSource {
 public:
  explicit IStreamSource(std::istream& in) noexcept : in_(in) {}
  std::size_t read(char* buffer, std::size_t size) override;

 private:
  std::istream& in_;
  bool ended_ = false;
};

// A zocore::IReadStream, borrowed. A read that returns fewer bytes than asked ends the input
// (the stream contract), so the stream is not asked again after that.
class ReadStreamSource final : public InputSource {
 public:
  explicit ReadStreamSource(zocore::IReadStream& in) noexcept : in_(in) {}
  std::size_t read(char* buffer, std::size_t size) override;

 private:
  zocore::IReadStream& in_;
  bool ended_ = false;
};

// Token by token, on demand: next() returns the kind of the next token, text() its text, valid
// until the following next(). What text() holds per kind:
//   StartTagStart, EndTag, AttributeStart: the name as written (see name_ok / qname_ok);
//   PIStart: the target; EntityRef: the entity name; CharRef: what stands between "&#" and ";";
//   CharData: a piece of character data, of CDATA content or of an attribute value.
// A run of character data comes in one or more CharData pieces (cut where a line end is
// normalised or the buffer is refilled). Comments, processing-instruction content and the
// DOCTYPE declaration are scanned and checked but not handed out: CommentStart is followed by
// CommentEnd, PIStart by PIEnd, DoctypeStart by DoctypeEnd. Inside a start tag come
// AttributeStart, the value's CharData / EntityRef / CharRef pieces and AttributeEnd, then
// StartTagEnd or StartTagEndEmpty; the XML declaration comes as XmldeclStart, its
// pseudo-attributes in the same form, and XmldeclEnd.
//
// Normalisation done here: attribute values have each tab, line feed, carriage return and
// CR LF pair replaced by one space; character data and CDATA content have CR LF and lone CR
// replaced by a line feed once set_normalize_line_ends(true) was called (before that they pass
// unchanged, so the parser can refuse a CR before the root element). A byte order mark at the
// very start is skipped.
//
// Memory: one buffer that holds a block (block_size bytes) plus the unfinished token; it grows
// only for a name or reference longer than what is left of it, and a token longer than
// `max_token` bytes fails. Character data never needs to fit: it is handed out in pieces.
class Tokenizer {
 public:
  static constexpr std::size_t kDefaultBlockSize = std::size_t{64} * 1024;

  // `source` is borrowed; `uri` (borrowed, may be empty) names the input in error messages.
  Tokenizer(InputSource& source, std::string_view uri, std::size_t block_size,
            std::size_t max_token);
  ~Tokenizer();
  Tokenizer(Tokenizer const&) = delete;
  Tokenizer& operator=(Tokenizer const&) = delete;

  EToken next() {
    switch (mode_) {
      case EMode::kContent:
        return next_content();
      case EMode::kTag:
        return next_in_tag();
      case EMode::kAttrValue:
        return next_attr_value();
      default:
        return next_other();
    }
  }

  std::string_view text() const noexcept { return {text_, text_size_}; }

  // For the last name token: whether it is an XML Name, whether it is a QName of the
  // Namespaces recommendation (at most one colon, with a name on each side), and the offset of
  // its first colon (npos without one).
  bool name_ok() const noexcept { return name_ok_; }
  bool qname_ok() const noexcept { return qname_ok_; }
  std::size_t name_colon() const noexcept { return name_colon_; }

  // Where the last token started, and where the tokenizer stands now.
  Location const& token_location() const noexcept { return token_at_; }
  // Where byte `offset` of the current CharData piece stands in the source (a piece is a run
  // of source bytes, only rewritten in place where it was normalised).
  Location text_location(std::size_t offset) const noexcept;
  Location location() const noexcept { return location_of(cur_); }

  // True when, in character data, the tokenizer stands at a start or end tag: the text before
  // it has ended, so the last piece can be taken as it is. False when that cannot be told
  // without reading on (the tag is not in the buffer yet), which is always safe.
  bool text_ends_at_tag() const noexcept {
    return mode_ == EMode::kContent && end_ - cur_ >= 2 && cur_[0] == '<' && cur_[1] != '!' &&
           cur_[1] != '?';
  }

  void set_normalize_line_ends(bool on) noexcept { normalize_ = on; }
  bool had_byte_order_mark() const noexcept { return had_bom_; }

 private:
  enum class EMode : unsigned char {
    kStart,
    kContent,
    kTag,
    kAttrEq,
    kAttrValue,
    kComment,
    kPI,
    kCData,
    kDoctype,
    kEnd,
  };

  EToken next_content();
  EToken next_in_tag();
  EToken next_attr_value();
  EToken next_other();

  EToken scan_markup();
  EToken scan_reference();
  EToken scan_pi_start();
  EToken scan_end_tag();
  EToken attr_eq();
  EToken scan_cdata();
  bool scan_text();
  void scan_name();
  void skip_comment_body();
  void skip_pi_body();
  // Skips a comment's or processing instruction's content (bytes of class `stop` end a fast
  // run) up to and past its terminator: `length` bytes that start with `lead` and that
  // is_terminator(at) accepts (it may fail instead).
  template <class IsTerminator>
  void skip_to_terminator(std::uint16_t stop, char lead, std::ptrdiff_t length, char const* what,
                          char const* function, IsTerminator is_terminator);
  // DOCTYPE declaration.
  enum class EName : unsigned char { kQName, kNCName, kNmtoken };
  enum class ELiteral : unsigned char { kSystem, kPubid, kAttValue, kEntityValue };
  static constexpr unsigned kMaxContentDepth = 256;  // nesting of a content model
  void scan_doctype();
  void scan_external_id(bool notation);
  void scan_literal(ELiteral kind);
  void scan_internal_subset();
  void scan_element_decl();
  void scan_content_group(unsigned depth);
  void scan_attlist_decl();
  void scan_name_list(EName kind);
  void scan_entity_decl();
  void scan_notation_decl();
  char peek();
  bool skip_space();
  bool decl_space();
  void require_space(char const* function);
  void expect_char(char c, char const* expected, char const* function);
  std::string_view decl_name(EName kind, char const* function);
  [[noreturn, gnu::cold]] void decl_expect(char const* expected, char const* function) const;
  void check_pi_target(char const* function) const;
  // At a byte >= 0x80: the length of the character there, 0 when more input must be read
  // before it can be told; fails on malformed UTF-8 and on U+FFFE, U+FFFF.
  std::size_t utf8_at(char const* p, char const* function);

  // Buffer handling: refill() keeps the bytes from keep_ on, moves them to the front, grows the
  // buffer if a block does not fit behind them, and reads one block. Pointers into the buffer
  // (cur_, keep_) are moved along; it returns false once the input has ended.
  bool refill();
  std::size_t ensure(std::size_t count);

  void line_feed(char const* p) noexcept;
  void carriage_return(char const* p) noexcept;
  Location location_of(char const* p) const noexcept {
    return {line_, line_start_, base_ + static_cast<std::uint64_t>(p - buf_.get())};
  }
  char previous_byte(char const* p) const noexcept { return p > buf_.get() ? p[-1] : before_buf_; }

  [[noreturn, gnu::cold]] void fail(char const* message, char const* function, Location const& at,
                                    unsigned line = __builtin_LINE()) const;
  [[noreturn, gnu::cold]] void fail_end(char const* construct, char const* function,
                                        unsigned line = __builtin_LINE()) const;
  [[noreturn, gnu::cold]] void fail_char(char const* p, char const* function) const;
  [[noreturn, gnu::cold]] void fail_token_size(char const* function) const;

  InputSource& source_;
  std::string_view uri_;
  std::size_t block_size_;
  std::size_t max_token_;

  std::unique_ptr<char[]> buf_;
  std::size_t capacity_ = 0;
  char* cur_ = nullptr;     // next byte to scan
  char* end_ = nullptr;     // end of the bytes read; *end_ is a 0 sentinel
  char* keep_ = nullptr;    // first byte a refill must keep
  std::uint64_t base_ = 0;  // source offset of buf_[0]
  char before_buf_ = 0;     // the byte before buf_[0] (for CR LF across a refill)
  bool eof_ = false;

  std::uint64_t line_ = 1;
  std::uint64_t line_start_ = 0;
  Location token_at_;

  char const* text_ = "";
  std::size_t text_size_ = 0;
  bool name_ok_ = false;
  bool qname_ok_ = false;
  bool nmtoken_ok_ = false;
  std::size_t name_colon_ = std::string_view::npos;

  EMode mode_ = EMode::kStart;
  char quote_ = 0;
  bool decl_ = false;       // inside the XML declaration
  bool normalize_ = false;  // line ends of character data
  bool had_bom_ = false;
};

}  // namespace zoxml::impl
