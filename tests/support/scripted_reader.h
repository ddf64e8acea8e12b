// A Reader that replays a script of elements, for tests of code that consumes readers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include <zocore/error_code.h>
#include <zoserialize/reader.h>

namespace zotest {

// Code of the failures ScriptedReader raises: a read that does not match the script, a value
// that does not fit, a sequence or marker operation outside its scope, running off the end.
extern zocore::ErrorCode const scripted_reader_error;  // "error.zotest.scripted_reader"

// One element of a script: the token next_token() reports and its payload. Only the payload
// field of the token's kind is used.
struct ScriptElement {
  zoserialize::Reader::EToken token = zoserialize::Reader::EToken::Null;
  bool boolean = false;
  // Integer image (big-endian; two's complement for signed), or string or binary bytes.
  std::string bytes;
  double number = 0;
  // Time count (nanoseconds) or sequence count hint.
  std::int64_t count = 0;
  zoserialize::Uuid uuid;
};

// Builders for script elements.
namespace script {
ScriptElement null();
ScriptElement boolean(bool value);
// The minimal image of the value ("00" for 0, "FF" for -1, "00 80" for 128).
ScriptElement sint(long long value);
ScriptElement uint(unsigned long long value);
// An integer from an explicit image in hex ("00 00 00 05"), minimal or not.
ScriptElement sint_image(std::string_view hex);
ScriptElement uint_image(std::string_view hex);
ScriptElement dbl(double value);
ScriptElement str(std::string_view text);
ScriptElement bin(std::string_view bytes);
ScriptElement abs_time(std::int64_t count);
ScriptElement rel_time(std::int64_t count);
ScriptElement uuid(zoserialize::Uuid const& value);
// count_hint 0: a sequence without a hint.
ScriptElement seq_start(unsigned count_hint = 0);
ScriptElement sep();
ScriptElement seq_end();
ScriptElement marker_start();
ScriptElement marker_end();
// A bare token (for example Unknown) with no payload.
ScriptElement token(zoserialize::Reader::EToken token);
}  // namespace script

// ScriptedReader implements every core operation of zoserialize::Reader over a vector of
// ScriptElement, the way a real archive reader behaves:
// - next_token() reports the token of the next element, EOF after the last; typed reads check
//   the token and fail with scripted_reader_error on a mismatch (EOF included).
// - read_int_big_endian / read_uint_big_endian sign- or zero-extend the script's image to the
//   requested size and fail when the value needs more bytes than that.
// - read_string_stream / read_binary consume the element and return a stream over a copy of
//   its bytes (it stays valid after the reader is gone).
// - read_sequence_next: directly after read_sequence_start it reports whether a first element
//   follows and consumes only an immediate end; afterwards it consumes the separator (true) or
//   the end (false). read_marker_end skips what is left of the marker, then its end.
// - skip_element and read_copy take a whole sequence or marker; read_copy writes integers with
//   the script's image and strings and binaries whole.
//
// calls() logs every core call except next_token() and is_eof(), one line each: "read_null",
// "read_int_big_endian 4", "read_string_stream", "read_sequence_next", "read_copy", ... so tests
// can check what the front end asked for. Calls made internally (read_copy's reads) are not
// logged. Not thread-safe.
class ScriptedReader : public zoserialize::Reader {
 public:
  explicit ScriptedReader(std::vector<ScriptElement> script);
  ScriptedReader(std::initializer_list<ScriptElement> script)
      : ScriptedReader(std::vector<ScriptElement>(script)) {}

  std::vector<std::string> const& calls() const noexcept { return calls_; }
  // Index of the next element in the script.
  std::size_t position() const noexcept { return pos_; }
  // Number of sequences and markers opened and not yet ended.
  std::size_t depth() const noexcept { return scopes_.size(); }

  void close() override;
  bool is_eof() const override;
  EToken next_token() override;
  void skip_element() override;
  void read_null() override;
  bool try_read_null() override;
  bool read_bool() override;
  void read_int_big_endian(void* data, unsigned size) override;
  void read_uint_big_endian(void* data, unsigned size) override;
  double read_double() override;
  void read_string(zoserialize::SourceString& out) override;
  void read_string(std::string& out) override;
  std::string read_string() override;
  zoserialize::InterfacePtr<zoserialize::IReadStream> read_string_stream() override;
  zoserialize::AbsoluteTime read_absolute_time() override;
  zoserialize::RelativeTime read_relative_time() override;
  zoserialize::Uuid read_uuid() override;
  zoserialize::InterfacePtr<zoserialize::IReadStream> read_binary() override;
  unsigned read_sequence_start() override;
  bool read_sequence_next() override;
  void read_marker_start() override;
  bool read_marker_is_end() override;
  void read_marker_end() override;
  void read_copy(zoserialize::Writer& writer) override;

 private:
  struct Scope {
    bool is_sequence;
    bool before_first;  // sequences: read_sequence_next not yet called
  };

  void log(std::string line) { calls_.push_back(std::move(line)); }
  EToken peek() const noexcept;
  // The next element, which must carry `token`; consumed.
  ScriptElement const& take(EToken token);
  Scope& innermost(bool is_sequence);
  bool sequence_next();
  bool marker_is_end();
  void marker_end();
  void skip();
  void copy(zoserialize::Writer& writer);

  std::vector<ScriptElement> script_;
  std::size_t pos_ = 0;
  std::vector<Scope> scopes_;
  std::vector<std::string> calls_;
};

}  // namespace zotest
