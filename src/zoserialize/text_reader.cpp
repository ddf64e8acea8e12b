#include <array>
#include <bit>
#include <cstdio>
#include <cstring>
#include <istream>
#include <utility>

#include <zocore/core_errors.h>
#include <zocore/error_exception.h>
#include <zocore/throw_error.h>
#include <zocore/utf8.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/impl/digits.h>
#include <zoserialize/impl/integer_form.h>
#include <zoserialize/impl/utf8_validating_stream.h>
#include <zoserialize/text_reader.h>

namespace zoserialize {
namespace {

using EToken = Reader::EToken;
using zocore::ErrorInfo;
using zocore::ErrorParams;
using zocore::RefCountPtr;
using SourceBase = TextReader::SourceBase;

constexpr char kModuleId[] = "$Id: src/zoserialize/text_reader.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

constexpr unsigned char kNoValue = 0xFF;

constexpr std::array<EToken, 256> make_token_table() {
  std::array<EToken, 256> t{};
  t.fill(EToken::Unknown);
  t['Z'] = EToken::Null;
  t['Y'] = t['N'] = EToken::Boolean;
  t['+'] = t['-'] = t['I'] = EToken::SignedInteger;
  t['U'] = t['X'] = EToken::UnsignedInteger;
  t['R'] = EToken::Double;
  t['"'] = t['S'] = EToken::String;
  t['T'] = EToken::AbsoluteTime;
  t['P'] = t['Q'] = EToken::RelativeTime;
  t['K'] = EToken::Uuid;
  t['['] = EToken::Binary;
  t['('] = EToken::SequenceStart;
  t[','] = EToken::SequenceSeparator;
  t[')'] = EToken::SequenceEnd;
  t['{'] = EToken::MarkerStart;
  t['}'] = EToken::MarkerEnd;
  return t;
}
constexpr std::array<EToken, 256> kTokenOfTag = make_token_table();

// The tags of each token, by token value (1..15), as the unexpected-tag failure lists them.
constexpr char const* kTagsOfToken[] = {"",   "Z", "YN", "+-I", "UX", "R", "\"S", "T",
                                        "PQ", "K", "[",  "(",   ",",  ")", "{",   "}"};

// Lowercase hexadecimal digits only: the writer's digits, and never a tag.
constexpr std::array<unsigned char, 256> make_hex_table() {
  std::array<unsigned char, 256> t{};
  t.fill(kNoValue);
  for (unsigned c = 0; c < 10; ++c)
    t['0' + c] = static_cast<unsigned char>(c);
  for (unsigned c = 0; c < 6; ++c)
    t['a' + c] = static_cast<unsigned char>(10 + c);
  return t;
}
constexpr std::array<unsigned char, 256> kHexValue = make_hex_table();

constexpr std::array<unsigned char, 256> make_base64_table() {
  constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::array<unsigned char, 256> t{};
  t.fill(kNoValue);
  for (unsigned i = 0; i < 64; ++i)
    t[static_cast<unsigned char>(kAlphabet[i])] = static_cast<unsigned char>(i);
  return t;
}
constexpr std::array<unsigned char, 256> kBase64Value = make_base64_table();

// Characters that stand for themselves in a string body: all but control characters (line
// breaks among them), '"' and '~'.
constexpr std::array<bool, 256> make_plain_table() {
  std::array<bool, 256> t{};
  for (unsigned c = 0x20; c < 0x100; ++c)
    t[c] = true;
  t['"'] = false;
  t['~'] = false;
  return t;
}
constexpr std::array<bool, 256> kStringPlain = make_plain_table();

bool is_digit(char c) noexcept {
  return static_cast<unsigned>(c - '0') < 10;
}

using impl::kHighs;

std::uint64_t load_word(char const* p) noexcept {
  std::uint64_t word;
  std::memcpy(&word, p, sizeof word);
  return word;
}

// The index of the first marked byte of a non-zero mask (one bit per byte, as below).
unsigned first_marked(std::uint64_t mask) noexcept {
  if constexpr (std::endian::native == std::endian::little) {
    return static_cast<unsigned>(std::countr_zero(mask)) / 8;
  } else {
    return static_cast<unsigned>(std::countl_zero(mask)) / 8;
  }
}

// The bytes of `word` that end a plain run in a string: '"', '~' and control characters (line
// breaks among them). Exact for the first such byte in memory order, which is all that is used.
std::uint64_t string_stops(std::uint64_t word) noexcept {
  return impl::bytes_below(word, 0x20) | impl::bytes_equal(word, '"') |
         impl::bytes_equal(word, '~');
}

bool is_ascii(char const* p, std::size_t n) noexcept {
  std::uint64_t bits = 0;
  for (; n >= 8; n -= 8, p += 8)
    bits |= load_word(p);
  for (; n != 0; --n, ++p)
    bits |= static_cast<unsigned char>(*p);
  return (bits & kHighs) == 0;
}

std::uint64_t pow10(unsigned n) noexcept {
  std::uint64_t v = 1;
  while (n-- > 0)
    v *= 10;
  return v;
}

// A character as the failures show it: itself when printable.
std::string shown_char(int c, bool as_tag) {
  if (c < 0) return "EOF";
  if (c >= 0x20 && c < 0x7F) return std::string(1, static_cast<char>(c));
  char text[16];
  if (as_tag) {
    std::snprintf(text, sizeof text, "\\x%ux", static_cast<unsigned>(c));
  } else {
    std::snprintf(text, sizeof text, "#x%02x", static_cast<unsigned>(c));
  }
  return text;
}

// Every failure about the input carries the place where the reader stands.
[[noreturn, gnu::cold, gnu::noinline]] void raise(zocore::ErrorCode const& code,
                                                  char const* message, ErrorParams params,
                                                  SourceBase const& s, char const* function,
                                                  RefCountPtr<ErrorInfo const> nested = {}) {
  s.add_location_error_params(params);
  zocore::throw_error(code, message, std::move(params), here(function), std::move(nested));
}

[[noreturn]] void raise(zocore::ErrorCode const& code, char const* message, SourceBase const& s,
                        char const* function) {
  raise(code, message, ErrorParams(), s, function);
}

[[noreturn, gnu::cold, gnu::noinline]] void throw_closed(char const* function) {
  zocore::throw_error(error::zoserialize_reader_closed, "TextReader has already been closed",
                      here(function));
}

[[noreturn, gnu::cold, gnu::noinline]] void throw_detached(char const* function) {
  zocore::throw_error(error::zoserialize_reader_state,
                      "Reader has already been detached from stream", here(function));
}

[[noreturn, gnu::cold, gnu::noinline]] void throw_unexpected_tag(SourceBase& s,
                                                                 char const* expected_types,
                                                                 char const* expected_tags,
                                                                 char const* function) {
  int const c = s.peek_char();
  if (c < 0)
    raise(error::zoserialize_reader_eof, "Unable to read token, reader is EOF", s, function);
  ErrorParams params;
  params.set("expectedTypes", expected_types);
  params.set("expectedTags", expected_tags);
  params.set("actualType", token_name(TextReader::token_from_tag(static_cast<char>(c))));
  params.set("actualTag", shown_char(c, true));
  raise(error::zoserialize_reader_data_type_mismatch,
        "Unexpected tags in text stream.  ExpectedType: {@expectedTypes} "
        "(\"{@expectedTags}\"), ActualType: '{@actualType}' (Tag: '{@actualTag}')",
        std::move(params), s, function);
}

// Takes the tag of an element of kind `expected` (the tag's character is returned), or fails
// with the end of the input or the unexpected tag, leaving it in place.
char read_tag(SourceBase& s, EToken expected, char const* function) {
  int const c = s.peek_char();
  if (c >= 0 && kTokenOfTag[static_cast<unsigned>(c)] == expected) [[likely]] {
    s.skip_peeked();
    return static_cast<char>(c);
  }
  throw_unexpected_tag(s, token_name(expected).c_str(), kTagsOfToken[static_cast<int>(expected)],
                       function);
}

[[noreturn, gnu::cold, gnu::noinline]] void throw_count_error(char const* message, unsigned hint,
                                                              unsigned elements,
                                                              SourceBase const& s,
                                                              char const* function) {
  ErrorParams params;
  params.set("countHint", hint);
  params.set("elementCount", elements);
  raise(error::zoserialize_reader_sequence_element_count, message, std::move(params), s, function);
}

[[noreturn, gnu::cold, gnu::noinline]] void throw_too_many_bits(bool is_signed, unsigned size,
                                                                unsigned needed,
                                                                SourceBase const& s,
                                                                char const* function) {
  ErrorParams params;
  params.set("expectedBits", 8 * size);
  params.set("actualBits", 8 * needed);
  raise(error::zoserialize_reader_data_type_range,
        is_signed ? "Number of bits required to represent marshaled signed number exceeds "
                    "expected number of bits.  Expected={@expectedBits}bits, "
                    "Actual={@actualBits}bits"
                  : "Number of bits required to represent marshaled unsigned number exceeds "
                    "expected number of bits.  Expected={@expectedBits}bits, "
                    "Actual={@actualBits}bits",
        std::move(params), s, function);
}

[[noreturn, gnu::cold, gnu::noinline]] void throw_invalid_utf8(SourceBase const& s,
                                                               std::string const& text,
                                                               char const* function) {
  RefCountPtr<ErrorInfo const> cause;
  try {
    zocore::check_valid_utf8(text.data(), static_cast<unsigned>(text.size()));
  } catch (zocore::ErrorException const& e) {
    cause = e.info();
  }
  TextReader::throw_syntax_error(s, "Unmarshaled string failed UTF-8 validation check", function,
                                 nullptr, std::move(cause));
}

[[noreturn, gnu::cold, gnu::noinline]] void throw_string_too_large(SourceBase const& s,
                                                                   char const* function) {
  ErrorParams params;
  params.set("maxSize", static_cast<unsigned long long>(TextReader::kMaxStringByValue));
  raise(error::zoserialize_reader_data_string_size,
        "String is too large to be read by value, it must be read as stream.  "
        "MaxSize={@maxSize}",
        std::move(params), s, function);
}

// The decimal digits as one 64-bit number; false when it does not fit.
bool parse_decimal(char const* digits, unsigned n, std::uint64_t& value) noexcept {
  std::uint64_t v = 0;
  for (unsigned i = 0; i < n; ++i) {
    auto const d = static_cast<unsigned>(digits[i] - '0');
    if (v > (UINT64_MAX - d) / 10) return false;
    v = v * 10 + d;
  }
  value = v;
  return true;
}

}  // namespace

// ---- Sources
// --------------------------------------------------------------------------------------

TextReader::SourceBase::~SourceBase() = default;

int TextReader::SourceBase::peek_char_slow() {
  for (;;) {
    skip_line_breaks();
    if (cur_ != end_) return static_cast<unsigned char>(*cur_);
    if (!refill()) return -1;
  }
}

void TextReader::SourceBase::skip_line_breaks() noexcept {
  while (cur_ != end_) {
    char const c = *cur_;
    if (c == '\n') {
      ++cur_;
      ++line_;
      line_start_ = source_pos();
    } else if (c == '\r') {
      ++cur_;
    } else {
      return;
    }
  }
}

unsigned TextReader::SourceBase::read_digit_buffer(char* out, unsigned max) {
  unsigned n = 0;
  while (n < max && is_digit(static_cast<char>(peek_char()))) {
    char const* p = cur_;
    auto const room = static_cast<std::size_t>(max - n);
    char const* const limit = static_cast<std::size_t>(end_ - p) > room ? p + room : end_;
    while (p != limit && is_digit(*p))
      out[n++] = *p++;
    cur_ = p;
  }
  return n;
}

unsigned TextReader::SourceBase::read_hexdigit_buffer(char* out, unsigned max) {
  unsigned n = 0;
  for (;;) {
    if (n == max) return n;
    int const c = peek_char();
    if (c < 0 || kHexValue[static_cast<unsigned>(c)] == kNoValue) return n;
    char const* p = cur_;
    auto const room = static_cast<std::size_t>(max - n);
    char const* const limit = static_cast<std::size_t>(end_ - p) > room ? p + room : end_;
    while (p != limit && kHexValue[static_cast<unsigned char>(*p)] != kNoValue)
      out[n++] = *p++;
    cur_ = p;
  }
}

std::size_t TextReader::SourceBase::read_string_buffer(char* out, std::size_t size, bool& ended) {
  static constexpr char kFunction[] = "zoserialize::TextReader::SourceBase::read_string_buffer()";
  std::size_t n = 0;
  ended = false;
  while (n < size) {
    char const* p = cur_;
    std::size_t const room = size - n;
    char const* const limit = static_cast<std::size_t>(end_ - p) > room ? p + room : end_;
    while (p != limit && kStringPlain[static_cast<unsigned char>(*p)])
      ++p;
    if (p != cur_) {
      auto const run = static_cast<std::size_t>(p - cur_);
      if (out != nullptr) std::memcpy(out + n, cur_, run);
      n += run;
      cur_ = p;
      continue;
    }
    if (cur_ == end_) {
      if (!refill()) throw_eof_in_string(kFunction);
      continue;
    }
    char const c = *cur_;
    if (c == '"') {
      ++cur_;
      ended = true;
      return n;
    }
    if (c == '~') {
      ++cur_;
      unsigned value = 0;
      for (int digit = 0; digit < 2; ++digit) {
        int const d = peek_char();
        unsigned const v = d < 0 ? kNoValue : kHexValue[static_cast<unsigned>(d)];
        if (v == kNoValue) {
          throw_syntax_error(
              "Unexpected character in string escape sequence.  Expected: {@expected}, "
              "Actual: '{@actual}'",
              "[0-9a-f]", kFunction);
        }
        skip_peeked();
        value = value << 4 | v;
      }
      if (out != nullptr) out[n] = static_cast<char>(value);
      ++n;
      continue;
    }
    if (is_line_break(c)) {
      skip_line_breaks();
      continue;
    }
    throw_syntax_error("Unexpected control character while reading string (must be escaped).",
                       nullptr, kFunction);
  }
  return n;
}

bool TextReader::SourceBase::read_string(std::string& out, std::size_t max_size) {
  static constexpr char kFunction[] = "zoserialize::TextReader::SourceBase::read_string()";
  // The usual string lies whole in the window, without escapes or line breaks. The bytes scanned
  // are gathered on the way: without a high bit they are ASCII, which needs no UTF-8 check (a
  // word may reach past the string, which only costs that check).
  std::uint64_t seen = 0;
  char const* p = cur_;
  for (; end_ - p >= 8; p += 8) {
    std::uint64_t const word = load_word(p);
    seen |= word;
    std::uint64_t const stops = string_stops(word);
    if (stops != 0) {
      p += first_marked(stops);
      break;
    }
  }
  while (p != end_ && kStringPlain[static_cast<unsigned char>(*p)])
    seen |= static_cast<unsigned char>(*p++);
  auto const run = static_cast<std::size_t>(p - cur_);
  if (run > max_size) throw_string_too_large(*this, kFunction);
  out.assign(cur_, run);
  cur_ = p;
  if (p != end_ && *p == '"') {
    ++cur_;
    return (seen & kHighs) == 0;
  }
  char block[4096];
  bool ended = false;
  while (!ended) {
    std::size_t const n = read_string_buffer(block, sizeof block, ended);
    if (n > max_size - out.size()) throw_string_too_large(*this, kFunction);
    out.append(block, n);
  }
  return is_ascii(out.data(), out.size());
}

unsigned TextReader::SourceBase::read_binary_base64_buffer(char* out, unsigned max, bool& ended) {
  unsigned n = 0;
  ended = false;
  while (n < max) {
    char const* p = cur_;
    auto const room = static_cast<std::size_t>(max - n);
    char const* const limit = static_cast<std::size_t>(end_ - p) > room ? p + room : end_;
    while (p != limit && kBase64Value[static_cast<unsigned char>(*p)] != kNoValue)
      ++p;
    if (p != cur_) {
      auto const run = static_cast<unsigned>(p - cur_);
      std::memcpy(out + n, cur_, run);
      n += run;
      cur_ = p;
      continue;
    }
    if (cur_ == end_) {
      if (!refill())
        throw_eof_in_binary("zoserialize::TextReader::SourceBase::read_binary_base64_buffer()");
      continue;
    }
    if (*cur_ == ']') {
      ++cur_;
      ended = true;
      return n;
    }
    if (!is_line_break(*cur_)) return n;
    skip_line_breaks();
  }
  return n;
}

void TextReader::SourceBase::add_location_error_params(zocore::ErrorParams& params) const {
  params.set("line", static_cast<unsigned long long>(line_));
  params.set("linePos", static_cast<unsigned long long>(line_pos()));
  params.set("sourcePos", static_cast<unsigned long long>(source_pos()));
}

void TextReader::SourceBase::throw_syntax_error(char const* message, char const* expected,
                                                char const* function) {
  ErrorParams params;
  if (expected != nullptr) params.set("expected", expected);
  params.set("actual", shown_char(peek_char(), false));
  raise(error::zoserialize_reader_data_invalid, message, std::move(params), *this, function);
}

void TextReader::SourceBase::throw_eof_in_string(char const* function) {
  raise(error::zoserialize_reader_eof, eof_in_string_message(), *this, function);
}

void TextReader::SourceBase::throw_eof_in_binary(char const* function) {
  raise(error::zoserialize_reader_eof, "Unexpected EOF while reading binary (base-64).", *this,
        function);
}

TextReader::StringSource::StringSource(char const* text, std::size_t length) noexcept {
  begin_ = cur_ = text;
  end_ = text + length;
}

char const* TextReader::StringSource::eof_in_string_message() const noexcept {
  return "End of data reached in string.";
}

TextReader::StreamSourceBase::StreamSourceBase(unsigned buffer_size)
    : buffer_(new char[buffer_size < 1 ? 1 : buffer_size]),
      capacity_(buffer_size < 1 ? 1 : buffer_size) {
  begin_ = cur_ = end_ = buffer_.get();
}

bool TextReader::StreamSourceBase::refill() {
  if (ended_) return false;
  unsigned const got = impl_read(buffer_.get(), capacity_);
  // Moved only once the read succeeded, so that a failure leaves the position as it was.
  window_pos_ += static_cast<std::uint64_t>(end_ - begin_);
  begin_ = cur_ = buffer_.get();
  end_ = begin_ + got;
  if (got < capacity_) ended_ = true;
  return got != 0;
}

char const* TextReader::StreamSourceBase::eof_in_string_message() const noexcept {
  return "Unexpected EOF while reading string.";
}

TextReader::StdStreamSource::StdStreamSource(std::istream& in, unsigned buffer_size)
    : StreamSourceBase(buffer_size), in_(in) {}

unsigned TextReader::StdStreamSource::impl_read(char* out, unsigned size) {
  static constexpr char kFunction[] = "zoserialize::TextReader::StdStreamSource::impl_read()";
  try {
    in_.read(out, static_cast<std::streamsize>(size));
  } catch (std::exception const& e) {
    // A stream told to throw at its end (failbit) has merely ended.
    if (!in_.bad() && in_.eof()) return static_cast<unsigned>(in_.gcount());
    zocore::throw_error(error::zoserialize_reader_data_source, "Error reading from std::istream",
                        ErrorParams(), here(kFunction),
                        ErrorInfo::from_exception(e, here(kFunction)));
  }
  if (in_.bad()) {
    zocore::throw_error(error::zoserialize_reader_data_source, "Error reading from std::istream",
                        here(kFunction));
  }
  return static_cast<unsigned>(in_.gcount());
}

TextReader::ReadStreamSource::ReadStreamSource(InterfacePtr<IReadStream>& stream,
                                               unsigned buffer_size)
    : StreamSourceBase(buffer_size), stream_(stream) {
  if (!stream_) {
    zocore::throw_error(error::zoserialize_reader, "NULL source stream specified",
                        here("zoserialize::TextReader::ReadStreamSource::ReadStreamSource()"));
  }
}

unsigned TextReader::ReadStreamSource::impl_read(char* out, unsigned size) {
  static constexpr char kFunction[] = "zoserialize::TextReader::ReadStreamSource::impl_read()";
  try {
    return stream_->read(out, size);
  } catch (std::exception const& e) {
    zocore::throw_error(error::zoserialize_reader_data_source,
                        "Error reading from zocore::IReadStream", ErrorParams(), here(kFunction),
                        ErrorInfo::from_exception(e, here(kFunction)));
  }
}

// ---- Payload streams
// ------------------------------------------------------------------------------

// Reads a string body or a binary's base64 through the reader's source, decoding as it goes. A
// binary is decoded in blocks of 4096 characters: every block but the last is whole groups of
// four, so a block never leaves a partial group behind.
class TextReader::ReadStreamImpl : public zocore::RefCounted<zocore::AtomicRefCount>,
                                   public IReadStream {
 public:
  enum class EState : std::uint8_t {
    kOpen,      // more of the value may follow
    kEnded,     // its closing character was taken; reads return 0
    kDetached,  // the reader moved on, was closed or destroyed: every call fails
  };

  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): pending_ is written before read
  ReadStreamImpl(TextReader& reader, bool binary, bool ended) noexcept
      : reader_(&reader), state_(ended ? EState::kEnded : EState::kOpen), binary_(binary) {}

  // Makes a detached binary stream the reader's open one again.
  void reopen(TextReader& reader) noexcept {
    reader_ = &reader;
    state_ = EState::kOpen;
    pending_pos_ = pending_end_ = 0;
    offset_ = 0;
  }
  void abandon() noexcept {
    reader_ = nullptr;
    state_ = EState::kDetached;
  }
  EState state() const noexcept { return state_; }
  bool is_binary() const noexcept { return binary_; }

  unsigned read(void* data, unsigned size) override {
    SourceBase& s = source("zoserialize::TextReader::ReadStreamImpl::read()");
    return transfer(s, static_cast<unsigned char*>(data), size);
  }
  unsigned skip(unsigned size) override {
    SourceBase& s = source("zoserialize::TextReader::ReadStreamImpl::skip()");
    return transfer(s, nullptr, size);
  }
  // Unknown until the value has ended: the text does not tell the decoded size up front.
  unsigned bytes_remaining() const override {
    source("zoserialize::TextReader::ReadStreamImpl::bytes_remaining()");
    return state_ == EState::kEnded && pending_pos_ == pending_end_ ? 0 : kUnknownSize;
  }
  // Consumes the unread rest of the value through skip() (so that a validating stream sees it),
  // then detaches.
  void close() override {
    source("zoserialize::TextReader::ReadStreamImpl::close()");
    constexpr unsigned kStep = 0x1000000;
    while (skip(kStep) == kStep) {
    }
    abandon();
  }

 private:
  static constexpr unsigned kBlockChars = 4096;
  static constexpr unsigned kBlockBytes = kBlockChars / 4 * 3;

  SourceBase& source(char const* function) const {
    if (state_ == EState::kDetached) throw_detached(function);
    return *reader_->source_;
  }

  // Reads into `out`, or skips when it is null.
  unsigned transfer(SourceBase& s, unsigned char* out, unsigned size) {
    if (!binary_) {
      if (state_ == EState::kEnded) return 0;
      bool ended = false;
      auto const n =
          static_cast<unsigned>(s.read_string_buffer(reinterpret_cast<char*>(out), size, ended));
      if (ended) state_ = EState::kEnded;
      return n;
    }
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
      if (out != nullptr && size - n >= kBlockBytes) {
        n += decode_block(s, out + n);
      } else {
        pending_pos_ = 0;
        pending_end_ = decode_block(s, pending_);
      }
    }
    return n;
  }

  // Decodes the next block of base64 into `out` (room for kBlockBytes) and returns the bytes.
  unsigned decode_block(SourceBase& s, unsigned char* out) {
    unsigned char* o = out;
    // Whole groups straight from the window while they are plain base64.
    char const* p = s.cur_;
    char const* const stop = s.end_ - p > kBlockChars ? p + kBlockChars : s.end_;
    for (; stop - p >= 4; p += 4, o += 3) {
      unsigned const a = kBase64Value[static_cast<unsigned char>(p[0])];
      unsigned const b = kBase64Value[static_cast<unsigned char>(p[1])];
      unsigned const c = kBase64Value[static_cast<unsigned char>(p[2])];
      unsigned const d = kBase64Value[static_cast<unsigned char>(p[3])];
      if ((a | b | c | d) >= 64) break;
      put_group(o, a << 18 | b << 12 | c << 6 | d);
    }
    auto const taken = static_cast<unsigned>(p - s.cur_);
    offset_ += taken;
    s.cur_ = p;
    if (taken == kBlockChars) return static_cast<unsigned>(o - out);
    // The usual end: a last group of 0, 2 or 3 characters, then `]`.
    std::ptrdiff_t tail = 0;
    while (tail < 4 && s.end_ - p > tail && value_of(p[tail]) < 64)
      ++tail;
    if (tail != 1 && tail != 4 && s.end_ - p > tail && p[tail] == ']') {
      if (tail != 0 && !put_last_group(o, p, static_cast<unsigned>(tail))) {
        throw_invalid(s, offset_ + static_cast<unsigned>(tail) - 1);
      }
      offset_ += static_cast<unsigned>(tail);
      s.cur_ = p + tail + 1;
      state_ = EState::kEnded;
      return static_cast<unsigned>(o - out);
    }
    // The rest of the block character by character: line breaks, refills, the last group.
    char chars[kBlockChars];
    unsigned const room = kBlockChars - taken;
    bool ended = false;
    unsigned const got = s.read_binary_base64_buffer(chars, room, ended);
    // Stopped at a character that is neither base64 nor the end.
    if (!ended && got < room) throw_invalid(s, offset_ + got);
    unsigned const whole = got / 4 * 4;
    for (unsigned i = 0; i < whole; i += 4, o += 3) {
      put_group(o, value_of(chars[i]) << 18 | value_of(chars[i + 1]) << 12 |
                       value_of(chars[i + 2]) << 6 | value_of(chars[i + 3]));
    }
    unsigned const rest = got - whole;
    if (rest == 1) throw_invalid(s, offset_ + got);
    if (rest != 0 && !put_last_group(o, chars + whole, rest)) throw_invalid(s, offset_ + got - 1);
    offset_ += got;
    if (ended) state_ = EState::kEnded;
    return static_cast<unsigned>(o - out);
  }

  static unsigned value_of(char c) noexcept { return kBase64Value[static_cast<unsigned char>(c)]; }
  // The last group of a value: two or three characters for one or two bytes, the unused bits of
  // the last character zero so that every byte string has exactly one text. Advances `o`; false
  // when those bits are not zero.
  static bool put_last_group(unsigned char*& o, char const* chars, unsigned n) noexcept {
    unsigned const a = value_of(chars[0]);
    unsigned const b = value_of(chars[1]);
    if (n == 2) {
      if ((b & 0x0F) != 0) return false;
      *o++ = static_cast<unsigned char>(a << 2 | b >> 4);
      return true;
    }
    unsigned const c = value_of(chars[2]);
    if ((c & 0x03) != 0) return false;
    *o++ = static_cast<unsigned char>(a << 2 | b >> 4);
    *o++ = static_cast<unsigned char>((b & 0x0F) << 4 | c >> 2);
    return true;
  }
  static void put_group(unsigned char* o, std::uint32_t v) noexcept {
    o[0] = static_cast<unsigned char>(v >> 16);
    o[1] = static_cast<unsigned char>(v >> 8);
    o[2] = static_cast<unsigned char>(v);
  }

  // The base64 text is wrong at character `offset` of the value (counted after its `[`).
  [[noreturn, gnu::cold, gnu::noinline]] static void throw_invalid(SourceBase const& s,
                                                                   std::uint64_t offset) {
    ErrorParams params;
    params.set("offset", static_cast<unsigned long long>(offset));
    raise(zocore::error::zocore_format, "Invalid base64 text at offset {@offset}",
          std::move(params), s, "zoserialize::TextReader::ReadStreamImpl::read()");
  }

  TextReader* reader_;
  EState state_;
  bool binary_;
  unsigned pending_pos_ = 0;  // decoded bytes not yet delivered: pending_[pos, end)
  unsigned pending_end_ = 0;
  std::uint64_t offset_ = 0;            // base64 characters taken so far
  unsigned char pending_[kBlockBytes];  // NOLINT(cppcoreguidelines-pro-type-member-init)
};

// ---- Reader
// ---------------------------------------------------------------------------------------

TextReader::TextReader(char const* text, unsigned length) {
  if (text == nullptr && length != 0) {
    zocore::throw_error(error::zoserialize_reader, "NULL source string specified",
                        here("zoserialize::TextReader::TextReader()"));
  }
  source_ = std::make_unique<StringSource>(text, length);
}

TextReader::TextReader(std::string const* text) {
  if (text == nullptr) {
    zocore::throw_error(error::zoserialize_reader, "NULL source string specified",
                        here("zoserialize::TextReader::TextReader()"));
  }
  source_ = std::make_unique<StringSource>(text->data(), text->size());
}

TextReader::TextReader(std::istream& in, unsigned buffer_size)
    : source_(std::make_unique<StdStreamSource>(in, buffer_size)) {}

TextReader::TextReader(InterfacePtr<IReadStream> stream, unsigned buffer_size)
    : source_(std::make_unique<ReadStreamSource>(stream, buffer_size)) {}

TextReader::~TextReader() {
  if (stream_) stream_->abandon();
}

EToken TextReader::token_from_tag(char tag) noexcept {
  return kTokenOfTag[static_cast<unsigned char>(tag)];
}

TextReader::SourceBase& TextReader::prepare_slow(char const* function) {
  if (!source_) throw_closed(function);
  detach_stream();
  return *source_;
}

void TextReader::detach_stream() {
  RefCountPtr<ReadStreamImpl> const stream = std::move(stream_);
  if (!stream) return;
  if (stream->state() != ReadStreamImpl::EState::kDetached) {
    try {
      stream->close();
    } catch (...) {
      stream->abandon();
      throw;
    }
  }
  if (stream->is_binary()) spare_binary_ = stream;
}

void TextReader::throw_syntax_error(SourceBase const& source, char const* message,
                                    char const* function, char const* expected,
                                    RefCountPtr<ErrorInfo const> nested) {
  ErrorParams params;
  if (expected != nullptr) params.set("expected", expected);
  raise(error::zoserialize_reader_data_size, message, std::move(params), source, function,
        std::move(nested));
}

void TextReader::close() {
  if (!source_) return;
  for (StackItem const& item : stack_) {
    if (item.type == StackItem::EType::Marker) {
      zocore::throw_error(error::zoserialize_reader_marker_nesting,
                          "Attempt to close reader with open markers",
                          here("zoserialize::TextReader::close()"));
    }
  }
  if (stream_) stream_->abandon();
  stream_.reset();
  stack_.clear();
  source_.reset();
}

bool TextReader::is_eof() const {
  // Looking ahead may refill the source's buffer or finish an open payload stream.
  auto& self = const_cast<TextReader&>(*this);
  return self.prepare("zoserialize::TextReader::is_eof()").peek_char() < 0;
}

EToken TextReader::next_token() {
  int const c = prepare("zoserialize::TextReader::next_token()").peek_char();
  return c < 0 ? EToken::Eof : kTokenOfTag[static_cast<unsigned>(c)];
}

void TextReader::skip_element() {
  walk(nullptr, "zoserialize::TextReader::skip_element()");
}

void TextReader::read_copy(Writer& writer) {
  walk(&writer, "zoserialize::TextReader::read_copy()");
}

void TextReader::read_null() {
  static constexpr char kFunction[] = "zoserialize::TextReader::read_null()";
  read_tag(prepare(kFunction), EToken::Null, kFunction);
}

bool TextReader::try_read_null() {
  return try_read_null(prepare("zoserialize::TextReader::try_read_null()"));
}

bool TextReader::read_bool() {
  static constexpr char kFunction[] = "zoserialize::TextReader::read_bool()";
  return read_tag(prepare(kFunction), EToken::Boolean, kFunction) == 'Y';
}

void TextReader::read_int_big_endian(void* data, unsigned size) {
  read_integer(data, size, true, "zoserialize::TextReader::read_int_big_endian()");
}

void TextReader::read_uint_big_endian(void* data, unsigned size) {
  read_integer(data, size, false, "zoserialize::TextReader::read_uint_big_endian()");
}

bool TextReader::read_integer_in_window(SourceBase& s, unsigned char* out, unsigned size,
                                        bool is_signed) noexcept {
  char const* const p = s.cur_;
  char const* const end = s.end_;
  if (p == end) return false;
  char const tag = *p;
  char const* q = p + 1;
  std::uint64_t u = 0;
  bool negative = false;
  if (tag == (is_signed ? 'I' : 'X')) {
    // At most 17 digits are looked at: a 17th sends the token to the general path.
    char const* const limit = end - q > 17 ? q + 17 : end;
    unsigned v;
    while (q != limit && (v = kHexValue[static_cast<unsigned char>(*q)]) != kNoValue) {
      u = u << 4 | v;
      ++q;
    }
    auto const digits = static_cast<unsigned>(q - p - 1);
    if (digits > 16) return false;
    // The first digit carries the sign.
    negative = is_signed && digits != 0 && kHexValue[static_cast<unsigned char>(p[1])] >= 8;
    if (negative && digits < 16) u |= ~std::uint64_t{0} << (4 * digits);
  } else if (tag == (is_signed ? '+' : 'U') || (is_signed && tag == '-')) {
    // Nineteen digits cannot overflow 64 bits; a twentieth sends the token to the general path.
    char const* const limit = end - q > 20 ? q + 20 : end;
    while (q != limit && is_digit(*q))
      u = u * 10 + static_cast<unsigned>(*q++ - '0');
    if (q - p > 20) return false;
    if (is_signed) {
      negative = tag == '-' && u != 0;
      if (u > (negative ? std::uint64_t{1} << 63 : std::uint64_t{INT64_MAX})) return false;
      if (negative) u = 0 - u;
    }
  } else {
    return false;
  }
  // The token must end in the window, at anything but a line break (it may go on after one).
  if (q == end || SourceBase::is_line_break(*q)) return false;
  // Zero bytes (only 0, or -1 when signed, fit them) are the general path's business.
  if (size == 0) return false;
  if (size < 8) {
    unsigned const bits = 8 * size;
    bool const fits = is_signed
                          ? static_cast<std::int64_t>(u) >= -(std::int64_t{1} << (bits - 1)) &&
                                static_cast<std::int64_t>(u) < (std::int64_t{1} << (bits - 1))
                          : u < (std::uint64_t{1} << bits);
    if (!fits) return false;
  }
  switch (size) {
    case 1:
      out[0] = static_cast<unsigned char>(u);
      break;
    case 2:
      impl::store_big_endian(static_cast<std::uint16_t>(u), out);
      break;
    case 4:
      impl::store_big_endian(static_cast<std::uint32_t>(u), out);
      break;
    case 8:
      impl::store_big_endian(u, out);
      break;
    default: {
      unsigned char const fill = negative ? 0xFF : 0x00;
      for (unsigned i = 0; i < size; ++i)
        out[size - 1 - i] = i < 8 ? static_cast<unsigned char>(u >> (8 * i)) : fill;
    }
  }
  s.cur_ = q;
  return true;
}

void TextReader::read_integer(void* data, unsigned size, bool is_signed, char const* function) {
  SourceBase& s = prepare(function);
  if (read_integer_in_window(s, static_cast<unsigned char*>(data), size, is_signed)) [[likely]]
    return;
  char const tag =
      read_tag(s, is_signed ? EToken::SignedInteger : EToken::UnsignedInteger, function);
  // The value as a big-endian two's-complement (signed) or plain (unsigned) image.
  unsigned char bytes[128];
  unsigned length;
  if (tag == 'I' || tag == 'X') {
    char digits[255];
    unsigned const n = s.read_hexdigit_buffer(digits, sizeof digits);
    length = 0;
    unsigned i = 0;
    if (n % 2 != 0) {
      // An odd count is completed by a digit that extends the first one's sign.
      unsigned const first = kHexValue[static_cast<unsigned char>(digits[0])];
      bytes[length++] = static_cast<unsigned char>((tag == 'I' && first >= 8 ? 0xF0 : 0) | first);
      i = 1;
    }
    for (; i < n; i += 2) {
      bytes[length++] =
          static_cast<unsigned char>(kHexValue[static_cast<unsigned char>(digits[i])] << 4 |
                                     kHexValue[static_cast<unsigned char>(digits[i + 1])]);
    }
    if (length == 0) bytes[length++] = 0;
  } else {
    char digits[128];
    unsigned const n = s.read_digit_buffer(digits, sizeof digits);
    std::uint64_t magnitude = 0;
    if (!parse_decimal(digits, n, magnitude)) {
      ErrorParams params;
      params.set("text", std::string_view(digits, n));
      throw_syntax_error(
          s, "Error parsing decimal integer", function, nullptr,
          ErrorInfo::create(zocore::error::zocore_range,
                            SourceString("Decimal number exceeds 64 bits: {@text}", true),
                            std::move(params), here(function)));
    }
    if (tag == 'U') {
      impl::store_big_endian(magnitude, bytes);
      length = 8;
    } else {
      // Nine bytes hold every value of either sign whose magnitude fits 64 bits.
      bool const negative = tag == '-' && magnitude != 0;
      bytes[0] = negative ? 0xFF : 0x00;
      impl::store_big_endian(negative ? 0 - magnitude : magnitude, bytes + 1);
      length = 9;
    }
  }
  auto* const out = static_cast<unsigned char*>(data);
  if (is_signed) {
    impl::SignedForm const form = impl::minimal_signed_form(bytes, length);
    if (form.length > size) throw_too_many_bits(true, size, form.length, s, function);
    std::memset(out, form.sign, size - form.length);
    std::memcpy(out + size - form.length, bytes + form.offset, form.length);
  } else {
    impl::UnsignedForm const form = impl::minimal_unsigned_form(bytes, length);
    if (form.length > size) throw_too_many_bits(false, size, form.length, s, function);
    std::memset(out, 0, size - form.length);
    std::memcpy(out + size - form.length, bytes + form.offset, form.length);
  }
}

double TextReader::read_double() {
  static constexpr char kFunction[] = "zoserialize::TextReader::read_double()";
  SourceBase& s = prepare(kFunction);
  // The usual token: `R` and its digits in the window, ended by anything but a line break.
  if (s.cur_ != s.end_ && *s.cur_ == 'R') [[likely]] {
    char const* q = s.cur_ + 1;
    char const* const limit = s.end_ - q > 16 ? q + 16 : s.end_;
    std::uint64_t bits = 0;
    unsigned v;
    while (q != limit && (v = kHexValue[static_cast<unsigned char>(*q)]) != kNoValue) {
      bits = bits << 4 | v;
      ++q;
    }
    auto const n = static_cast<unsigned>(q - s.cur_ - 1);
    if (q != s.end_ && !SourceBase::is_line_break(*q)) {
      s.cur_ = q;
      if (n != 0) bits <<= 4 * (16 - n);
      return std::bit_cast<double>(bits);
    }
  }
  read_tag(s, EToken::Double, kFunction);
  char digits[16];
  unsigned const n = s.read_hexdigit_buffer(digits, sizeof digits);
  std::uint64_t bits = 0;
  for (unsigned i = 0; i < n; ++i)
    bits = bits << 4 | kHexValue[static_cast<unsigned char>(digits[i])];
  // The digits left out were trailing zeros.
  if (n != 0) bits <<= 4 * (16 - n);
  return std::bit_cast<double>(bits);
}

void TextReader::read_string_element(SourceBase& source, std::string& out, char const* function) {
  if (read_tag(source, EToken::String, function) == 'S') {
    out.clear();
    return;
  }
  bool const ascii = source.read_string(out, kMaxStringByValue);
  if (!ascii && !zocore::is_valid_utf8(out.data(), out.size())) {
    throw_invalid_utf8(source, out, function);
  }
}

void TextReader::read_string(SourceString& out) {
  static constexpr char kFunction[] = "zoserialize::TextReader::read_string()";
  std::string text;
  read_string_element(prepare(kFunction), text, kFunction);
  out.assign(text.data(), static_cast<unsigned>(text.size()), false);
}

void TextReader::read_string(std::string& out) {
  static constexpr char kFunction[] = "zoserialize::TextReader::read_string()";
  read_string_element(prepare(kFunction), out, kFunction);
}

std::string TextReader::read_string() {
  std::string out;
  read_string(out);
  return out;
}

InterfacePtr<IReadStream> TextReader::read_string_stream() {
  static constexpr char kFunction[] = "zoserialize::TextReader::read_string_stream()";
  SourceBase& s = prepare(kFunction);
  char const tag = read_tag(s, EToken::String, kFunction);
  return open_stream(s, false, tag == 'S');
}

InterfacePtr<IReadStream> TextReader::read_binary() {
  static constexpr char kFunction[] = "zoserialize::TextReader::read_binary()";
  SourceBase& s = prepare(kFunction);
  read_tag(s, EToken::Binary, kFunction);
  return open_stream(s, true, false);
}

InterfacePtr<IReadStream> TextReader::open_stream(SourceBase& /*s*/, bool binary, bool ended) {
  RefCountPtr<ReadStreamImpl> stream;
  if (!binary) {
    stream = zocore::make_ref_counted<impl::Utf8ValidatingStreamImpl<ReadStreamImpl>>(*this, false,
                                                                                      ended);
  } else if (spare_binary_ && spare_binary_->is_unique()) {
    // Nobody else holds the last binary stream: no allocation per binary value.
    stream = std::move(spare_binary_);
    stream->reopen(*this);
  } else {
    stream = zocore::make_ref_counted<ReadStreamImpl>(*this, true, false);
  }
  stream_ = stream;
  return InterfacePtr<IReadStream>(stream);
}

AbsoluteTime TextReader::read_absolute_time() {
  static constexpr char kFunction[] = "zoserialize::TextReader::read_absolute_time()";
  static constexpr char kExpected[] = "8digit[2digit[2digit[2digit[\".\"1*9digit]]]]";
  SourceBase& s = prepare(kFunction);
  read_tag(s, EToken::AbsoluteTime, kFunction);
  char d[15];
  unsigned const n = s.read_digit_buffer(d, sizeof d);
  if (n == 0) return AbsoluteTime::infinite();
  if (n % 2 != 0 || n < 8 || n > 14) {
    throw_syntax_error(s, "Invalid absolute time.  Expected: {@expected}", kFunction, kExpected,
                       {});
  }
  auto const field = [&](unsigned at, unsigned width) {
    unsigned v = 0;
    for (unsigned i = at; i < at + width && i < n; ++i)
      v = v * 10 + static_cast<unsigned>(d[i] - '0');
    return v;
  };
  AbsoluteTime::Components c(static_cast<int>(field(0, 4)), field(4, 2), field(6, 2), field(8, 2),
                             field(10, 2), field(12, 2));
  if (n == 14 && s.peek_char() == '.') {
    s.skip_peeked();
    char f[10];
    unsigned const m = s.read_digit_buffer(f, sizeof f);
    if (m == 0 || m > 9) {
      throw_syntax_error(s, "Invalid fractional seconds in absolute time.  Expected: {@expected}",
                         kFunction, "\".\"1*9digit", {});
    }
    std::uint64_t fraction = 0;
    parse_decimal(f, m, fraction);
    c.nanosecond = static_cast<unsigned>(fraction * pow10(9 - m));
  }
  AbsoluteTime t;
  if (!AbsoluteTime::from_components_nothrow(c, &t)) {
    throw_syntax_error(s, "Invalid absolute time.  Expected: {@expected}", kFunction, kExpected,
                       {});
  }
  return t;
}

RelativeTime TextReader::read_relative_time() {
  static constexpr char kFunction[] = "zoserialize::TextReader::read_relative_time()";
  SourceBase& s = prepare(kFunction);
  char const tag = read_tag(s, EToken::RelativeTime, kFunction);
  char d[64];
  unsigned const n = s.read_digit_buffer(d, sizeof d);
  bool const has_fraction = s.peek_char() == '.';
  if (n == 0 && !has_fraction) {
    if (tag == 'P') return RelativeTime::infinite();
    throw_syntax_error(s, "Invalid relative time.  Expected: {@expected}", kFunction,
                       "1*digit/*digit\".\"1*9digit", {});
  }
  std::uint64_t seconds = 0;
  bool fits = parse_decimal(d, n, seconds);
  std::uint64_t ns = 0;
  if (has_fraction) {
    s.skip_peeked();
    char f[10];
    unsigned const m = s.read_digit_buffer(f, sizeof f);
    if (m == 0 || m > 9) {
      throw_syntax_error(s, "Invalid fractional seconds in relative time.  Expected: {@expected}",
                         kFunction, ".1*9[0-9]", {});
    }
    parse_decimal(f, m, ns);
    ns *= pow10(9 - m);
  }
  // A negative count reaches one nanosecond further than a positive one.
  std::uint64_t const limit = tag == 'P' ? INT64_MAX : std::uint64_t{1} << 63;
  fits = fits && seconds <= limit / 1000000000u && seconds * 1000000000u <= limit - ns;
  if (!fits) {
    ErrorParams params;
    params.set("maxValue", tag == 'P' ? "9223372036.854775807" : "9223372036.854775808");
    raise(error::zoserialize_reader_data_type_range,
          "Seconds in relative time exceed maximum value.  MaxValue: {@maxValue}",
          std::move(params), s, kFunction);
  }
  std::uint64_t const count = seconds * 1000000000u + ns;
  return RelativeTime(static_cast<std::int64_t>(tag == 'P' ? count : 0 - count));
}

Uuid TextReader::read_uuid() {
  static constexpr char kFunction[] = "zoserialize::TextReader::read_uuid()";
  SourceBase& s = prepare(kFunction);
  read_tag(s, EToken::Uuid, kFunction);
  char digits[32];
  unsigned const n = s.read_hexdigit_buffer(digits, sizeof digits);
  if (n == 0) return Uuid();
  Uuid u;
  if (!Uuid::from_string_nothrow(digits, n, &u)) {
    RefCountPtr<ErrorInfo const> cause;
    try {
      static_cast<void>(Uuid::from_string(digits, n));
    } catch (zocore::ErrorException const& e) {
      cause = e.info();
    }
    throw_syntax_error(s, "Error parsing UUID.  Expected: {@expected}", kFunction, "32hexdigit",
                       std::move(cause));
  }
  return u;
}

unsigned TextReader::read_sequence_start() {
  static constexpr char kFunction[] = "zoserialize::TextReader::read_sequence_start()";
  SourceBase& s = prepare(kFunction);
  read_tag(s, EToken::SequenceStart, kFunction);
  char digits[64];
  unsigned const n = s.read_digit_buffer(digits, sizeof digits);
  std::uint64_t hint = 0;
  if (!parse_decimal(digits, n, hint) || hint > 0xFFFFFFFFu) {
    throw_syntax_error(s, "Error parsing sequence count hint.  Expecting: {@expected}", kFunction,
                       "*digit", {});
  }
  stack_.push_back({StackItem::EType::Sequence, static_cast<unsigned>(hint), 0});
  return static_cast<unsigned>(hint);
}

bool TextReader::read_sequence_next() {
  static constexpr char kFunction[] = "zoserialize::TextReader::read_sequence_next()";
  SourceBase& s = prepare(kFunction);
  if (stack_.empty()) {
    raise(error::zoserialize_reader_sequence_nesting,
          "Attempt to advance to next sequence element but no sequence is open", s, kFunction);
  }
  StackItem& top = stack_.back();
  if (top.type != StackItem::EType::Sequence) {
    raise(error::zoserialize_reader_sequence_nesting,
          "Attempt to advance to next sequence element but top of element stack is not sequence", s,
          kFunction);
  }
  int const c = s.peek_char();
  unsigned const hint = top.count_hint;
  unsigned const elements = top.elements;
  if (elements == 0) {
    if (c < 0)
      raise(error::zoserialize_reader_eof, "End of data reached in sequence", s, kFunction);
    if (c != ')') {
      top.elements = 1;
      return true;
    }
    s.skip_peeked();
    stack_.pop_back();
    if (hint != 0) {
      throw_count_error(
          "Count hint of sequence does not match number of elements in sequence.  "
          "CountHint={@countHint}, ElementCount={@elementCount}",
          hint, 0, s, kFunction);
    }
    return false;
  }
  if (c == ')') {
    s.skip_peeked();
    stack_.pop_back();
    if (hint != 0 && hint != elements) {
      throw_count_error(
          "Premature end of sequence, expecting separator.  CountHint={@countHint}, "
          "ElementCount={@elementCount}",
          hint, elements, s, kFunction);
    }
    return false;
  }
  if (c != ',') {
    throw_unexpected_tag(s, "SequenceSeparator or SequenceEnd", ",)", kFunction);
  }
  if (hint != 0 && elements >= hint) {
    throw_count_error("Expecting end of sequence but found separator.  CountHint={@countHint}",
                      hint, elements, s, kFunction);
  }
  s.skip_peeked();
  top.elements = elements + 1;
  return true;
}

void TextReader::read_marker_start() {
  static constexpr char kFunction[] = "zoserialize::TextReader::read_marker_start()";
  read_tag(prepare(kFunction), EToken::MarkerStart, kFunction);
  stack_.push_back({StackItem::EType::Marker, 0, 0});
}

TextReader::StackItem& TextReader::top_marker(char const* function) {
  if (stack_.empty()) {
    raise(error::zoserialize_reader_marker_mismatch, "No markers are currently open", *source_,
          function);
  }
  if (stack_.back().type != StackItem::EType::Marker) {
    raise(error::zoserialize_reader_marker_mismatch, "Top of element stack is not a marker",
          *source_, function);
  }
  return stack_.back();
}

bool TextReader::read_marker_is_end() {
  static constexpr char kFunction[] = "zoserialize::TextReader::read_marker_is_end()";
  SourceBase& s = prepare(kFunction);
  top_marker(kFunction);
  return s.peek_char() == '}';
}

void TextReader::read_marker_end() {
  static constexpr char kFunction[] = "zoserialize::TextReader::read_marker_end()";
  SourceBase& s = prepare(kFunction);
  top_marker(kFunction);
  for (;;) {
    int const c = s.peek_char();
    if (c == '}') break;
    if (c < 0) {
      raise(error::zoserialize_reader_eof,
            "Unexpected end of data in marker, expecting marker end tag", s, kFunction);
    }
    walk(nullptr, kFunction);
  }
  s.skip_peeked();
  stack_.pop_back();
}

void TextReader::walk(Writer* writer, char const* function) {
  // The scopes entered here go on the reader's own stack, so the reader's checks (count hints,
  // the end of the input) apply to what is skipped or copied as to what is read.
  std::size_t const base = stack_.size();
  bool first = true;
  for (;;) {
    SourceBase& s = prepare(function);
    if (stack_.size() > base) {
      StackItem const& top = stack_.back();
      if (top.type == StackItem::EType::Sequence) {
        bool const separator = top.elements != 0;
        if (!TextReader::read_sequence_next()) {
          if (writer != nullptr) writer->write_sequence_end();
          if (stack_.size() == base) return;
          continue;
        }
        if (separator && writer != nullptr) writer->write_sequence_separator();
      } else if (s.peek_char() == '}') {
        s.skip_peeked();
        stack_.pop_back();
        if (writer != nullptr) writer->write_marker_end();
        if (stack_.size() == base) return;
        continue;
      }
    }
    int const c = s.peek_char();
    if (c < 0) {
      raise(error::zoserialize_reader_eof, "Unexpected end of data, expecting token", s, function);
    }
    EToken const token = kTokenOfTag[static_cast<unsigned>(c)];
    switch (token) {
      case EToken::SequenceStart: {
        unsigned const hint = TextReader::read_sequence_start();
        if (writer != nullptr) {
          if (hint != 0) {
            writer->write_sequence_start(hint);
          } else {
            writer->write_sequence_start();
          }
        }
        break;
      }
      case EToken::MarkerStart:
        TextReader::read_marker_start();
        if (writer != nullptr) writer->write_marker_start();
        break;
      case EToken::SequenceSeparator:
      case EToken::SequenceEnd:
      case EToken::MarkerEnd:
      case EToken::Unknown: {
        ErrorParams params;
        params.set("token", token_name(token));
        if (token == EToken::Unknown) params.set("actualTag", shown_char(c, true));
        raise(error::zoserialize_reader_state,
              first && token != EToken::Unknown ? "Not at start of element.  Token: {@token}"
                                                : "Unexpected token.  Token: {@token}",
              std::move(params), s, function);
      }
      default:
        copy_or_skip_scalar(s, token, writer, function);
    }
    first = false;
    if (stack_.size() == base) return;
  }
}

void TextReader::copy_or_skip_scalar(SourceBase& s, EToken token, Writer* writer,
                                     char const* function) {
  switch (token) {
    case EToken::Null:
      s.skip_peeked();
      if (writer != nullptr) writer->write_null();
      return;
    case EToken::Boolean: {
      bool const value = s.read_char() == 'Y';
      if (writer != nullptr) writer->write_bool(value);
      return;
    }
    case EToken::SignedInteger:
    case EToken::UnsignedInteger: {
      // 128 bytes hold every integer the text can carry (255 hex digits at most).
      unsigned char image[128];
      bool const is_signed = token == EToken::SignedInteger;
      read_integer(image, sizeof image, is_signed, function);
      if (writer == nullptr) return;
      if (is_signed) {
        writer->write_int_big_endian(image, sizeof image);
      } else {
        writer->write_uint_big_endian(image, sizeof image);
      }
      return;
    }
    case EToken::Double: {
      double const value = TextReader::read_double();
      if (writer != nullptr) writer->write_double(value);
      return;
    }
    case EToken::String:
      if (writer == nullptr) {
        // Skipped without a limit or a UTF-8 check: nothing of it is kept.
        if (s.read_char() == 'S') return;
        bool ended = false;
        while (!ended)
          s.read_string_buffer(nullptr, SIZE_MAX, ended);
        return;
      }
      {
        InterfacePtr<IReadStream> const stream = TextReader::read_string_stream();
        writer->write_string_stream(*stream);
        stream->close();
      }
      return;
    case EToken::Binary: {
      InterfacePtr<IReadStream> const stream = TextReader::read_binary();
      if (writer != nullptr) writer->write_binary(*stream);
      // The value ends here, so that a copy fails on this element and not on the next.
      stream->close();
      return;
    }
    case EToken::AbsoluteTime: {
      AbsoluteTime const value = TextReader::read_absolute_time();
      if (writer != nullptr) writer->write_absolute_time(value);
      return;
    }
    case EToken::RelativeTime: {
      RelativeTime const value = TextReader::read_relative_time();
      if (writer != nullptr) writer->write_relative_time(value);
      return;
    }
    case EToken::Uuid: {
      Uuid const value = TextReader::read_uuid();
      if (writer != nullptr) writer->write_uuid(value);
      return;
    }
    default:
      return;
  }
}

}  // namespace zoserialize
