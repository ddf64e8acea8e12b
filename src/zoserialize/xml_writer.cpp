#include <array>
#include <bit>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <ios>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>

#include <zocore/base64.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/impl/digits.h>
#include <zoserialize/impl/integer_form.h>
#include <zoserialize/impl/output_failure.h>
#include <zoserialize/impl/scope_stack.h>
#include <zoserialize/impl/value_stream_base.h>
#include <zoserialize/xml_writer.h>

namespace zoserialize {
namespace {

using impl::bytes_below;
using impl::bytes_equal;
using impl::format_decimal;
using impl::format_digits;
using impl::format_fraction;
using impl::kHexDigits;

// Bits of Core::pending: anything that the start of an operation must look at.
constexpr std::uint8_t kStreamOpen = 1;
constexpr std::uint8_t kOutputFailed = 2;

// Bit of ScopeStack::Entry::flags: an <Item> of the sequence is open.
constexpr std::uint8_t kItemOpen = 1;

// Strings of this length or more are written as CDATA, which needs no escaping pass.
constexpr std::size_t kCdataLength = 512;
// write_string_stream(IReadStream&) reads this much at a time: a whole number of base64 groups.
constexpr unsigned kStringSourceBlock = 4098;
// write_binary(IReadStream&) likewise.
constexpr unsigned kBinarySourceBlock = 3072;

constexpr char kRootStart[] =
    "<Serialized xmlns=\"http://schemas.zoserialize.org/tav/serialization\">";
static_assert(std::string_view(kRootStart).find(XmlWriter::kNamespace) != std::string_view::npos);

// Character classes of string bytes.
constexpr std::uint8_t kControl = 1;  // below 0x20: the string goes in base64
constexpr std::uint8_t kSpecial = 2;  // '&', '<', '>': escaped in plain text

constexpr std::array<std::uint8_t, 256> make_classes() {
  std::array<std::uint8_t, 256> t{};
  for (unsigned c = 0; c < 0x20; ++c)
    t[c] = kControl;
  t['&'] = kSpecial;
  t['<'] = kSpecial;
  t['>'] = kSpecial;
  return t;
}
constexpr std::array<std::uint8_t, 256> kClasses = make_classes();

// The classes met in a string, eight bytes at a time.
std::uint8_t classes_of(unsigned char const* p, std::size_t size) noexcept {
  std::uint64_t control = 0;
  std::uint64_t special = 0;
  std::size_t i = 0;
  for (; size - i >= 8; i += 8) {
    std::uint64_t word;
    std::memcpy(&word, p + i, sizeof word);
    control |= bytes_below(word, 0x20);
    special |= bytes_equal(word, '&') | bytes_equal(word, '<') | bytes_equal(word, '>');
  }
  std::uint8_t found =
      static_cast<std::uint8_t>((control != 0 ? kControl : 0) | (special != 0 ? kSpecial : 0));
  for (; i < size; ++i)
    found |= kClasses[p[i]];
  return found;
}

char* copy(char* out, std::string_view text) noexcept {
  std::memcpy(out, text.data(), text.size());
  return out + text.size();
}

impl::ScopeMessages const kScopeMessages = {
    "zoserialize::XmlWriter::write_sequence_separator()",
    "zoserialize::XmlWriter::write_sequence_end()",
    "zoserialize::XmlWriter::write_marker_end()",
    "zoserialize::XmlWriter::close()",
    "Attempt to add sequence separator and no sequence is open at top of stack",
    "Attempt to close sequence and no sequence is open or on top of stack",
    "Attempt to close marker and no marker is open or on top of stack",
    "Attempt to close writer but there are sequences and/or markers that are still open",
    &error::zoserialize_writer_sequence_nesting,
    true,  // Added reports the elements (separators + 1)
};

}  // namespace

// ---- Core ---------------------------------------------------------------------------------------

// Everything the writer keeps, behind the installed header. An operation gathers its text in the
// buffer and hands it to the ostream's stream buffer at its end (one call for most elements);
// runs longer than the buffer go to the stream buffer directly.
struct XmlWriter::Core {
  static constexpr unsigned kBufferSize = 4096;

  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): the buffer is written before read
  Core(std::ostream& o, char const* unit, char const* prefix)
      : os(o),
        layout_text(prefix != nullptr ? prefix : ""),
        prefix_length(static_cast<unsigned>(layout_text.size())) {
    layout_text += unit != nullptr ? unit : "";
    unit_length = static_cast<unsigned>(layout_text.size()) - prefix_length;
    current = prefix_length;
  }

  // ---- Output ----
  // room(n) makes n characters (at most kBufferSize) free at the returned pointer; commit()
  // takes what was written there.
  char* room(std::size_t n) {
    if (kBufferSize - used < n) [[unlikely]]
      flush();
    return buffer + used;
  }
  void commit(char const* end) noexcept { used = static_cast<unsigned>(end - buffer); }

  void append(char const* data, std::size_t size) {
    if (size <= kBufferSize - used) [[likely]] {
      std::memcpy(buffer + used, data, size);
      used += static_cast<unsigned>(size);
      return;
    }
    flush();
    if (size < kBufferSize) {
      std::memcpy(buffer, data, size);
      used = static_cast<unsigned>(size);
    } else {
      to_stream(data, size);
    }
  }
  void append(std::string_view text) { append(text.data(), text.size()); }

  // Hands the gathered text to the stream buffer; the end of every operation.
  void flush() {
    unsigned const n = used;
    used = 0;
    if (n != 0) to_stream(buffer, n);
  }

  void to_stream(char const* data, std::size_t size) {
    if (os.rdstate() == 0) [[likely]] {
      std::streamsize got = 0;
      try {
        got = os.rdbuf()->sputn(data, static_cast<std::streamsize>(size));
      } catch (...) {
        stream_buffer_threw();
      }
      if (static_cast<std::size_t>(got) == size) [[likely]]
        return;
    }
    stream_failed();
  }

  // Called while the stream buffer's exception is handled. As std::ostream::write does, the
  // ostream goes bad and the exception passes on only when the ostream throws for badbit.
  [[gnu::cold, gnu::noinline]] void stream_buffer_threw() {
    try {
      os.setstate(std::ios::badbit);
    } catch (std::ios_base::failure const&) {  // NOLINT(bugprone-empty-catch): rethrown below
    }
    if ((os.exceptions() & std::ios::badbit) != 0) {
      output_failed();
      throw;
    }
  }

  // A short write (badbit) or an ostream that was not good (failbit), as std::ostream::write.
  [[gnu::cold, gnu::noinline]] void stream_failed() {
    try {
      os.setstate(os.rdstate() == 0 ? std::ios::badbit : std::ios::failbit);
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

  // ---- Layout ----
  // The line prefix and indentation before a tag that starts a line.
  void layout() {
    if (current == 0) return;
    if (layout_text.size() < current) [[unlikely]] {
      if (unit_length == 0) return;
      grow_layout();
    }
    append(layout_text.data(), current);
  }
  [[gnu::cold, gnu::noinline]] void grow_layout() {
    // Doubles the indentation, keeping the layout text a prefix of every deeper one.
    while (layout_text.size() < current) {
      std::string const indentation = layout_text.substr(prefix_length);
      layout_text += indentation;
    }
  }
  void indent_increment() noexcept { current += unit_length; }
  void indent_decrement() noexcept {
    if (current > prefix_length) current -= unit_length;
  }

  // The start of every element inside a sequence: an <Item> for the sequence's current element,
  // unless one is open already.
  void open_item() {
    if (scopes.empty()) return;
    impl::ScopeStack::Entry& top = scopes.top();
    if (top.kind != impl::ScopeStack::EKind::Sequence || (top.flags & kItemOpen) != 0) return;
    layout();
    append("<Item>");
    top.flags |= kItemOpen;
    indent_increment();
  }

  // ---- Elements ----
  // `text` on a line of its own.
  void line(std::string_view text) {
    layout();
    append(text);
  }

  void write_string_value(unsigned char const* data, std::size_t size) {
    layout();
    if (size == 0) return append("<String/>");
    std::uint8_t const found = classes_of(data, size);
    auto const* const text = reinterpret_cast<char const*>(data);
    if ((found & kControl) != 0) {
      append("<String encoding=\"base64\">");
      write_base64(data, size);
      return append("</String>");
    }
    if (size >= kCdataLength || data[0] == ' ' || data[size - 1] == ' ') {
      return write_cdata(std::string_view(text, size));
    }
    if ((found & kSpecial) == 0 && size + 17 <= kBufferSize - used) [[likely]] {
      char* out = copy(buffer + used, "<String>");
      std::memcpy(out, text, size);
      commit(copy(out + size, "</String>"));
      return;
    }
    append("<String>");
    write_escaped(text, size);
    append("</String>");
  }

  // A "]]>" inside is split between two sections: "]]" ends one, ">" starts the next.
  void write_cdata(std::string_view text) {
    append("<String><![CDATA[");
    for (std::size_t at = text.find("]]>"); at != std::string_view::npos; at = text.find("]]>")) {
      append(text.data(), at + 2);
      append("]]><![CDATA[");
      text.remove_prefix(at + 2);
    }
    append(text);
    append("]]></String>");
  }

  // Character content: only '&', '<' and '>' are replaced.
  void write_escaped(char const* p, std::size_t size) {
    std::size_t start = 0;
    for (std::size_t i = 0; i < size; ++i) {
      if ((kClasses[static_cast<unsigned char>(p[i])] & kSpecial) == 0) continue;
      append(p + start, i - start);
      append(p[i] == '&'   ? std::string_view("&amp;")
             : p[i] == '<' ? std::string_view("&lt;")
                           : std::string_view("&gt;"));
      start = i + 1;
    }
    append(p + start, size - start);
  }

  // Base64 straight into the buffer, a whole number of groups at a time, so that consecutive
  // calls join into one text: only a size that is not a multiple of 3 (the value's last piece)
  // ends in padding.
  void write_base64(unsigned char const* data, std::size_t size) {
    while (size != 0) {
      if (kBufferSize - used < 4) flush();
      std::size_t const fit = std::size_t{kBufferSize - used} / 4 * 3;
      std::size_t const n = size < fit ? size : fit;
      used += static_cast<unsigned>(zocore::base64_encode(data, n, buffer + used, true));
      data += n;
      size -= n;
    }
  }

  // "0x" and two hex digits per byte, in pieces that fit the buffer.
  void write_hex(unsigned char const* bytes, std::size_t size) {
    append("0x");
    while (size != 0) {
      std::size_t const n = size < kBufferSize / 2 ? size : kBufferSize / 2;
      char* out = room(2 * n);
      for (std::size_t i = 0; i < n; ++i) {
        *out++ = kHexDigits[bytes[i] >> 4];
        *out++ = kHexDigits[bytes[i] & 15];
      }
      commit(out);
      bytes += n;
      size -= n;
    }
  }

  void write_signed(unsigned char const* image, unsigned size) {
    impl::SignedForm const form = impl::minimal_signed_form(image, size);
    unsigned char const* const bytes = image + form.offset;
    if (form.length > 3) {
      append("<Int>");
      write_hex(bytes, form.length);
      append("</Int>");
      return;
    }
    std::uint32_t u = form.sign == 0 ? 0 : ~std::uint32_t{0};
    for (unsigned i = 0; i < form.length; ++i)
      u = (u << 8) | bytes[i];
    std::int64_t const v = static_cast<std::int32_t>(u);
    char* out = copy(room(32), "<Int>");
    if (v < 0) *out++ = '-';
    out = format_decimal(out, static_cast<std::uint64_t>(v < 0 ? -v : v));
    commit(copy(out, "</Int>"));
  }

  void write_unsigned(unsigned char const* image, unsigned size) {
    impl::UnsignedForm const form = impl::minimal_unsigned_form(image, size);
    unsigned char const* const bytes = image + form.offset;
    if (form.length > 3) {
      append("<UInt>");
      write_hex(bytes, form.length);
      append("</UInt>");
      return;
    }
    std::uint32_t u = 0;
    for (unsigned i = 0; i < form.length; ++i)
      u = (u << 8) | bytes[i];
    char* out = copy(room(32), "<UInt>");
    out = format_decimal(out, u);
    commit(copy(out, "</UInt>"));
  }

  std::ostream& os;
  std::string layout_text;  // the line prefix, then indentation units, grown on demand
  unsigned prefix_length;
  unsigned unit_length = 0;
  unsigned current;  // layout bytes written before the next tag that starts a line
  bool document_open = true;
  std::uint8_t pending = 0;  // kStreamOpen | kOutputFailed
  unsigned used = 0;         // characters in the buffer
  impl::ScopeStack scopes;
  // Last but the buffer, so that it is destroyed first: an open stream is abandoned before
  // anything it uses.
  impl::ValueStreamSlot slot;
  char buffer[kBufferSize];  // NOLINT(cppcoreguidelines-pro-type-member-init): written before read
};

// ---- Value streams ------------------------------------------------------------------------------

// Every block is a whole number of 3-byte groups, so the base64 of the blocks joins into one text.
class XmlWriter::BinaryStreamImpl final : public impl::BufferedValueStream<4095, 3> {
 public:
  explicit BinaryStreamImpl(Core& core) noexcept
      : BufferedValueStream(core.slot, "zoserialize::XmlWriter::BinaryStreamImpl::write()"),
        core_(core) {}

 private:
  void emit_block(unsigned char const* data, unsigned size) override {
    core_.write_base64(data, size);
    core_.flush();
  }
  void emit_final(unsigned char const* rest, unsigned size) override {
    core_.write_base64(rest, size);
    core_.append("</Binary>");
    core_.flush();
  }

  Core& core_;
};

// A string that never fills the buffer is written as write_string writes it; a longer one is
// base64, whose start tag goes out with the first block.
class XmlWriter::StringStreamImpl final : public impl::BufferedValueStream<4095, 3> {
 public:
  explicit StringStreamImpl(Core& core) noexcept
      : BufferedValueStream(core.slot, "zoserialize::XmlWriter::StringStreamImpl::write()"),
        core_(core) {}

 private:
  void emit_block(unsigned char const* data, unsigned size) override {
    if (!base64_started_) core_.line("<String encoding=\"base64\">");
    base64_started_ = true;
    core_.write_base64(data, size);
    core_.flush();
  }
  void emit_final(unsigned char const* rest, unsigned size) override {
    if (!base64_started_) {
      core_.write_string_value(rest, size);
    } else {
      core_.write_base64(rest, size);
      core_.append("</String>");
    }
    core_.flush();
  }

  Core& core_;
  bool base64_started_ = false;
};

// ---- Writer -------------------------------------------------------------------------------------

XmlWriter::XmlWriter(std::ostream& out, char const* indent_unit, char const* line_prefix)
    : core_(std::make_unique<Core>(out, indent_unit, line_prefix)) {
  Core& c = *core_;
  c.append(kRootStart);
  c.indent_increment();
  c.flush();
}

XmlWriter::~XmlWriter() {
  try {
    close();
  } catch (...) {  // NOLINT(bugprone-empty-catch): a destructor must not throw
  }
}

XmlWriter::Core& XmlWriter::begin(char const* function) {
  Core& c = *core_;
  if (c.pending != 0) [[unlikely]] {
    if ((c.pending & kOutputFailed) != 0) settle_failed(function);
    c.pending &= static_cast<std::uint8_t>(~kStreamOpen);
    c.slot.finish();
  }
  return c;
}

void XmlWriter::settle_failed(char const* function) {
  impl::throw_output_incomplete(function);
}

void XmlWriter::close() {
  Core& c = begin("zoserialize::XmlWriter::close()");
  c.scopes.check_all_closed(kScopeMessages);
  if (!c.document_open) return;
  c.document_open = false;
  c.indent_decrement();
  c.line("</Serialized>");
  c.flush();
}

void XmlWriter::flush() {
  begin("zoserialize::XmlWriter::flush()");
}

void XmlWriter::write_null() {
  Core& c = begin("zoserialize::XmlWriter::write_null()");
  c.open_item();
  c.line("<Null/>");
  c.flush();
}

void XmlWriter::write_bool(bool value) {
  Core& c = begin("zoserialize::XmlWriter::write_bool()");
  c.open_item();
  c.line(value ? "<Bool>true</Bool>" : "<Bool>false</Bool>");
  c.flush();
}

void XmlWriter::write_int_big_endian(void const* data, unsigned size) {
  Core& c = begin("zoserialize::XmlWriter::write_int_big_endian()");
  c.open_item();
  c.layout();
  c.write_signed(static_cast<unsigned char const*>(data), size);
  c.flush();
}

void XmlWriter::write_uint_big_endian(void const* data, unsigned size) {
  Core& c = begin("zoserialize::XmlWriter::write_uint_big_endian()");
  c.open_item();
  c.layout();
  c.write_unsigned(static_cast<unsigned char const*>(data), size);
  c.flush();
}

void XmlWriter::write_double(double value) {
  Core& c = begin("zoserialize::XmlWriter::write_double()");
  c.open_item();
  c.layout();
  auto const bits = std::bit_cast<std::uint64_t>(value);
  if ((bits & 0x7FF0000000000000ull) == 0x7FF0000000000000ull) {
    c.append((bits & 0x000FFFFFFFFFFFFFull) != 0 ? "<Double>NaN</Double>"
             : (bits >> 63) != 0                 ? "<Double>-INF</Double>"
                                                 : "<Double>INF</Double>");
    c.flush();
    return;
  }
  // The exact decimal expansion rounded to 19 significant digits, as printf's "%.18E" makes it:
  // enough for every double to come back exactly.
  char text[40];
  char* const end =
      std::to_chars(text, text + sizeof text, value, std::chars_format::scientific, 18).ptr;
  char* const e = static_cast<char*>(std::memchr(text, 'e', static_cast<std::size_t>(end - text)));
  char* mantissa_end = e;
  while (mantissa_end[-1] == '0')
    --mantissa_end;
  if (mantissa_end[-1] == '.') --mantissa_end;
  char const* exponent = e + 2;
  while (exponent != end && *exponent == '0')
    ++exponent;
  char* out = copy(c.room(64), "<Double>");
  out = copy(out, std::string_view(text, static_cast<std::size_t>(mantissa_end - text)));
  if (exponent != end) {
    *out++ = 'E';
    if (e[1] == '-') *out++ = '-';
    out = copy(out, std::string_view(exponent, static_cast<std::size_t>(end - exponent)));
  }
  c.commit(copy(out, "</Double>"));
  c.flush();
}

void XmlWriter::write_string(char const* data, unsigned size) {
  Core& c = begin("zoserialize::XmlWriter::write_string()");
  c.open_item();
  c.write_string_value(reinterpret_cast<unsigned char const*>(data), size);
  c.flush();
}

InterfacePtr<IWriteStream> XmlWriter::write_string_stream() {
  Core& c = begin("zoserialize::XmlWriter::write_string_stream()");
  c.open_item();
  c.flush();
  c.pending |= kStreamOpen;
  return c.slot.open(zocore::make_ref_counted<StringStreamImpl>(c));
}

void XmlWriter::write_string_stream(IReadStream& source) {
  Core& c = begin("zoserialize::XmlWriter::write_string_stream()");
  unsigned char block[kStringSourceBlock];
  // Nothing is written before the first read: a source that fails at once leaves no trace.
  unsigned got = c.read_source(source, block, kStringSourceBlock, false);
  c.open_item();
  if (got < kStringSourceBlock) {
    c.write_string_value(block, got);
    c.flush();
    return;
  }
  c.line("<String encoding=\"base64\">");
  while (got != 0) {
    c.write_base64(block, got);
    c.flush();
    if (got < kStringSourceBlock) break;
    got = c.read_source(source, block, kStringSourceBlock, true);
  }
  c.append("</String>");
  c.flush();
}

void XmlWriter::write_absolute_time(AbsoluteTime const& value) {
  Core& c = begin("zoserialize::XmlWriter::write_absolute_time()");
  c.open_item();
  c.layout();
  if (value.is_infinite()) {
    c.append("<AbsTime>INF</AbsTime>");
    c.flush();
    return;
  }
  // The core's text of the time, "YYYY-MM-DD hh:mm:ss" and the fraction without trailing zeros.
  AbsoluteTime::Components const t(value);
  char* out = copy(c.room(64), "<AbsTime>");
  out = format_digits(out, static_cast<std::uint32_t>(t.year), 4);
  *out++ = '-';
  out = format_digits(out, t.month, 2);
  *out++ = '-';
  out = format_digits(out, t.day, 2);
  *out++ = ' ';
  out = format_digits(out, t.hour, 2);
  *out++ = ':';
  out = format_digits(out, t.minute, 2);
  *out++ = ':';
  out = format_digits(out, t.second, 2);
  if (t.nanosecond != 0) {
    *out++ = '.';
    out = format_fraction(out, t.nanosecond);
  }
  c.commit(copy(out, "</AbsTime>"));
  c.flush();
}

void XmlWriter::write_relative_time(RelativeTime const& value) {
  Core& c = begin("zoserialize::XmlWriter::write_relative_time()");
  c.open_item();
  c.layout();
  if (value.is_infinite()) {
    c.append("<RelTime>INF</RelTime>");
    c.flush();
    return;
  }
  std::int64_t const count = value.count();
  std::uint64_t const magnitude =
      count < 0 ? 0 - static_cast<std::uint64_t>(count) : static_cast<std::uint64_t>(count);
  char* out = copy(c.room(64), count < 0 ? "<RelTime>-P" : "<RelTime>P");
  out = format_decimal(out, magnitude / 1000000000u);
  auto const ns = static_cast<unsigned>(magnitude % 1000000000u);
  if (ns != 0) {
    *out++ = '.';
    out = format_fraction(out, ns);
  }
  c.commit(copy(out, "S</RelTime>"));
  c.flush();
}

void XmlWriter::write_uuid(Uuid const& value) {
  Core& c = begin("zoserialize::XmlWriter::write_uuid()");
  c.open_item();
  c.layout();
  // The core's hyphenated text of the UUID: 8-4-4-4-12 lowercase hex digits.
  char* out = copy(c.room(64), "<Uuid>");
  std::array<unsigned char, 16> const& bytes = value.bytes();
  for (unsigned i = 0; i < Uuid::kBinarySize; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) *out++ = '-';
    *out++ = kHexDigits[bytes[i] >> 4];
    *out++ = kHexDigits[bytes[i] & 15];
  }
  c.commit(copy(out, "</Uuid>"));
  c.flush();
}

InterfacePtr<IWriteStream> XmlWriter::write_binary() {
  Core& c = begin("zoserialize::XmlWriter::write_binary()");
  c.open_item();
  c.line("<Binary encoding=\"base64\">");
  c.flush();
  c.pending |= kStreamOpen;
  return c.slot.open(zocore::make_ref_counted<BinaryStreamImpl>(c));
}

void XmlWriter::write_binary(IReadStream& source) {
  Core& c = begin("zoserialize::XmlWriter::write_binary()");
  unsigned char block[kBinarySourceBlock];
  unsigned got = c.read_source(source, block, kBinarySourceBlock, false);
  c.open_item();
  c.line("<Binary encoding=\"base64\">");
  for (;;) {
    c.write_base64(block, got);
    c.flush();
    if (got < kBinarySourceBlock) break;
    got = c.read_source(source, block, kBinarySourceBlock, true);
  }
  c.append("</Binary>");
  c.flush();
}

void XmlWriter::write_binary(void const* data, unsigned size) {
  Core& c = begin("zoserialize::XmlWriter::write_binary()");
  c.open_item();
  c.line("<Binary encoding=\"base64\">");
  c.write_base64(static_cast<unsigned char const*>(data), size);
  c.append("</Binary>");
  c.flush();
}

void XmlWriter::write_sequence_start(unsigned count_hint) {
  Core& c = begin("zoserialize::XmlWriter::write_sequence_start()");
  c.open_item();
  c.layout();
  if (count_hint == 0) {
    c.append("<Sequence>");
  } else {
    char* out = copy(c.room(32), "<Sequence count=\"");
    out = format_decimal(out, count_hint);
    c.commit(copy(out, "\">"));
  }
  c.scopes.push_sequence(count_hint);
  c.indent_increment();
  c.flush();
}

void XmlWriter::write_sequence_start() {
  write_sequence_start(0);
}

void XmlWriter::write_sequence_separator() {
  Core& c = begin("zoserialize::XmlWriter::write_sequence_separator()");
  impl::ScopeStack::Entry& top = c.scopes.add_separator(kScopeMessages);
  if ((top.flags & kItemOpen) == 0) {
    // The element that just ended wrote nothing.
    c.line("<Item/>");
  } else {
    c.indent_decrement();
    c.line("</Item>");
    top.flags &= static_cast<std::uint8_t>(~kItemOpen);
  }
  c.flush();
}

void XmlWriter::write_sequence_end() {
  Core& c = begin("zoserialize::XmlWriter::write_sequence_end()");
  // The sequence counts as closed even when its count check fails; nothing is written then.
  impl::ScopeStack::Entry const top = c.scopes.end_sequence(kScopeMessages);
  if ((top.flags & kItemOpen) != 0) {
    c.indent_decrement();
    c.line("</Item>");
  } else if (top.separators > 0) {
    c.line("<Item/>");
  }
  c.indent_decrement();
  c.line("</Sequence>");
  c.flush();
}

void XmlWriter::write_marker_start() {
  Core& c = begin("zoserialize::XmlWriter::write_marker_start()");
  c.open_item();
  c.scopes.push_marker();
  c.line("<Marker>");
  c.indent_increment();
  c.flush();
}

void XmlWriter::write_marker_end() {
  Core& c = *core_;
  // Checked before anything else, a pending stream included.
  if (c.scopes.empty()) c.scopes.end_any(kScopeMessages);
  begin("zoserialize::XmlWriter::write_marker_end()");
  c.scopes.end_any(kScopeMessages);
  c.indent_decrement();
  c.line("</Marker>");
  c.flush();
}

}  // namespace zoserialize
