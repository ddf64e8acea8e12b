// A Reader that replays a flat script of tokens and logs the core calls made on it, for tests of
// the Reader front end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <zocore/error_code.h>
#include <zoserialize/reader.h>

namespace zotest {

// Code of the failures ScriptedReader raises: a read that does not match the script, an integer
// image wider than asked for, running off the end.
extern zocore::ErrorCode const scripted_reader_error;  // "error.zotest.scripted_reader"

struct ScriptElement {
  zoserialize::Reader::EToken token;
  std::string bytes{};     // integer image (big-endian), string or binary payload
  double number = 0;       // Double
  std::int64_t count = 0;  // Boolean (0/1), time in nanoseconds, count hint (0: none)
  zoserialize::Uuid uuid{};
};
using Script = std::vector<ScriptElement>;

// A script from space-separated items: n (null), t f (booleans), i<hex> u<hex> (integer images),
// d<strtod text> (nan, inf too), s<text> b<text>, a<ns> r<ns>, g<uuid text>, [ or [<count hint>,
// "," ] { } (separator, ends, marker start), ?<n> (a bare token value).
Script parse_script(std::string_view text);

// next_token() reports the next token (EOF after the last); typed reads check it; integer reads
// sign- or zero-extend the image; read_sequence_next consumes a separator (true) or the end
// (false) and reports true without consuming before a first element; read_marker_end skips to the
// marker's end; read_copy writes the element's token name as a string and skips the element.
// Payload streams borrow the script. calls() logs each core call but next_token() and is_eof():
// "read_int_big_endian 4", "read_string(SourceString&)", ... Not thread-safe.
class ScriptedReader : public zoserialize::Reader {
 public:
  using Stream = zoserialize::InterfacePtr<zoserialize::IReadStream>;

  explicit ScriptedReader(std::string_view text) : script_(parse_script(text)) {}

  std::vector<std::string> const& calls() const noexcept { return calls_; }

  bool is_eof() const override { return pos_ >= script_.size(); }
  EToken next_token() override { return is_eof() ? EToken::Eof : script_[pos_].token; }
  void skip_element() override { pos_ = element_end(); }
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
