#include <algorithm>
#include <cstdint>
#include <cstring>
#include <istream>
#include <utility>

#include <zocore/utf8.h>
#include <zoxml/impl/char_classes.h>
#include <zoxml/reader.h>
#include <zoxml/tokenizer.h>

namespace zoxml {
namespace {

constexpr char kModuleId[] = "$Id: src/zoxml/reader.cpp $";
constexpr std::size_t npos = std::string::npos;

// A value buffer that grew beyond this is released when its node is done, so that one huge
// value does not pin its memory for the rest of the document.
constexpr std::size_t kKeptValueCapacity = 1 << 20;

// Byte-wise equality of a word with a repeated byte: 0x80 in each byte that matches.
constexpr std::uint64_t kLow7 = 0x7F7F7F7F7F7F7F7Full;
inline std::uint64_t bytes_equal(std::uint64_t word, std::uint64_t repeated) noexcept {
  std::uint64_t const x = word ^ repeated;
  return ~(((x & kLow7) + kLow7) | x) & ~kLow7;
}

// True when the text holds only space, tab, line feed and carriage return; the layout between
// elements is such text, so it is tested eight bytes at a time.
bool is_white_space(std::string_view text) noexcept {
  constexpr std::uint64_t kOnes = 0x0101010101010101ull;
  std::size_t i = 0;
  for (; i + 8 <= text.size(); i += 8) {
    std::uint64_t word;
    std::memcpy(&word, text.data() + i, 8);
    std::uint64_t const space = bytes_equal(word, kOnes * ' ') | bytes_equal(word, kOnes * '\n') |
                                bytes_equal(word, kOnes * '\t') | bytes_equal(word, kOnes * '\r');
    if (space != ~kLow7) return false;
  }
  for (; i < text.size(); ++i) {
    if (!impl::has_class(text[i], impl::kSpace)) return false;
  }
  return true;
}

bool equals_ignoring_case(std::string_view a, std::string_view b) noexcept {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    char x = a[i];
    char y = b[i];
    if (x >= 'a' && x <= 'z') x = static_cast<char>(x - 'a' + 'A');
    if (y >= 'a' && y <= 'z') y = static_cast<char>(y - 'a' + 'A');
    if (x != y) return false;
  }
  return true;
}

}  // namespace

// ---- Records ---------------------------------------------------------------------------------

std::string_view XmlReader::Element::local_name() const noexcept {
  return colon_ == npos ? std::string_view(qname_) : std::string_view(qname_).substr(colon_ + 1);
}

std::string_view XmlReader::Element::prefix() const noexcept {
  return colon_ == npos ? std::string_view() : std::string_view(qname_).substr(0, colon_);
}

std::string_view XmlReader::Attribute::local_name() const noexcept {
  return colon_ == npos ? std::string_view(qname_) : std::string_view(qname_).substr(colon_ + 1);
}

std::string_view XmlReader::Attribute::prefix() const noexcept {
  return colon_ == npos ? std::string_view() : std::string_view(qname_).substr(0, colon_);
}

XmlReader::Attribute const* XmlReader::Node::find_attribute(
    std::string_view local_name, std::string_view namespace_uri) const noexcept {
  for (Attribute const& a : attributes_) {
    if (a.local_name() == local_name && a.namespace_uri() == namespace_uri) return &a;
  }
  return nullptr;
}

// ---- Value stream ----------------------------------------------------------------------------

class XmlReader::ValueStream final : public zocore::IReadStream {
 public:
  explicit ValueStream(XmlReader& reader) noexcept : reader_(reader) {}
  unsigned read(void* buffer, unsigned size) override { return reader_.read_value(buffer, size); }
  unsigned skip(unsigned size) override { return reader_.read_value(nullptr, size); }
  unsigned bytes_remaining() const override { return kUnknownSize; }

 private:
  XmlReader& reader_;
};

// ---- Construction ----------------------------------------------------------------------------

XmlReader::XmlReader(std::istream& in, std::string_view uri, std::size_t block_size)
    : XmlReader(std::make_unique<impl::IStreamSource>(in), uri, block_size) {}

XmlReader::XmlReader(zocore::IReadStream& in, std::string_view uri, std::size_t block_size)
    : XmlReader(std::make_unique<impl::ReadStreamSource>(in), uri, block_size) {}

XmlReader::XmlReader(std::unique_ptr<impl::InputSource> source, std::string_view uri,
                     std::size_t block_size)
    : uri_(uri),
      source_(std::move(source)),
      tok_(std::make_unique<impl::Tokenizer>(*source_, uri_, block_size, kMaxValueSize)),
      value_stream_(std::make_unique<ValueStream>(*this)) {
  bindings_.push_back({"xml", std::string(kXmlNamespace)});
  bindings_.push_back({"xmlns", std::string(kXmlnsNamespace)});
  binding_count_ = 2;
}

XmlReader::~XmlReader() = default;

zocore::IReadStream& XmlReader::value_stream() noexcept {
  return *value_stream_;
}

Location XmlReader::location() const noexcept {
  return tok_->location();
}

// ---- Errors ----------------------------------------------------------------------------------

void XmlReader::fail(zocore::ErrorCode const& code, char const* message, char const* function,
                     zocore::ErrorParams params, Location const& at, unsigned line) const {
  throw_located(code, message, std::move(params), at, uri_, function, kModuleId, line);
}

void XmlReader::throw_string_size_error() const {
  zocore::ErrorParams params;
  params.set("maxSize", static_cast<unsigned long long>(max_value_));
  fail(error::zoxml_reader_unexpected_size, "Node value exceeds {@maxSize}bytes of character data",
       "zoxml::XmlReader::throw_string_size_error()", std::move(params), tok_->token_location());
}

void XmlReader::throw_unexpected_token(EToken token, char const* function,
                                       Location const& at) const {
  zocore::ErrorParams params;
  params.set("token", token_name(token));
  fail(error::zoxml_reader_unexpected_token, "Unexpected tokenizer token: {@token}", function,
       std::move(params), at);
}

void XmlReader::throw_name_error(char const* message, char const* parameter, std::string_view name,
                                 char const* function, Location const& at) const {
  zocore::ErrorParams params;
  params.set(parameter, name);
  fail(error::zoxml_reader, message, function, std::move(params), at);
}

// ---- State machine ---------------------------------------------------------------------------

bool XmlReader::read_next() {
  static constexpr char kFunction[] = "zoxml::XmlReader::read_next()";
  try {
    switch (state_) {
      case EState::kContent:
        return state_content();
      case EState::kStart:
        return state_start();
      case EState::kEnd:
        fail(error::zoxml_reader, "Read past end", kFunction, {}, location());
      case EState::kError:
        fail(error::zoxml_reader, "Cannot continue after error", kFunction, {}, location());
    }
    fail(error::zoxml_reader, "Invalid parser state", kFunction, {}, location());
  } catch (...) {
    state_ = EState::kError;
    throw;
  }
}

EToken XmlReader::next_token() {
  if (have_token_) {
    have_token_ = false;
    return token_;
  }
  return tok_->next();
}

void XmlReader::expect_next(EToken kind, char const* function) {
  EToken const token = tok_->next();
  if (token != kind) throw_unexpected_token(token, function, tok_->token_location());
}

bool XmlReader::state_start() {
  static constexpr char kFunction[] = "zoxml::XmlReader::state_start()";
  for (;;) {
    EToken const token = tok_->next();
    Location const& at = tok_->token_location();
    switch (token) {
      case EToken::DocumentStart:
        continue;
      case EToken::XmldeclStart:
        if (seen_token_) {
          fail(error::zoxml_reader, "XML declaration only allowed at start of document", kFunction,
               {}, at);
        }
        seen_token_ = seen_markup_ = true;
        read_xmldecl();
        continue;
      case EToken::CharData: {
        // Before the root element only space, line feed and tab are skipped; in particular a
        // carriage return is content here.
        std::string_view const text = tok_->text();
        std::size_t const bad = text.find_first_not_of(" \n\t");
        if (bad != npos) {
          fail(error::zoxml_reader,
               seen_markup_ ? "Unexpected non-whitespace content encountered"
                            : "Unexpected non-whitespace content in start of document (only UTF-8 "
                              "BOM allowed)",
               kFunction, {}, tok_->text_location(bad));
        }
        seen_token_ = true;
        continue;
      }
      case EToken::CommentStart:
        seen_token_ = seen_markup_ = true;
        expect_next(EToken::CommentEnd, kFunction);
        continue;
      case EToken::PIStart:
        seen_token_ = seen_markup_ = true;
        expect_next(EToken::PIEnd, kFunction);
        continue;
      case EToken::DoctypeStart:
        if (seen_doctype_) throw_unexpected_token(token, kFunction, at);
        seen_token_ = seen_markup_ = seen_doctype_ = true;
        expect_next(EToken::DoctypeEnd, kFunction);
        continue;
      case EToken::CharRef:
        fail(error::zoxml_reader, "Unexpected character reference", kFunction, {}, at);
      case EToken::EntityRef:
        fail(error::zoxml_reader, "Unexpected entity reference", kFunction, {}, at);
      case EToken::CDATAStart:
        fail(error::zoxml_reader, "Unexpected CDATA section", kFunction, {}, at);
      case EToken::EndTag:
        throw_name_error("Unexpected end tag: </{@elementName}>", "elementName", tok_->text(),
                         kFunction, at);
      case EToken::StartTagStart:
        state_ = EState::kContent;
        read_starttag();
        return true;
      case EToken::DocumentEnd:
        fail(error::zoxml_reader, "Unexpected end of document; no root element", kFunction, {}, at);
      default:
        throw_unexpected_token(token, kFunction, at);
    }
  }
}

bool XmlReader::state_content() {
  static constexpr char kFunction[] = "zoxml::XmlReader::state_content()";
  // Finish the node handed out last.
  switch (node_.kind_) {
    case EToken::StartTagStart:
      if (node_.empty_) {
        node_.kind_ = EToken::EndTag;
        node_.empty_ = false;
        node_.attributes_ = {};
        return true;
      }
      break;
    case EToken::EndTag:
      pop_element();
      break;
    case EToken::CharData:
      if (text_open_) skip_value();
      if (value_.capacity() > kKeptValueCapacity) std::string().swap(value_);
      break;
    default:
      break;
  }
  for (;;) {
    EToken const token = next_token();
    switch (token) {
      case EToken::StartTagStart:
        if (depth_ == 0) {
          fail(error::zoxml_reader,
               "Unexpected non-whitespace content encountered outside scope of elements", kFunction,
               {}, tok_->token_location());
        }
        read_starttag();
        return true;
      case EToken::EndTag:
        read_endtag();
        return true;
      case EToken::CharData:
      case EToken::CDATAStart:
      case EToken::CharRef:
      case EToken::EntityRef:
        if (depth_ == 0) {
          epilog_text(token);
          continue;
        }
        token_ = token;
        have_token_ = true;
        begin_text();
        return true;
      case EToken::CommentStart:
        expect_next(EToken::CommentEnd, kFunction);
        continue;
      case EToken::PIStart:
        expect_next(EToken::PIEnd, kFunction);
        continue;
      case EToken::DocumentEnd:
        if (depth_ != 0) {
          throw_name_error(
              "Unexpected end of document; expecting closing tag for element '{@elementName}'",
              "elementName", elements_[depth_ - 1].qname_, kFunction, tok_->token_location());
        }
        state_ = EState::kEnd;
        node_ = Node();
        node_.kind_ = EToken::DocumentEnd;
        node_at_ = tok_->token_location();
        return false;
      case EToken::XmldeclStart:
        fail(error::zoxml_reader, "XML declaration only allowed at start of document", kFunction,
             {}, tok_->token_location());
      case EToken::DoctypeStart:
        if (depth_ == 0) {
          fail(error::zoxml_reader, "Unexpected DOCTYPE declaration outside scope of elements",
               kFunction, {}, tok_->token_location());
        }
        throw_unexpected_token(token, kFunction, tok_->token_location());
      default:
        throw_unexpected_token(token, kFunction, tok_->token_location());
    }
  }
}

// After the root element: white space, comments and processing instructions only.
void XmlReader::epilog_text(EToken token) {
  static constexpr char kFunction[] = "zoxml::XmlReader::state_content()";
  Location const& at = tok_->token_location();
  switch (token) {
    case EToken::CharData: {
      std::string_view const text = tok_->text();
      for (std::size_t i = 0; i < text.size(); ++i) {
        if (!impl::has_class(text[i], impl::kSpace)) {
          fail(error::zoxml_reader,
               "Unexpected non-whitespace content encountered outside scope of elements", kFunction,
               {}, tok_->text_location(i));
        }
      }
      return;
    }
    case EToken::CharRef:
      fail(error::zoxml_reader, "Unexpected character reference outside scope of elements",
           kFunction, {}, at);
    case EToken::EntityRef:
      fail(error::zoxml_reader, "Unexpected entity reference outside scope of elements", kFunction,
           {}, at);
    default:
      fail(error::zoxml_reader, "Unexpected CDATA section outside scope of an element ", kFunction,
           {}, at);
  }
}

// ---- XML declaration -------------------------------------------------------------------------

void XmlReader::read_xmldecl() {
  static constexpr char kFunction[] = "zoxml::XmlReader::read_xmldecl()";
  static constexpr char kNoVersion[] = "XML declaration must have version information";
  Location const decl_at = tok_->token_location();
  // 0: version expected; 1: encoding or standalone may follow; 2: standalone; 3: nothing.
  int stage = 0;
  for (;;) {
    EToken const token = tok_->next();
    if (token == EToken::XmldeclEnd) {
      if (stage == 0) fail(error::zoxml_reader, kNoVersion, kFunction, {}, decl_at);
      return;
    }
    if (token != EToken::AttributeStart) {
      throw_unexpected_token(token, kFunction, tok_->token_location());
    }
    Location const at = tok_->token_location();
    std::string_view const name = tok_->text();
    int const which = name == "version" ? 1 : name == "encoding" ? 2 : name == "standalone" ? 3 : 4;
    decl_name_.assign(name);
    decl_value_.clear();
    for (;;) {
      EToken const piece = tok_->next();
      if (piece == EToken::AttributeEnd) break;
      if (piece != EToken::CharData) {
        throw_unexpected_token(piece, kFunction, tok_->token_location());
      }
      append_value(decl_value_, tok_->text());
    }
    if (stage == 0 && which != 1) fail(error::zoxml_reader, kNoVersion, kFunction, {}, at);
    if (which == 4 || which <= stage) {
      throw_name_error("Unexpected attribute '{@attributeName}' in XML declaration",
                       "attributeName", decl_name_, kFunction, at);
    }
    stage = which;
    if (which == 1 && decl_value_ != "1.0") {
      fail(error::zoxml_reader, "Invalid version, expecting \"1.0\"", kFunction, {}, at);
    }
    if (which == 2 && !equals_ignoring_case(decl_value_, kEncoding)) {
      zocore::ErrorParams params;
      params.set("expected", kEncoding);
      params.set("found", decl_value_);
      fail(error::zoxml_reader, "Mismatched encodings. Expected: {@expected} Found: {@found}",
           kFunction, std::move(params), at);
    }
    if (which == 3 && decl_value_ != "yes" && decl_value_ != "no") {
      throw_name_error(
          "Invalid value of 'standalone' in XML declaration: \"{@attributeValue}\" expecting "
          "'yes' or 'no'",
          "attributeValue", decl_value_, kFunction, at);
    }
  }
}

// ---- Elements --------------------------------------------------------------------------------

void XmlReader::read_starttag() {
  static constexpr char kFunction[] = "zoxml::XmlReader::read_starttag()";
  node_at_ = tok_->token_location();
  std::string_view const name = tok_->text();
  std::size_t const colon = tok_->name_colon();
  // The prefix "xmlns" is reserved for namespace declarations.
  if (!tok_->qname_ok() || (colon == 5 && name.starts_with("xmlns"))) [[unlikely]] {
    throw_name_error("Invalid element name: '{@elementName}'", "elementName", name, kFunction,
                     node_at_);
  }
  if (depth_ == elements_.size()) elements_.emplace_back();
  Element& element = elements_[depth_];
  // Documents repeat their element names level by level; a slot that holds the name already
  // is not written again.
  if (element.qname_.size() != name.size() ||
      std::char_traits<char>::compare(element.qname_.data(), name.data(), name.size()) != 0) {
    element.qname_.assign(name);
  }
  element.colon_ = colon;
  element.bindings_begin_ = binding_count_;
  if (depth_ != 0) {
    Element const& parent = elements_[depth_ - 1];
    element.default_namespace_ = parent.default_namespace_;
    element.preserve_space_ = parent.preserve_space_;
  } else {
    element.default_namespace_ = {};
    element.preserve_space_ = false;
    tok_->set_normalize_line_ends(true);
  }
  ++depth_;
  read_attributes(element);
  resolve_namespaces(element);
  node_.kind_ = EToken::StartTagStart;
  node_.element_ = &element;
  node_.attributes_ = {attributes_.data(), attribute_count_};
  node_.value_ = {};
  node_.whitespace_ = false;
  node_.preserve_space_ = element.preserve_space_;
}

void XmlReader::read_attributes(Element& element) {
  static constexpr char kFunction[] = "zoxml::XmlReader::read_attributes()";
  attribute_count_ = 0;
  for (;;) {
    EToken const token = tok_->next();
    if (token == EToken::StartTagEnd || token == EToken::StartTagEndEmpty) {
      node_.empty_ = token == EToken::StartTagEndEmpty;
      if (attribute_count_ > kLinearDuplicateCheck) check_duplicates();
      return;
    }
    if (token != EToken::AttributeStart) [[unlikely]] {
      throw_unexpected_token(token, kFunction, tok_->token_location());
    }
    Location const at = tok_->token_location();
    std::string_view const name = tok_->text();
    if (!tok_->qname_ok()) [[unlikely]] {
      throw_name_error("Invalid attribute name: '{@attributeName}'", "attributeName", name,
                       kFunction, at);
    }
    if (attribute_count_ < kLinearDuplicateCheck) {
      for (std::size_t i = 0; i < attribute_count_; ++i) {
        if (attributes_[i].qname_ == name) [[unlikely]] {
          throw_name_error("Duplicate attribute name: '{@attributeName}'", "attributeName", name,
                           kFunction, at);
        }
      }
    }
    if (attribute_count_ == attributes_.size()) attributes_.emplace_back();
    Attribute& attribute = attributes_[attribute_count_++];
    attribute.qname_.assign(name);
    attribute.colon_ = tok_->name_colon();
    read_attribute_value(attribute.value_);
    std::string_view const qname = attribute.qname_;
    if (qname.starts_with("xmlns") && (qname.size() == 5 || attribute.colon_ == 5)) {
      declare_namespace(element, attribute, at);
    } else if (qname == "xml:space") {
      if (attribute.value_ == "preserve") {
        element.preserve_space_ = true;
      } else if (attribute.value_ == "default") {
        element.preserve_space_ = false;
      } else {
        throw_name_error(
            "Unexpected value of 'xml:space' attribute: \"{@attributeValue}\" expecting "
            "'preserve' or 'default'",
            "attributeValue", attribute.value_, kFunction, at);
      }
    }
  }
}

void XmlReader::read_attribute_value(std::string& value) {
  value.clear();
  for (;;) {
    EToken const token = tok_->next();
    switch (token) {
      case EToken::CharData:
        append_value(value, tok_->text());
        continue;
      case EToken::AttributeEnd:
        return;
      case EToken::CharRef:
        append_value(value, eval_char_ref());
        continue;
      case EToken::EntityRef: {
        std::string_view const text = resolve_entity_ref();
        if (text.data() == replacement_.data()) {
          // Replacement text is normalised like the literal text of the value.
          for (char& c : replacement_) {
            if (c == '\t' || c == '\n' || c == '\r') c = ' ';
          }
        }
        append_value(value, text);
        continue;
      }
      default:
        throw_unexpected_token(token, "zoxml::XmlReader::read_attributes()",
                               tok_->token_location());
    }
  }
}

// The rules of Namespaces in XML 1.0 (with its errata): "xml" is bound to its own namespace
// only and may be declared only so; "xmlns" is never declared; neither namespace name is bound
// to another prefix or made the default; a prefix is not undeclared (xmlns:p="").
void XmlReader::declare_namespace(Element& element, Attribute const& attribute,
                                  Location const& at) {
  std::string_view const uri = attribute.value_;
  std::string_view const prefix =
      attribute.colon_ == npos ? std::string_view() : attribute.local_name();
  bool const reserved_uri = uri == kXmlNamespace || uri == kXmlnsNamespace;
  bool ok;
  if (prefix.empty()) {
    ok = !reserved_uri;
  } else if (prefix == "xml") {
    ok = uri == kXmlNamespace;
  } else {
    ok = prefix != "xmlns" && !uri.empty() && !reserved_uri;
  }
  if (!ok) [[unlikely]] {
    zocore::ErrorParams params;
    params.set("attributeName", attribute.qname_);
    params.set("namespaceUri", uri);
    fail(error::zoxml_reader,
         "Invalid namespace declaration: '{@attributeName}' cannot bind <{@namespaceUri}>",
         "zoxml::XmlReader::read_attributes()", std::move(params), at);
  }
  if (prefix == "xml") return;  // bound from the start
  if (binding_count_ == bindings_.size()) bindings_.emplace_back();
  Binding& binding = bindings_[binding_count_++];
  binding.prefix.assign(prefix);
  binding.uri.assign(uri);
  if (prefix.empty()) element.default_namespace_ = binding.uri;
}

XmlReader::Binding const* XmlReader::lookup_prefix(std::string_view prefix) const noexcept {
  for (std::size_t i = binding_count_; i-- > 0;) {
    if (bindings_[i].prefix == prefix) return &bindings_[i];
  }
  return nullptr;
}

void XmlReader::resolve_namespaces(Element& element) {
  static constexpr char kFunction[] = "zoxml::XmlReader::read_starttag()";
  if (element.colon_ == npos) {
    element.namespace_uri_ = element.default_namespace_;
  } else {
    Binding const* binding = lookup_prefix(element.prefix());
    if (!binding) [[unlikely]] {
      zocore::ErrorParams params;
      params.set("namespacePrefix", element.prefix());
      params.set("elementName", element.qname_);
      fail(error::zoxml_reader,
           "Undeclared namespace '{@namespacePrefix}' referenced by element '{@elementName}'",
           kFunction, std::move(params), node_at_);
    }
    element.namespace_uri_ = binding->uri;
  }
  std::size_t prefixed = 0;
  for (std::size_t i = 0; i < attribute_count_; ++i) {
    Attribute& attribute = attributes_[i];
    if (attribute.colon_ == npos) {
      // Unprefixed attributes are in no namespace; the default declaration itself is put in
      // the xmlns namespace, like the prefixed ones.
      attribute.namespace_uri_ = attribute.qname_ == "xmlns" ? kXmlnsNamespace : std::string_view();
      continue;
    }
    std::string_view const prefix = attribute.prefix();
    if (prefix == "xmlns") {
      attribute.namespace_uri_ = kXmlnsNamespace;
      continue;
    }
    Binding const* binding = lookup_prefix(prefix);
    if (!binding) [[unlikely]] {
      zocore::ErrorParams params;
      params.set("namespacePrefix", prefix);
      params.set("attributeName", attribute.qname_);
      fail(error::zoxml_reader,
           "Undeclared namespace '{@namespacePrefix}' referenced by attribute '{@attributeName}'",
           kFunction, std::move(params), node_at_);
    }
    attribute.namespace_uri_ = binding->uri;
    ++prefixed;
  }
  // Two prefixed attributes may name the same attribute through two prefixes of one namespace.
  if (prefixed < 2) return;
  order_.clear();
  for (std::size_t i = 0; i < attribute_count_; ++i) {
    Attribute const& a = attributes_[i];
    if (a.colon_ != npos && a.namespace_uri_ != kXmlnsNamespace) order_.push_back(i);
  }
  auto const key = [this](std::size_t i) {
    return std::pair(attributes_[i].namespace_uri_, attributes_[i].local_name());
  };
  std::sort(order_.begin(), order_.end(), [&](std::size_t a, std::size_t b) {
    return key(a) < key(b) || (key(a) == key(b) && a < b);
  });
  for (std::size_t k = 1; k < order_.size(); ++k) {
    if (key(order_[k - 1]) == key(order_[k])) [[unlikely]] {
      throw_name_error("Duplicate attribute name: '{@attributeName}'", "attributeName",
                       attributes_[order_[k]].qname_, kFunction, node_at_);
    }
  }
}

// Long attribute lists are checked for repeated names once complete, by sorting, so that a
// hostile tag cannot make the check quadratic.
void XmlReader::check_duplicates() {
  order_.resize(attribute_count_);
  for (std::size_t i = 0; i < attribute_count_; ++i)
    order_[i] = i;
  std::sort(order_.begin(), order_.end(), [this](std::size_t a, std::size_t b) {
    int const c = attributes_[a].qname_.compare(attributes_[b].qname_);
    return c < 0 || (c == 0 && a < b);
  });
  for (std::size_t k = 1; k < order_.size(); ++k) {
    if (attributes_[order_[k - 1]].qname_ == attributes_[order_[k]].qname_) {
      throw_name_error("Duplicate attribute name: '{@attributeName}'", "attributeName",
                       attributes_[order_[k]].qname_, "zoxml::XmlReader::read_attributes()",
                       node_at_);
    }
  }
}

void XmlReader::read_endtag() {
  static constexpr char kFunction[] = "zoxml::XmlReader::read_endtag()";
  Location const& at = tok_->token_location();
  std::string_view const name = tok_->text();
  if (depth_ == 0) {
    throw_name_error("Unexpected end tag: </{@elementName}>", "elementName", name, kFunction, at);
  }
  Element const& element = elements_[depth_ - 1];
  if (name != element.qname_) [[unlikely]] {
    zocore::ErrorParams params;
    params.set("expectedName", element.qname_);
    params.set("foundName", name);
    fail(error::zoxml_reader,
         "End element name mismatch: Expecting='{@expectedName}', Found='{@foundName}'", kFunction,
         std::move(params), at);
  }
  node_at_ = at;
  node_.kind_ = EToken::EndTag;
  node_.element_ = &element;
  node_.attributes_ = {};
  node_.empty_ = false;
}

void XmlReader::pop_element() {
  Element const& element = elements_[--depth_];
  binding_count_ = element.bindings_begin_;
}

// ---- Character data --------------------------------------------------------------------------

// Starts a CharData node at the text token in token_. White space is read into the buffer
// until either the text ends (a white-space node, complete) or something else comes, which
// stays pending for whichever way the caller reads the value.
void XmlReader::begin_text() {
  node_at_ = tok_->token_location();
  node_.kind_ = EToken::CharData;
  node_.element_ = nullptr;
  node_.attributes_ = {};
  node_.empty_ = false;
  node_.value_ = {};
  node_.preserve_space_ = elements_[depth_ - 1].preserve_space_;
  value_.clear();
  pending_ = {};
  stream_offset_ = 0;
  in_cdata_ = false;
  text_has_markup_ = false;
  text_open_ = true;
  std::string_view piece;
  while (next_piece(piece)) {
    if (piece_plain_ && is_white_space(piece)) {
      if (value_.empty() && tok_->text_ends_at_tag() && piece.size() <= max_value_) {
        // The whole value in one piece: handed out from the tokenizer's buffer.
        node_.value_ = piece;
        text_open_ = false;
        break;
      }
      append_value(value_, piece);
      node_.value_ = value_;
      continue;
    }
    pending_ = piece;
    node_.whitespace_ = false;
    value_state_ = EValue::kPending;
    return;
  }
  node_.whitespace_ = !text_has_markup_;
  value_state_ = EValue::kComplete;
}

// The next piece of the current text; false at its end, with the token that ended it kept.
bool XmlReader::next_piece(std::string_view& piece) {
  static constexpr char kFunction[] = "zoxml::XmlReader::next_piece()";
  for (;;) {
    EToken const token = next_token();
    switch (token) {
      case EToken::CharData:
        piece = tok_->text();
        piece_plain_ = !in_cdata_;
        return true;
      case EToken::CDATAStart:
        in_cdata_ = true;
        text_has_markup_ = true;
        continue;
      case EToken::CDATAEnd:
        in_cdata_ = false;
        continue;
      case EToken::CharRef:
        piece = eval_char_ref();
        piece_plain_ = false;
        text_has_markup_ = true;
        return true;
      case EToken::EntityRef:
        piece = resolve_entity_ref();
        piece_plain_ = false;
        text_has_markup_ = true;
        if (piece.empty()) continue;
        return true;
      case EToken::CommentStart:
        expect_next(EToken::CommentEnd, kFunction);
        continue;
      case EToken::PIStart:
        expect_next(EToken::PIEnd, kFunction);
        continue;
      default:
        token_ = token;
        have_token_ = true;
        text_open_ = false;
        return false;
    }
  }
}

void XmlReader::append_value(std::string& value, std::string_view piece) {
  if (piece.size() > max_value_ - value.size()) [[unlikely]]
    throw_string_size_error();
  std::size_t const needed = value.size() + piece.size();
  if (needed > value.capacity()) [[unlikely]] {
    value.reserve(std::min(std::max(needed, value.capacity() * 2), max_value_));
  }
  value.append(piece);
}

std::size_t XmlReader::transfer_value(char* out, std::size_t size) {
  std::size_t done = 0;
  std::string_view const held = node_.value_;
  if (stream_offset_ < held.size()) {
    done = std::min(size, held.size() - stream_offset_);
    if (out) std::memcpy(out, held.data() + stream_offset_, done);
    stream_offset_ += done;
  }
  while (done < size) {
    if (pending_.empty()) {
      if (!text_open_ || !next_piece(pending_)) break;
      continue;
    }
    std::size_t const n = std::min(size - done, pending_.size());
    if (out) std::memcpy(out + done, pending_.data(), n);
    pending_.remove_prefix(n);
    done += n;
  }
  return done;
}

void XmlReader::skip_value() {
  pending_ = {};
  std::string_view piece;
  while (text_open_ && next_piece(piece)) {
  }
}

std::string_view XmlReader::read_value_into_buffer() {
  static constexpr char kFunction[] = "zoxml::XmlReader::read_value_into_buffer()";
  try {
    if (state_ == EState::kError) {
      fail(error::zoxml_reader, "Value cannot be read after a parse error", kFunction, {},
           location());
    }
    if (node_.kind_ != EToken::CharData) return {};
    switch (value_state_) {
      case EValue::kPending: {
        value_state_ = EValue::kBuffered;
        if (value_.empty() && tok_->text_ends_at_tag() && pending_.size() <= max_value_) {
          // The whole value in one piece: handed out from the tokenizer's buffer.
          node_.value_ = pending_;
          pending_ = {};
          text_open_ = false;
          return node_.value_;
        }
        append_value(value_, pending_);
        pending_ = {};
        std::string_view piece;
        while (next_piece(piece))
          append_value(value_, piece);
        node_.value_ = value_;
        return node_.value_;
      }
      case EValue::kComplete:
        value_state_ = EValue::kBuffered;
        return node_.value_;
      case EValue::kBuffered:
        return node_.value_;
      case EValue::kStreamed:
        fail(error::zoxml_reader,
             "Value has already been read through stream, cannot create value buffer", kFunction,
             {}, node_at_);
      case EValue::kDiscarded:
        break;
    }
    fail(error::zoxml_reader, "Value has already been read, cannot create value buffer", kFunction,
         {}, node_at_);
  } catch (...) {
    state_ = EState::kError;
    throw;
  }
}

unsigned XmlReader::read_value(void* buffer, unsigned size) {
  static constexpr char kFunction[] = "zoxml::XmlReader::read_value()";
  try {
    if (state_ == EState::kError) {
      fail(error::zoxml_reader, "Value cannot be read after a parse error", kFunction, {},
           location());
    }
    if (node_.kind_ != EToken::CharData) return 0;
    if (value_state_ == EValue::kBuffered) {
      fail(error::zoxml_reader,
           "Value has already been read into a buffer, cannot read it through stream", kFunction,
           {}, node_at_);
    }
    if (value_state_ == EValue::kDiscarded) {
      fail(error::zoxml_reader, "Value has been discarded, cannot read it through stream",
           kFunction, {}, node_at_);
    }
    value_state_ = EValue::kStreamed;
    return static_cast<unsigned>(transfer_value(static_cast<char*>(buffer), size));
  } catch (...) {
    state_ = EState::kError;
    throw;
  }
}

void XmlReader::discard_chardata() {
  try {
    if (state_ == EState::kError) {
      fail(error::zoxml_reader, "Value cannot be read after a parse error",
           "zoxml::XmlReader::discard_chardata()", {}, location());
    }
    if (node_.kind_ != EToken::CharData) return;
    if (text_open_) skip_value();
    node_.value_ = {};
    value_state_ = EValue::kDiscarded;
  } catch (...) {
    state_ = EState::kError;
    throw;
  }
}

// ---- References ------------------------------------------------------------------------------

std::string_view XmlReader::eval_char_ref() {
  std::string_view const body = tok_->text();
  bool const hex = !body.empty() && body[0] == 'x';
  std::uint32_t const base = hex ? 16 : 10;
  std::uint32_t code_point = 0;
  bool ok = body.size() > (hex ? 1u : 0u);
  for (std::size_t i = hex ? 1 : 0; ok && i < body.size(); ++i) {
    char const c = body[i];
    std::uint32_t digit;
    if (c >= '0' && c <= '9') {
      digit = static_cast<std::uint32_t>(c - '0');
    } else if (hex && c >= 'a' && c <= 'f') {
      digit = static_cast<std::uint32_t>(c - 'a' + 10);
    } else if (hex && c >= 'A' && c <= 'F') {
      digit = static_cast<std::uint32_t>(c - 'A' + 10);
    } else {
      ok = false;
      break;
    }
    code_point = code_point * base + digit;
    if (code_point > 0x10FFFF) ok = false;
  }
  unsigned const length =
      ok && code_point != 0 ? zocore::ucs4_char_to_utf8(code_point, char_ref_, char_ref_ + 4) : 0;
  if (length == 0) [[unlikely]] {
    // The parameter's name differs from the placeholder's on purpose; callers match on it.
    zocore::ErrorParams params;
    params.set("charReferece", body);
    fail(error::zoxml_reader, "Invalid character reference: '{@charReference}'",
         "zoxml::XmlReader::eval_char_ref()", std::move(params), tok_->token_location());
  }
  return {char_ref_, length};
}

std::string_view XmlReader::resolve_entity_ref() {
  static constexpr char kFunction[] = "zoxml::XmlReader::resolve_entity_ref()";
  std::string_view const name = tok_->text();
  if (name == "lt") return "<";
  if (name == "gt") return ">";
  if (name == "amp") return "&";
  if (name == "quot") return "\"";
  if (name == "apos") return "'";
  if (!resolver_) {
    throw_name_error(
        "Unable to resolve entity reference '{@entityReference}'; no entity resolver specified",
        "entityReference", name, kFunction, tok_->token_location());
  }
  replacement_.clear();
  if (!resolver_(name, replacement_)) {
    throw_name_error("Unable to resolve entity reference '{@entityReference}'", "entityReference",
                     name, kFunction, tok_->token_location());
  }
  if (!zocore::is_valid_utf8(replacement_.data(), replacement_.size())) {
    throw_name_error("Replacement text of entity reference '{@entityReference}' is not UTF-8",
                     "entityReference", name, kFunction, tok_->token_location());
  }
  return replacement_;
}

// ---- Expectations ----------------------------------------------------------------------------

void XmlReader::expect_token(EToken kind) {
  try {
    if (node_.kind_ != kind) {
      throw_unexpected_token(node_.kind_, "zoxml::XmlReader::expect_token()", node_at_);
    }
  } catch (...) {
    state_ = EState::kError;
    throw;
  }
}

void XmlReader::expect_element(std::string_view local_name, std::string_view namespace_uri) {
  static constexpr char kFunction[] = "zoxml::XmlReader::expect_element()";
  try {
    if (node_.kind_ != EToken::StartTagStart) {
      throw_unexpected_token(node_.kind_, kFunction, node_at_);
    }
    if (node_.local_name() != local_name || node_.namespace_uri() != namespace_uri) {
      zocore::ErrorParams params;
      params.set("name", node_.local_name());
      params.set("namespace", node_.namespace_uri());
      params.set("expectedLocalName", local_name);
      params.set("expectedNamespace", namespace_uri);
      fail(error::zoxml_reader_unexpected_element,
           "Unexpected element: Name='{@name}', Namespace=<{@namespace}>.  "
           "ExpectedLocalName='{@expectedLocalName}', ExpectedNamespace=<{@expectedNamespace}>",
           kFunction, std::move(params), node_at_);
    }
  } catch (...) {
    state_ = EState::kError;
    throw;
  }
}

void XmlReader::throw_unexpected_element() {
  state_ = EState::kError;
  zocore::ErrorParams params;
  params.set("name", node_.local_name());
  params.set("namespace", node_.namespace_uri());
  fail(error::zoxml_reader_unexpected_element,
       "Unexpected element: Name='{@name}', Namespace=<{@namespace}>",
       "zoxml::XmlReader::throw_unexpected_element()", std::move(params), node_at_);
}

}  // namespace zoxml
