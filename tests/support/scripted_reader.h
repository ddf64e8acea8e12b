// A Reader that replays a script of tokens and logs the core calls made on it, for tests of the
// Reader front end.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include <zocore/error_code.h>
#include <zoserialize/reader.h>

namespace zotest {

// Code of the failures ScriptedReader raises: a read that does not match the script, an integer
// image wider than asked for, a marker end that never comes.
extern zocore::ErrorCode const scripted_reader_error;  // "error.zotest.scripted_reader"

// The script is space-separated items: n (null), t f (booleans), i<hex> u<hex> (integer images,
// sign- or zero-extended to the width asked for), d<strtod text> (nan, inf too), s<text> b<text>,
// a<ns> r<ns>, g<uuid text>, [ or [<count hint>, "," ] { } (separator, ends, marker start), ?<n>
// (a bare token value). read_sequence_next consumes a separator (true) or the end (false) and
// reports true without consuming before a first element; read_marker_end skips to the marker's
// end; skip_element and read_copy (which writes the token's name as a string) take one item.
// calls() logs each core call but next_token() and is_eof(): "read_int_big_endian 4",
// "read_string(SourceString&)", ... Payload streams borrow the script. Not thread-safe.
class ScriptedReader : public zoserialize::Reader {
 public:
  using Stream = zoserialize::InterfacePtr<zoserialize::IReadStream>;

  explicit ScriptedReader(std::string_view script);

  std::vector<std::string> const& calls() const noexcept { return calls_; }

  bool is_eof() const override { return pos_ >= items_.size(); }
  EToken next_token() override;
  void skip_element() override { ++pos_; }
  void read_null() override { take(EToken::Null, "read_null"); }
  bool try_read_null() override { return next_token() == EToken::Null && (read_null(), true); }
  bool read_bool() override {
    take(EToken::Boolean, "read_bool");
    return items_[pos_ - 1] == "t";
  }
  void read_int_big_endian(void* data, unsigned size) override { read_integer(data, size, true); }
  void read_uint_big_endian(void* data, unsigned size) override { read_integer(data, size, false); }
  double read_double() override;
  void read_string(zoserialize::SourceString& out) override {
    out = zoserialize::SourceString(take(EToken::String, "read_string(SourceString&)"));
  }
  void read_string(std::string& out) override {
    out = take(EToken::String, "read_string(string&)");
  }
  std::string read_string() override { return std::string(take(EToken::String, "read_string()")); }
  Stream read_string_stream() override { return over(take(EToken::String, "read_string_stream")); }
  zoserialize::AbsoluteTime read_absolute_time() override {
    return zoserialize::AbsoluteTime(number(take(EToken::AbsoluteTime, "read_absolute_time")));
  }
  zoserialize::RelativeTime read_relative_time() override {
    return zoserialize::RelativeTime(number(take(EToken::RelativeTime, "read_relative_time")));
  }
  zoserialize::Uuid read_uuid() override;
  Stream read_binary() override { return over(take(EToken::Binary, "read_binary")); }
  unsigned read_sequence_start() override {
    return unsigned(number(take(EToken::SequenceStart, "read_sequence_start")));
  }
  bool read_sequence_next() override;
  void read_marker_start() override { take(EToken::MarkerStart, "read_marker_start"); }
  bool read_marker_is_end() override;
  void read_marker_end() override;
  void read_copy(zoserialize::Writer& writer) override;

 private:
  // Logs `call`, then consumes the next item, which must be a `token`; returns its argument.
  std::string_view take(EToken token, std::string call);
  static long long number(std::string_view text) {
    return text.empty() ? 0 : std::stoll(std::string(text));
  }
  static Stream over(std::string_view payload);
  void read_integer(void* data, unsigned size, bool is_signed);

  std::vector<std::string> items_;
  std::size_t pos_ = 0;
  std::vector<std::string> calls_;
};

}  // namespace zotest
