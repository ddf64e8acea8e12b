#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <utility>

#include <support/hex_bytes.h>
#include <support/scripted_reader.h>
#include <zocore/error_composer.h>
#include <zocore/memory_stream.h>

namespace zotest {

using EToken = zoserialize::Reader::EToken;

namespace {

constexpr char kModuleId[] = "$Id: tests/support/scripted_reader.cpp $";
zocore::SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

[[noreturn]] void fail(std::string const& expected, std::string const& found,
                       char const* function) {
  zocore::ErrorComposer("Scripted reader: expected {@expected}, found {@found}")
      .add("expected", expected)
      .add("found", found)
      .throw_error(scripted_reader_error, here(function));
}

std::string image_of(unsigned long long value) {
  std::string image(8, '\0');
  for (auto byte = image.rbegin(); byte != image.rend(); ++byte, value >>= 8)
    *byte = static_cast<char>(value & 0xFF);
  return image;
}

}  // namespace

// NOLINTNEXTLINE(cert-err58-cpp): constant-initialised, nothing runs at load
constinit zocore::ErrorCode const scripted_reader_error("error.zotest.scripted_reader", true);

Script parse_script(std::string_view text) {
  // The letter of each token at the token's value, from Unknown (0) to MarkerEnd (15).
  static constexpr std::string_view kLetters = "?ntiudsargb[,]{}";
  Script script;
  std::istringstream items{std::string(text)};
  for (std::string item; items >> item;) {
    char const c = item[0];
    std::string const arg = item.substr(1);
    std::size_t const value = kLetters.find(c == 'f' ? 't' : c == 'I' ? 'i' : c == 'U' ? 'u' : c);
    if (value == std::string_view::npos) throw std::invalid_argument("bad script item " + item);
    ScriptElement& e = script.emplace_back(
        ScriptElement{static_cast<EToken>(c == '?' ? std::stoi(arg) : static_cast<int>(value))});
    if (c == 't') e.count = 1;
    if (c == 'i') e.bytes = image_of(static_cast<unsigned long long>(std::stoll(arg)));
    if (c == 'u') e.bytes = image_of(std::stoull(arg));
    if (c == 'I' || c == 'U') e.bytes = bytes(arg);
    if (c == 'd') e.number = std::strtod(arg.c_str(), nullptr);
    if (c == 's' || c == 'b') e.bytes = arg;
    if ((c == 'a' || c == 'r' || c == '[') && !arg.empty()) e.count = std::stoll(arg);
    if (c == 'g') e.uuid = zoserialize::Uuid::from_string(arg.data(), unsigned(arg.size()));
  }
  return script;
}

ScriptElement const& ScriptedReader::take(EToken token, std::string call) {
  calls_.push_back(std::move(call));
  if (next_token() != token) {
    fail(zoserialize::token_name(token), zoserialize::token_name(next_token()),
         "zotest::ScriptedReader::take()");
  }
  return script_[pos_++];
}

void ScriptedReader::read_integer(void* data, unsigned size, bool is_signed) {
  std::string_view image =
      take(is_signed ? EToken::SignedInteger : EToken::UnsignedInteger,
           (is_signed ? "read_int_big_endian " : "read_uint_big_endian ") + std::to_string(size))
          .bytes;
  auto const byte = [&](std::size_t i) { return static_cast<unsigned char>(image[i]); };
  bool const negative = is_signed && !image.empty() && (byte(0) & 0x80) != 0;
  unsigned char const fill = negative ? 0xFF : 0x00;
  // Leading bytes that only repeat the sign (zeros when unsigned) go while they do not fit.
  while (image.size() > size && image.size() > 1 && byte(0) == fill &&
         (!is_signed || ((byte(1) & 0x80) != 0) == negative))
    image.remove_prefix(1);
  if (image.size() > size) {
    fail("at most " + std::to_string(size) + " bytes", std::to_string(image.size()) + " bytes",
         "zotest::ScriptedReader::read_integer()");
  }
  auto* const out = static_cast<unsigned char*>(data);
  std::memset(out, fill, size - image.size());
  std::memcpy(out + size - image.size(), image.data(), image.size());
}

std::size_t ScriptedReader::element_end() const {
  for (std::size_t i = pos_, depth = 0;;) {
    EToken const t = i < script_.size() ? script_[i].token : EToken::Eof;
    bool const opens = t == EToken::SequenceStart || t == EToken::MarkerStart;
    bool const closes = t == EToken::SequenceEnd || t == EToken::MarkerEnd;
    if (t == EToken::Eof ||
        (depth == 0 && (closes || t == EToken::SequenceSeparator || t == EToken::Unknown))) {
      fail("an element", zoserialize::token_name(t), "zotest::ScriptedReader::element_end()");
    }
    depth = depth + (opens ? 1 : 0) - (closes ? 1 : 0);
    if (++i, depth == 0) return i;
  }
}

void ScriptedReader::skip_element() {
  calls_.emplace_back("skip_element");
  pos_ = element_end();
}

ScriptedReader::Stream ScriptedReader::over(ScriptElement const& element) {
  return zocore::make_ref_counted<zocore::MemoryReadStream>(std::string_view(element.bytes));
}

bool ScriptedReader::read_sequence_next() {
  calls_.emplace_back("read_sequence_next");
  EToken const t = next_token();
  if (t == EToken::Eof || t == EToken::MarkerEnd) {
    fail("a sequence separator or end", zoserialize::token_name(t),
         "zotest::ScriptedReader::read_sequence_next()");
  }
  if (t == EToken::SequenceSeparator || t == EToken::SequenceEnd) ++pos_;
  return t != EToken::SequenceEnd;
}

bool ScriptedReader::read_marker_is_end() {
  calls_.emplace_back("read_marker_is_end");
  return next_token() == EToken::MarkerEnd;
}

void ScriptedReader::read_marker_end() {
  calls_.emplace_back("read_marker_end");
  while (next_token() != EToken::MarkerEnd)
    pos_ = element_end();
  ++pos_;
}

void ScriptedReader::read_copy(zoserialize::Writer& writer) {
  calls_.emplace_back("read_copy");
  for (std::size_t const end = element_end(); pos_ < end; ++pos_) {
    ScriptElement const& e = script_[pos_];
    EToken const t = e.token;
    auto const size = static_cast<unsigned>(e.bytes.size());
    if (t == EToken::Null) writer.write_null();
    if (t == EToken::Boolean) writer.write_bool(e.count != 0);
    if (t == EToken::SignedInteger) writer.write_int_big_endian(e.bytes.data(), size);
    if (t == EToken::UnsignedInteger) writer.write_uint_big_endian(e.bytes.data(), size);
    if (t == EToken::Double) writer.write_double(e.number);
    if (t == EToken::String) writer.write_string(e.bytes.data(), size);
    if (t == EToken::Binary) writer.write_binary(e.bytes.data(), size);
    if (t == EToken::AbsoluteTime) writer.write_absolute_time(zoserialize::AbsoluteTime(e.count));
    if (t == EToken::RelativeTime) writer.write_relative_time(zoserialize::RelativeTime(e.count));
    if (t == EToken::Uuid) writer.write_uuid(e.uuid);
    if (t == EToken::SequenceStart && e.count == 0) writer.write_sequence_start();
    if (t == EToken::SequenceStart && e.count != 0) writer.write_sequence_start(unsigned(e.count));
    if (t == EToken::SequenceSeparator) writer.write_sequence_separator();
    if (t == EToken::SequenceEnd) writer.write_sequence_end();
    if (t == EToken::MarkerStart) writer.write_marker_start();
    if (t == EToken::MarkerEnd) writer.write_marker_end();
  }
}

}  // namespace zotest
