#include <cstdlib>
#include <cstring>
#include <sstream>
#include <utility>

#include <support/hex_bytes.h>
#include <support/scripted_reader.h>
#include <zocore/error_composer.h>
#include <zocore/memory_stream.h>

namespace zotest {

using EToken = zoserialize::Reader::EToken;

namespace {

[[noreturn]] void fail(std::string const& expected, EToken found) {
  zocore::ErrorComposer("Scripted reader: expected {@expected}, found {@found}")
      .add("expected", expected)
      .add("found", zoserialize::token_name(found))
      .throw_error(scripted_reader_error,
                   {"zotest::ScriptedReader", "$Id: tests/support/scripted_reader.cpp $", 0});
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
    auto const value = static_cast<int>(kLetters.find(c == 'f' ? 't' : c));
    ScriptElement& e =
        script.emplace_back(ScriptElement{static_cast<EToken>(c == '?' ? std::stoi(arg) : value)});
    if (c == 't') e.count = 1;
    if (c == 'i' || c == 'u') e.bytes = bytes(arg);
    if (c == 'd') e.number = std::strtod(arg.c_str(), nullptr);
    if (c == 's' || c == 'b') e.bytes = arg;
    if ((c == 'a' || c == 'r' || c == '[') && !arg.empty()) e.count = std::stoll(arg);
    if (c == 'g') e.uuid = zoserialize::Uuid::from_string(arg.data(), unsigned(arg.size()));
  }
  return script;
}

ScriptElement const& ScriptedReader::take(EToken token, std::string call) {
  calls_.push_back(std::move(call));
  if (next_token() != token) fail(zoserialize::token_name(token), next_token());
  return script_[pos_++];
}

void ScriptedReader::read_integer(void* data, unsigned size, bool is_signed) {
  std::string const& image =
      take(is_signed ? EToken::SignedInteger : EToken::UnsignedInteger,
           (is_signed ? "read_int_big_endian " : "read_uint_big_endian ") + std::to_string(size))
          .bytes;
  if (image.size() > size) fail("at most " + std::to_string(size) + " bytes", EToken::Unknown);
  bool const negative = is_signed && !image.empty() && (image[0] & 0x80) != 0;
  auto* const out = static_cast<unsigned char*>(data);
  std::memset(out, negative ? 0xFF : 0x00, size - image.size());
  std::memcpy(out + size - image.size(), image.data(), image.size());
}

std::size_t ScriptedReader::element_end() const {
  for (std::size_t i = pos_, depth = 0;;) {
    EToken const t = i < script_.size() ? script_[i].token : EToken::Eof;
    bool const opens = t == EToken::SequenceStart || t == EToken::MarkerStart;
    bool const closes = t == EToken::SequenceEnd || t == EToken::MarkerEnd;
    if (t == EToken::Eof || (depth == 0 && (closes || t == EToken::SequenceSeparator)))
      fail("an element", t);
    depth = depth + (opens ? 1 : 0) - (closes ? 1 : 0);
    if (++i, depth == 0) return i;
  }
}

ScriptedReader::Stream ScriptedReader::over(ScriptElement const& element) {
  return zocore::make_ref_counted<zocore::MemoryReadStream>(std::string_view(element.bytes));
}

bool ScriptedReader::read_sequence_next() {
  calls_.emplace_back("read_sequence_next");
  EToken const t = next_token();
  if (t == EToken::Eof || t == EToken::MarkerEnd) fail("a sequence separator or end", t);
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
  writer << zoserialize::token_name(next_token());
  pos_ = element_end();
}

}  // namespace zotest
