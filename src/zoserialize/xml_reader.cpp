#include <algorithm>
#include <cstdint>
#include <cstring>
#include <istream>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include <zocore/core_errors.h>
#include <zocore/error_exception.h>
#include <zocore/numeric.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/throw_error.h>
#include <zocore/utf8.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/impl/base64_decoder.h>
#include <zoserialize/impl/copy_value.h>
#include <zoserialize/impl/integer_form.h>
#include <zoserialize/impl/utf8_validating_stream.h>
#include <zoserialize/xml_reader.h>
#include <zoserialize/xml_writer.h>
#include <zoxml/reader.h>

namespace zoserialize {
namespace {

using zocore::ErrorParams;
using zocore::RefCountPtr;
using EToken = Reader::EToken;
using ENode = zoxml::EToken;
using Node = zoxml::XmlReader::Node;

constexpr char kModuleId[] = "$Id: src/zoserialize/xml_reader.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

constexpr std::string_view kNamespace = XmlWriter::kNamespace;
// The longest integer text read; longer ones fail before any parsing.
constexpr unsigned kMaxIntegerText = 512;
// Characters of base64 taken from the parser at a time.
constexpr unsigned kBase64Chars = 4096;

// A plain string is held whole by the parser, so both limits must agree.
static_assert(XmlReader::kMaxStringByValue == zoxml::XmlReader::kMaxValueSize);

constexpr char kSchemaMessage[] = "Invalid XML serialized document schema";

// The elements of the vocabulary: the twelve values, and Item.
enum class EName : std::uint8_t {
  kUnknown,
  kNull,
  kBool,
  kInt,
  kUInt,
  kDouble,
  kString,
  kAbsTime,
  kRelTime,
  kUuid,
  kBinary,
  kMarker,
  kSequence,
  kItem
};

struct NameEntry {
  std::string_view name;
  EName id;
  EToken token;
};
constexpr NameEntry kNames[] = {
    {"Null", EName::kNull, EToken::Null},
    {"Bool", EName::kBool, EToken::Boolean},
    {"Int", EName::kInt, EToken::SignedInteger},
    {"UInt", EName::kUInt, EToken::UnsignedInteger},
    {"Double", EName::kDouble, EToken::Double},
    {"String", EName::kString, EToken::String},
    {"AbsTime", EName::kAbsTime, EToken::AbsoluteTime},
    {"RelTime", EName::kRelTime, EToken::RelativeTime},
    {"Uuid", EName::kUuid, EToken::Uuid},
    {"Binary", EName::kBinary, EToken::Binary},
    {"Marker", EName::kMarker, EToken::MarkerStart},
    {"Sequence", EName::kSequence, EToken::SequenceStart},
    {"Item", EName::kItem, EToken::Unknown},
};

static_assert([] {
  for (std::size_t i = 0; i < std::size(kNames); ++i) {
    if (static_cast<std::size_t>(kNames[i].id) != i + 1) return false;
  }
  return true;
}());

// The entry of kNames that `local` can only be, told by its length and a letter or two; the
// whole name is compared once (a linear search compared up to thirteen names per element).
NameEntry const* candidate(std::string_view local) noexcept {
  auto const at = [](EName id) { return &kNames[static_cast<std::size_t>(id) - 1]; };
  switch (local.size()) {
    case 3:
      return at(EName::kInt);
    case 4:
      switch (local[0]) {
        case 'N':
          return at(EName::kNull);
        case 'B':
          return at(EName::kBool);
        case 'I':
          return at(EName::kItem);
        case 'U':
          return at(local[1] == 'I' ? EName::kUInt : EName::kUuid);
        default:
          return nullptr;
      }
    case 6:
      switch (local[0]) {
        case 'D':
          return at(EName::kDouble);
        case 'S':
          return at(EName::kString);
        case 'B':
          return at(EName::kBinary);
        case 'M':
          return at(EName::kMarker);
        default:
          return nullptr;
      }
    case 7:
      return at(local[0] == 'A' ? EName::kAbsTime : EName::kRelTime);
    case 8:
      return at(EName::kSequence);
    default:
      return nullptr;
  }
}

NameEntry const& name_of(Node const& node) noexcept {
  static constexpr NameEntry kNone = {"", EName::kUnknown, EToken::Unknown};
  std::string_view const local = node.local_name();
  NameEntry const* const e = candidate(local);
  if (e == nullptr || e->name != local || node.namespace_uri() != kNamespace) return kNone;
  return *e;
}

bool is_xml_space(std::string_view text) noexcept {
  return text.find_first_not_of(" \t\n\r") == std::string_view::npos;
}

// The significant bytes of an integer read from the text (the writer's minimal form): `length`
// bytes at `bytes`, to be extended with `sign`.
struct Integer {
  unsigned char sign = 0;
  unsigned length = 0;
  unsigned char const* bytes = nullptr;
  unsigned char storage[kMaxIntegerText / 2] = {};
};

int hex_value(char c) noexcept {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Parses the writer's forms into `out`; false for malformed text. `hex` tells which message
// applies then.
bool parse_integer(std::string_view text, bool is_signed, Integer& out, bool& hex) noexcept {
  hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  if (hex) {
    std::string_view const digits = text.substr(2);
    if (digits.size() % 2 != 0) return false;
    auto const n = static_cast<unsigned>(digits.size() / 2);
    for (std::size_t i = 0; i < n; ++i) {
      int const hi = hex_value(digits[2 * i]);
      int const lo = hex_value(digits[2 * i + 1]);
      if (hi < 0 || lo < 0) return false;
      out.storage[i] = static_cast<unsigned char>(hi << 4 | lo);
    }
    if (is_signed) {
      impl::SignedForm const f = impl::minimal_signed_form(out.storage, n);
      out.sign = f.sign;
      out.bytes = out.storage + f.offset;
      out.length = f.length;
    } else {
      impl::UnsignedForm const f = impl::minimal_unsigned_form(out.storage, n);
      out.sign = 0;
      out.bytes = out.storage + f.offset;
      out.length = f.length;
    }
    return true;
  }
  bool const negative = is_signed && !text.empty() && text[0] == '-';
  std::string_view const digits = negative ? text.substr(1) : text;
  if (digits.empty() || digits.size() > 20) return false;
  std::uint64_t v = 0;
  for (char const c : digits) {
    if (c < '0' || c > '9') return false;
    auto const d = static_cast<unsigned>(c - '0');
    if (v > (std::numeric_limits<std::uint64_t>::max() - d) / 10) return false;
    v = v * 10 + d;
  }
  if (is_signed) {
    std::uint64_t const limit = negative ? std::uint64_t{1} << 63 : (std::uint64_t{1} << 63) - 1;
    if (v > limit) return false;
    if (negative) v = 0 - v;
  }
  impl::store_big_endian(v, out.storage);
  if (is_signed) {
    impl::SignedForm const f = impl::minimal_signed_form(out.storage, 8);
    out.sign = f.sign;
    out.bytes = out.storage + f.offset;
    out.length = f.length;
  } else {
    impl::UnsignedForm const f = impl::minimal_unsigned_form(out.storage, 8);
    out.sign = 0;
    out.bytes = out.storage + f.offset;
    out.length = f.length;
  }
  return true;
}

// [-]P<seconds>[.<1 to 9 digits>]S; false for anything else or a count beyond 64 bits.
bool parse_relative_time(std::string_view text, std::int64_t& count) noexcept {
  bool const negative = !text.empty() && text[0] == '-';
  if (negative) text.remove_prefix(1);
  if (text.size() < 3 || text.front() != 'P' || text.back() != 'S') return false;
  text = text.substr(1, text.size() - 2);
  std::size_t const point = text.find('.');
  std::string_view const whole = text.substr(0, point);
  std::string_view const fraction =
      point == std::string_view::npos ? std::string_view() : text.substr(point + 1);
  if (whole.empty() || whole.size() > 19) return false;
  if (point != std::string_view::npos && (fraction.empty() || fraction.size() > 9)) return false;
  std::uint64_t seconds = 0;
  for (char const c : whole) {
    if (c < '0' || c > '9') return false;
    seconds = seconds * 10 + static_cast<unsigned>(c - '0');
  }
  std::uint64_t ns = 0;
  for (std::size_t i = 0; i < 9; ++i) {
    char const c = i < fraction.size() ? fraction[i] : '0';
    if (c < '0' || c > '9') return false;
    ns = ns * 10 + static_cast<unsigned>(c - '0');
  }
  std::uint64_t const limit = negative ? std::uint64_t{1} << 63 : (std::uint64_t{1} << 63) - 1;
  if (seconds > (limit - ns) / 1000000000u) return false;
  std::uint64_t const magnitude = seconds * 1000000000u + ns;
  count =
      negative ? static_cast<std::int64_t>(0 - magnitude) : static_cast<std::int64_t>(magnitude);
  return true;
}

// An unsigned 32-bit decimal.
bool parse_count(std::string_view text, unsigned& value) noexcept {
  if (text.empty() || text.size() > 10) return false;
  std::uint64_t v = 0;
  for (char const c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<unsigned>(c - '0');
  }
  if (v > 0xFFFFFFFFu) return false;
  value = static_cast<unsigned>(v);
  return true;
}

}  // namespace

// ---- Core ---------------------------------------------------------------------------------------

// The reader's state behind the installed header: the parser, the open Sequence and Marker
// elements, and where the reader stands in the parser's nodes.
struct XmlReader::Core {
  // An open Sequence or Marker element.
  struct Frame {
    bool sequence;
    bool in_item = false;  // an Item of the sequence is open
    // The first Item was entered by looking ahead, before read_sequence_next() asked for it.
    bool entered_by_peek = false;
    unsigned count_hint = 0;
    unsigned items = 0;  // Item elements entered
  };

  explicit Core(zoxml::XmlReader& p) noexcept : parser(&p) {}
  Core(std::unique_ptr<zoxml::XmlReader> p, InterfacePtr<IReadStream> s) noexcept
      : source(std::move(s)), owned(std::move(p)), parser(owned.get()) {}
  ~Core();

  // ---- Failures ----
  // Adds where the parser stands (the node `at`) to a failure about the document.
  [[noreturn, gnu::cold, gnu::noinline]] void fail(zocore::ErrorCode const& code,
                                                   char const* message, ErrorParams params,
                                                   zoxml::Location const& at,
                                                   char const* function) const {
    params.set("line", static_cast<unsigned long long>(at.line));
    params.set("linePos", static_cast<unsigned long long>(at.pos - at.line_start) + 1);
    params.set("sourcePos", static_cast<unsigned long long>(at.pos));
    zocore::throw_error(code, message, std::move(params), here(function));
  }
  [[noreturn]] void fail(zocore::ErrorCode const& code, char const* message,
                         char const* function) const {
    fail(code, message, ErrorParams(), parser->node_location(), function);
  }
  // A value that does not parse. Its element is finished first, so that the reader can go on.
  [[noreturn, gnu::cold, gnu::noinline]] void fail_value(zocore::ErrorCode const& code,
                                                         char const* message, std::string_view text,
                                                         char const* function) {
    ErrorParams params;
    params.set("actualValue", text);
    end_value(function);
    fail(code, message, std::move(params), element_at, function);
  }
  [[noreturn, gnu::cold, gnu::noinline]] void fail_unexpected(EToken actual, EToken expected,
                                                              char const* function) const {
    switch (actual) {
      case EToken::Eof:
        fail(error::zoserialize_reader_eof, "Reader reached </Serialized>, it is EOF", function);
      case EToken::SequenceEnd:
      case EToken::MarkerEnd:
        fail(error::zoserialize_reader_marker_overrun,
             "Attempt to read past end of Marker or Sequence", function);
      case EToken::Unknown:
        fail(error::zoserialize_reader_xml_schema, kSchemaMessage, function);
      default:
        break;
    }
    ErrorParams params;
    params.set("expectedType", token_name(expected));
    params.set("actualType", token_name(actual));
    fail(error::zoserialize_reader_data_type_mismatch,
         "Unexpected type.  Expected={@expectedType}, Actual={@actualType}", std::move(params),
         parser->node_location(), function);
  }

  // ---- Walking the nodes ----
  // Moves to the next node that matters: a start or end tag. White space between elements is
  // skipped; any other text there is not part of the vocabulary.
  void advance(char const* function) {
    if (!started) [[unlikely]]
      read_root();
    for (;;) {
      parser->read_next();
      Node const& node = parser->node();
      if (node.kind() != ENode::CharData) break;
      if (!node.is_whitespace())
        fail(error::zoserialize_reader_xml_schema, kSchemaMessage, function);
    }
    at_node = true;
  }

  void read_root() {
    parser->read_next();
    parser->expect_element("Serialized", kNamespace);
    started = true;
  }

  // The token of the node the reader stands before, without taking it. Item tags are walked
  // through: the first Item of a sequence is entered, a further one announces a separator, the
  // end of one is passed.
  EToken peek(char const* function) {
    for (;;) {
      if (!at_node) advance(function);
      Node const& node = parser->node();
      if (node.kind() == ENode::StartTagStart) {
        NameEntry const& name = name_of(node);
        if (!stack.empty() && stack.back().sequence && !stack.back().in_item) {
          Frame& f = stack.back();
          if (name.id != EName::kItem) {
            fail(error::zoserialize_reader_state, "Expecting 'Item' that's a child of 'Sequence'",
                 function);
          }
          if (f.items != 0) return EToken::SequenceSeparator;
          f.items = 1;
          f.in_item = true;
          f.entered_by_peek = true;
          at_node = false;
          continue;
        }
        return name.token;
      }
      // An end tag: of the root, a marker, a sequence or an item.
      if (stack.empty()) return EToken::Eof;
      Frame& f = stack.back();
      if (!f.sequence) return EToken::MarkerEnd;
      if (!f.in_item) return EToken::SequenceEnd;
      f.in_item = false;
      at_node = false;
    }
  }

  // The element of `expected` stands next (checked_next_element); it is not taken yet.
  void expect(EToken expected, char const* function) {
    EToken const token = peek(function);
    if (token != expected) [[unlikely]]
      fail_unexpected(token, expected, function);
  }

  // Takes the start tag the reader stands before.
  Node const& take_start() noexcept {
    at_node = false;
    element_at = parser->node_location();
    return parser->node();
  }

  // Skips the element whose start tag the reader stands before, with all it holds.
  void skip_subtree() {
    std::size_t const depth = parser->depth();
    at_node = false;
    do {
      parser->read_next();
    } while (parser->node().kind() != ENode::EndTag || parser->depth() != depth);
  }

  // ---- Values ----
  // After take_start() of a value element: its text, valid until end_value(). An empty element is
  // the empty text; an element inside is not part of the vocabulary.
  std::string_view value_text(char const* function) {
    if (!enter_content(function)) return {};
    return parser->read_value_into_buffer();
  }
  // The same into `buffer`, at most `size` bytes (the rest is skipped by end_value()).
  unsigned value_text(char* buffer, unsigned size, char const* function) {
    if (!enter_content(function)) return 0;
    return parser->read_value(buffer, size);
  }
  // Moves to the element's content: true at its text, false at its end tag.
  bool enter_content(char const* function) {
    in_text = false;
    if (parser->node().is_empty_element()) {
      parser->read_next();
      return false;
    }
    parser->read_next();
    ENode const kind = parser->node().kind();
    if (kind == ENode::EndTag) return false;
    if (kind != ENode::CharData)
      fail(error::zoserialize_reader_xml_schema, kSchemaMessage, function);
    in_text = true;
    return true;
  }
  // Takes the value element's end tag.
  void end_value(char const* function) {
    if (!in_text) return;
    in_text = false;
    parser->read_next();
    if (parser->node().kind() != ENode::EndTag)
      fail(error::zoserialize_reader_xml_schema, kSchemaMessage, function);
  }

  // A value element of `token` whose text `parse` turns into the value (or fails on): the
  // element is entered, its text parsed and the element closed.
  template <class Parse>
  auto read_text_value(EToken token, char const* function, Parse&& parse) {
    if (stream) detach_stream();
    expect(token, function);
    take_start();
    auto value = parse(value_text(function));
    end_value(function);
    return value;
  }

  Integer& read_integer(bool is_signed, char const* function) {
    expect(is_signed ? EToken::SignedInteger : EToken::UnsignedInteger, function);
    take_start();
    // One character more than allowed tells a text that is too long.
    char text[kMaxIntegerText + 1];
    unsigned const n = value_text(text, sizeof text, function);
    std::string_view const view(text, n);
    if (n == 0) {
      fail_value(error::zoserialize_reader_xml_schema,
                 is_signed ? "Empty 'Int' element" : "Empty 'UInt' element", view, function);
    }
    if (n > kMaxIntegerText) {
      fail_value(error::zoserialize_reader_xml_schema,
                 is_signed ? "Element value of 'Int' element contains too many characters"
                           : "Element value of 'UInt' element contains too many characters",
                 view, function);
    }
    bool hex = false;
    if (!parse_integer(view, is_signed, integer, hex)) [[unlikely]] {
      fail_value(error::zoserialize_reader_xml_schema,
                 hex ? (is_signed ? "Invalid hexadecimal 'Int' element value: \"{@actualValue}\""
                                  : "Invalid hexadecimal 'UInt' element value: \"{@actualValue}\"")
                     : (is_signed ? "Invalid decimal 'Int' element value: \"{@actualValue}\""
                                  : "Invalid decimal 'UInt' element value: \"{@actualValue}\""),
                 view, function);
    }
    end_value(function);
    return integer;
  }

  // The value's significant bytes, sign-extended into `size` bytes.
  void fit_integer(Integer const& v, unsigned char* out, unsigned size, char const* function) {
    if (v.length > size) [[unlikely]] {
      ErrorParams params;
      params.set("expectedBits", 8 * size);
      params.set("actualBits", 8 * v.length);
      fail(error::zoserialize_reader_data_type_range,
           "Number of bits required to represent marshaled signed number exceeds expected number "
           "of bits.  Expected={@expectedBits}bits, Actual={@actualBits}bits",
           std::move(params), element_at, function);
    }
    std::memset(out, v.sign, size - v.length);
    if (v.length != 0) std::memcpy(out + size - v.length, v.bytes, v.length);
  }

  void read_null(char const* function) {
    expect(EToken::Null, function);
    take_start();
    std::string_view const text = value_text(function);
    if (!is_xml_space(text))
      fail_value(error::zoserialize_reader_xml_schema, kSchemaMessage, text, function);
    end_value(function);
  }

  // A String element read whole into `out`.
  void read_string(std::string& out, char const* function) {
    expect(EToken::String, function);
    bool const base64 = check_encoding(
        "Invalid 'encoding' attribute value in 'String' element.  Expected: \"base64\"; "
        "Actual: \"{@actualValue}\"",
        function);
    take_start();
    if (!base64) {
      out.assign(plain_string_text(function));
      end_value(function);
      return;
    }
    out.clear();
    impl::Base64Decoder decoder;
    bool more = enter_content(function);
    char chars[kBase64Chars];
    while (more) {
      unsigned const got = parser->read_value(chars, kBase64Chars);
      more = got == kBase64Chars;
      // The end tag first: a document cut short reports that rather than a short base64 text.
      if (!more) end_value(function);
      std::size_t const at = out.size();
      out.resize(at + impl::Base64Decoder::max_output(got) + 2);
      auto* const dest = reinterpret_cast<unsigned char*>(out.data() + at);
      std::size_t produced = 0;
      std::size_t last = 0;
      bool const ok = decoder.feed(chars, got, dest, produced) &&
                      (more || decoder.finish(dest + produced, last));
      out.resize(at + produced + last);
      if (!ok || out.size() > XmlReader::kMaxStringByValue) [[unlikely]] {
        end_value(function);
        if (!ok) throw_base64(decoder, function);
        throw_string_too_large(function);
      }
    }
    zocore::check_valid_utf8(out.data(), static_cast<unsigned>(out.size()));
  }

  // The text of a plain String element. The parser holds a value whole up to the same limit as
  // a string read by value; beyond it the failure is the reader's own, as for base64 content.
  std::string_view plain_string_text(char const* function) {
    try {
      return value_text(function);
    } catch (zocore::ErrorException const& e) {
      if (e.info()->code() == zoxml::error::zoxml_reader_unexpected_size)
        throw_string_too_large(function);
      throw;
    }
  }

  [[noreturn, gnu::cold, gnu::noinline]] void throw_string_too_large(char const* function) const {
    ErrorParams params;
    params.set("maxSize", static_cast<unsigned long long>(XmlReader::kMaxStringByValue));
    fail(error::zoserialize_reader_data_string_size,
         "String is too large to be read by value, it must be read as stream.  "
         "MaxSize={@maxSize}",
         std::move(params), element_at, function);
  }
  [[noreturn, gnu::cold, gnu::noinline]] void throw_base64(impl::Base64Decoder const& decoder,
                                                           char const* function) const {
    ErrorParams params;
    params.set("offset", static_cast<unsigned long long>(decoder.error_offset()));
    fail(zocore::error::zocore_format, "Invalid base64 text at offset {@offset}", std::move(params),
         element_at, function);
  }

  // The element the reader stands before has an `encoding` attribute of "base64" (true), none
  // (false), or another one (fails with `message`, the start tag not taken).
  bool check_encoding(char const* message, char const* function) const {
    zoxml::XmlReader::Attribute const* const a = parser->node().find_attribute("encoding");
    if (a == nullptr) return false;
    if (a->value() != "base64") [[unlikely]] {
      ErrorParams params;
      params.set("actualValue", a->value());
      fail(error::zoserialize_reader_xml_schema, message, std::move(params),
           parser->node_location(), function);
    }
    return true;
  }

  void detach_stream();
  InterfacePtr<IReadStream> open_stream(bool binary, char const* function);

  InterfacePtr<IReadStream> source;         // what the owned parser reads, when shared
  std::unique_ptr<zoxml::XmlReader> owned;  // the parser, when the reader made it
  zoxml::XmlReader* parser;
  std::vector<Frame> stack;
  bool started = false;                  // the root start tag has been read
  bool at_node = false;                  // the parser's node is the next one, not taken yet
  bool in_text = false;                  // between a value element's text and its end tag
  zoxml::Location element_at;            // the start of the value element being read
  RefCountPtr<BinaryStreamImpl> stream;  // the open value stream
  bool stream_is_binary = false;
  RefCountPtr<BinaryStreamImpl> spare;  // a detached binary stream to reuse
  Integer integer;
};

// ---- Value streams ------------------------------------------------------------------------------

// Reads the content of a Binary or String element from the parser, decoding base64 as it goes
// when the element says so. The element's start tag has been taken; the stream takes its text and
// its end tag.
class XmlReader::BinaryStreamImpl : public zocore::RefCounted<zocore::AtomicRefCount>,
                                    public IReadStream {
 public:
  enum class EState : std::uint8_t {
    kStart,     // the start tag was taken, the content not yet looked at
    kText,      // in the element's text
    kEnded,     // the end tag was taken; reads return what is left decoded, then 0
    kDetached,  // the reader moved on, was destroyed, or the stream was closed
  };

  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): buffers are written before read
  BinaryStreamImpl(Core& core, bool base64) noexcept : core_(&core), base64_(base64) {}

  // Makes a detached stream read a new element.
  void reopen(Core& core, bool base64) noexcept {
    core_ = &core;
    base64_ = base64;
    state_ = EState::kStart;
    pending_pos_ = pending_end_ = 0;
    decoder_.reset();
  }

  unsigned read(void* buffer, unsigned size) override {
    check_attached("zoserialize::XmlReader::BinaryStreamImpl::read()");
    return transfer(static_cast<unsigned char*>(buffer), size);
  }
  unsigned skip(unsigned size) override {
    check_attached("zoserialize::XmlReader::BinaryStreamImpl::skip()");
    return transfer(nullptr, size);
  }
  // Unknown until the value has ended: the text does not tell the decoded size up front.
  unsigned bytes_remaining() const override {
    check_attached("zoserialize::XmlReader::BinaryStreamImpl::bytes_remaining()");
    return state_ == EState::kEnded ? pending_end_ - pending_pos_ : kUnknownSize;
  }
  // Reads the unread rest through skip() (so that a validating stream sees it), then detaches.
  void close() override {
    check_attached("zoserialize::XmlReader::BinaryStreamImpl::close()");
    constexpr unsigned kStep = 0x1000000;
    while (skip(kStep) == kStep) {
    }
    abandon();
  }

  // The reader's next operation: skips what is left of the element, undecoded, and detaches.
  void detach() {
    static constexpr char kFunction[] = "zoserialize::XmlReader::BinaryStreamImpl::detach()";
    struct Detached {
      BinaryStreamImpl& stream;
      ~Detached() { stream.abandon(); }
    } const detached{*this};
    if (state_ == EState::kStart) begin(kFunction);
    if (state_ == EState::kText) end_text(*core_, kFunction);
  }
  void abandon() noexcept {
    core_ = nullptr;
    state_ = EState::kDetached;
  }

 private:
  void check_attached(char const* function) const {
    if (state_ == EState::kDetached) [[unlikely]]
      throw_detached(function);
  }
  [[noreturn, gnu::cold, gnu::noinline]] static void throw_detached(char const* function) {
    zocore::throw_error(error::zoserialize_reader_state,
                        "Reader has already been detached from stream", here(function));
  }

  // Looks at the element's content: its text, or its end.
  void begin(char const* function) {
    Core& c = *core_;
    Node const& start = c.parser->node();
    if (!start.is_empty_element()) {
      c.parser->read_next();
      ENode const kind = c.parser->node().kind();
      if (kind == ENode::CharData) {
        state_ = EState::kText;
        return;
      }
      if (kind != ENode::EndTag) throw_nested(c, function);
    } else {
      c.parser->read_next();
    }
    state_ = EState::kEnded;
  }
  // After the element's text: its end tag.
  void end_text(Core& c, char const* function) {
    c.parser->read_next();
    ENode const kind = c.parser->node().kind();
    if (kind == ENode::StartTagStart) throw_nested(c, function);
    // Text cannot follow text, and the document cannot end inside the element: the parser
    // reports both itself.
    if (kind != ENode::EndTag) {
      c.fail(error::zoserialize_reader_xml_schema, "Unexpected node in binary element", function);
    }
  }
  [[noreturn, gnu::cold, gnu::noinline]] static void throw_nested(Core& c, char const* function) {
    c.fail(error::zoserialize_reader_xml_schema, "Unexpected nested element in binary element",
           function);
  }

  // Reads into `out`, or skips when it is null.
  unsigned transfer(unsigned char* out, unsigned size) {
    static constexpr char kFunction[] = "zoserialize::XmlReader::BinaryStreamImpl::read()";
    unsigned n = 0;
    while (n < size) {
      if (pending_pos_ != pending_end_) {
        unsigned const m = std::min(size - n, pending_end_ - pending_pos_);
        if (out != nullptr) std::memcpy(out + n, pending_ + pending_pos_, m);
        pending_pos_ += m;
        n += m;
        continue;
      }
      if (state_ == EState::kEnded) break;
      if (state_ == EState::kStart) {
        begin(kFunction);
        continue;
      }
      Core& c = *core_;
      if (!base64_) {
        unsigned const want = size - n;
        unsigned const got = c.parser->read_value(out != nullptr ? out + n : nullptr, want);
        n += got;
        if (got < want) {
          end_text(c, kFunction);
          state_ = EState::kEnded;
        }
        continue;
      }
      unsigned const got = c.parser->read_value(chars_, kBase64Chars);
      bool const last = got < kBase64Chars;
      // The end tag first: a document cut short reports that rather than a short base64 text.
      if (last) {
        end_text(c, kFunction);
        state_ = EState::kEnded;
      }
      bool const direct = out != nullptr && size - n >= kDecodedRoom;
      unsigned char* const dest = direct ? out + n : pending_;
      std::size_t produced = 0;
      std::size_t rest = 0;
      if (!decoder_.feed(chars_, got, dest, produced) ||
          (last && !decoder_.finish(dest + produced, rest))) {
        // The rest of the text is not worth reading: the stream ends here.
        state_ = EState::kEnded;
        pending_pos_ = pending_end_ = 0;
        if (!last) end_text(c, kFunction);
        c.throw_base64(decoder_, kFunction);
      }
      auto const total = static_cast<unsigned>(produced + rest);
      if (direct) {
        n += total;
      } else {
        pending_pos_ = 0;
        pending_end_ = total;
      }
    }
    return n;
  }

  static constexpr unsigned kDecodedRoom =
      static_cast<unsigned>(impl::Base64Decoder::max_output(kBase64Chars)) + 2;

  Core* core_;
  bool base64_;
  EState state_ = EState::kStart;
  impl::Base64Decoder decoder_;
  unsigned pending_pos_ = 0;  // decoded bytes not yet delivered: pending_[pos, end)
  unsigned pending_end_ = 0;
  char chars_[kBase64Chars];             // NOLINT(cppcoreguidelines-pro-type-member-init)
  unsigned char pending_[kDecodedRoom];  // NOLINT(cppcoreguidelines-pro-type-member-init)
};

XmlReader::Core::~Core() {
  if (stream) stream->abandon();
}

void XmlReader::Core::detach_stream() {
  RefCountPtr<BinaryStreamImpl> const s = std::move(stream);
  if (stream_is_binary) spare = s;
  s->detach();
}

InterfacePtr<IReadStream> XmlReader::Core::open_stream(bool binary, char const* function) {
  expect(binary ? EToken::Binary : EToken::String, function);
  bool const base64 = check_encoding(
      "Invalid 'encoding' attribute value.  Expecting: \"base64\"; Actual: \"{@actualValue}\"",
      function);
  take_start();
  if (!binary) {
    stream =
        zocore::make_ref_counted<impl::Utf8ValidatingStreamImpl<BinaryStreamImpl>>(*this, base64);
  } else if (spare && spare->is_unique()) {
    stream = std::move(spare);
    stream->reopen(*this, base64);
  } else {
    stream = zocore::make_ref_counted<BinaryStreamImpl>(*this, base64);
  }
  stream_is_binary = binary;
  return InterfacePtr<IReadStream>(stream);
}

// ---- Reader -------------------------------------------------------------------------------------

XmlReader::XmlReader(zoxml::XmlReader& parser) : core_(std::make_unique<Core>(parser)) {}

XmlReader::XmlReader(std::istream& in, std::size_t block_size)
    : core_(
          std::make_unique<Core>(std::make_unique<zoxml::XmlReader>(
                                     in, std::string_view(), std::max<std::size_t>(block_size, 1)),
                                 nullptr)) {}

XmlReader::XmlReader(InterfacePtr<IReadStream> stream, std::size_t block_size) {
  if (!stream) {
    zocore::throw_error(error::zoserialize_reader, "NULL source stream specified",
                        here("zoserialize::XmlReader::XmlReader()"));
  }
  auto parser = std::make_unique<zoxml::XmlReader>(*stream, std::string_view(),
                                                   std::max<std::size_t>(block_size, 1));
  core_ = std::make_unique<Core>(std::move(parser), std::move(stream));
}

XmlReader::~XmlReader() = default;

bool XmlReader::is_eof() const {
  static constexpr char kFunction[] = "zoserialize::XmlReader::is_eof()";
  Core& c = *core_;
  if (c.stream) c.detach_stream();
  return c.stack.empty() && c.peek(kFunction) == EToken::Eof;
}

XmlReader::EToken XmlReader::next_token() {
  Core& c = *core_;
  if (c.stream) c.detach_stream();
  return c.peek("zoserialize::XmlReader::next_token()");
}

void XmlReader::skip_element() {
  static constexpr char kFunction[] = "zoserialize::XmlReader::skip_element()";
  Core& c = *core_;
  if (c.stream) c.detach_stream();
  switch (c.peek(kFunction)) {
    case EToken::Eof:
      c.fail(error::zoserialize_reader_eof, "Attempt to read past end of </Serialized> element",
             kFunction);
    case EToken::SequenceSeparator:
    case EToken::SequenceEnd:
    case EToken::MarkerEnd:
      c.fail(error::zoserialize_reader_state, "Not at start of element", kFunction);
    case EToken::Unknown:
      c.fail(error::zoserialize_reader_xml_schema, "Unknown element or invalid reader state",
             kFunction);
    default:
      c.skip_subtree();
  }
}

void XmlReader::read_null() {
  Core& c = *core_;
  if (c.stream) c.detach_stream();
  c.read_null("zoserialize::XmlReader::read_null()");
}

bool XmlReader::try_read_null() {
  static constexpr char kFunction[] = "zoserialize::XmlReader::try_read_null()";
  Core& c = *core_;
  if (c.stream) c.detach_stream();
  if (c.peek(kFunction) != EToken::Null) return false;
  c.read_null(kFunction);
  return true;
}

bool XmlReader::read_bool() {
  static constexpr char kFunction[] = "zoserialize::XmlReader::read_bool()";
  Core& c = *core_;
  return c.read_text_value(EToken::Boolean, kFunction, [&](std::string_view text) {
    bool const value = text == "true";
    if (!value && text != "false") {
      c.fail_value(error::zoserialize_reader_xml_schema,
                   "Invalid 'Bool' element value.  Valid values: \"true\", \"false\".  Actual: "
                   "\"{@actualValue}\"",
                   text, kFunction);
    }
    return value;
  });
}

void XmlReader::read_int_big_endian(void* data, unsigned size) {
  static constexpr char kFunction[] = "zoserialize::XmlReader::read_int_big_endian()";
  Core& c = *core_;
  if (c.stream) c.detach_stream();
  c.fit_integer(c.read_integer(true, kFunction), static_cast<unsigned char*>(data), size,
                kFunction);
}

void XmlReader::read_uint_big_endian(void* data, unsigned size) {
  static constexpr char kFunction[] = "zoserialize::XmlReader::read_uint_big_endian()";
  Core& c = *core_;
  if (c.stream) c.detach_stream();
  c.fit_integer(c.read_integer(false, kFunction), static_cast<unsigned char*>(data), size,
                kFunction);
}

double XmlReader::read_double() {
  static constexpr char kFunction[] = "zoserialize::XmlReader::read_double()";
  Core& c = *core_;
  return c.read_text_value(EToken::Double, kFunction, [&](std::string_view text) {
    double value = 0;
    if (text == "INF") {
      value = std::numeric_limits<double>::infinity();
    } else if (text == "-INF") {
      value = -std::numeric_limits<double>::infinity();
    } else if (text == "NaN") {
      value = std::numeric_limits<double>::quiet_NaN();
    } else {
      // A decimal number: a digit or a point first, after an optional minus (so none of the
      // spellings of infinity and NaN that the number parser knows besides the three above).
      std::size_t const first = !text.empty() && text[0] == '-' ? 1 : 0;
      bool ok =
          first < text.size() && ((text[first] >= '0' && text[first] <= '9') || text[first] == '.');
      if (ok) {
        RefCountPtr<zocore::ErrorInfo const> error;
        value =
            zocore::impl::string_to_double(text.data(), static_cast<unsigned>(text.size()), &error);
        ok = !error;
      }
      if (!ok) {
        c.fail_value(error::zoserialize_reader_xml_schema,
                     "Invalid 'Double' element value: \"{@actualValue}\"", text, kFunction);
      }
    }
    return value;
  });
}

void XmlReader::read_string(SourceString& out) {
  std::string text;
  read_string(text);
  out.assign(text.data(), static_cast<unsigned>(text.size()), false);
}

void XmlReader::read_string(std::string& out) {
  Core& c = *core_;
  if (c.stream) c.detach_stream();
  c.read_string(out, "zoserialize::XmlReader::read_string()");
}

std::string XmlReader::read_string() {
  std::string out;
  read_string(out);
  return out;
}

InterfacePtr<IReadStream> XmlReader::read_string_stream() {
  Core& c = *core_;
  if (c.stream) c.detach_stream();
  return c.open_stream(false, "zoserialize::XmlReader::read_string_stream()");
}

AbsoluteTime XmlReader::read_absolute_time() {
  static constexpr char kFunction[] = "zoserialize::XmlReader::read_absolute_time()";
  Core& c = *core_;
  return c.read_text_value(EToken::AbsoluteTime, kFunction, [&](std::string_view text) {
    AbsoluteTime value = AbsoluteTime::infinite();
    if (text != "INF" && !AbsoluteTime::from_string_nothrow(std::string(text), &value)) {
      c.fail_value(error::zoserialize_reader_xml_schema,
                   "Invalid 'AbsTime' element value.  Expecting ISO time format (YYYY-MM-DD "
                   "hh:mm:ss.ssss) or 'INF'.  Found: \"{@actualValue}\"",
                   text, kFunction);
    }
    return value;
  });
}

RelativeTime XmlReader::read_relative_time() {
  static constexpr char kFunction[] = "zoserialize::XmlReader::read_relative_time()";
  Core& c = *core_;
  return c.read_text_value(EToken::RelativeTime, kFunction, [&](std::string_view text) {
    std::int64_t count = RelativeTime::kInfiniteCount;
    if (text != "INF") {
      if (text.size() < 3) {
        c.fail_value(error::zoserialize_reader_xml_schema,
                     "Element value of 'RelTime' element contains too few characters", text,
                     kFunction);
      }
      if (!parse_relative_time(text, count)) {
        c.fail_value(error::zoserialize_reader_xml_schema,
                     "Invalid 'RelTime' element value.  Expecting [-]Pnnn[.nnn]S.  Actual: "
                     "\"{@actualValue}\"",
                     text, kFunction);
      }
    }
    return RelativeTime(count);
  });
}

Uuid XmlReader::read_uuid() {
  static constexpr char kFunction[] = "zoserialize::XmlReader::read_uuid()";
  Core& c = *core_;
  return c.read_text_value(EToken::Uuid, kFunction, [&](std::string_view text) {
    Uuid value;
    if (!Uuid::from_string_nothrow(text.data(), static_cast<unsigned>(text.size()), &value)) {
      c.fail_value(error::zoserialize_reader_xml_schema,
                   "Invalid 'Uuid' element value.  Actual: \"{@actualValue}\"", text, kFunction);
    }
    return value;
  });
}

InterfacePtr<IReadStream> XmlReader::read_binary() {
  Core& c = *core_;
  if (c.stream) c.detach_stream();
  return c.open_stream(true, "zoserialize::XmlReader::read_binary()");
}

unsigned XmlReader::read_sequence_start() {
  static constexpr char kFunction[] = "zoserialize::XmlReader::read_sequence_start()";
  Core& c = *core_;
  if (c.stream) c.detach_stream();
  c.expect(EToken::SequenceStart, kFunction);
  unsigned hint = 0;
  if (auto const* a = c.parser->node().find_attribute("count")) {
    if (!parse_count(a->value(), hint)) {
      ErrorParams params;
      params.set("actualValue", a->value());
      c.fail(error::zoserialize_reader_xml_schema,
             "Invalid 'count' attribute value in 'Sequence' element.  Expecting unsigned "
             "integer; Actual: \"{@actualValue}\"",
             std::move(params), c.parser->node_location(), kFunction);
    }
  }
  c.take_start();
  c.stack.push_back({true, false, false, hint, 0});
  return hint;
}

bool XmlReader::read_sequence_next() {
  static constexpr char kFunction[] = "zoserialize::XmlReader::read_sequence_next()";
  Core& c = *core_;
  if (c.stream) c.detach_stream();
  if (c.stack.empty()) {
    c.fail(error::zoserialize_reader_sequence_nesting,
           "Attempt to advance to next sequence element but no sequence is open", kFunction);
  }
  if (!c.stack.back().sequence) {
    c.fail(error::zoserialize_reader_sequence_nesting,
           "Attempt to advance to next sequence element but top of element stack is not sequence",
           kFunction);
  }
  Core::Frame& f = c.stack.back();
  if (f.entered_by_peek) {
    f.entered_by_peek = false;
    return true;
  }
  for (;;) {
    if (!c.at_node) c.advance(kFunction);
    Node const& node = c.parser->node();
    if (f.in_item) {
      // Out of the Item of the element just read.
      if (node.kind() == ENode::StartTagStart) {
        c.fail_unexpected(name_of(node).token, EToken::SequenceSeparator, kFunction);
      }
      f.in_item = false;
      c.at_node = false;
      continue;
    }
    if (node.kind() == ENode::EndTag) {
      c.at_node = false;
      Core::Frame const done = f;
      c.stack.pop_back();
      // A sequence whose one element wrote nothing has no Item at all.
      bool const empty_single = done.count_hint == 1 && done.items == 0;
      if (done.count_hint != 0 && done.items != done.count_hint && !empty_single) {
        ErrorParams params;
        params.set("countHint", done.count_hint);
        params.set("elementCount", done.items);
        c.fail(error::zoserialize_reader_sequence_element_count,
               "Count hint of sequence does not match number of elements in sequence.  "
               "CountHint={@countHint}, ElementCount={@elementCount}",
               std::move(params), c.parser->node_location(), kFunction);
      }
      return false;
    }
    if (name_of(node).id != EName::kItem) {
      c.fail(error::zoserialize_reader_xml_schema,
             "Only 'Item' element allowed as child of 'Sequence'", kFunction);
    }
    if (f.count_hint != 0 && f.items >= f.count_hint) {
      ErrorParams params;
      params.set("countHint", f.count_hint);
      c.fail(error::zoserialize_reader_sequence_element_count,
             "Expecting end of sequence but found another item.  CountHint={@countHint}",
             std::move(params), c.parser->node_location(), kFunction);
    }
    c.at_node = false;
    ++f.items;
    f.in_item = true;
    return true;
  }
}

void XmlReader::read_marker_start() {
  static constexpr char kFunction[] = "zoserialize::XmlReader::read_marker_start()";
  Core& c = *core_;
  if (c.stream) c.detach_stream();
  c.expect(EToken::MarkerStart, kFunction);
  c.take_start();
  c.stack.push_back({false});
}

bool XmlReader::read_marker_is_end() {
  static constexpr char kFunction[] = "zoserialize::XmlReader::read_marker_is_end()";
  Core& c = *core_;
  if (c.stream) c.detach_stream();
  if (c.stack.empty())
    c.fail(error::zoserialize_reader_marker_mismatch, "No markers are currently open", kFunction);
  if (c.stack.back().sequence) {
    c.fail(error::zoserialize_reader_marker_mismatch, "Top of element stack is not a marker",
           kFunction);
  }
  return c.peek(kFunction) == EToken::MarkerEnd;
}

void XmlReader::read_marker_end() {
  static constexpr char kFunction[] = "zoserialize::XmlReader::read_marker_end()";
  Core& c = *core_;
  if (c.stream) c.detach_stream();
  if (c.stack.empty())
    c.fail(error::zoserialize_reader_marker_mismatch, "No markers are currently open", kFunction);
  if (c.stack.back().sequence) {
    c.fail(error::zoserialize_reader_marker_mismatch, "Top of element stack is not a Marker",
           kFunction);
  }
  // Whatever is left inside, known or not, is skipped: a newer writer may have added it.
  while (c.peek(kFunction) != EToken::MarkerEnd)
    c.skip_subtree();
  c.at_node = false;
  c.stack.pop_back();
}

void XmlReader::read_copy(Writer& writer) {
  static constexpr char kFunction[] = "zoserialize::XmlReader::read_copy()";
  Core& c = *core_;
  if (c.stream) c.detach_stream();
  switch (c.peek(kFunction)) {
    case EToken::Eof:
      c.fail(error::zoserialize_reader_eof, "Attempt to read past end of </Serialized> element",
             kFunction);
    case EToken::SequenceSeparator:
    case EToken::SequenceEnd:
    case EToken::MarkerEnd:
      c.fail(error::zoserialize_reader_state, "Not at start of element", kFunction);
    default:
      break;
  }
  // Open scopes, innermost last: a sequence before its first element ('s') or after it ('S'), a
  // marker ('m').
  std::string open;
  for (;;) {
    if (!open.empty()) {
      char& top = open.back();
      if (top == 'm') {
        if (read_marker_is_end()) {
          read_marker_end();
          writer.write_marker_end();
          open.pop_back();
          if (open.empty()) return;
          continue;
        }
      } else {
        if (!read_sequence_next()) {
          writer.write_sequence_end();
          open.pop_back();
          if (open.empty()) return;
          continue;
        }
        if (top == 'S') writer.write_sequence_separator();
        top = 'S';
      }
    }
    EToken const token = next_token();
    switch (token) {
      case EToken::SequenceStart: {
        unsigned const hint = read_sequence_start();
        if (hint != 0) {
          writer.write_sequence_start(hint);
        } else {
          writer.write_sequence_start();
        }
        open.push_back('s');
        continue;
      }
      case EToken::MarkerStart:
        read_marker_start();
        writer.write_marker_start();
        open.push_back('m');
        continue;
      case EToken::SequenceSeparator:
      case EToken::SequenceEnd:
        // An Item that holds nothing: an element that wrote nothing.
        break;
      case EToken::Unknown:
        c.fail(error::zoserialize_reader_xml_schema, "Unknown element", kFunction);
      case EToken::SignedInteger:
      case EToken::UnsignedInteger: {
        bool const is_signed = token == EToken::SignedInteger;
        Integer const& v = c.read_integer(is_signed, kFunction);
        // The significant bytes behind one sign byte, which the writer drops again.
        unsigned char image[1 + sizeof v.storage];
        image[0] = v.sign;
        std::memcpy(image + 1, v.bytes, v.length);
        if (is_signed) {
          writer.write_int_big_endian(image, v.length + 1);
        } else {
          writer.write_uint_big_endian(image, v.length + 1);
        }
        break;
      }
      default:
        impl::copy_plain_value(*this, token, writer);
        break;
    }
    if (open.empty()) return;
  }
}

}  // namespace zoserialize
