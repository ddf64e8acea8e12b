#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <istream>

#include <zocore/error_exception.h>
#include <zocore/error_info.h>
#include <zoxml/impl/char_classes.h>
#include <zoxml/tokenizer.h>

namespace zoxml::impl {
namespace {

constexpr char kModuleId[] = "$Id: src/zoxml/tokenizer.cpp $";

constexpr char kEndOfDocument[] = "Unexpected end of document inside {@construct}";

bool equals_ignoring_case(std::string_view a, std::string_view b) noexcept {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    char x = a[i];
    char y = b[i];
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

}  // namespace

// ---- Input sources ---------------------------------------------------------------------------

std::size_t IStreamSource::read(char* buffer, std::size_t size) {
  if (ended_) return 0;
  if (in_.eof()) {
    ended_ = true;
    return 0;
  }
  if (!in_.good()) throw std::ios_base::failure("the input stream is in a failed state");
  try {
    in_.read(buffer, static_cast<std::streamsize>(size));
  } catch (std::ios_base::failure const&) {
    // A stream that throws on failbit does so at its end as well; only a bad stream failed.
    if (in_.bad() || !in_.eof()) throw;
  }
  if (in_.bad()) throw std::ios_base::failure("reading the input stream failed");
  auto const got = static_cast<std::size_t>(in_.gcount());
  if (got < size) ended_ = true;
  return std::min(got, size);
}

std::size_t ReadStreamSource::read(char* buffer, std::size_t size) {
  if (ended_) return 0;
  auto const ask = static_cast<unsigned>(std::min<std::size_t>(size, 0x40000000u));
  unsigned const got = in_.read(buffer, ask);
  if (got < ask) ended_ = true;
  return std::min(got, ask);
}

// ---- Tokenizer -------------------------------------------------------------------------------

Tokenizer::Tokenizer(InputSource& source, std::string_view uri, std::size_t block_size,
                     std::size_t max_token)
    : source_(source),
      uri_(uri),
      block_size_(std::max<std::size_t>(block_size, 1)),
      max_token_(max_token),
      capacity_(block_size_ + std::min<std::size_t>(block_size_, 4096) + 16) {
  buf_ = std::make_unique<char[]>(capacity_ + 1);
  cur_ = end_ = keep_ = buf_.get();
  *end_ = 0;
}

Tokenizer::~Tokenizer() = default;

bool Tokenizer::refill() {
  if (eof_) return false;
  char* const old = buf_.get();
  char* const keep = std::min(keep_, cur_);
  auto const kept = static_cast<std::size_t>(end_ - keep);
  auto const cursor = static_cast<std::size_t>(cur_ - keep);
  if (kept > max_token_) {
    keep_ = keep;
    fail_token_size("zoxml::impl::Tokenizer::refill()");
  }
  if (keep > old) before_buf_ = keep[-1];
  base_ += static_cast<std::uint64_t>(keep - old);
  if (capacity_ - kept < block_size_) {
    std::size_t const capacity = std::max(capacity_ * 2, kept + block_size_);
    auto grown = std::make_unique<char[]>(capacity + 1);
    std::memcpy(grown.get(), keep, kept);
    buf_ = std::move(grown);
    capacity_ = capacity;
  } else if (keep != old) {
    std::memmove(old, keep, kept);
  }
  char* const fresh = buf_.get();
  keep_ = fresh;
  cur_ = fresh + cursor;
  end_ = fresh + kept;
  std::size_t got = 0;
  try {
    got = std::min(source_.read(end_, block_size_), block_size_);
  } catch (zocore::ErrorException const& e) {
    *end_ = 0;
    throw_located(error::zoxml_tokenizer_stream, "Error reading the input stream", {},
                  location_of(end_), uri_, "zoxml::impl::Tokenizer::refill()", kModuleId, __LINE__,
                  e.info());
  } catch (std::exception const& e) {
    *end_ = 0;
    zocore::SourceLocation const where("zoxml::impl::Tokenizer::refill()", kModuleId, __LINE__);
    throw_located(error::zoxml_tokenizer_stream, "Error reading the input stream", {},
                  location_of(end_), uri_, "zoxml::impl::Tokenizer::refill()", kModuleId, __LINE__,
                  zocore::ErrorInfo::from_exception(e, where));
  }
  end_ += got;
  *end_ = 0;
  if (got == 0) eof_ = true;
  return got != 0;
}

std::size_t Tokenizer::ensure(std::size_t count) {
  while (static_cast<std::size_t>(end_ - cur_) < count && !eof_) {
    keep_ = cur_;
    refill();
  }
  return static_cast<std::size_t>(end_ - cur_);
}

void Tokenizer::line_feed(char const* p) noexcept {
  // A line feed right after a carriage return ends the line the carriage return already counted.
  if (previous_byte(p) != '\r') ++line_;
  line_start_ = base_ + static_cast<std::uint64_t>(p + 1 - buf_.get());
}

Location Tokenizer::text_location(std::size_t offset) const noexcept {
  Location at = token_at_;
  for (std::size_t i = 0; i < offset; ++i) {
    char const* p = text_ + i;
    if (*p == '\r' || *p == '\n') {
      if (*p == '\r' || previous_byte(p) != '\r') ++at.line;
      at.line_start = token_at_.pos + i + 1;
    }
  }
  at.pos += offset;
  return at;
}

void Tokenizer::carriage_return(char const* p) noexcept {
  ++line_;
  line_start_ = base_ + static_cast<std::uint64_t>(p + 1 - buf_.get());
}

void Tokenizer::fail(char const* message, char const* function, Location const& at,
                     unsigned line) const {
  throw_located(error::zoxml_tokenizer_syntaxError, message, {}, at, uri_, function, kModuleId,
                line);
}

void Tokenizer::fail_end(char const* construct, char const* function, unsigned line) const {
  zocore::ErrorParams params;
  params.set("construct", construct);
  throw_located(error::zoxml_tokenizer_syntaxError, kEndOfDocument, std::move(params),
                location_of(end_), uri_, function, kModuleId, line);
}

void Tokenizer::fail_char(char const* p, char const* function) const {
  auto const* u = reinterpret_cast<unsigned char const*>(p);
  std::size_t const available = static_cast<std::size_t>(end_ - p);
  zocore::ErrorParams params;
  char text[16];
  if (u[0] < 0x80 ||
      (available >= 3 && u[0] == 0xEF && u[1] == 0xBF && (u[2] == 0xBE || u[2] == 0xBF))) {
    unsigned const code_point = u[0] < 0x80 ? u[0] : 0xFFC0u | (u[2] & 0x3Fu);
    std::snprintf(text, sizeof text, "U+%04X", code_point);
    params.set("character", text);
    throw_located(error::zoxml_tokenizer_syntaxError,
                  "Character {@character} is not allowed in XML documents", std::move(params),
                  location_of(p), uri_, function, kModuleId, __LINE__);
  }
  std::snprintf(text, sizeof text, "0x%02X", u[0]);
  params.set("byte", text);
  throw_located(error::zoxml_tokenizer_syntaxError,
                "Malformed UTF-8 sequence starting with byte {@byte}", std::move(params),
                location_of(p), uri_, function, kModuleId, __LINE__);
}

void Tokenizer::fail_token_size(char const* function) const {
  zocore::ErrorParams params;
  params.set("maxSize", static_cast<unsigned long long>(max_token_));
  throw_located(error::zoxml_tokenizer_syntaxError, "Markup token exceeds {@maxSize} bytes",
                std::move(params), location_of(keep_), uri_, function, kModuleId, __LINE__);
}

std::size_t Tokenizer::utf8_at(char const* p, char const* function) {
  std::uint32_t code_point;
  int const length = decode_utf8(p, static_cast<std::size_t>(end_ - p), code_point);
  if (length > 0) return static_cast<std::size_t>(length);
  if (length < 0 && !eof_) return 0;
  fail_char(p, function);
}

EToken Tokenizer::next_other() {
  switch (mode_) {
    case EMode::kStart: {
      token_at_ = location_of(cur_);
      std::size_t const available = ensure(3);
      if (available >= 3 && std::memcmp(cur_, "\xEF\xBB\xBF", 3) == 0) {
        cur_ += 3;
        had_bom_ = true;
        line_start_ = 3;
      }
      mode_ = EMode::kContent;
      return EToken::DocumentStart;
    }
    case EMode::kAttrEq:
      return attr_eq();
    case EMode::kComment:
      token_at_ = location_of(cur_);
      skip_comment_body();
      mode_ = EMode::kContent;
      return EToken::CommentEnd;
    case EMode::kPI:
      token_at_ = location_of(cur_);
      skip_pi_body();
      mode_ = EMode::kContent;
      return EToken::PIEnd;
    case EMode::kCData:
      return scan_cdata();
    case EMode::kDoctype:
      token_at_ = location_of(cur_);
      scan_doctype();
      mode_ = EMode::kContent;
      return EToken::DoctypeEnd;
    case EMode::kEnd:
      token_at_ = location_of(cur_);
      return EToken::DocumentEnd;
    default:
      return next();
  }
}

// ---- Character data --------------------------------------------------------------------------

EToken Tokenizer::next_content() {
  for (;;) {
    token_at_ = location_of(cur_);
    char const c = *cur_;
    if (c == '<') return scan_markup();
    if (c == '&') return scan_reference();
    if (cur_ == end_) {
      keep_ = cur_;
      if (!refill()) {
        mode_ = EMode::kEnd;
        return EToken::DocumentEnd;
      }
      continue;
    }
    if (scan_text()) return EToken::CharData;
  }
}

// One piece of character data from cur_, which is not at '<' or '&'. A piece never spans a
// refill: it is handed out before one, so nothing behind cur_ has to be kept. Returns false
// when nothing was left to hand out (a dropped CR, or the end of input).
bool Tokenizer::scan_text() {
  static constexpr char kFunction[] = "zoxml::impl::Tokenizer::scan_text()";
  char* p = cur_;
  char* start = p;
  for (;;) {
    for (;;) {
      if (has_class(p[0], kTextStop)) break;
      if (has_class(p[1], kTextStop)) {
        p += 1;
        break;
      }
      if (has_class(p[2], kTextStop)) {
        p += 2;
        break;
      }
      if (has_class(p[3], kTextStop)) {
        p += 3;
        break;
      }
      p += 4;
    }
    char const c = *p;
    std::size_t const available = static_cast<std::size_t>(end_ - p);
    if (static_cast<unsigned char>(c) >= 0x80 && available >= 4) {
      // A character beyond ASCII with all its bytes in the buffer: decoded here, the buffer's
      // end is handled below.
      std::uint32_t code_point;
      int const length = decode_utf8(p, available, code_point);
      if (length <= 0) fail_char(p, kFunction);
      p += length;
      continue;
    }
    if (c == '\n') {
      line_feed(p);
      ++p;
      continue;
    }
    if (c == '<' || c == '&') break;
    if (c == ']') {
      if (available < 3 && !eof_) {
        if (p != start) break;
        cur_ = keep_ = p;
        refill();
        p = start = cur_;
        token_at_ = location_of(start);
        continue;
      }
      if (p[1] == ']' && p[2] == '>') {
        fail("']]>' is not allowed in character data", kFunction, location_of(p));
      }
      ++p;
      continue;
    }
    if (c == '\r') {
      if (available < 2 && !eof_) {
        if (p != start) break;
        cur_ = keep_ = p;
        refill();
        p = start = cur_;
        token_at_ = location_of(start);
        continue;
      }
      carriage_return(p);
      if (!normalize_) {
        ++p;
        continue;
      }
      if (p[1] == '\n') {
        // CR LF: the CR is dropped and the line feed, which follows, stays.
        if (p != start) {
          text_ = start;
          text_size_ = static_cast<std::size_t>(p - start);
          cur_ = p + 1;
          return true;
        }
        start = ++p;
        token_at_ = location_of(start);
        continue;
      }
      *p++ = '\n';
      continue;
    }
    if (p == end_) {
      if (p != start) break;
      cur_ = keep_ = p;
      if (!refill()) return false;
      p = start = cur_;
      token_at_ = location_of(start);
      continue;
    }
    if (static_cast<unsigned char>(c) >= 0x80) {
      std::size_t const length = utf8_at(p, kFunction);
      if (length != 0) {
        p += length;
        continue;
      }
      if (p != start) break;
      cur_ = keep_ = p;
      refill();
      p = start = cur_;
      token_at_ = location_of(start);
      continue;
    }
    fail_char(p, kFunction);
  }
  cur_ = p;
  text_ = start;
  text_size_ = static_cast<std::size_t>(p - start);
  return p != start;
}

// ---- Markup ----------------------------------------------------------------------------------

EToken Tokenizer::scan_markup() {
  std::size_t const available = ensure(9);
  char const* p = cur_;
  if (available >= 2) {
    if (p[1] == '/') return scan_end_tag();
    if (p[1] == '?') return scan_pi_start();
    if (p[1] == '!') {
      if (available >= 4 && p[2] == '-' && p[3] == '-') {
        cur_ += 4;
        mode_ = EMode::kComment;
        return EToken::CommentStart;
      }
      if (available >= 9 && std::memcmp(p + 2, "[CDATA[", 7) == 0) {
        cur_ += 9;
        mode_ = EMode::kCData;
        return EToken::CDATAStart;
      }
      if (available >= 9 && std::memcmp(p + 2, "DOCTYPE", 7) == 0) {
        cur_ += 9;
        mode_ = EMode::kDoctype;
        return EToken::DoctypeStart;
      }
      fail("Invalid markup after '<!'", "zoxml::impl::Tokenizer::scan_markup()", token_at_);
    }
  }
  ++cur_;
  scan_name();
  mode_ = EMode::kTag;
  return EToken::StartTagStart;
}

// The run of bytes from cur_ up to the next byte that cannot continue a name (white space,
// '/', '>', '=', quotes, ...), kept from keep_ on. Whether the run is a Name and a QName is
// worked out on the way; characters that no name may hold are kept in the run, so the parser
// can quote the whole name in its message.
void Tokenizer::scan_name() {
  static constexpr char kFunction[] = "zoxml::impl::Tokenizer::scan_name()";
  keep_ = cur_;
  char* p = cur_;
  bool ok = true;
  bool qok = true;
  bool token_ok = true;    // only name characters (an Nmtoken)
  bool need_start = true;  // at the start, or right after a colon
  std::size_t colon = std::string_view::npos;
  for (;;) {
    auto const c = static_cast<unsigned char>(*p);
    std::uint16_t const cls = kCharClasses[c];
    if (cls & kNameChar) {
      if (need_start && !(cls & kNameStart)) {
        if (p == keep_) ok = false;
        qok = false;
      }
      need_start = false;
      do {
        ++p;
      } while (has_class(*p, kNameChar));
      continue;
    }
    if (c == ':') {
      if (colon == std::string_view::npos) {
        colon = static_cast<std::size_t>(p - keep_);
      } else {
        qok = false;
      }
      if (need_start) qok = false;
      need_start = true;
      ++p;
      continue;
    }
    if (cls & kNameEnd) {
      if (p == end_ && !eof_) {
        cur_ = p;
        refill();
        p = cur_;
        continue;
      }
      break;
    }
    if (c >= 0x80) {
      std::uint32_t code_point = 0;
      int const length = decode_utf8(p, static_cast<std::size_t>(end_ - p), code_point);
      if (length < 0 && !eof_) {
        cur_ = p;
        refill();
        p = cur_;
        continue;
      }
      if (length <= 0) fail_char(p, kFunction);
      bool const starts = is_name_start_code_point(code_point);
      if (!starts && !is_name_code_point(code_point)) {
        ok = qok = token_ok = false;
      } else if (need_start && !starts) {
        if (p == keep_) ok = false;
        qok = false;
      }
      need_start = false;
      p += length;
      continue;
    }
    if (cls & kControl) fail_char(p, kFunction);
    ok = qok = token_ok = false;
    need_start = false;
    ++p;
  }
  std::size_t const size = static_cast<std::size_t>(p - keep_);
  if (size == 0) ok = token_ok = false;
  if (size == 0 || need_start) qok = false;
  cur_ = p;
  text_ = keep_;
  text_size_ = size;
  name_ok_ = ok;
  qname_ok_ = ok && qok;
  nmtoken_ok_ = token_ok;
  name_colon_ = colon;
}

EToken Tokenizer::scan_end_tag() {
  cur_ += 2;
  scan_name();
  std::size_t const size = text_size_;
  if (*cur_ != '>') skip_space();  // keeps the name: keep_ stays at its start
  if (*cur_ != '>') {
    if (cur_ == end_) fail_end("an end tag", "zoxml::impl::Tokenizer::scan_end_tag()");
    fail("Expected '>' at the end of an end tag", "zoxml::impl::Tokenizer::scan_end_tag()",
         location_of(cur_));
  }
  ++cur_;
  text_ = keep_;
  text_size_ = size;
  return EToken::EndTag;
}

EToken Tokenizer::scan_pi_start() {
  static constexpr char kFunction[] = "zoxml::impl::Tokenizer::scan_pi_start()";
  cur_ += 2;
  scan_name();
  std::string_view const target = text();
  if (target == "xml") {
    decl_ = true;
    mode_ = EMode::kTag;
    return EToken::XmldeclStart;
  }
  check_pi_target(kFunction);
  mode_ = EMode::kPI;
  return EToken::PIStart;
}

void Tokenizer::check_pi_target(char const* function) const {
  if (equals_ignoring_case(text(), "xml")) {
    fail("The processing instruction target 'xml' is reserved", function, token_at_);
  }
  if (!name_ok_ || name_colon_ != std::string_view::npos) {
    fail("Invalid processing instruction target", function, token_at_);
  }
}

void Tokenizer::skip_pi_body() {
  static constexpr char kFunction[] = "zoxml::impl::Tokenizer::skip_pi_body()";
  std::size_t const available = ensure(2);
  char* p = cur_;
  if (available == 0) fail_end("a processing instruction", kFunction);
  if (!has_class(*p, kSpace)) {
    if (available >= 2 && p[0] == '?' && p[1] == '>') {
      cur_ = p + 2;
      return;
    }
    fail("Whitespace is required after a processing instruction target", kFunction, location_of(p));
  }
  skip_to_terminator(kPIStop, '?', 2, "a processing instruction", kFunction,
                     [](char const* at) { return at[1] == '>'; });
}

void Tokenizer::skip_comment_body() {
  static constexpr char kFunction[] = "zoxml::impl::Tokenizer::skip_comment_body()";
  skip_to_terminator(kCommentStop, '-', 3, "a comment", kFunction, [&](char const* at) {
    if (at[1] != '-') return false;
    if (at[2] != '>') fail("'--' is not allowed inside a comment", kFunction, location_of(at));
    return true;
  });
}

template <class IsTerminator>
void Tokenizer::skip_to_terminator(std::uint16_t stop, char lead, std::ptrdiff_t length,
                                   char const* what, char const* function,
                                   IsTerminator is_terminator) {
  char* p = cur_;
  for (;;) {
    while (!has_class(*p, stop))
      ++p;
    char const c = *p;
    if (c == lead) {
      if (end_ - p < length && !eof_) {
        cur_ = keep_ = p;
        refill();
        p = cur_;
        continue;
      }
      if (is_terminator(p)) {
        cur_ = p + length;
        return;
      }
      ++p;
    } else if (c == '\n') {
      line_feed(p++);
    } else if (c == '\r') {
      carriage_return(p++);
    } else if (p == end_) {
      cur_ = keep_ = p;
      if (!refill()) fail_end(what, function);
      p = cur_;
    } else if (static_cast<unsigned char>(c) >= 0x80) {
      std::size_t const length_here = utf8_at(p, function);
      if (length_here == 0) {
        cur_ = keep_ = p;
        refill();
        p = cur_;
      }
      p += length_here;
    } else {
      fail_char(p, function);
    }
  }
}

EToken Tokenizer::scan_cdata() {
  static constexpr char kFunction[] = "zoxml::impl::Tokenizer::scan_cdata()";
  token_at_ = location_of(cur_);
  char* p = cur_;
  char* start = p;
  for (;;) {
    while (!has_class(*p, kCDataStop))
      ++p;
    char const c = *p;
    auto const available = static_cast<std::size_t>(end_ - p);
    if (c == '\n') {
      line_feed(p++);
      continue;
    }
    if (c == ']') {
      if (available < 3 && !eof_) {
        if (p != start) break;
        cur_ = keep_ = p;
        refill();
        p = start = cur_;
        continue;
      }
      if (p[1] == ']' && p[2] == '>') {
        if (p != start) break;
        cur_ = p + 3;
        mode_ = EMode::kContent;
        return EToken::CDATAEnd;
      }
      ++p;
      continue;
    }
    if (c == '\r') {
      if (available < 2 && !eof_) {
        if (p != start) break;
        cur_ = keep_ = p;
        refill();
        p = start = cur_;
        continue;
      }
      carriage_return(p);
      if (p[1] == '\n') {
        if (p != start) {
          text_ = start;
          text_size_ = static_cast<std::size_t>(p - start);
          cur_ = p + 1;
          return EToken::CharData;
        }
        start = ++p;
        continue;
      }
      *p++ = '\n';
      continue;
    }
    if (p == end_) {
      if (p != start) break;
      cur_ = keep_ = p;
      if (!refill()) fail_end("a CDATA section", kFunction);
      p = start = cur_;
      continue;
    }
    if (static_cast<unsigned char>(c) >= 0x80) {
      std::size_t const length = utf8_at(p, kFunction);
      if (length != 0) {
        p += length;
        continue;
      }
      if (p != start) break;
      cur_ = keep_ = p;
      refill();
      p = start = cur_;
      continue;
    }
    fail_char(p, kFunction);
  }
  cur_ = p;
  text_ = start;
  text_size_ = static_cast<std::size_t>(p - start);
  return EToken::CharData;
}

// ---- References ------------------------------------------------------------------------------

EToken Tokenizer::scan_reference() {
  static constexpr char kFunction[] = "zoxml::impl::Tokenizer::scan_reference()";
  token_at_ = location_of(cur_);
  if (ensure(2) >= 2 && cur_[1] == '#') {
    cur_ += 2;
    keep_ = cur_;
    char* p = cur_;
    for (;;) {
      while (has_class(*p, kAlnum))
        ++p;
      if (p == end_ && !eof_) {
        cur_ = p;
        refill();
        p = cur_;
        continue;
      }
      break;
    }
    if (*p != ';') fail("A character reference must end with ';'", kFunction, location_of(p));
    text_ = keep_;
    text_size_ = static_cast<std::size_t>(p - keep_);
    cur_ = p + 1;
    return EToken::CharRef;
  }
  ++cur_;
  scan_name();
  if (text_size_ == 0)
    fail("'&' must start an entity or character reference", kFunction, token_at_);
  if (!name_ok_ || name_colon_ != std::string_view::npos) {
    fail("Invalid entity reference name", kFunction, token_at_);
  }
  if (*cur_ != ';') fail("An entity reference must end with ';'", kFunction, location_of(cur_));
  ++cur_;
  return EToken::EntityRef;
}

// ---- Tags ------------------------------------------------------------------------------------

bool Tokenizer::skip_space() {
  char* p = cur_;
  bool any = false;
  for (;;) {
    char const c = *p;
    if (c == ' ' || c == '\t') {
      ++p;
    } else if (c == '\n') {
      line_feed(p++);
    } else if (c == '\r') {
      carriage_return(p++);
    } else if (p == end_ && !eof_) {
      cur_ = p;
      refill();
      p = cur_;
      continue;
    } else {
      break;
    }
    any = true;
  }
  cur_ = p;
  return any;
}

EToken Tokenizer::next_in_tag() {
  static constexpr char kFunction[] = "zoxml::impl::Tokenizer::next_in_tag()";
  if (*cur_ == '>' && !decl_) {  // the usual end of a tag, right after its name or a value
    token_at_ = location_of(cur_);
    ++cur_;
    mode_ = EMode::kContent;
    return EToken::StartTagEnd;
  }
  keep_ = cur_;
  bool const spaced = skip_space();
  token_at_ = location_of(cur_);
  char const c = *cur_;
  if (decl_) {
    if (c == '?') {
      if (ensure(2) >= 2 && cur_[1] == '>') {
        cur_ += 2;
        decl_ = false;
        mode_ = EMode::kContent;
        return EToken::XmldeclEnd;
      }
      fail("Expected '?>' at the end of the XML declaration", kFunction, token_at_);
    }
  } else if (c == '>') {
    ++cur_;
    mode_ = EMode::kContent;
    return EToken::StartTagEnd;
  } else if (c == '/') {
    if (ensure(2) >= 2 && cur_[1] == '>') {
      cur_ += 2;
      mode_ = EMode::kContent;
      return EToken::StartTagEndEmpty;
    }
    fail("Expected '>' after '/' in an empty-element tag", kFunction, token_at_);
  }
  if (has_class(c, kNameEnd | kControl)) {
    if (cur_ == end_) fail_end(decl_ ? "the XML declaration" : "a start tag", kFunction);
    if (has_class(c, kControl)) fail_char(cur_, kFunction);
    fail(decl_ ? "Unexpected character in the XML declaration"
               : "Unexpected character in a start tag",
         kFunction, token_at_);
  }
  if (!spaced) fail("Whitespace is required before an attribute name", kFunction, token_at_);
  scan_name();
  mode_ = EMode::kAttrEq;
  return EToken::AttributeStart;
}

EToken Tokenizer::attr_eq() {
  static constexpr char kFunction[] = "zoxml::impl::Tokenizer::attr_eq()";
  keep_ = cur_;
  skip_space();
  if (*cur_ != '=') {
    if (cur_ == end_) fail_end(decl_ ? "the XML declaration" : "a start tag", kFunction);
    fail("Expected '=' after an attribute name", kFunction, location_of(cur_));
  }
  keep_ = ++cur_;
  skip_space();
  char const quote = *cur_;
  if (quote != '"' && quote != '\'') {
    if (cur_ == end_) fail_end(decl_ ? "the XML declaration" : "a start tag", kFunction);
    fail("Expected a quoted attribute value", kFunction, location_of(cur_));
  }
  ++cur_;
  quote_ = quote;
  mode_ = EMode::kAttrValue;
  return next_attr_value();
}

// One piece of an attribute value, or the reference or the end of the value. White space is
// normalised in the buffer itself (each byte is replaced by a space), except that the CR of a
// CR LF pair is left out of the pieces.
EToken Tokenizer::next_attr_value() {
  static constexpr char kFunction[] = "zoxml::impl::Tokenizer::next_attr_value()";
  token_at_ = location_of(cur_);
  char* p = cur_;
  char* start = p;
  for (;;) {
    for (;;) {
      if (has_class(p[0], kAttrStop)) break;
      if (has_class(p[1], kAttrStop)) {
        p += 1;
        break;
      }
      p += 2;
    }
    char const c = *p;
    if (c == quote_) {
      if (p != start) break;
      cur_ = p + 1;
      mode_ = EMode::kTag;
      return EToken::AttributeEnd;
    }
    switch (c) {
      case '"':
      case '\'':
        ++p;
        continue;
      case '\t':
        *p++ = ' ';
        continue;
      case '\n':
        line_feed(p);
        *p++ = ' ';
        continue;
      case '\r':
        if (end_ - p < 2 && !eof_) {
          if (p != start) break;
          cur_ = keep_ = p;
          refill();
          p = start = cur_;
          continue;
        }
        carriage_return(p);
        if (p[1] == '\n') {
          if (p != start) {
            text_ = start;
            text_size_ = static_cast<std::size_t>(p - start);
            cur_ = p + 1;
            return EToken::CharData;
          }
          start = ++p;
          continue;
        }
        *p++ = ' ';
        continue;
      case '<':
        fail("'<' is not allowed in an attribute value", kFunction, location_of(p));
      case '&':
        if (p != start) break;
        if (decl_)
          fail("References are not allowed in the XML declaration", kFunction, location_of(p));
        cur_ = p;
        return scan_reference();
      default:
        if (p == end_) {
          if (p != start) break;
          cur_ = keep_ = p;
          if (!refill()) fail_end(decl_ ? "the XML declaration" : "an attribute value", kFunction);
          p = start = cur_;
          continue;
        }
        if (static_cast<unsigned char>(c) >= 0x80) {
          std::size_t const length = utf8_at(p, kFunction);
          if (length != 0) {
            p += length;
            continue;
          }
          if (p != start) break;
          cur_ = keep_ = p;
          refill();
          p = start = cur_;
          continue;
        }
        fail_char(p, kFunction);
    }
    break;
  }
  cur_ = p;
  text_ = start;
  text_size_ = static_cast<std::size_t>(p - start);
  return EToken::CharData;
}

// ---- DOCTYPE ---------------------------------------------------------------------------------
// Checked against the grammar of the declaration and of the markup declarations in its internal
// subset, then skipped: nothing declared in it is taken into account (no entity is defined, no
// default attribute added), and parameter-entity references are not expanded.

namespace {
constexpr char kDoctypeSyntax[] = "Syntax error in the DOCTYPE declaration: expected {@expected}";
}  // namespace

char Tokenizer::peek() {
  if (cur_ == end_) ensure(1);
  return *cur_;
}

bool Tokenizer::decl_space() {
  keep_ = cur_;
  return skip_space();
}

void Tokenizer::decl_expect(char const* expected, char const* function) const {
  if (cur_ == end_) fail_end("the DOCTYPE declaration", function);
  zocore::ErrorParams params;
  params.set("expected", expected);
  throw_located(error::zoxml_tokenizer_syntaxError, kDoctypeSyntax, std::move(params),
                location_of(cur_), uri_, function, kModuleId, __LINE__);
}

void Tokenizer::require_space(char const* function) {
  if (!decl_space()) decl_expect("white space", function);
}

void Tokenizer::expect_char(char c, char const* expected, char const* function) {
  if (peek() != c) decl_expect(expected, function);
  ++cur_;
}

std::string_view Tokenizer::decl_name(EName kind, char const* function) {
  peek();
  scan_name();
  bool const ok = kind == EName::kQName    ? qname_ok_
                  : kind == EName::kNCName ? name_ok_ && name_colon_ == std::string_view::npos
                                           : nmtoken_ok_;
  if (!ok) {
    cur_ = keep_;
    decl_expect(kind == EName::kNmtoken ? "a name token" : "a name", function);
  }
  return text();
}

void Tokenizer::scan_doctype() {
  static constexpr char kFunction[] = "zoxml::impl::Tokenizer::scan_doctype()";
  require_space(kFunction);
  decl_name(EName::kQName, kFunction);
  bool const spaced = decl_space();
  char const c = peek();
  if (c == 'S' || c == 'P') {
    if (!spaced) decl_expect("white space", kFunction);
    scan_external_id(false);
    decl_space();
  }
  if (peek() == '[') {
    ++cur_;
    scan_internal_subset();
    decl_space();
  }
  expect_char('>', "'>'", kFunction);
}

// SYSTEM S SystemLiteral | PUBLIC S PubidLiteral S SystemLiteral; a notation may end after the
// public identifier.
void Tokenizer::scan_external_id(bool notation) {
  static constexpr char kFunction[] = "zoxml::impl::Tokenizer::scan_external_id()";
  std::string_view const keyword = decl_name(EName::kNmtoken, kFunction);
  bool const is_public = keyword == "PUBLIC";
  if (!is_public && keyword != "SYSTEM") {
    cur_ = keep_;
    decl_expect("SYSTEM or PUBLIC", kFunction);
  }
  require_space(kFunction);
  if (!is_public) return scan_literal(ELiteral::kSystem);
  scan_literal(ELiteral::kPubid);
  if (!notation) {
    require_space(kFunction);
    return scan_literal(ELiteral::kSystem);
  }
  bool const spaced = decl_space();
  char const c = peek();
  if (c == '"' || c == '\'') {
    if (!spaced) decl_expect("white space", kFunction);
    scan_literal(ELiteral::kSystem);
  }
}

void Tokenizer::scan_literal(ELiteral kind) {
  static constexpr char kFunction[] = "zoxml::impl::Tokenizer::scan_literal()";
  char const quote = peek();
  if (quote != '"' && quote != '\'') decl_expect("a quoted literal", kFunction);
  keep_ = ++cur_;
  char* p = cur_;
  for (;;) {
    char const c = *p;
    if (c == quote) {
      cur_ = p + 1;
      return;
    }
    if (p == end_) {
      cur_ = keep_ = p;
      if (!refill()) fail_end("a literal", kFunction);
      p = cur_;
    } else if (c == '\n') {
      line_feed(p++);
    } else if (c == '\r') {
      carriage_return(p++);
    } else if (kind == ELiteral::kPubid) {
      if (!has_class(c, kPubid)) {
        fail("Invalid character in a public identifier", kFunction, location_of(p));
      }
      ++p;
    } else if (static_cast<unsigned char>(c) >= 0x80) {
      std::size_t const length = utf8_at(p, kFunction);
      if (length == 0) {
        cur_ = keep_ = p;
        refill();
        p = cur_;
      }
      p += length;
    } else if (has_class(c, kControl)) {
      fail_char(p, kFunction);
    } else if (c == '<' && kind == ELiteral::kAttValue) {
      fail("'<' is not allowed in an attribute value", kFunction, location_of(p));
    } else if (c == '%' && kind == ELiteral::kEntityValue) {
      fail(
          "Parameter-entity references are not allowed inside markup declarations of the "
          "internal subset",
          kFunction, location_of(p));
    } else if (c == '&' && kind != ELiteral::kSystem) {
      cur_ = p;
      if (scan_reference() == EToken::CharRef) {
        std::string_view const body = text();
        bool const hex = !body.empty() && body[0] == 'x';
        bool ok = body.size() > (hex ? 1u : 0u);
        for (std::size_t i = hex ? 1 : 0; ok && i < body.size(); ++i) {
          ok = (body[i] >= '0' && body[i] <= '9') ||
               (hex && ((body[i] >= 'a' && body[i] <= 'f') || (body[i] >= 'A' && body[i] <= 'F')));
        }
        if (!ok) fail("Invalid character reference", kFunction, token_at_);
      }
      keep_ = cur_;
      p = cur_;
    } else {
      ++p;
    }
  }
}

void Tokenizer::scan_internal_subset() {
  static constexpr char kFunction[] = "zoxml::impl::Tokenizer::scan_internal_subset()";
  for (;;) {
    decl_space();
    char const c = peek();
    if (c == ']') {
      ++cur_;
      return;
    }
    if (c == '%') {
      // A parameter-entity reference between declarations: checked, not expanded.
      ++cur_;
      decl_name(EName::kNCName, kFunction);
      expect_char(';', "';'", kFunction);
      continue;
    }
    if (c != '<') decl_expect("a markup declaration or ']'", kFunction);
    token_at_ = location_of(cur_);
    std::size_t const available = ensure(4);
    if (available >= 4 && cur_[1] == '!' && cur_[2] == '-' && cur_[3] == '-') {
      cur_ += 4;
      skip_comment_body();
      continue;
    }
    if (available >= 2 && cur_[1] == '?') {
      cur_ += 2;
      scan_name();
      check_pi_target(kFunction);
      skip_pi_body();
      continue;
    }
    if (available < 2 || cur_[1] != '!') decl_expect("a markup declaration or ']'", kFunction);
    cur_ += 2;
    std::string_view const keyword = decl_name(EName::kNmtoken, kFunction);
    if (keyword == "ELEMENT") {
      scan_element_decl();
    } else if (keyword == "ATTLIST") {
      scan_attlist_decl();
    } else if (keyword == "ENTITY") {
      scan_entity_decl();
    } else if (keyword == "NOTATION") {
      scan_notation_decl();
    } else {
      cur_ = keep_;
      decl_expect("ELEMENT, ATTLIST, ENTITY or NOTATION", kFunction);
    }
  }
}

void Tokenizer::scan_element_decl() {
  static constexpr char kFunction[] = "zoxml::impl::Tokenizer::scan_element_decl()";
  require_space(kFunction);
  decl_name(EName::kQName, kFunction);
  require_space(kFunction);
  if (peek() != '(') {
    std::string_view const keyword = decl_name(EName::kNmtoken, kFunction);
    if (keyword != "EMPTY" && keyword != "ANY") {
      cur_ = keep_;
      decl_expect("EMPTY, ANY or a content model", kFunction);
    }
  } else {
    ++cur_;
    decl_space();
    if (peek() != '#') {
      scan_content_group(1);
    } else {
      // Mixed content: (#PCDATA) or (#PCDATA | a | b)*
      ++cur_;
      if (decl_name(EName::kNmtoken, kFunction) != "PCDATA") {
        cur_ = keep_;
        decl_expect("#PCDATA", kFunction);
      }
      bool names = false;
      for (;;) {
        decl_space();
        if (peek() != '|') break;
        ++cur_;
        decl_space();
        decl_name(EName::kQName, kFunction);
        names = true;
      }
      expect_char(')', "'|' or ')'", kFunction);
      if (peek() == '*') {
        ++cur_;
      } else if (names) {
        decl_expect("'*' after a mixed content model", kFunction);
      }
    }
  }
  decl_space();
  expect_char('>', "'>'", kFunction);
}

// A choice or sequence after its '(': cp (S? sep S? cp)* S? ')' with one separator throughout,
// then an optional occurrence mark.
void Tokenizer::scan_content_group(unsigned depth) {
  static constexpr char kFunction[] = "zoxml::impl::Tokenizer::scan_content_group()";
  if (depth > kMaxContentDepth) decl_expect("a shallower content model", kFunction);
  char separator = 0;
  for (;;) {
    decl_space();
    if (peek() == '(') {
      ++cur_;
      scan_content_group(depth + 1);
    } else {
      decl_name(EName::kQName, kFunction);
      char const mark = peek();
      if (mark == '?' || mark == '*' || mark == '+') ++cur_;
    }
    decl_space();
    char const c = peek();
    if (c == ')') {
      ++cur_;
      break;
    }
    if ((c != '|' && c != ',') || (separator != 0 && c != separator)) {
      decl_expect(separator == 0     ? "'|', ',' or ')'"
                  : separator == '|' ? "'|' or ')'"
                                     : "',' or ')'",
                  kFunction);
    }
    separator = c;
    ++cur_;
  }
  char const mark = peek();
  if (mark == '?' || mark == '*' || mark == '+') ++cur_;
}

void Tokenizer::scan_attlist_decl() {
  static constexpr char kFunction[] = "zoxml::impl::Tokenizer::scan_attlist_decl()";
  require_space(kFunction);
  decl_name(EName::kQName, kFunction);
  for (;;) {
    bool const spaced = decl_space();
    if (peek() == '>') {
      ++cur_;
      return;
    }
    if (!spaced) decl_expect("white space", kFunction);
    decl_name(EName::kQName, kFunction);
    require_space(kFunction);
    if (peek() == '(') {
      ++cur_;
      scan_name_list(EName::kNmtoken);
    } else {
      std::string_view const type = decl_name(EName::kNmtoken, kFunction);
      if (type == "NOTATION") {
        require_space(kFunction);
        expect_char('(', "'('", kFunction);
        scan_name_list(EName::kNCName);
      } else if (type != "CDATA" && type != "ID" && type != "IDREF" && type != "IDREFS" &&
                 type != "ENTITY" && type != "ENTITIES" && type != "NMTOKEN" &&
                 type != "NMTOKENS") {
        cur_ = keep_;
        decl_expect("an attribute type", kFunction);
      }
    }
    require_space(kFunction);
    if (peek() == '#') {
      ++cur_;
      std::string_view const keyword = decl_name(EName::kNmtoken, kFunction);
      if (keyword == "FIXED") {
        require_space(kFunction);
        scan_literal(ELiteral::kAttValue);
      } else if (keyword != "REQUIRED" && keyword != "IMPLIED") {
        cur_ = keep_;
        decl_expect("#REQUIRED, #IMPLIED or #FIXED", kFunction);
      }
    } else {
      scan_literal(ELiteral::kAttValue);
    }
  }
}

// After '(': S? name (S? '|' S? name)* S? ')'
void Tokenizer::scan_name_list(EName kind) {
  static constexpr char kFunction[] = "zoxml::impl::Tokenizer::scan_name_list()";
  for (;;) {
    decl_space();
    decl_name(kind, kFunction);
    decl_space();
    char const c = peek();
    if (c == ')') {
      ++cur_;
      return;
    }
    if (c != '|') decl_expect("'|' or ')'", kFunction);
    ++cur_;
  }
}

void Tokenizer::scan_entity_decl() {
  static constexpr char kFunction[] = "zoxml::impl::Tokenizer::scan_entity_decl()";
  require_space(kFunction);
  bool parameter = false;
  if (peek() == '%') {
    ++cur_;
    require_space(kFunction);
    parameter = true;
  }
  decl_name(EName::kNCName, kFunction);
  require_space(kFunction);
  char const c = peek();
  if (c == '"' || c == '\'') {
    scan_literal(ELiteral::kEntityValue);
  } else {
    scan_external_id(false);
    bool const spaced = decl_space();
    if (!parameter && spaced && peek() != '>') {
      if (decl_name(EName::kNmtoken, kFunction) != "NDATA") {
        cur_ = keep_;
        decl_expect("NDATA or '>'", kFunction);
      }
      require_space(kFunction);
      decl_name(EName::kNCName, kFunction);
    }
  }
  decl_space();
  expect_char('>', "'>'", kFunction);
}

void Tokenizer::scan_notation_decl() {
  static constexpr char kFunction[] = "zoxml::impl::Tokenizer::scan_notation_decl()";
  require_space(kFunction);
  decl_name(EName::kNCName, kFunction);
  require_space(kFunction);
  scan_external_id(true);
  decl_space();
  expect_char('>', "'>'", kFunction);
}

}  // namespace zoxml::impl
