#include <algorithm>
#include <cstring>
#include <utility>

#include <support/hex_bytes.h>
#include <support/scripted_reader.h>
#include <zocore/atomic_ref_count.h>
#include <zocore/error_composer.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/ref_counted.h>

namespace zotest {

using EToken = zoserialize::Reader::EToken;

namespace {

constexpr char kModuleId[] = "$Id: tests/support/scripted_reader.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

unsigned char byte_at(std::string_view s, std::size_t i) {
  return static_cast<unsigned char>(s[i]);
}

// Drops sign bytes that the next byte repeats; zero becomes the empty image.
std::string_view minimal_signed(std::string_view image) {
  while (!image.empty()) {
    bool const next_negative = image.size() > 1 && (byte_at(image, 1) & 0x80) != 0;
    unsigned char const sign_byte = next_negative ? 0xFF : 0x00;
    if (byte_at(image, 0) != sign_byte) break;
    image.remove_prefix(1);
  }
  return image;
}

std::string_view minimal_unsigned(std::string_view image) {
  while (!image.empty() && byte_at(image, 0) == 0x00)
    image.remove_prefix(1);
  return image;
}

std::string full_image(unsigned long long value) {
  std::string image(8, '\0');
  for (unsigned i = 8; i-- > 0;) {
    image[i] = static_cast<char>(value & 0xFF);
    value >>= 8;
  }
  return image;
}

bool is_boundary(EToken t) {
  return t == EToken::SequenceSeparator || t == EToken::SequenceEnd;
}

[[noreturn]] void throw_mismatch(EToken expected, EToken found, char const* function) {
  zocore::ErrorComposer("Scripted reader: expected {@expected}, found {@found}")
      .add("expected", zoserialize::token_name(expected))
      .add("found", zoserialize::token_name(found))
      .throw_error(scripted_reader_error, here(function));
}

[[noreturn]] void throw_not_an_element(EToken found, char const* function) {
  zocore::ErrorComposer("Scripted reader: {@found} does not start an element")
      .add("found", zoserialize::token_name(found))
      .throw_error(scripted_reader_error, here(function));
}

// The payload of a string or binary element, handed out as an independent stream.
class BytesStream : public zocore::IReadStream, public zocore::RefCounted<zocore::AtomicRefCount> {
 public:
  explicit BytesStream(std::string bytes) : bytes_(std::move(bytes)) {}

  unsigned read(void* buffer, unsigned size) override {
    unsigned const n = take(size);
    std::memcpy(buffer, bytes_.data() + offset_ - n, n);
    return n;
  }
  unsigned skip(unsigned size) override { return take(size); }
  unsigned bytes_remaining() const override {
    std::size_t const left = bytes_.size() - offset_;
    return left >= kUnknownSize ? kUnknownSize : static_cast<unsigned>(left);
  }

 private:
  unsigned take(unsigned size) {
    auto const n = static_cast<unsigned>(std::min<std::size_t>(size, bytes_.size() - offset_));
    offset_ += n;
    return n;
  }

  std::string bytes_;
  std::size_t offset_ = 0;
};

zoserialize::InterfacePtr<zoserialize::IReadStream> stream_over(std::string const& bytes) {
  return zocore::make_ref_counted<BytesStream>(bytes);
}

}  // namespace

// NOLINTNEXTLINE(cert-err58-cpp): constant-initialised, nothing runs at load
constinit zocore::ErrorCode const scripted_reader_error("error.zotest.scripted_reader", true);

namespace script {
namespace {
ScriptElement of(EToken token) {
  ScriptElement e;
  e.token = token;
  return e;
}
}  // namespace

ScriptElement null() {
  return of(EToken::Null);
}
ScriptElement boolean(bool value) {
  ScriptElement e = of(EToken::Boolean);
  e.boolean = value;
  return e;
}
ScriptElement sint(long long value) {
  ScriptElement e = of(EToken::SignedInteger);
  std::string const image = full_image(static_cast<unsigned long long>(value));
  e.bytes = std::string(minimal_signed(image));
  if (e.bytes.empty()) e.bytes.assign(1, '\0');
  return e;
}
ScriptElement uint(unsigned long long value) {
  ScriptElement e = of(EToken::UnsignedInteger);
  std::string const image = full_image(value);
  e.bytes = std::string(minimal_unsigned(image));
  if (e.bytes.empty()) e.bytes.assign(1, '\0');
  return e;
}
ScriptElement sint_image(std::string_view hex) {
  ScriptElement e = of(EToken::SignedInteger);
  e.bytes = bytes(hex);
  return e;
}
ScriptElement uint_image(std::string_view hex) {
  ScriptElement e = of(EToken::UnsignedInteger);
  e.bytes = bytes(hex);
  return e;
}
ScriptElement dbl(double value) {
  ScriptElement e = of(EToken::Double);
  e.number = value;
  return e;
}
ScriptElement str(std::string_view text) {
  ScriptElement e = of(EToken::String);
  e.bytes = text;
  return e;
}
ScriptElement bin(std::string_view bytes) {
  ScriptElement e = of(EToken::Binary);
  e.bytes = bytes;
  return e;
}
ScriptElement abs_time(std::int64_t count) {
  ScriptElement e = of(EToken::AbsoluteTime);
  e.count = count;
  return e;
}
ScriptElement rel_time(std::int64_t count) {
  ScriptElement e = of(EToken::RelativeTime);
  e.count = count;
  return e;
}
ScriptElement uuid(zoserialize::Uuid const& value) {
  ScriptElement e = of(EToken::Uuid);
  e.uuid = value;
  return e;
}
ScriptElement seq_start(unsigned count_hint) {
  ScriptElement e = of(EToken::SequenceStart);
  e.count = count_hint;
  return e;
}
ScriptElement sep() {
  return of(EToken::SequenceSeparator);
}
ScriptElement seq_end() {
  return of(EToken::SequenceEnd);
}
ScriptElement marker_start() {
  return of(EToken::MarkerStart);
}
ScriptElement marker_end() {
  return of(EToken::MarkerEnd);
}
ScriptElement token(EToken token) {
  return of(token);
}
}  // namespace script

ScriptedReader::ScriptedReader(std::vector<ScriptElement> script) : script_(std::move(script)) {}

EToken ScriptedReader::peek() const noexcept {
  return pos_ < script_.size() ? script_[pos_].token : EToken::Eof;
}

ScriptElement const& ScriptedReader::take(EToken token) {
  EToken const found = peek();
  if (found != token) throw_mismatch(token, found, "zotest::ScriptedReader::take()");
  return script_[pos_++];
}

ScriptedReader::Scope& ScriptedReader::innermost(bool is_sequence) {
  if (scopes_.empty() || scopes_.back().is_sequence != is_sequence) {
    zocore::ErrorComposer("Scripted reader: the innermost open scope is not a {@scope}")
        .add("scope", is_sequence ? "sequence" : "marker")
        .throw_error(scripted_reader_error, here("zotest::ScriptedReader::innermost()"));
  }
  return scopes_.back();
}

bool ScriptedReader::sequence_next() {
  Scope& scope = innermost(true);
  EToken const found = peek();
  if (found == EToken::SequenceEnd) {
    ++pos_;
    scopes_.pop_back();
    return false;
  }
  if (scope.before_first && found != EToken::Eof) {
    scope.before_first = false;
    return true;
  }
  if (found == EToken::SequenceSeparator) {
    ++pos_;
    return true;
  }
  zocore::ErrorComposer("Scripted reader: expected a sequence separator or end, found {@found}")
      .add("found", zoserialize::token_name(found))
      .throw_error(scripted_reader_error, here("zotest::ScriptedReader::sequence_next()"));
}

bool ScriptedReader::marker_is_end() {
  innermost(false);
  EToken const found = peek();
  if (found == EToken::Eof) {
    throw_mismatch(EToken::MarkerEnd, found, "zotest::ScriptedReader::marker_is_end()");
  }
  return found == EToken::MarkerEnd;
}

void ScriptedReader::marker_end() {
  innermost(false);
  while (!marker_is_end())
    skip();
  ++pos_;
  scopes_.pop_back();
}

void ScriptedReader::skip() {
  EToken const first = peek();
  if (first != EToken::SequenceStart && first != EToken::MarkerStart) {
    if (first == EToken::Eof || first == EToken::Unknown || is_boundary(first) ||
        first == EToken::MarkerEnd) {
      throw_not_an_element(first, "zotest::ScriptedReader::skip()");
    }
    ++pos_;
    return;
  }
  // The end tokens still to come, innermost last.
  std::vector<EToken> ends;
  for (;;) {
    EToken const t = peek();
    if (t == EToken::SequenceStart) {
      ends.push_back(EToken::SequenceEnd);
    } else if (t == EToken::MarkerStart) {
      ends.push_back(EToken::MarkerEnd);
    } else if (t == EToken::SequenceSeparator) {
      if (ends.back() != EToken::SequenceEnd) {
        throw_mismatch(ends.back(), t, "zotest::ScriptedReader::skip()");
      }
    } else if (t == EToken::SequenceEnd || t == EToken::MarkerEnd || t == EToken::Eof) {
      if (t != ends.back()) throw_mismatch(ends.back(), t, "zotest::ScriptedReader::skip()");
      ends.pop_back();
    }
    ++pos_;
    if (ends.empty()) return;
  }
}

void ScriptedReader::copy(zoserialize::Writer& writer) {
  EToken const token = peek();
  switch (token) {
    case EToken::Null:
      take(token);
      writer.write_null();
      return;
    case EToken::Boolean:
      writer.write_bool(take(token).boolean);
      return;
    case EToken::SignedInteger: {
      std::string const& image = take(token).bytes;
      writer.write_int_big_endian(image.data(), static_cast<unsigned>(image.size()));
      return;
    }
    case EToken::UnsignedInteger: {
      std::string const& image = take(token).bytes;
      writer.write_uint_big_endian(image.data(), static_cast<unsigned>(image.size()));
      return;
    }
    case EToken::Double:
      writer.write_double(take(token).number);
      return;
    case EToken::String: {
      std::string const& text = take(token).bytes;
      writer.write_string(text.data(), static_cast<unsigned>(text.size()));
      return;
    }
    case EToken::Binary: {
      std::string const& data = take(token).bytes;
      writer.write_binary(data.data(), static_cast<unsigned>(data.size()));
      return;
    }
    case EToken::AbsoluteTime:
      writer.write_absolute_time(zoserialize::AbsoluteTime(take(token).count));
      return;
    case EToken::RelativeTime:
      writer.write_relative_time(zoserialize::RelativeTime(take(token).count));
      return;
    case EToken::Uuid:
      writer.write_uuid(take(token).uuid);
      return;
    case EToken::SequenceStart: {
      auto const hint = static_cast<unsigned>(take(token).count);
      scopes_.push_back({true, true});
      if (hint != 0) {
        writer.write_sequence_start(hint);
      } else {
        writer.write_sequence_start();
      }
      for (bool first = true; sequence_next(); first = false) {
        if (!first) writer.write_sequence_separator();
        while (!is_boundary(peek()))
          copy(writer);
      }
      writer.write_sequence_end();
      return;
    }
    case EToken::MarkerStart:
      take(token);
      scopes_.push_back({false, false});
      writer.write_marker_start();
      while (!marker_is_end())
        copy(writer);
      marker_end();
      writer.write_marker_end();
      return;
    case EToken::Eof:
    case EToken::Unknown:
    case EToken::SequenceSeparator:
    case EToken::SequenceEnd:
    case EToken::MarkerEnd:
      break;
  }
  throw_not_an_element(token, "zotest::ScriptedReader::copy()");
}

void ScriptedReader::close() {
  log("close");
}

bool ScriptedReader::is_eof() const {
  return pos_ >= script_.size();
}

EToken ScriptedReader::next_token() {
  return peek();
}

void ScriptedReader::skip_element() {
  log("skip_element");
  skip();
}

void ScriptedReader::read_null() {
  log("read_null");
  take(EToken::Null);
}

bool ScriptedReader::try_read_null() {
  log("try_read_null");
  if (peek() != EToken::Null) return false;
  ++pos_;
  return true;
}

bool ScriptedReader::read_bool() {
  log("read_bool");
  return take(EToken::Boolean).boolean;
}

void ScriptedReader::read_int_big_endian(void* data, unsigned size) {
  log("read_int_big_endian " + std::to_string(size));
  std::string_view const image = minimal_signed(take(EToken::SignedInteger).bytes);
  if (image.size() > size) {
    zocore::ErrorComposer(
        "Scripted reader: integer of {@needed} bytes does not fit into {@size} bytes")
        .add("needed", image.size())
        .add("size", size)
        .throw_error(scripted_reader_error, here("zotest::ScriptedReader::read_int_big_endian()"));
  }
  auto* const out = static_cast<unsigned char*>(data);
  bool const negative = !image.empty() && (byte_at(image, 0) & 0x80) != 0;
  std::memset(out, negative ? 0xFF : 0x00, size - image.size());
  if (!image.empty()) std::memcpy(out + size - image.size(), image.data(), image.size());
}

void ScriptedReader::read_uint_big_endian(void* data, unsigned size) {
  log("read_uint_big_endian " + std::to_string(size));
  std::string_view const image = minimal_unsigned(take(EToken::UnsignedInteger).bytes);
  if (image.size() > size) {
    zocore::ErrorComposer(
        "Scripted reader: integer of {@needed} bytes does not fit into {@size} bytes")
        .add("needed", image.size())
        .add("size", size)
        .throw_error(scripted_reader_error, here("zotest::ScriptedReader::read_uint_big_endian()"));
  }
  auto* const out = static_cast<unsigned char*>(data);
  std::memset(out, 0, size - image.size());
  if (!image.empty()) std::memcpy(out + size - image.size(), image.data(), image.size());
}

double ScriptedReader::read_double() {
  log("read_double");
  return take(EToken::Double).number;
}

void ScriptedReader::read_string(zoserialize::SourceString& out) {
  log("read_string(SourceString&)");
  out = zoserialize::SourceString(std::string_view(take(EToken::String).bytes));
}

void ScriptedReader::read_string(std::string& out) {
  log("read_string(string&)");
  out = take(EToken::String).bytes;
}

std::string ScriptedReader::read_string() {
  log("read_string()");
  return take(EToken::String).bytes;
}

zoserialize::InterfacePtr<zoserialize::IReadStream> ScriptedReader::read_string_stream() {
  log("read_string_stream");
  return stream_over(take(EToken::String).bytes);
}

zoserialize::AbsoluteTime ScriptedReader::read_absolute_time() {
  log("read_absolute_time");
  return zoserialize::AbsoluteTime(take(EToken::AbsoluteTime).count);
}

zoserialize::RelativeTime ScriptedReader::read_relative_time() {
  log("read_relative_time");
  return zoserialize::RelativeTime(take(EToken::RelativeTime).count);
}

zoserialize::Uuid ScriptedReader::read_uuid() {
  log("read_uuid");
  return take(EToken::Uuid).uuid;
}

zoserialize::InterfacePtr<zoserialize::IReadStream> ScriptedReader::read_binary() {
  log("read_binary");
  return stream_over(take(EToken::Binary).bytes);
}

unsigned ScriptedReader::read_sequence_start() {
  log("read_sequence_start");
  auto const hint = static_cast<unsigned>(take(EToken::SequenceStart).count);
  scopes_.push_back({true, true});
  return hint;
}

bool ScriptedReader::read_sequence_next() {
  log("read_sequence_next");
  return sequence_next();
}

void ScriptedReader::read_marker_start() {
  log("read_marker_start");
  take(EToken::MarkerStart);
  scopes_.push_back({false, false});
}

bool ScriptedReader::read_marker_is_end() {
  log("read_marker_is_end");
  return marker_is_end();
}

void ScriptedReader::read_marker_end() {
  log("read_marker_end");
  marker_end();
}

void ScriptedReader::read_copy(zoserialize::Writer& writer) {
  log("read_copy");
  copy(writer);
}

}  // namespace zotest
