#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

#include <zocore/base64.h>
#include <zocore/hex.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/throw_error.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/impl/integer_form.h>
#include <zoserialize/impl/output_failure.h>
#include <zoserialize/impl/scope_stack.h>
#include <zoserialize/impl/text_targets.h>
#include <zoserialize/impl/value_stream_base.h>
#include <zoserialize/text_writer.h>

namespace zoserialize {
namespace {

constexpr char kModuleId[] = "$Id: src/zoserialize/text_writer.cpp $";

// Bits of Core::pending: anything that the start of an operation must look at.
constexpr std::uint8_t kStreamOpen = 1;
constexpr std::uint8_t kOutputFailed = 2;
constexpr std::uint8_t kClosed = 4;

// Escape classes of string bytes; a byte is escaped when its class meets the writer's mask.
constexpr std::uint8_t kEscapeAlways = 1;   // control characters, '"', '~', 0x7F
constexpr std::uint8_t kEscapeSpace = 2;    // with escape_spaces
constexpr std::uint8_t kEscapeHighBit = 4;  // with ascii_only

constexpr std::array<std::uint8_t, 256> make_escape_classes() {
  std::array<std::uint8_t, 256> t{};
  for (unsigned c = 0; c < 0x20; ++c)
    t[c] = kEscapeAlways;
  t[' '] = kEscapeSpace;
  t['"'] = kEscapeAlways;
  t['~'] = kEscapeAlways;
  t[0x7F] = kEscapeAlways;
  for (unsigned c = 0x80; c < 0x100; ++c)
    t[c] = kEscapeHighBit;
  return t;
}
constexpr std::array<std::uint8_t, 256> kEscapeClasses = make_escape_classes();

constexpr char kHexDigits[] = "0123456789abcdef";

// The base64 of this many bytes is one piece of 4096 characters: a whole number of groups, so
// consecutive pieces join without padding.
constexpr unsigned kBase64Block = 3072;
constexpr unsigned kStringSourceBlock = 4096;
constexpr unsigned kLargestWrittenHint = 9999999;

constexpr std::array<char, 200> make_digit_pairs() {
  std::array<char, 200> t{};
  for (unsigned i = 0; i < 100; ++i) {
    t[2 * i] = static_cast<char>('0' + i / 10);
    t[2 * i + 1] = static_cast<char>('0' + i % 10);
  }
  return t;
}
constexpr std::array<char, 200> kDigitPairs = make_digit_pairs();

constexpr std::array<char, 512> make_hex_pairs() {
  std::array<char, 512> t{};
  for (unsigned i = 0; i < 256; ++i) {
    t[2 * i] = kHexDigits[i >> 4];
    t[2 * i + 1] = kHexDigits[i & 15];
  }
  return t;
}
constexpr std::array<char, 512> kHexPairs = make_hex_pairs();

// Decimal digits of `v` at `out`, two at a time; returns the end.
char* format_decimal(char* out, std::uint64_t v) noexcept {
  char digits[20];
  char* p = digits + sizeof digits;
  while (v >= 100) {
    p -= 2;
    std::memcpy(p, &kDigitPairs[2 * (v % 100)], 2);
    v /= 100;
  }
  if (v >= 10) {
    p -= 2;
    std::memcpy(p, &kDigitPairs[2 * v], 2);
  } else {
    *--p = static_cast<char>('0' + v);
  }
  auto const n = static_cast<std::size_t>(digits + sizeof digits - p);
  std::memcpy(out, p, n);
  return out + n;
}

// The low `bytes` bytes of `v`, most significant first, as two hex digits each.
char* format_hex_bytes(char* out, std::uint64_t v, unsigned bytes) noexcept {
  for (unsigned i = bytes; i-- > 0; out += 2)
    std::memcpy(out, &kHexPairs[2 * ((v >> (8 * i)) & 0xFF)], 2);
  return out;
}

// A set bit in each byte of `word` (eight string bytes) that matches: exact for the first match
// in memory order, which is all the scan needs (a borrow can only mark bytes after a true one).
constexpr std::uint64_t kOnes = 0x0101010101010101ull;
constexpr std::uint64_t kHighs = 0x8080808080808080ull;
constexpr std::uint64_t zero_bytes(std::uint64_t x) noexcept {
  return (x - kOnes) & ~x & kHighs;
}
constexpr std::uint64_t bytes_equal(std::uint64_t word, unsigned char c) noexcept {
  return zero_bytes(word ^ (kOnes * c));
}

// Exactly `width` digits of `v` (which fits them), zero-padded.
char* format_digits(char* out, std::uint32_t v, unsigned width) noexcept {
  for (unsigned i = width; i-- > 0;) {
    out[i] = static_cast<char>('0' + v % 10);
    v /= 10;
  }
  return out + width;
}

// The nine-digit fraction of a second `ns` (not 0) without its trailing zeros.
char* format_fraction(char* out, unsigned ns) noexcept {
  unsigned width = 9;
  while (ns % 10 == 0) {
    ns /= 10;
    --width;
  }
  return format_digits(out, ns, width);
}

impl::ScopeMessages const kScopeMessages = {
    "zoserialize::TextWriter::write_sequence_separator()",
    "zoserialize::TextWriter::write_sequence_end()",
    "zoserialize::TextWriter::write_marker_end()",
    "zoserialize::TextWriter::close()",
    "Attempt to add sequence separator and no sequence is open at top of stack",
    "Attempt to close sequence and no sequence is open or on top of stack",
    "Attempt to close marker and no marker is open or on top of stack",
    "Attempt to close writer but there are sequences and/or markers that are still open",
    &error::zoserialize_writer_sequence_nesting,
    true,  // Added reports the elements (separators + 1)
};

}  // namespace

// ---- Core ---------------------------------------------------------------------------------------

// Everything the writer keeps, behind the installed header. Every character reaches the target
// through put() or emit(); a target that throws leaves the writer failed.
struct TextWriter::Core {
  Core(Options const& o, InterfacePtr<ITextTarget> t, std::string* string) noexcept
      : options(o),
        target(std::move(t)),
        direct(string),
        escape_mask(static_cast<std::uint8_t>(kEscapeAlways |
                                              (o.escape_spaces() ? kEscapeSpace : 0) |
                                              (o.ascii_only() ? kEscapeHighBit : 0))),
        escape_space(o.escape_spaces()),
        escape_high(o.ascii_only()),
        pending(target ? 0 : kClosed) {}

  // A run of characters gathered on the stack before it goes to the target in one call. A run of
  // string bytes that does not fit goes to the target on its own, never split.
  class Composer {
   public:
    explicit Composer(Core& core) noexcept : core_(core) {}
    Composer(Composer const&) = delete;
    Composer& operator=(Composer const&) = delete;

    void add(char c) {
      if (used_ == sizeof buffer_) flush();
      buffer_[used_++] = c;
    }
    void add_escape(unsigned char byte) {
      if (sizeof buffer_ - used_ < 3) flush();
      buffer_[used_] = '~';
      buffer_[used_ + 1] = kHexDigits[byte >> 4];
      buffer_[used_ + 2] = kHexDigits[byte & 15];
      used_ += 3;
    }
    void add_run(char const* data, std::size_t size) {
      if (size <= sizeof buffer_ - used_) {
        std::memcpy(buffer_ + used_, data, size);
        used_ += static_cast<unsigned>(size);
        return;
      }
      flush();
      core_.emit(data, size);
    }
    void flush() {
      if (used_ != 0) core_.emit(buffer_, used_);
      used_ = 0;
    }

   private:
    Core& core_;
    unsigned used_ = 0;
    char buffer_[512];  // NOLINT(cppcoreguidelines-pro-type-member-init): written before read
  };

  void put(char c) {
    try {
      if (direct != nullptr) [[likely]] {
        direct->push_back(c);
      } else {
        target->put(c);
      }
    } catch (...) {
      output_failed();
      throw;
    }
  }

  void emit(char const* data, std::size_t size) {
    try {
      if (direct != nullptr) [[likely]] {
        direct->append(data, size);
      } else {
        target->write(data, static_cast<unsigned>(size));
      }
    } catch (...) {
      output_failed();
      throw;
    }
  }

  // What was written can no longer be read back: refuse from now on.
  void output_failed() noexcept {
    pending |= kOutputFailed;
    slot.abandon();
  }

  // source.read(), leaving the writer failed when the source throws after the element began.
  unsigned read_source(IReadStream& source, void* dest, unsigned size, bool begun) {
    try {
      return source.read(dest, size);
    } catch (...) {
      if (begun) output_failed();
      throw;
    }
  }

  // The length of the run at `p` that needs no escape, eight bytes at a time.
  std::size_t plain_run(unsigned char const* p, std::size_t size) const noexcept {
    std::size_t i = 0;
    for (; size - i >= 8; i += 8) {
      std::uint64_t word;
      std::memcpy(&word, p + i, sizeof word);
      // Below 0x20 (bytes of 0x80 and above are excluded by ~word), '"', '~', 0x7F.
      std::uint64_t hit = ((word - kOnes * 0x20) & ~word & kHighs) | bytes_equal(word, '"') |
                          bytes_equal(word, '~') | bytes_equal(word, 0x7F);
      if (escape_space) hit |= bytes_equal(word, ' ');
      if (escape_high) hit |= word & kHighs;
      if (hit != 0) {
        if constexpr (std::endian::native == std::endian::little) {
          return i + static_cast<std::size_t>(std::countr_zero(hit)) / 8;
        } else {
          return i + static_cast<std::size_t>(std::countl_zero(hit)) / 8;
        }
      }
    }
    while (i != size && (kEscapeClasses[p[i]] & escape_mask) == 0)
      ++i;
    return i;
  }

  // The string bytes, escaped where the options say.
  void add_escaped(Composer& out, unsigned char const* p, std::size_t size) const {
    while (size != 0) {
      std::size_t const run = plain_run(p, size);
      if (run != 0) out.add_run(reinterpret_cast<char const*>(p), run);
      if (run == size) return;
      out.add_escape(p[run]);
      p += run + 1;
      size -= run + 1;
    }
  }

  void write_string_value(unsigned char const* data, std::size_t size) {
    if (size == 0) {
      put('S');
      return;
    }
    // The usual short string without escapes: composed whole, one call to the target.
    char whole[2 + 254];
    if (size <= sizeof whole - 2 && plain_run(data, size) == size) {
      whole[0] = '"';
      std::memcpy(whole + 1, data, size);
      whole[size + 1] = '"';
      emit(whole, size + 2);
      return;
    }
    Composer out(*this);
    out.add('"');
    add_escaped(out, data, size);
    out.add('"');
    out.flush();
  }

  // `lead`, the base64 of the bytes in pieces of 4096 characters, then `trail`; a 0 character
  // stands for none.
  void write_base64(unsigned char const* data, std::size_t size, char lead, char trail) {
    char piece[1 + 4096 + 1];
    do {
      std::size_t const n = size < kBase64Block ? size : kBase64Block;
      char* out = piece;
      if (lead != 0) *out++ = lead;
      lead = 0;
      out += zocore::base64_encode(data, n, out, false);
      data += n;
      size -= n;
      if (size == 0 && trail != 0) *out++ = trail;
      emit(piece, static_cast<std::size_t>(out - piece));
    } while (size != 0);
  }

  // `tag` and the bytes in hex. `redundant_first`: the first digit only repeats the sign, so the
  // tag takes its place.
  void write_hex_number(char tag, unsigned char const* bytes, std::size_t size,
                        bool redundant_first) {
    char buffer[1 + 2 * 128];
    char* out = buffer;
    *out++ = tag;
    out[0] = kHexDigits[bytes[0] >> 4];
    out[1] = kHexDigits[bytes[0] & 15];
    if (redundant_first) {
      out[0] = out[1];
      out += 1;
    } else {
      out += 2;
    }
    ++bytes;
    --size;
    for (;;) {
      std::size_t const room = (sizeof buffer - static_cast<std::size_t>(out - buffer)) / 2;
      std::size_t const n = size < room ? size : room;
      zocore::hex_encode(bytes, n, out);
      out += 2 * n;
      bytes += n;
      size -= n;
      emit(buffer, static_cast<std::size_t>(out - buffer));
      if (size == 0) return;
      out = buffer;
    }
  }

  void write_signed(unsigned char const* image, unsigned size) {
    if (size <= 8) return write_small_signed(impl::load_signed(image, size));
    impl::SignedForm const form = impl::minimal_signed_form(image, size);
    unsigned char const* const bytes = image + form.offset;
    if (form.length <= 8) {
      // Sign-extended from its significant bytes, the value fits 64 bits.
      std::uint64_t u = form.sign == 0 ? 0 : ~std::uint64_t{0};
      for (unsigned i = 0; i < form.length; ++i)
        u = (u << 8) | bytes[i];
      return write_small_signed(static_cast<std::int64_t>(u));
    }
    unsigned const hi = bytes[0] >> 4;
    unsigned const lo = bytes[0] & 15;
    bool const redundant = (hi == 0 && lo <= 7) || (hi == 15 && lo >= 8);
    write_hex_number('I', bytes, form.length, redundant);
  }

  // Decimal while the value fits 3 bytes (-8,388,608 to 8,388,607), else the shortest signed
  // hex: its significant bytes with one sign bit, and the first digit dropped for `I` when it
  // only repeats the sign.
  void write_small_signed(std::int64_t v) {
    char buffer[20];
    char* out = buffer;
    auto const u = static_cast<std::uint64_t>(v);
    if (v >= -8388608 && v <= 8388607) {
      if (v == 0) return put('+');
      *out++ = v < 0 ? '-' : '+';
      out = format_decimal(out, v < 0 ? 0 - u : u);
      return emit(buffer, static_cast<std::size_t>(out - buffer));
    }
    std::uint64_t const magnitude = v < 0 ? ~u : u;
    unsigned const bytes = static_cast<unsigned>(64 - std::countl_zero(magnitude)) / 8 + 1;
    buffer[0] = 'I';
    char* const digits = buffer + 1;
    out = format_hex_bytes(digits, u, bytes);
    bool const redundant =
        (digits[0] == '0' && digits[1] <= '7') || (digits[0] == 'f' && digits[1] >= '8');
    char* const start = redundant ? digits : buffer;
    start[0] = 'I';
    emit(start, static_cast<std::size_t>(out - start));
  }

  void write_unsigned(unsigned char const* image, unsigned size) {
    if (size <= 8) return write_small_unsigned(impl::load_unsigned(image, size));
    impl::UnsignedForm const form = impl::minimal_unsigned_form(image, size);
    unsigned char const* const bytes = image + form.offset;
    if (form.length <= 8) return write_small_unsigned(impl::load_unsigned(bytes, form.length));
    write_hex_number('X', bytes, form.length, (bytes[0] >> 4) == 0);
  }

  // Decimal below 2^24, else hex with `X` in place of a leading `0` digit.
  void write_small_unsigned(std::uint64_t v) {
    char buffer[20];
    char* out = buffer;
    if (v < (1u << 24)) {
      if (v == 0) return put('U');
      *out++ = 'U';
      out = format_decimal(out, v);
      return emit(buffer, static_cast<std::size_t>(out - buffer));
    }
    unsigned const bytes = static_cast<unsigned>(64 - std::countl_zero(v) + 7) / 8;
    buffer[0] = 'X';
    char* const digits = buffer + 1;
    out = format_hex_bytes(digits, v, bytes);
    char* const start = digits[0] == '0' ? digits : buffer;
    start[0] = 'X';
    emit(start, static_cast<std::size_t>(out - start));
  }

  Options options;
  InterfacePtr<ITextTarget> target;  // null once closed
  std::string* direct;               // the caller's string, written without the target's calls
  std::uint8_t escape_mask;
  bool escape_space;
  bool escape_high;
  std::uint8_t pending;  // kStreamOpen | kOutputFailed | kClosed
  impl::ScopeStack scopes;
  // Last, so that it is destroyed first: an open stream is abandoned before anything it uses.
  impl::ValueStreamSlot slot;
};

// ---- Value streams ------------------------------------------------------------------------------

// 4095 bytes, a whole number of 3-byte groups: the base64 of every block but the last has no
// padding, so the pieces join into one text.
class TextWriter::BinaryStreamImpl final : public impl::BufferedValueStream<4095, 3> {
 public:
  explicit BinaryStreamImpl(Core& core) noexcept
      : BufferedValueStream(core.slot, "zoserialize::TextWriter::BinaryStreamImpl::write()"),
        core_(core) {}

 private:
  void emit_block(unsigned char const* data, unsigned size) override {
    core_.write_base64(data, size, 0, 0);
  }
  void emit_final(unsigned char const* rest, unsigned size) override {
    core_.write_base64(rest, size, 0, ']');
  }

  Core& core_;
};

// A value that never filled the buffer is written as write_string would write it (`S` when
// empty), so short streamed strings look exactly like strings written whole.
class TextWriter::StringStreamImpl final : public impl::BufferedValueStream<4096, 1> {
 public:
  explicit StringStreamImpl(Core& core) noexcept
      : BufferedValueStream(core.slot, "zoserialize::TextWriter::StringStreamImpl::write()"),
        core_(core) {}

 private:
  void emit_block(unsigned char const* data, unsigned size) override {
    Core::Composer out(core_);
    if (first_) out.add('"');
    first_ = false;
    core_.add_escaped(out, data, size);
    out.flush();
  }
  void emit_final(unsigned char const* rest, unsigned size) override {
    if (first_) {
      core_.write_string_value(rest, size);
      return;
    }
    Core::Composer out(core_);
    core_.add_escaped(out, rest, size);
    out.add('"');
    out.flush();
  }

  Core& core_;
  bool first_ = true;  // no block written yet
};

// ---- Writer -------------------------------------------------------------------------------------

TextWriter::TextWriter(std::ostream& out, Options const& options)
    : TextWriter(
          InterfacePtr<ITextTarget>(zocore::make_ref_counted<impl::TextTargetImplOstreamRef>(out)),
          options) {}

TextWriter::TextWriter(std::string& out, Options const& options)
    : TextWriter(
          InterfacePtr<ITextTarget>(zocore::make_ref_counted<impl::TextTargetImplStringRef>(out)),
          options) {
  // Unwrapped, the string is appended to directly: no virtual call per element.
  if (options.line_width() == 0) core_->direct = &out;
}

TextWriter::TextWriter(InterfacePtr<ITextTarget> target, Options const& options) {
  if (target && options.line_width() != 0) {
    target = InterfacePtr<ITextTarget>(zocore::make_ref_counted<impl::LineWidthAdapter>(
        std::move(target), options.line_width(), options.line_separator_crlf()));
  }
  core_ = std::make_unique<Core>(options, std::move(target), nullptr);
}

TextWriter::TextWriter(InterfacePtr<IWriteStream> stream, Options const& options)
    : TextWriter(make_target(std::move(stream)), options) {}

TextWriter::~TextWriter() {
  try {
    close();
  } catch (...) {  // NOLINT(bugprone-empty-catch): a destructor must not throw
  }
}

InterfacePtr<TextWriter::ITextTarget> TextWriter::make_target(InterfacePtr<IWriteStream> stream) {
  if (!stream) return nullptr;
  return InterfacePtr<ITextTarget>(
      zocore::make_ref_counted<impl::TextTargetImplWriteStream>(std::move(stream)));
}

TextWriter::Options const& TextWriter::options() const noexcept {
  return core_->options;
}

TextWriter::Core& TextWriter::begin(char const* function) {
  Core& c = *core_;
  if (c.pending != 0) [[unlikely]] {
    if ((c.pending & (kClosed | kOutputFailed)) != 0) settle_failed(function);
    c.pending &= static_cast<std::uint8_t>(~kStreamOpen);
    c.slot.finish();
  }
  return c;
}

void TextWriter::settle_failed(char const* function) {
  if ((core_->pending & kClosed) != 0) {
    zocore::throw_error(error::zoserialize_writer_closed, "TextWriter has already been closed",
                        zocore::SourceLocation(function, kModuleId, __LINE__));
  }
  impl::throw_output_incomplete(function);
}

void TextWriter::close() {
  static constexpr char kFunction[] = "zoserialize::TextWriter::close()";
  Core& c = *core_;
  if ((c.pending & kClosed) != 0) return;
  begin(kFunction);
  c.scopes.check_all_closed(kScopeMessages);
  c.target.reset();
  c.direct = nullptr;
  c.pending = kClosed;
}

void TextWriter::flush() {
  begin("zoserialize::TextWriter::flush()");
}

void TextWriter::write_null() {
  begin("zoserialize::TextWriter::write_null()").put('Z');
}

void TextWriter::write_bool(bool value) {
  begin("zoserialize::TextWriter::write_bool()").put(value ? 'Y' : 'N');
}

void TextWriter::write_int_big_endian(void const* data, unsigned size) {
  begin("zoserialize::TextWriter::write_int_big_endian()")
      .write_signed(static_cast<unsigned char const*>(data), size);
}

void TextWriter::write_uint_big_endian(void const* data, unsigned size) {
  begin("zoserialize::TextWriter::write_uint_big_endian()")
      .write_unsigned(static_cast<unsigned char const*>(data), size);
}

void TextWriter::write_double(double value) {
  Core& c = begin("zoserialize::TextWriter::write_double()");
  auto const bits = std::bit_cast<std::uint64_t>(value);
  // The bit pattern's hex digits without the trailing zero digits (all of them for +0.0).
  unsigned const digits = bits == 0 ? 0 : 16 - static_cast<unsigned>(std::countr_zero(bits)) / 4;
  char buffer[1 + 16];
  buffer[0] = 'R';
  format_hex_bytes(buffer + 1, bits, 8);
  c.emit(buffer, 1 + digits);
}

void TextWriter::write_string(char const* data, unsigned size) {
  begin("zoserialize::TextWriter::write_string()")
      .write_string_value(reinterpret_cast<unsigned char const*>(data), size);
}

InterfacePtr<IWriteStream> TextWriter::write_string_stream() {
  Core& c = begin("zoserialize::TextWriter::write_string_stream()");
  c.pending |= kStreamOpen;
  return c.slot.open(zocore::make_ref_counted<StringStreamImpl>(c));
}

void TextWriter::write_string_stream(IReadStream& source) {
  Core& c = begin("zoserialize::TextWriter::write_string_stream()");
  unsigned char block[kStringSourceBlock];
  // Nothing is written before the first read: a source that fails at once leaves no trace.
  unsigned got = c.read_source(source, block, kStringSourceBlock, false);
  if (got == 0) {
    c.put('S');
    return;
  }
  Core::Composer out(c);
  out.add('"');
  c.add_escaped(out, block, got);
  while (got == kStringSourceBlock) {
    out.flush();
    got = c.read_source(source, block, kStringSourceBlock, true);
    c.add_escaped(out, block, got);
  }
  out.add('"');
  out.flush();
}

void TextWriter::write_absolute_time(AbsoluteTime const& value) {
  Core& c = begin("zoserialize::TextWriter::write_absolute_time()");
  if (value.is_infinite()) {
    c.put('T');
    return;
  }
  AbsoluteTime::Components const t(value);
  char buffer[32];
  char* out = buffer;
  *out++ = 'T';
  out = format_digits(out, static_cast<std::uint32_t>(t.year), 4);
  out = format_digits(out, t.month, 2);
  out = format_digits(out, t.day, 2);
  // Each time field is written while it or a finer one is not zero.
  unsigned const ns = t.nanosecond;
  if ((t.hour | t.minute | t.second | ns) != 0) out = format_digits(out, t.hour, 2);
  if ((t.minute | t.second | ns) != 0) out = format_digits(out, t.minute, 2);
  if ((t.second | ns) != 0) out = format_digits(out, t.second, 2);
  if (ns != 0) {
    *out++ = '.';
    out = format_fraction(out, ns);
  }
  c.emit(buffer, static_cast<std::size_t>(out - buffer));
}

void TextWriter::write_relative_time(RelativeTime const& value) {
  Core& c = begin("zoserialize::TextWriter::write_relative_time()");
  std::int64_t const count = value.count();
  if (value.is_infinite()) {
    c.put('P');
    return;
  }
  if (count == 0) {
    c.emit("P0", 2);
    return;
  }
  std::uint64_t const magnitude =
      count < 0 ? 0 - static_cast<std::uint64_t>(count) : static_cast<std::uint64_t>(count);
  char buffer[32];
  char* out = buffer;
  *out++ = count < 0 ? 'Q' : 'P';
  std::uint64_t const seconds = magnitude / 1000000000u;
  auto const ns = static_cast<unsigned>(magnitude % 1000000000u);
  // No digit before the point when there are no whole seconds: 0.25 s is P.25.
  if (seconds != 0) out = format_decimal(out, seconds);
  if (ns != 0) {
    *out++ = '.';
    out = format_fraction(out, ns);
  }
  c.emit(buffer, static_cast<std::size_t>(out - buffer));
}

void TextWriter::write_uuid(Uuid const& value) {
  Core& c = begin("zoserialize::TextWriter::write_uuid()");
  if (value.is_null()) {
    c.put('K');
    return;
  }
  // The compact text form of the UUID: its sixteen bytes in lowercase hex.
  char buffer[1 + 2 * Uuid::kBinarySize];
  buffer[0] = 'K';
  zocore::hex_encode(value.bytes().data(), Uuid::kBinarySize, buffer + 1);
  c.emit(buffer, sizeof buffer);
}

InterfacePtr<IWriteStream> TextWriter::write_binary() {
  Core& c = begin("zoserialize::TextWriter::write_binary()");
  c.put('[');
  c.pending |= kStreamOpen;
  return c.slot.open(zocore::make_ref_counted<BinaryStreamImpl>(c));
}

void TextWriter::write_binary(IReadStream& source) {
  Core& c = begin("zoserialize::TextWriter::write_binary()");
  unsigned char block[kBase64Block];
  unsigned got = c.read_source(source, block, kBase64Block, false);
  // A short read ends the source, so only the last block may leave a partial group.
  c.write_base64(block, got, '[', got < kBase64Block ? ']' : 0);
  while (got == kBase64Block) {
    got = c.read_source(source, block, kBase64Block, true);
    c.write_base64(block, got, 0, got < kBase64Block ? ']' : 0);
  }
}

void TextWriter::write_binary(void const* data, unsigned size) {
  begin("zoserialize::TextWriter::write_binary()")
      .write_base64(static_cast<unsigned char const*>(data), size, '[', ']');
}

void TextWriter::write_sequence_start(unsigned count_hint) {
  Core& c = begin("zoserialize::TextWriter::write_sequence_start()");
  if (count_hint == 0 || count_hint > kLargestWrittenHint) {
    c.put('(');
  } else {
    char buffer[12];
    buffer[0] = '(';
    char* const end = format_decimal(buffer + 1, std::uint32_t{count_hint});
    c.emit(buffer, static_cast<std::size_t>(end - buffer));
  }
  c.scopes.push_sequence(count_hint);
}

void TextWriter::write_sequence_start() {
  Core& c = begin("zoserialize::TextWriter::write_sequence_start()");
  c.put('(');
  c.scopes.push_sequence(0);
}

void TextWriter::write_sequence_separator() {
  Core& c = begin("zoserialize::TextWriter::write_sequence_separator()");
  c.scopes.add_separator(kScopeMessages);
  c.put(',');
}

void TextWriter::write_sequence_end() {
  Core& c = begin("zoserialize::TextWriter::write_sequence_end()");
  // The sequence counts as closed even when its count check fails; `)` is then not written.
  c.scopes.end_sequence(kScopeMessages);
  c.put(')');
}

void TextWriter::write_marker_start() {
  Core& c = begin("zoserialize::TextWriter::write_marker_start()");
  c.put('{');
  c.scopes.push_marker();
}

void TextWriter::write_marker_end() {
  Core& c = *core_;
  // Before the state checks: a closed writer has no scope open, so this is what it reports.
  if (c.scopes.empty()) c.scopes.end_any(kScopeMessages);
  begin("zoserialize::TextWriter::write_marker_end()");
  c.scopes.end_any(kScopeMessages);
  c.put('}');
}

}  // namespace zoserialize
