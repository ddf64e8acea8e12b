#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

#include <zocore/base64.h>
#include <zocore/hex.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/throw_error.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/impl/digits.h>
#include <zoserialize/impl/integer_form.h>
#include <zoserialize/impl/output_failure.h>
#include <zoserialize/impl/scope_stack.h>
#include <zoserialize/impl/text_targets.h>
#include <zoserialize/impl/value_stream_base.h>
#include <zoserialize/text_writer.h>

namespace zoserialize {
namespace {

using impl::bytes_below;
using impl::bytes_equal;
using impl::format_decimal;
using impl::format_digits;
using impl::format_fraction;
using impl::format_hex_bytes;
using impl::kHexDigits;
using impl::kHexPairs;
using impl::kHighs;

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

// The base64 of this many bytes is one piece of 4096 characters: a whole number of groups, so
// consecutive pieces join without padding.
constexpr unsigned kBase64Block = 3072;
constexpr unsigned kStringSourceBlock = 4096;
constexpr unsigned kLargestWrittenHint = 9999999;

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

// Everything the writer keeps, behind the installed header. Every character passes through the
// output buffer to the target; a target that throws leaves the writer failed.
struct TextWriter::Core {
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): the buffer is written before read
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

  // ---- Output buffer ----
  // Text is gathered here and handed to the target when the buffer is full, at flush() and at
  // close(). Encoders write straight into it: room(n) makes n characters free at the returned
  // pointer, commit() takes what was written.
  static constexpr unsigned kBufferSize = 4096;

  char* room(unsigned n) {
    if (kBufferSize - used < n) [[unlikely]]
      flush_buffer();
    return buffer + used;
  }
  void commit(char const* end) noexcept { used = static_cast<unsigned>(end - buffer); }

  void put(char c) {
    if (used == kBufferSize) [[unlikely]]
      flush_buffer();
    buffer[used++] = c;
  }

  // A run that does not fit what is left of the buffer goes to the target whole, never split.
  void emit(char const* data, std::size_t size) {
    if (size <= kBufferSize - used) [[likely]] {
      std::memcpy(buffer + used, data, size);
      used += static_cast<unsigned>(size);
      return;
    }
    flush_buffer();
    if (size < kBufferSize) {
      std::memcpy(buffer, data, size);
      used = static_cast<unsigned>(size);
    } else {
      to_target(data, size);
    }
  }

  void flush_buffer() {
    unsigned const n = used;
    used = 0;
    if (n != 0) to_target(buffer, n);
  }

  void to_target(char const* data, std::size_t size) {
    try {
      if (direct != nullptr) {
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
    used = 0;
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
      std::uint64_t hit = bytes_below(word, 0x20) | bytes_equal(word, '"') |
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
  void write_escaped(unsigned char const* p, std::size_t size) {
    while (size != 0) {
      std::size_t const run = plain_run(p, size);
      if (run != 0) emit(reinterpret_cast<char const*>(p), run);
      if (run == size) return;
      char* const out = room(3);
      out[0] = '~';
      std::memcpy(out + 1, &kHexPairs[std::size_t{2} * p[run]], 2);
      commit(out + 3);
      p += run + 1;
      size -= run + 1;
    }
  }

  void write_string_value(unsigned char const* data, std::size_t size) {
    if (size == 0) return put('S');
    // The usual short string without escapes: copied whole into the buffer.
    if (size + 2 <= kBufferSize - used && plain_run(data, size) == size) [[likely]] {
      char* const out = buffer + used;
      out[0] = '"';
      std::memcpy(out + 1, data, size);
      out[size + 1] = '"';
      used += static_cast<unsigned>(size + 2);
      return;
    }
    put('"');
    write_escaped(data, size);
    put('"');
  }

  // `lead`, the base64 of the bytes, then `trail`; a 0 character stands for none. The bytes are
  // encoded in pieces of whole 3-byte groups straight into the buffer, so consecutive pieces join
  // without padding.
  void write_base64(unsigned char const* data, std::size_t size, char lead, char trail) {
    if (lead != 0) put(lead);
    while (size != 0) {
      if (kBufferSize - used < 4) flush_buffer();
      std::size_t const fit = std::size_t{kBufferSize - used} / 4 * 3;
      std::size_t const n = size < fit ? size : fit;
      used += static_cast<unsigned>(zocore::base64_encode(data, n, buffer + used, false));
      data += n;
      size -= n;
    }
    if (trail != 0) put(trail);
  }

  // `tag` and the bytes in hex (numbers wider than 64 bits). `redundant_first`: the first digit
  // only repeats the sign, so the tag takes its place.
  void write_hex_number(char tag, unsigned char const* bytes, std::size_t size,
                        bool redundant_first) {
    put(tag);
    if (redundant_first) put(kHexDigits[bytes[0] & 15]);
    for (std::size_t i = redundant_first ? 1 : 0; i < size; ++i) {
      char* const pair = room(2);
      std::memcpy(pair, &kHexPairs[std::size_t{2} * bytes[i]], 2);
      commit(pair + 2);
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
    char* const start = room(20);
    char* out = start;
    auto const u = static_cast<std::uint64_t>(v);
    if (v >= -8388608 && v <= 8388607) {
      if (v == 0) return put('+');
      *out++ = v < 0 ? '-' : '+';
      return commit(format_decimal(out, v < 0 ? 0 - u : u));
    }
    std::uint64_t const magnitude = v < 0 ? ~u : u;
    unsigned const bytes = static_cast<unsigned>(64 - std::countl_zero(magnitude)) / 8 + 1;
    start[0] = 'I';
    char* const digits = start + 1;
    out = format_hex_bytes(digits, u, bytes);
    bool const redundant =
        (digits[0] == '0' && digits[1] <= '7') || (digits[0] == 'f' && digits[1] >= '8');
    if (redundant) {
      // The tag takes the place of the digit that only repeats the sign.
      std::memmove(digits, digits + 1, static_cast<std::size_t>(out - digits - 1));
      --out;
    }
    commit(out);
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
    char* const start = room(20);
    char* out = start;
    if (v < (1u << 24)) {
      if (v == 0) return put('U');
      *out++ = 'U';
      return commit(format_decimal(out, v));
    }
    unsigned const bytes = static_cast<unsigned>(64 - std::countl_zero(v) + 7) / 8;
    start[0] = 'X';
    char* const digits = start + 1;
    out = format_hex_bytes(digits, v, bytes);
    if (digits[0] == '0') {
      std::memmove(digits, digits + 1, static_cast<std::size_t>(out - digits - 1));
      --out;
    }
    commit(out);
  }

  Options options;
  InterfacePtr<ITextTarget> target;  // null once closed
  std::string* direct;               // the caller's string, written without the target's calls
  std::uint8_t escape_mask;
  bool escape_space;
  bool escape_high;
  std::uint8_t pending;  // kStreamOpen | kOutputFailed | kClosed
  unsigned used = 0;     // characters in the buffer
  impl::ScopeStack scopes;
  // Last, so that it is destroyed first: an open stream is abandoned before anything it uses.
  impl::ValueStreamSlot slot;
  char buffer[kBufferSize];  // NOLINT(cppcoreguidelines-pro-type-member-init): written before read
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
    if (first_) core_.put('"');
    first_ = false;
    core_.write_escaped(data, size);
  }
  void emit_final(unsigned char const* rest, unsigned size) override {
    if (first_) {
      core_.write_string_value(rest, size);
      return;
    }
    core_.write_escaped(rest, size);
    core_.put('"');
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
  // A close that failed (scopes left open) still hands over what was written.
  if ((core_->pending & (kClosed | kOutputFailed)) == 0) {
    try {
      core_->flush_buffer();
    } catch (...) {  // NOLINT(bugprone-empty-catch): a destructor must not throw
    }
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
  c.flush_buffer();
  c.target.reset();
  c.direct = nullptr;
  c.pending = kClosed;
}

void TextWriter::flush() {
  begin("zoserialize::TextWriter::flush()").flush_buffer();
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
  c.put('"');
  c.write_escaped(block, got);
  while (got == kStringSourceBlock) {
    got = c.read_source(source, block, kStringSourceBlock, true);
    c.write_escaped(block, got);
  }
  c.put('"');
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
