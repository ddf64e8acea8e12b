#include <algorithm>
#include <charconv>
#include <cstring>
#include <ostream>

#include <zocore/hex.h>
#include <zocore/streamers.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/impl/integer_form.h>
#include <zoserialize/trace_writer.h>

namespace zoserialize {
namespace {

// The text writer's wording: a traced series of calls fails exactly as it would in text.
impl::ScopeMessages const kScopeMessages = {
    "zoserialize::TraceWriter::write_sequence_separator()",
    "zoserialize::TraceWriter::write_sequence_end()",
    "zoserialize::TraceWriter::write_marker_end()",
    "zoserialize::TraceWriter::close()",
    "Attempt to add sequence separator and no sequence is open at top of stack",
    "Attempt to close sequence and no sequence is open or on top of stack",
    "Attempt to close marker and no marker is open or on top of stack",
    "Attempt to close writer but there are sequences and/or markers that are still open",
    &error::zoserialize_writer_sequence_nesting,
    true,  // Added counts the elements: separators + 1
};

// The single colon is historical; logs and callers match on it.
constexpr char kStreamWriteFunction[] = "zoserialize::TraceWriter:StreamImplBase::write()";

constexpr unsigned kSkipStep = 0x1000000;  // 16 MiB

// Writes the decimal form of `value` at `out` and returns its end. `text` has room for the
// longest value and `tail` more characters after it.
template <class T, std::size_t N>
char* put_decimal(char (&text)[N], char* out, T value, std::size_t tail) {
  return std::to_chars(out, text + N - tail, value).ptr;
}

}  // namespace

// ---- Element streams ---------------------------------------------------------------------------

// Keeps the first 256 bytes of a streamed value and counts all of them. The buffer of the base
// gathers small writes; every block it hands over is counted, and only the first 256 bytes are
// copied aside. A large write passes through as one block without a copy.
class TraceWriter::StreamImplBase : public impl::BufferedValueStream<256, 1> {
 protected:
  StreamImplBase(TraceWriter* writer, bool is_string) noexcept
      : BufferedValueStream(writer->stream_slot_, kStreamWriteFunction),
        writer_(writer),
        is_string_(is_string) {}

  void emit_block(unsigned char const* data, unsigned size) final { keep(data, size); }
  void emit_final(unsigned char const* rest, unsigned size) final {
    keep(rest, size);
    if (!writer_->check_trace()) return;
    if (is_string_) {
      writer_->render_string(reinterpret_cast<char const*>(kept_), kept_size_, total_);
    } else {
      writer_->render_binary(kept_, kept_size_, total_);
    }
  }

 private:
  void keep(unsigned char const* data, unsigned size) noexcept {
    unsigned const n = std::min(size, kCapacity - kept_size_);
    std::memcpy(kept_ + kept_size_, data, n);
    kept_size_ += n;
    total_ += size;
  }

  static constexpr unsigned kCapacity = 256;
  TraceWriter* writer_;
  bool is_string_;
  unsigned kept_size_ = 0;
  std::uint64_t total_ = 0;
  unsigned char kept_[kCapacity]{};
};

class TraceWriter::BinaryStreamImpl final : public StreamImplBase {
 public:
  explicit BinaryStreamImpl(TraceWriter* writer) noexcept : StreamImplBase(writer, false) {}
};

class TraceWriter::StringStreamImpl final : public StreamImplBase {
 public:
  explicit StringStreamImpl(TraceWriter* writer) noexcept : StreamImplBase(writer, true) {}
};

// ---- Construction ------------------------------------------------------------------------------

TraceWriter::TraceWriter(std::ostream& out, char const* prefix, char const* indent) : out_(out) {
  initialize(prefix, indent);
}

TraceWriter::TraceWriter(std::ostream& out, char const* prefix, char const* indent,
                         unsigned max_elements, unsigned max_depth)
    : out_(out),
      remaining_elements_(max_elements == 0 ? kUnlimited : max_elements),
      max_depth_(max_depth == 0 ? kUnlimited : max_depth) {
  initialize(prefix, indent);
}

// The slot abandons an open stream: its holder gets failures, and nothing is printed.
TraceWriter::~TraceWriter() = default;

void TraceWriter::initialize(char const* prefix, char const* indent) {
  if (prefix == nullptr) prefix = "";
  if (indent == nullptr) indent = " ";
  indent_text_ = prefix;
  indent_text_ += indent;
  prefix_length_ = static_cast<unsigned>(std::strlen(prefix));
  indent_unit_length_ = static_cast<unsigned>(std::strlen(indent));
  indent_length_ = prefix_length_;
}

// ---- Helpers -----------------------------------------------------------------------------------

// With the budget at N, N - 1 elements print and the N-th becomes the ellipsis line; after that
// nothing prints. Elements at maxDepth or deeper print nothing, except one ellipsis line for each
// run of them, which a shallower element ends.
bool TraceWriter::check_trace() {
  if (remaining_elements_ == 0) return false;
  if (remaining_elements_ != kUnlimited && remaining_elements_-- == 1) {
    line("...\n", 4);
    return false;
  }
  if (scopes_.depth() < max_depth_) {
    depth_elided_ = false;
    return true;
  }
  if (!depth_elided_) {
    line("...\n", 4);
    depth_elided_ = true;
  }
  return false;
}

std::ostream& TraceWriter::indented() {
  if (indent_length_ > indent_text_.size() && indent_unit_length_ != 0) {
    std::size_t const unit_at = prefix_length_;
    while (indent_text_.size() < indent_length_)
      indent_text_.append(indent_text_, unit_at, indent_unit_length_);
  }
  std::size_t const n = std::min<std::size_t>(indent_length_, indent_text_.size());
  out_.write(indent_text_.data(), static_cast<std::streamsize>(n));
  return out_;
}

void TraceWriter::indent_increment() noexcept {
  indent_length_ += indent_unit_length_;
}

void TraceWriter::indent_decrement() noexcept {
  indent_length_ = indent_length_ - prefix_length_ >= indent_unit_length_
                       ? indent_length_ - indent_unit_length_
                       : prefix_length_;
}

void TraceWriter::line(char const* text, std::size_t size) {
  indented().write(text, static_cast<std::streamsize>(size));
}

void TraceWriter::render_string(char const* data, unsigned length, std::uint64_t total) {
  unsigned const shown = std::min(length, kMaxStringBytes);
  char head[48] = "String[";
  char* end = put_decimal(head, head + 7, total, 3);
  std::memcpy(end, "]: ", 3);
  indented().write(head, end + 3 - head);
  auto const is_control = [](char c) { return static_cast<unsigned char>(c) < 0x20; };
  if (std::none_of(data, data + shown, is_control)) {
    zocore::streamers::String::write_string(out_, data, shown, '"', kMaxStringBytes - 1);
  } else {
    // Control characters would break the line: they show as C escapes. This is the quoted
    // rendering of the escaped copy (limit counted on the copy), except that the escapes'
    // own backslashes are not doubled: a TAB shows as \t, a backslash and a t as \\t.
    constexpr unsigned kLimit = kMaxStringBytes - 1;
    scratch_.assign(1, '"');
    std::size_t copy_length = 0;
    for (unsigned i = 0; i < shown; ++i) {
      auto const c = static_cast<unsigned char>(data[i]);
      char piece[4] = {static_cast<char>(c)};
      std::size_t n = 1;
      if (c < 0x20) {
        piece[0] = '\\';
        n = 2;
        if (c == '\t') {
          piece[1] = 't';
        } else if (c == '\n') {
          piece[1] = 'n';
        } else if (c == '\r') {
          piece[1] = 'r';
        } else {
          piece[1] = 'x';
          piece[2] = "0123456789abcdef"[c >> 4];
          piece[3] = "0123456789abcdef"[c & 15];
          n = 4;
        }
      }
      if (copy_length < kLimit) {
        if (n == 1 && (c == '"' || c == '\\')) scratch_ += '\\';
        scratch_.append(piece, std::min(n, kLimit - copy_length));
      }
      copy_length += n;
    }
    scratch_ += '"';
    if (copy_length > kLimit) scratch_ += "...";
    out_.write(scratch_.data(), static_cast<std::streamsize>(scratch_.size()));
  }
  out_.put('\n');
}

void TraceWriter::render_binary(unsigned char const* data, unsigned length, std::uint64_t total) {
  char head[48] = "Binary[";
  char* end = put_decimal(head, head + 7, total, 4);
  std::memcpy(end, "]: \n", 4);
  indented().write(head, end + 4 - head);
  unsigned const shown = std::min(length, kMaxBinaryBytes);
  if (shown > 0) {
    // The head line grew the indent text to the current indent.
    scratch_.assign(indent_text_, 0, std::min<std::size_t>(indent_length_, indent_text_.size()));
    scratch_ += "  ";
    zocore::streamers::render_hex_dump(out_, data, shown, 0, scratch_.c_str());
    out_.put('\n');
  }
  if (total > shown) line("  ...\n", 6);
}

void TraceWriter::finalize_binary_writer_stream() {
  stream_slot_.finish();
}

void TraceWriter::finalize_previous_element() {
  if (stream_slot_.is_open()) [[unlikely]]
    finalize_binary_writer_stream();
}

void TraceWriter::write_from_source(IReadStream& source, bool is_string) {
  finalize_previous_element();
  if (!check_trace()) return;
  unsigned char kept[kMaxBinaryBytes];
  unsigned const n = source.read(kept, sizeof kept);
  std::uint64_t total = n;
  if (n == sizeof kept) {
    // A short read ended the source; otherwise the rest is counted, not kept.
    unsigned const remaining = source.bytes_remaining();
    if (remaining != IReadStream::kUnknownSize) {
      if (remaining != 0) total += source.skip(remaining);
    } else {
      unsigned skipped;
      do {
        skipped = source.skip(kSkipStep);
        total += skipped;
      } while (skipped == kSkipStep);
    }
  }
  if (is_string) {
    render_string(reinterpret_cast<char const*>(kept), n, total);
  } else {
    render_binary(kept, n, total);
  }
}

// ---- Writer operations -------------------------------------------------------------------------

void TraceWriter::close() {
  finalize_previous_element();
  scopes_.check_all_closed(kScopeMessages);
  open_ = false;
}

void TraceWriter::flush() {
  finalize_previous_element();
}

void TraceWriter::write_null() {
  finalize_previous_element();
  if (check_trace()) line("Null\n", 5);
}

void TraceWriter::write_bool(bool value) {
  finalize_previous_element();
  if (check_trace()) indented() << "Bool: " << zocore::streamers::Boolean{value} << '\n';
}

void TraceWriter::write_int_big_endian(void const* data, unsigned size) {
  finalize_previous_element();
  if (!check_trace()) return;
  auto const* image = static_cast<unsigned char const*>(data);
  impl::SignedForm const form = impl::minimal_signed_form(image, size);
  if (form.length <= 4) {
    std::int64_t const value = form.length == 0
                                   ? (form.sign != 0 ? -1 : 0)
                                   : impl::load_signed(image + form.offset, form.length);
    char text[32] = "Int: ";
    char* end = put_decimal(text, text + 5, static_cast<std::int32_t>(value), 1);
    *end++ = '\n';
    line(text, static_cast<std::size_t>(end - text));
    return;
  }
  scratch_.assign("Int: 0x");
  scratch_ += zocore::hex_encode(image + form.offset, form.length);
  scratch_ += '\n';
  line(scratch_.data(), scratch_.size());
}

void TraceWriter::write_uint_big_endian(void const* data, unsigned size) {
  finalize_previous_element();
  if (!check_trace()) return;
  auto const* image = static_cast<unsigned char const*>(data);
  impl::UnsignedForm const form = impl::minimal_unsigned_form(image, size);
  if (form.length <= 3) {
    char text[32] = "UInt: ";
    char* end =
        put_decimal(text, text + 6, impl::load_unsigned(image + form.offset, form.length), 1);
    *end++ = '\n';
    line(text, static_cast<std::size_t>(end - text));
    return;
  }
  scratch_.assign("UInt: 0x");
  scratch_ += zocore::hex_encode(image + form.offset, form.length);
  scratch_ += '\n';
  line(scratch_.data(), scratch_.size());
}

void TraceWriter::write_double(double value) {
  finalize_previous_element();
  if (check_trace()) indented() << "Double: " << value << '\n';
}

void TraceWriter::write_string(char const* data, unsigned size) {
  finalize_previous_element();
  if (check_trace()) render_string(data, size, size);
}

InterfacePtr<IWriteStream> TraceWriter::write_string_stream() {
  finalize_previous_element();
  return stream_slot_.open(zocore::make_ref_counted<StringStreamImpl>(this));
}

void TraceWriter::write_string_stream(IReadStream& source) {
  write_from_source(source, true);
}

void TraceWriter::write_absolute_time(AbsoluteTime const& value) {
  finalize_previous_element();
  if (check_trace()) indented() << "AbsTime: " << value.as_string() << '\n';
}

void TraceWriter::write_relative_time(RelativeTime const& value) {
  finalize_previous_element();
  if (check_trace()) indented() << "RelTime: " << value.as_string() << '\n';
}

void TraceWriter::write_uuid(Uuid const& value) {
  finalize_previous_element();
  if (check_trace()) indented() << "Uuid: " << value.as_string() << '\n';
}

InterfacePtr<IWriteStream> TraceWriter::write_binary() {
  finalize_previous_element();
  return stream_slot_.open(zocore::make_ref_counted<BinaryStreamImpl>(this));
}

void TraceWriter::write_binary(IReadStream& source) {
  write_from_source(source, false);
}

void TraceWriter::write_binary(void const* data, unsigned size) {
  finalize_previous_element();
  if (check_trace()) render_binary(static_cast<unsigned char const*>(data), size, size);
}

void TraceWriter::write_sequence_start(unsigned count_hint) {
  finalize_previous_element();
  if (check_trace()) {
    char text[32] = "Sequence[";
    char* end = count_hint != 0 ? put_decimal(text, text + 9, count_hint, 3) : text + 9;
    std::memcpy(end, "]{\n", 3);
    line(text, static_cast<std::size_t>(end + 3 - text));
  }
  scopes_.push_sequence(count_hint);
  indent_increment();
}

void TraceWriter::write_sequence_start() {
  write_sequence_start(0);
}

void TraceWriter::write_sequence_separator() {
  finalize_previous_element();
  scopes_.add_separator(kScopeMessages);
  if (check_trace()) {
    // One level out, level with the sequence's own lines.
    indent_decrement();
    line("}{\n", 3);
    indent_increment();
  }
}

void TraceWriter::write_sequence_end() {
  finalize_previous_element();
  // The sequence counts as closed even when its count check fails, so the indent follows it
  // before the check can throw.
  if (!scopes_.empty() && scopes_.top().kind == impl::ScopeStack::EKind::Sequence)
    indent_decrement();
  scopes_.end_sequence(kScopeMessages);
  if (check_trace()) line("}\n", 2);
}

void TraceWriter::write_marker_start() {
  finalize_previous_element();
  if (check_trace()) line("Marker{\n", 8);
  scopes_.push_marker();
  indent_increment();
}

void TraceWriter::write_marker_end() {
  // Refused before an open value stream is finished.
  if (scopes_.empty()) scopes_.end_any(kScopeMessages);
  finalize_previous_element();
  scopes_.end_any(kScopeMessages);
  indent_decrement();
  if (check_trace()) line("}\n", 2);
}

}  // namespace zoserialize
