// A Reader that replays a flat script of elements and logs the core calls made on it, for tests of
// the Reader front end and of code that consumes readers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <zocore/error_code.h>
#include <zoserialize/reader.h>

namespace zotest {

// Code of the failures ScriptedReader raises: a read that does not match the script, a value
// that does not fit, running off the end.
extern zocore::ErrorCode const scripted_reader_error;  // "error.zotest.scripted_reader"

// One token of a script; only the payload of the token's kind is used.
struct ScriptElement {
  zoserialize::Reader::EToken token;
  std::string bytes{};     // integer image (big-endian, two's complement if signed), payload
  double number = 0;       // Double
  std::int64_t count = 0;  // Boolean (0/1), time in nanoseconds, count hint (0: none)
  zoserialize::Uuid uuid{};
};
using Script = std::vector<ScriptElement>;

// A script from space-separated items: n (null), t f (booleans), i<dec> u<dec> (8-byte images),
// I<hex> U<hex> (explicit images), d<strtod text> (nan, inf too), s<text> b<text>, a<ns> r<ns>,
// g<uuid text>, [ or [<count hint>, "," ] { } (separator, ends, marker start), ?<n> (a bare
// token value). Throws std::invalid_argument on a malformed item.
Script parse_script(std::string_view text);

// Behaves like an archive reader over the script: next_token() reports the next token (EOF after
// the last); typed reads check it; integer reads sign- or zero-extend the image and fail when the
// value needs more bytes; read_sequence_next consumes a separator (true) or the end (false) and
// reports true without consuming before a first element; read_marker_is_end is false at the end
// of the script (as a lenient archive might say) and read_marker_end skips to the marker's end;
// skip_element and read_copy take whole sequences and markers. Payload streams borrow the script
// and must not outlive the reader. calls() logs each core call but next_token() and is_eof():
// "read_int_big_endian 4", "read_string(SourceString&)", "read_copy", ... Not thread-safe.
class ScriptedReader : public zoserialize::Reader {
 public:
  using Stream = zoserialize::InterfacePtr<zoserialize::IReadStream>;

  explicit ScriptedReader(Script script) : script_(std::move(script)) {}
  explicit ScriptedReader(std::string_view text) : script_(parse_script(text)) {}

  std::vector<std::string> const& calls() const noexcept { return calls_; }
  // Index of the next token in the script.
  std::size_t position() const noexcept { return pos_; }

  bool is_eof() const override { return pos_ >= script_.size(); }
  EToken next_token() override { return is_eof() ? EToken::Eof : script_[pos_].token; }
  void skip_element() override;
  void read_null() override { take(EToken::Null, "read_null"); }
  bool try_read_null() override { return next_token() == EToken::Null && (read_null(), true); }
  bool read_bool() override { return take(EToken::Boolean, "read_bool").count != 0; }
  void read_int_big_endian(void* data, unsigned size) override { read_integer(data, size, true); }
  void read_uint_big_endian(void* data, unsigned size) override { read_integer(data, size, false); }
  double read_double() override { return take(EToken::Double, "read_double").number; }
  void read_string(zoserialize::SourceString& out) override {
    out = zoserialize::SourceString(take(EToken::String, "read_string(SourceString&)").bytes);
  }
  void read_string(std::string& out) override {
    out = take(EToken::String, "read_string(string&)").bytes;
  }
  std::string read_string() override { return take(EToken::String, "read_string()").bytes; }
  Stream read_string_stream() override { return over(take(EToken::String, "read_string_stream")); }
  zoserialize::AbsoluteTime read_absolute_time() override {
    return zoserialize::AbsoluteTime(take(EToken::AbsoluteTime, "read_absolute_time").count);
  }
  zoserialize::RelativeTime read_relative_time() override {
    return zoserialize::RelativeTime(take(EToken::RelativeTime, "read_relative_time").count);
  }
  zoserialize::Uuid read_uuid() override { return take(EToken::Uuid, "read_uuid").uuid; }
  Stream read_binary() override { return over(take(EToken::Binary, "read_binary")); }
  unsigned read_sequence_start() override {
    return static_cast<unsigned>(take(EToken::SequenceStart, "read_sequence_start").count);
  }
  bool read_sequence_next() override;
  void read_marker_start() override { take(EToken::MarkerStart, "read_marker_start"); }
  bool read_marker_is_end() override;
  void read_marker_end() override;
  void read_copy(zoserialize::Writer& writer) override;

 private:
  // Logs `call`, then consumes the next token, which must be `token`.
  ScriptElement const& take(EToken token, std::string call);
  static Stream over(ScriptElement const& element);
  void read_integer(void* data, unsigned size, bool is_signed);
  // Index just past the element that starts at pos_.
  std::size_t element_end() const;

  Script script_;
  std::size_t pos_ = 0;
  std::vector<std::string> calls_;
};

}  // namespace zotest
