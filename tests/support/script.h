// The one script language of the archive tests: a line of space-separated tokens that a writer
// writes and a reader reads back, or that drives a reader operation by operation.
//
// Elements (written by write_script, read and checked by read_script):
//   n null (N: read with try_read_null)      T F booleans
//   i<v> int; i8:<v> char, i16: short, i64: long long, il: long      u<v> u8: u16: u64: ul: alike
//   d<v> double (d#<16 hex digits>: by its bits)   f<v> float
//   s<text> string (s%<hex>: those bytes; s*<n>: golden_text(n)); $<text> read into SourceString
//   w<payload> binary, payload as for strings (w*<n>: pattern_string(0, n))
//     a payload may add how it is written: @p<sizes>[c|f] through the value stream in pieces of
//     these sizes (comma-separated, the last one repeated; a lone 0 is one empty write), then
//     closed (c), flushed (f) or left to the next operation; @k / @u from an input stream of
//     known / unknown size
//   a<count> r<count> absolute and relative times      g0 the null UUID, g<32 hex digits>
//   I<hex>/<size>/<hex> write_int_big_endian of the first image, read into <size> bytes that
//     must equal the second; U<...> the same unsigned
//   [ or [<hint> sequence start      , separator      ] sequence end      { } marker start, end
//   ~ (reading only) leaves the rest of the marker to read_marker_end
// read_script checks every element: its token, its value, and the structure around it (a
// sequence's next element, a marker not yet at its end).
//
// Operations (run_ops; only values given are checked): the element reads above without a value
// (i, u, d, s, w, a, r, g, b for a boolean, [ for a sequence start), > read_sequence_next,
// L the rest of a sequence (read_sequence_next and skip_element until it ends), ?
// read_marker_is_end, } read_marker_end, k skip_element, c read_copy into a BinaryWriter, t
// next_token, e is_eof, X close; S and B open read_string_stream / read_binary, which .r<n> reads n
// bytes from, .x<n> skips n bytes of, .q asks bytes_remaining of and .c closes. A leading ! means:
// must fail. Other letters are handed to the caller's extension.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include <zocore/error_exception.h>
#include <zoserialize/reader.h>
#include <zoserialize/writer.h>

namespace zotest {

struct ScriptOp {
  enum class EForm : char { kWhole, kPieces, kKnownSource, kUnknownSource };

  std::string token;  // as written, for messages
  char kind = 0;
  char width = '4';  // integers: '1', '2', '4', '8' or 'l' (long)
  bool has_value = false;
  bool must_fail = false;
  std::int64_t value = 0;  // integers (unsigned ones as their bits), times, hints, byte counts
  double real = 0;
  std::string data;    // payload, integer image, UUID bytes
  std::string expect;  // the image an integer reads back as
  EForm form = EForm::kWhole;
  std::vector<std::size_t> pieces;
  char finish = 0;  // 'c' close, 'f' flush, 0 left open
};

using Script = std::vector<ScriptOp>;

Script parse_script(std::string_view text);
// Top-level elements of a script; the largest payload in it.
std::size_t element_count(Script const& script);
std::size_t largest_payload(Script const& script);

// Well-formed UTF-8 of exactly `size` bytes mixing 1- to 4-byte characters, so that chunk and
// buffer boundaries fall inside characters.
std::string golden_text(std::size_t size);
// Bytes from hex text in which "FF*15" stands for 15 bytes 0xFF.
std::string unhex(std::string_view hex);
// Reads a whole payload stream in blocks of `block`.
std::string read_all(zoserialize::IReadStream& stream, unsigned block = 4096);
// Reads a payload stream in pieces of odd sizes, so that reads end anywhere in chunks and buffers.
std::string read_odd(zoserialize::IReadStream& stream);

namespace script_detail {

using zoserialize::Reader;
using EToken = Reader::EToken;

// The elements whose writing does not depend on W's static type (through Writer&).
void write_common(zoserialize::Writer& w, ScriptOp const& op);
void check_binary(zoserialize::IReadStream& stream, ScriptOp const& op);
void check_image(std::string const& got, ScriptOp const& op);
void check_double(double got, ScriptOp const& op);
EToken token_of(char kind);
bool starts_element(char kind);
// Runs the operations the typed front end does not matter for (through Reader&).
bool run_common(Reader& r, ScriptOp const& op,
                zoserialize::InterfacePtr<zoserialize::IReadStream>&);

template <class V>
void check(V const& got, V const& want, ScriptOp const& op) {
  EXPECT_EQ(got, want) << "token " << op.token;
}

// The typed front end of W (Writer's, or a shadow of its own in the concrete type).
template <class W>
void write_op(W& w, ScriptOp const& op) {
  auto const v = op.value;
  switch (op.kind) {
    case 'n':
    case 'N':
      return w.write_null();
    case 'T':
    case 'F':
      return static_cast<void>(w << (op.kind == 'T'));
    case 'i':
      if (op.width == '1') return static_cast<void>(w << static_cast<char>(v));
      if (op.width == '2') return static_cast<void>(w << static_cast<short>(v));
      if (op.width == '4') return static_cast<void>(w << static_cast<int>(v));
      if (op.width == 'l') return w.write_long(static_cast<long>(v));
      return static_cast<void>(w << static_cast<long long>(v));
    case 'u':
      if (op.width == '1') return static_cast<void>(w << static_cast<unsigned char>(v));
      if (op.width == '2') return w.write_uint16(static_cast<unsigned short>(v));
      if (op.width == '4') return static_cast<void>(w << static_cast<unsigned>(v));
      if (op.width == 'l') return static_cast<void>(w << static_cast<unsigned long>(v));
      return w.write_uint64(static_cast<unsigned long long>(v));
    case 'd':
      return static_cast<void>(w << op.real);
    case 'f':
      return static_cast<void>(w << static_cast<float>(op.real));
    case 's':
    case '$':
      if (op.form == ScriptOp::EForm::kWhole) return static_cast<void>(w << op.data);
      return write_common(w, op);
    default:
      return write_common(w, op);
  }
}

template <class R, class T>
void read_checked(R& r, ScriptOp const& op, T want) {
  T got{};
  r >> got;
  if (op.has_value) check(got, want, op);
}

template <class R>
void read_element(R& r, ScriptOp const& op,
                  zoserialize::InterfacePtr<zoserialize::IReadStream>& s) {
  auto const v = op.value;
  switch (op.kind) {
    case 'T':
    case 'F':
      return read_checked(r, op, op.kind == 'T');
    case 'i':
      if (op.width == '1') return read_checked(r, op, static_cast<char>(v));
      if (op.width == '2') return read_checked(r, op, static_cast<short>(v));
      if (op.width == '8') return read_checked(r, op, static_cast<long long>(v));
      if (op.width == '4') {
        int const got = r.read_int32();
        if (op.has_value) check(got, static_cast<int>(v), op);
        return;
      }
      if (long const got = r.read_long(); op.has_value) check(got, static_cast<long>(v), op);
      return;
    case 'u':
      if (op.width == '1') return read_checked(r, op, static_cast<unsigned char>(v));
      if (op.width == '4') return read_checked(r, op, static_cast<unsigned>(v));
      if (op.width == 'l') return read_checked(r, op, static_cast<unsigned long>(v));
      if (op.width == '2') {
        unsigned short const got = r.read_uint16();
        if (op.has_value) check(got, static_cast<unsigned short>(v), op);
        return;
      }
      if (auto const got = r.read_uint64(); op.has_value)
        check(got, static_cast<unsigned long long>(v), op);
      return;
    case 'd': {
      double got = 0;
      r >> got;
      return check_double(got, op);
    }
    case 'f': {
      float got = 0;
      r >> got;
      return check_double(static_cast<double>(got), op);
    }
    case 's': {
      std::string got = "stale content";  // must be replaced, not appended to
      r >> got;
      if (op.has_value && got != op.data)
        ADD_FAILURE() << "token " << op.token.substr(0, 40) << ": got " << got.size() << " bytes";
      return;
    }
    default:
      if (!run_common(r, op, s)) ADD_FAILURE() << "unknown script token " << op.token;
  }
}

}  // namespace script_detail

// Writes the elements of `script` through W's typed front end.
template <class W>
void write_script(W& w, Script const& script) {
  for (ScriptOp const& op : script)
    script_detail::write_op(w, op);
}

// Reads the elements of `script` back through R's typed front end, checking each.
template <class R>
void read_script(R& r, Script const& script) {
  using script_detail::check;
  zoserialize::InterfacePtr<zoserialize::IReadStream> stream;
  std::vector<char> scopes;  // '[' before a sequence's first element, ',' after it, '{' marker
  for (std::size_t i = 0; i < script.size(); ++i) {
    ScriptOp const& op = script[i];
    char const scope =
        scopes.empty() || !script_detail::starts_element(op.kind) ? ' ' : scopes.back();
    if (scope == '{') check(r.read_marker_is_end(), false, op);
    if (scope == '[') check(r.read_sequence_next(), true, op);
    if (scope == '[') scopes.back() = ',';
    if (op.kind != '~') check(r.next_token(), script_detail::token_of(op.kind), op);
    switch (op.kind) {
      case '[':
        check(r.read_sequence_start(), static_cast<unsigned>(op.value), op);
        scopes.push_back('[');
        break;
      case ',':
        check(r.read_sequence_next(), true, op);
        break;
      case ']':
        check(r.read_sequence_next(), false, op);
        scopes.pop_back();
        break;
      case '{':
        r.read_marker_start();
        scopes.push_back('{');
        break;
      case '}':
        check(r.read_marker_is_end(), true, op);
        r.read_marker_end();
        scopes.pop_back();
        break;
      case '~':
        for (int depth = 1; depth != 0; ++i)
          depth += script[i + 1].kind == '{' ? 1 : script[i + 1].kind == '}' ? -1 : 0;
        r.read_marker_end();
        scopes.pop_back();
        break;
      case 'N':
        check(r.try_read_null(), true, op);
        break;
      default:
        script_detail::read_element(r, op, stream);
    }
  }
}

// Extra operations of one archive: returns false for a letter it does not know either.
using ScriptExtension = std::function<bool(zoserialize::Reader&, ScriptOp const&)>;

// Runs `script` as operations on `reader`.
void run_ops(zoserialize::Reader& reader, Script const& script,
             ScriptExtension const& extension = nullptr);
void run_ops(zoserialize::Reader& reader, std::string_view script,
             ScriptExtension const& extension = nullptr);

// What the last operation of a failing script must raise: the code and message, the parameters
// ("name=value ...", errno=<n> for the nested errno) and, when given, the raising function
// without "zoserialize::".
struct Failure {
  zocore::ErrorCode const* code;
  char const* message;
  char const* params = "";
  char const* function = "";
};

// Runs all operations of `ops` but the last, which must fail as told.
void expect_failure(zoserialize::Reader& reader, std::string_view ops, Failure const& failure,
                    ScriptExtension const& extension = nullptr);
// Runs `fn`, which must fail as told.
void expect_error_details(std::function<void()> const& fn, zocore::ErrorCode const& code,
                          std::string_view message, std::string_view params = "",
                          std::string_view function = "");

// A row of a failure table: a reader's input (hex for unhex(); a leading '?' makes its size
// unknown to a stream reader) and the operations on it, of which the last must fail as told.
struct ReaderFailure {
  char const* bytes;
  char const* ops;
  zocore::ErrorCode const* code;
  char const* message;
  char const* params = "";
  char const* function = "";
};

using MakeReader =
    std::function<std::unique_ptr<zoserialize::Reader>(std::string bytes, bool known_size)>;
// Runs the row on the reader that `make` builds over its bytes.
void expect_failure(ReaderFailure const& row, MakeReader const& make,
                    ScriptExtension const& extension = nullptr);

}  // namespace zotest
