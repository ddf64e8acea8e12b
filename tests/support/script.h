// The one script language of the archive tests: space-separated tokens that a writer writes and
// a reader reads back (the golden rows), or that drive a reader operation by operation (the
// failure tables).
//
// Elements, written by write_script and read back and checked by read_script:
//   n null (N: read with try_read_null)    T F booleans
//   i<v> int; i8:<v> char, i16: short, i64: long long, il: long     u<v>, u8: ... ul: unsigned
//   d<v> double (d#<16 hex digits>: its bits)    f<v> float
//   s<text> string (s%<hex>: those bytes; s*<n>: golden_text(n)); $<text> read as SourceString
//   w<payload> binary, its payload as for strings (w*<n>: pattern_string(0, n)); a payload may
//     end in @p<sizes>[c|f]: written through the value stream in pieces of these sizes (the last
//     repeated; a lone 0 is one empty write), then closed (c), flushed (f) or left to the next
//     operation; @k / @u: taken from an input stream of known / unknown size
//   a<count> r<count> times    g0 the null UUID, g<32 hex digits>
//   I<hex>/<n>/<hex> write_int_big_endian of the first image, read into n bytes that must equal
//     the second; U<...> the same unsigned
//   [ or [<hint>   , separator   ] end   { } marker   ~ (reading only) rest of the marker skipped
// read_script checks each element's token and value, and the structure around it.
//
// Operations (run_ops; only values given are checked): the element reads above, b for a boolean,
// > read_sequence_next, L the rest of a sequence, ? read_marker_is_end, } read_marker_end,
// k skip_element, c read_copy (into a BinaryWriter), t next_token, e is_eof, X close; S and B
// open read_string_stream / read_binary, which .r<n> reads n bytes from, .x<n> skips n of, .q
// asks bytes_remaining of, .c closes. A leading ! means: must fail. Other letters go to the
// caller's extension.
#pragma once

#include <cstdint>
#include <functional>
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
  char width = '4';  // integers: '1', '2', '4', '8' or 'l' (long); '.' operations: r x q c
  bool has_value = false;
  bool must_fail = false;
  std::int64_t value = 0;  // integers (unsigned ones as their bits), times, hints, counts
  double real = 0;
  std::string data;    // payload, integer image, UUID bytes
  std::string expect;  // the image an integer reads back as
  EForm form = EForm::kWhole;
  std::vector<std::size_t> pieces;
  char finish = 0;  // 'c' close, 'f' flush, 0 left open
};

using Script = std::vector<ScriptOp>;
using Stream = zoserialize::InterfacePtr<zoserialize::IReadStream>;

Script parse_script(std::string_view text);
// Top-level elements of a script; the largest payload in it.
std::size_t element_count(Script const& script);
std::size_t largest_payload(Script const& script);

// Well-formed UTF-8 of exactly `size` bytes mixing 1- to 4-byte characters, so that chunk and
// buffer boundaries fall inside characters.
std::string golden_text(std::size_t size);
// Bytes from hex text in which "FF*15" stands for 15 bytes 0xFF.
std::string unhex(std::string_view hex);
// A whole payload stream read in blocks of `block`; or in pieces of odd sizes, so that reads end
// anywhere in chunks and buffers.
std::string read_all(zoserialize::IReadStream& stream, unsigned block = 4096);
std::string read_odd(zoserialize::IReadStream& stream);

namespace script_detail {

// The elements whose reading and writing does not depend on the static type (Reader&/Writer&).
void write_common(zoserialize::Writer& w, ScriptOp const& op);
bool read_common(zoserialize::Reader& r, ScriptOp const& op, Stream& stream);
void check_bits(double got, ScriptOp const& op);
zoserialize::Reader::EToken token_of(char kind);
bool starts_element(char kind);

template <class V>
void check(V const& got, V const& want, ScriptOp const& op) {
  EXPECT_EQ(got, want) << "token " << op.token.substr(0, 40);
}

template <class T, class W>
void put(W& w, ScriptOp const& op) {
  w << static_cast<T>(op.value);
}

template <class T, class R>
void get(R& r, ScriptOp const& op) {
  T got{};
  r >> got;
  if (op.has_value) check(got, static_cast<T>(op.value), op);
}

// Through W's typed front end (Writer's, or the concrete type's shadow of it).
template <class W>
void write_op(W& w, ScriptOp const& op) {
  switch (op.kind == 'i' || op.kind == 'u' ? op.kind * 256 + op.width : op.kind * 256) {
    case 'n' * 256:
    case 'N' * 256:
      return w.write_null();
    case 'T' * 256:
    case 'F' * 256:
      return static_cast<void>(w << (op.kind == 'T'));
    case 'i' * 256 + '1':
      return put<char>(w, op);
    case 'i' * 256 + '2':
      return put<short>(w, op);
    case 'i' * 256 + '4':
      return put<int>(w, op);
    case 'i' * 256 + 'l':
      return w.write_long(static_cast<long>(op.value));
    case 'i' * 256 + '8':
      return put<long long>(w, op);
    case 'u' * 256 + '1':
      return put<unsigned char>(w, op);
    case 'u' * 256 + '2':
      return w.write_uint16(static_cast<unsigned short>(op.value));
    case 'u' * 256 + '4':
      return put<unsigned>(w, op);
    case 'u' * 256 + 'l':
      return put<unsigned long>(w, op);
    case 'u' * 256 + '8':
      return w.write_uint64(static_cast<unsigned long long>(op.value));
    case 'd' * 256:
      return static_cast<void>(w << op.real);
    case 'f' * 256:
      return static_cast<void>(w << static_cast<float>(op.real));
    case 's' * 256:
    case '$' * 256:
      if (op.form == ScriptOp::EForm::kWhole) return static_cast<void>(w << op.data);
      return write_common(w, op);
    default:
      return write_common(w, op);
  }
}

// Through R's typed front end; named reads and operator>> alike, so that both are reached.
template <class R>
void read_op(R& r, ScriptOp const& op, Stream& stream) {
  switch (op.kind == 'i' || op.kind == 'u' ? op.kind * 256 + op.width : op.kind * 256) {
    case 'T' * 256:
    case 'F' * 256: {
      bool got = false;
      r >> got;
      return check(got, op.kind == 'T', op);
    }
    case 'i' * 256 + '1':
      return get<char>(r, op);
    case 'i' * 256 + '2':
      return get<short>(r, op);
    case 'i' * 256 + '4':
      if (int const got = r.read_int32(); op.has_value) check(got, static_cast<int>(op.value), op);
      return;
    case 'i' * 256 + 'l':
      if (long const got = r.read_long(); op.has_value) check(got, static_cast<long>(op.value), op);
      return;
    case 'i' * 256 + '8':
      return get<long long>(r, op);
    case 'u' * 256 + '1':
      return get<unsigned char>(r, op);
    case 'u' * 256 + '2':
      if (auto const got = r.read_uint16(); op.has_value)
        check(got, static_cast<unsigned short>(op.value), op);
      return;
    case 'u' * 256 + '4':
      return get<unsigned>(r, op);
    case 'u' * 256 + 'l':
      return get<unsigned long>(r, op);
    case 'u' * 256 + '8':
      if (auto const got = r.read_uint64(); op.has_value)
        check(got, static_cast<unsigned long long>(op.value), op);
      return;
    case 'd' * 256: {
      double got = 0;
      r >> got;
      return check_bits(got, op);
    }
    case 'f' * 256: {
      float got = 0;
      r >> got;
      return check_bits(got, op);
    }
    case 's' * 256: {
      std::string got = "stale content";  // must be replaced, not appended to
      r >> got;
      if (op.has_value && got != op.data) ADD_FAILURE() << op.token.substr(0, 40) << got.size();
      return;
    }
    default:
      if (!read_common(r, op, stream)) ADD_FAILURE() << "unknown script token " << op.token;
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
  Stream stream;
  std::vector<char> scopes;  // '[' before a sequence's first element, ',' after it, '{' marker
  for (std::size_t i = 0; i < script.size(); ++i) {
    ScriptOp const& op = script[i];
    char const scope =
        scopes.empty() || !script_detail::starts_element(op.kind) ? ' ' : scopes.back();
    if (scope == '{') check(r.read_marker_is_end(), false, op);
    if (scope == '[') check(r.read_sequence_next(), true, op);
    if (scope == '[') scopes.back() = ',';
    if (op.kind != '~') check(r.next_token(), script_detail::token_of(op.kind), op);
    if (op.kind == '[') check(r.read_sequence_start(), unsigned(op.value), op);
    if (op.kind == ',' || op.kind == ']') check(r.read_sequence_next(), op.kind == ',', op);
    if (op.kind == '{') r.read_marker_start();
    if (op.kind == '}') check(r.read_marker_is_end(), true, op);
    for (int depth = 1; op.kind == '~' && depth != 0; ++i)
      depth += script[i + 1].kind == '{' ? 1 : script[i + 1].kind == '}' ? -1 : 0;
    if (op.kind == '}' || op.kind == '~') r.read_marker_end();
    if (op.kind == '[' || op.kind == '{') scopes.push_back(op.kind);
    if (op.kind == ']' || op.kind == '}' || op.kind == '~') scopes.pop_back();
    if (op.kind == 'N') check(r.try_read_null(), true, op);
    if (std::string_view("[,]{}~N").find(op.kind) == std::string_view::npos)
      script_detail::read_op(r, op, stream);
  }
}

// Extra operations of one archive: false for a letter it does not know either.
using ScriptExtension = std::function<bool(zoserialize::Reader&, ScriptOp const&)>;

// Runs `script` as operations on `reader`.
void run_ops(zoserialize::Reader& reader, std::string_view script,
             ScriptExtension const& extension = nullptr);

// What a failing operation must raise: the code and message, the parameters ("name=value ...",
// errno=<n> for the nested errno) and, when given, the raising function without "zoserialize::".
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

}  // namespace zotest
