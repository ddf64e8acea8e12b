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

ScriptedReader::ScriptedReader(std::string_view script) {
  std::istringstream items{std::string(script)};
  for (std::string item; items >> item;)
    items_.push_back(std::move(item));
}

EToken ScriptedReader::next_token() {
  if (is_eof()) return EToken::Eof;
  // The letter of each token at the token's value, from Unknown (0) to MarkerEnd (15).
  static constexpr std::string_view kLetters = "?ntiudsargb[,]{}";
  std::string const& item = items_[pos_];
  if (item[0] == '?') return static_cast<EToken>(std::stoi(item.substr(1)));
  return static_cast<EToken>(kLetters.find(item[0] == 'f' ? 't' : item[0]));
}

std::string_view ScriptedReader::take(EToken token, std::string call) {
  calls_.push_back(std::move(call));
  if (next_token() != token) fail(zoserialize::token_name(token), next_token());
  return std::string_view(items_[pos_++]).substr(1);
}

double ScriptedReader::read_double() {
  return std::strtod(std::string(take(EToken::Double, "read_double")).c_str(), nullptr);
}

zoserialize::Uuid ScriptedReader::read_uuid() {
  std::string_view const text = take(EToken::Uuid, "read_uuid");
  return zoserialize::Uuid::from_string(text.data(), unsigned(text.size()));
}

void ScriptedReader::read_integer(void* data, unsigned size, bool is_signed) {
  std::string const image = bytes(
      take(is_signed ? EToken::SignedInteger : EToken::UnsignedInteger,
           (is_signed ? "read_int_big_endian " : "read_uint_big_endian ") + std::to_string(size)));
  if (image.size() > size) fail("at most " + std::to_string(size) + " bytes", EToken::Unknown);
  bool const negative = is_signed && !image.empty() && (image[0] & 0x80) != 0;
  auto* const out = static_cast<unsigned char*>(data);
  std::memset(out, negative ? 0xFF : 0x00, size - image.size());
  std::memcpy(out + size - image.size(), image.data(), image.size());
}

ScriptedReader::Stream ScriptedReader::over(std::string_view payload) {
  return zocore::make_ref_counted<zocore::MemoryReadStream>(payload);
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
  std::size_t depth = 0;
  for (std::size_t i = pos_; i < items_.size(); ++i) {
    if (items_[i] == "{") ++depth;
    if (items_[i] == "}" && depth-- == 0) {
      pos_ = i + 1;
      return;
    }
  }
  fail("a marker end", EToken::Eof);
}

void ScriptedReader::read_copy(zoserialize::Writer& writer) {
  calls_.emplace_back("read_copy");
  writer << zoserialize::token_name(next_token());
  ++pos_;
}

}  // namespace zotest
