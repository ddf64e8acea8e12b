#include <algorithm>
#include <bit>
#include <cstring>

#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <support/script.h>
#include <support/test_streams.h>
#include <zocore/memory_stream.h>
#include <zoserialize/binary_writer.h>

namespace zotest {
namespace {

using zoserialize::IReadStream;
using zoserialize::Reader;
using zoserialize::Writer;
using EForm = ScriptOp::EForm;

std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> out;
  for (std::size_t at = 0; at <= text.size();) {
    std::size_t const end = std::min(text.find(separator, at), text.size());
    out.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return out;
}

std::vector<std::string> tokenize(std::string_view text) {
  std::vector<std::string> out;
  for (std::string_view t : split(text, ' '))
    if (!t.empty()) out.emplace_back(t);
  return out;
}

// The payload of s, $ and w tokens: %hex, *size or the text itself.
std::string payload_of(char kind, std::string_view arg) {
  if (arg.starts_with('%')) return bytes(arg.substr(1));
  if (!arg.starts_with('*')) return std::string(arg);
  auto const n = std::stoull(std::string(arg.substr(1)));
  return kind == 'w' ? pattern_string(0, n) : golden_text(n);
}

void parse_form(ScriptOp& op, std::string_view form) {
  if (form == "k" || form == "u") {
    op.form = form == "k" ? EForm::kKnownSource : EForm::kUnknownSource;
    return;
  }
  op.form = EForm::kPieces;
  if (form.ends_with('c') || form.ends_with('f')) {
    op.finish = form.back();
    form.remove_suffix(1);
  }
  for (std::string_view size : split(form.substr(1), ','))
    op.pieces.push_back(std::stoull(std::string(size)));
}

ScriptOp parse_op(std::string token) {
  ScriptOp op;
  op.token = token;
  std::string_view t = token;
  if (t.starts_with('!')) {
    op.must_fail = true;
    t.remove_prefix(1);
  }
  op.kind = t[0];
  std::string arg(t.substr(1));
  if (op.kind == '.') {
    op.width = arg[0];
    arg.erase(0, 1);
  }
  if ((op.kind == 'i' || op.kind == 'u') && arg.find(':') != std::string::npos) {
    std::string const width = arg.substr(0, arg.find(':'));
    op.width = width == "8" ? '1' : width == "16" ? '2' : width == "64" ? '8' : width[0];
    arg.erase(0, width.size() + 1);
  }
  op.has_value = !arg.empty() || op.kind == 'T' || op.kind == 'F';
  switch (op.kind) {
    case 'd':
    case 'f':
      if (arg.empty()) {
      } else if (!arg.starts_with('#')) {
        op.real = op.kind == 'd' ? std::stod(arg) : double{std::stof(arg)};
      } else if (op.kind == 'd') {
        op.real = std::bit_cast<double>(std::stoull(arg.substr(1), nullptr, 16));
      } else {
        op.real = double{std::bit_cast<float>(
            static_cast<std::uint32_t>(std::stoul(arg.substr(1), nullptr, 16)))};
      }
      break;
    case 's':
    case '$':
    case 'w': {
      std::size_t const at = arg.find('@');
      op.data = payload_of(op.kind, std::string_view(arg).substr(0, at));
      if (at != std::string::npos) parse_form(op, std::string_view(arg).substr(at + 1));
      break;
    }
    case 'g':
      if (arg != "0") op.data = bytes(arg);
      break;
    case 'I':
    case 'U': {
      auto const parts = split(arg, '/');
      op.data = bytes(parts[0]);
      op.value = std::stoll(std::string(parts[1]));
      op.expect = bytes(parts[2]);
      break;
    }
    case 'u':
      if (op.has_value) op.value = static_cast<std::int64_t>(std::stoull(arg));
      break;
    default:
      if (!arg.empty()) op.value = std::stoll(arg);
  }
  return op;
}

}  // namespace

Script parse_script(std::string_view text) {
  Script out;
  for (std::string& t : tokenize(text))
    out.push_back(parse_op(std::move(t)));
  return out;
}

std::size_t element_count(Script const& script) {
  std::size_t n = 0;
  int depth = 0;
  for (ScriptOp const& op : script) {
    if (depth == 0 && script_detail::starts_element(op.kind)) ++n;
    depth += (op.kind == '[' || op.kind == '{') ? 1 : (op.kind == ']' || op.kind == '}') ? -1 : 0;
  }
  return n;
}

std::size_t largest_payload(Script const& script) {
  std::size_t n = 0;
  for (ScriptOp const& op : script)
    n = std::max(n, op.data.size());
  return n;
}

std::string golden_text(std::size_t size) {
  static constexpr std::string_view kUnits[] = {"a", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80",
                                                "Z", "\xD0\x96", "\xE4\xB8\x96"};
  std::string out;
  out.reserve(size);
  for (std::size_t i = 0; out.size() < size; ++i) {
    std::string_view const unit = kUnits[i % std::size(kUnits)];
    out += unit.size() <= size - out.size() ? unit : ".";
  }
  return out;
}

std::string unhex(std::string_view text) {
  std::string out;
  for (std::string const& t : tokenize(text)) {
    std::size_t const star = t.find('*');
    std::string const one = bytes(t.substr(0, star));
    for (int n = star == std::string::npos ? 1 : std::stoi(t.substr(star + 1)); n > 0; --n)
      out += one;
  }
  return out;
}

std::string read_all(IReadStream& stream, unsigned block) {
  std::string out;
  std::string buffer(block, '\0');
  for (unsigned got = block; got == block;) {
    got = stream.read(buffer.data(), block);
    out.append(buffer.data(), got);
  }
  return out;
}

std::string read_odd(IReadStream& stream) {
  static constexpr unsigned kPieces[] = {1, 2, 3, 7, 4095, 4096, 4097, 13};
  std::string out;
  for (unsigned i = 0, n = 1, piece = 1; n == piece; ++i) {
    piece = kPieces[i % std::size(kPieces)];
    std::string block(piece, '\0');
    n = stream.read(block.data(), piece);
    out.append(block.data(), n);
  }
  return out;
}

namespace script_detail {

void write_common(Writer& w, ScriptOp const& op) {
  auto const size = static_cast<unsigned>(op.data.size());
  bool const is_string = op.kind != 'w';
  switch (op.kind) {
    case 'a':
      return static_cast<void>(w << zoserialize::AbsoluteTime(op.value));
    case 'r':
      return static_cast<void>(w << zoserialize::RelativeTime(op.value));
    case 'g':
      return static_cast<void>(
          w << (op.data.empty() ? zoserialize::Uuid()
                                : zoserialize::Uuid::from_binary(
                                      reinterpret_cast<unsigned char const*>(op.data.data()))));
    case 'I':
      return w.write_int_big_endian(op.data.data(), size);
    case 'U':
      return w.write_uint_big_endian(op.data.data(), size);
    case '[':
      return op.has_value ? w.write_sequence_start(static_cast<unsigned>(op.value))
                          : w.write_sequence_start();
    case ',':
      return w.write_sequence_separator();
    case ']':
      return w.write_sequence_end();
    case '{':
      return w.write_marker_start();
    case '}':
      return w.write_marker_end();
    case '~':
      return;
    default:
      break;
  }
  if (op.form == EForm::kWhole) {
    return is_string ? w.write_string(op.data.data(), size) : w.write_binary(op.data.data(), size);
  }
  if (op.form != EForm::kPieces) {
    ByteSource source(op.data);
    if (op.form == EForm::kUnknownSource) source.unknown_size();
    return is_string ? w.write_string_stream(source) : w.write_binary(source);
  }
  auto const stream = is_string ? w.write_string_stream() : w.write_binary();
  std::size_t at = 0;
  for (std::size_t piece = 0; at < size || (piece == 0 && op.pieces[0] == 0); ++piece) {
    std::size_t const n = std::min(op.pieces[std::min(piece, op.pieces.size() - 1)], size - at);
    stream->write(op.data.data() + at, static_cast<unsigned>(n));
    at += n;
  }
  if (op.finish == 'c') stream->close();
  if (op.finish == 'f') w.flush();
}

void check_bits(double got, ScriptOp const& op) {
  if (op.has_value)
    check(std::bit_cast<std::uint64_t>(got), std::bit_cast<std::uint64_t>(op.real), op);
}

Reader::EToken token_of(char kind) {
  static constexpr std::string_view kKinds[] = {"",  "nN", "TF", "iI", "uU", "df", "s$", "a",
                                                "r", "g",  "w",  "[",  ",",  "]",  "{",  "}"};
  for (std::size_t i = 0; i < std::size(kKinds); ++i) {
    if (kKinds[i].find(kind) != std::string_view::npos) return static_cast<Reader::EToken>(i);
  }
  return Reader::EToken::Unknown;
}

bool starts_element(char kind) {
  return std::string_view("nNTFiuIUdfs$wagr[{").find(kind) != std::string_view::npos;
}

bool read_common(Reader& r, ScriptOp const& op, Stream& stream) {
  switch (op.kind) {
    case 'n':
      return r.read_null(), true;
    case 'N':
      return r.try_read_null(), true;
    case 'b':
      return r.read_bool(), true;
    case 'w': {
      Stream const binary = r.read_binary();
      if (!op.has_value) return read_all(*binary), true;
      // The size, where the format knows it up front.
      unsigned const remaining = binary->bytes_remaining();
      if (remaining != IReadStream::kUnknownSize) check(remaining, unsigned(op.data.size()), op);
      if (read_odd(*binary) != op.data) ADD_FAILURE() << "token " << op.token.substr(0, 40);
      return true;
    }
    case '$': {
      zoserialize::SourceString got;
      r >> got;
      if (op.has_value) check(std::string(got.view()), op.data, op);
      return true;
    }
    case 'a':
    case 'r': {
      auto const got =
          (op.kind == 'a' ? r.read_absolute_time().count() : r.read_relative_time().count());
      if (op.has_value) check(got, op.value, op);
      return true;
    }
    case 'g': {
      zoserialize::Uuid got;
      r >> got;
      std::string const want = op.data.empty() ? std::string(16, '\0') : op.data;
      if (op.has_value)
        check(hex({reinterpret_cast<char const*>(got.bytes().data()), 16}), hex(want), op);
      return true;
    }
    case 'I':
    case 'U': {
      std::string got(static_cast<std::size_t>(op.value), '?');
      auto const size = static_cast<unsigned>(got.size());
      op.kind == 'I' ? r.read_int_big_endian(got.data(), size)
                     : r.read_uint_big_endian(got.data(), size);
      return check(hex(got), hex(op.expect), op), true;
    }
    case '[':
      if (unsigned const hint = r.read_sequence_start(); op.has_value)
        check(hint, static_cast<unsigned>(op.value), op);
      return true;
    case '>':
      return r.read_sequence_next(), true;
    case 'L':
      while (r.read_sequence_next())
        r.skip_element();
      return true;
    case '{':
      return r.read_marker_start(), true;
    case '?':
      return r.read_marker_is_end(), true;
    case '}':
      return r.read_marker_end(), true;
    case 'k':
      return r.skip_element(), true;
    case 't':
      return r.next_token(), true;
    case 'e':
      return r.is_eof(), true;
    case 'X':
      return r.close(), true;
    case 'c': {
      zoserialize::BinaryWriter writer(zocore::make_ref_counted<zocore::StringWriteStream>());
      return r.read_copy(writer), true;
    }
    case 'S':
    case 'B':
      return stream = op.kind == 'S' ? r.read_string_stream() : r.read_binary(), true;
    case '.': {
      std::string buffer(static_cast<std::size_t>(op.value), '\0');
      auto const n = static_cast<unsigned>(buffer.size());
      if (op.width == 'r') stream->read(buffer.data(), n);
      if (op.width == 'x') stream->skip(n);
      if (op.width == 'q') stream->bytes_remaining();
      if (op.width == 'c') stream->close();
      return true;
    }
    default:
      return false;
  }
}

}  // namespace script_detail

namespace {

void run_op(Reader& r, ScriptOp const& op, Stream& stream, ScriptExtension const& extension) {
  if (op.must_fail) {
    ScriptOp plain = op;
    plain.must_fail = false;
    EXPECT_THROW(run_op(r, plain, stream, extension), zocore::ErrorException) << op.token;
    return;
  }
  if (extension && extension(r, op)) return;
  script_detail::read_op(r, op, stream);
}

}  // namespace

void run_ops(Reader& reader, std::string_view script, ScriptExtension const& extension) {
  Stream stream;
  for (ScriptOp const& op : parse_script(script))
    run_op(reader, op, stream, extension);
}

void expect_failure(Reader& reader, std::string_view ops, Failure const& f,
                    ScriptExtension const& extension) {
  SCOPED_TRACE(ops);
  Script const script = parse_script(ops);
  Stream stream;
  for (std::size_t i = 0; i + 1 < script.size(); ++i)
    run_op(reader, script[i], stream, extension);
  expect_error_details([&] { run_op(reader, script.back(), stream, extension); }, *f.code,
                       f.message, f.params, f.function);
}

void expect_error_details(std::function<void()> const& fn, zocore::ErrorCode const& code,
                          std::string_view message, std::string_view params,
                          std::string_view function) {
  auto const info = ZO_EXPECT_ERROR(fn(), code, message);
  for (std::string const& pair : tokenize(params)) {
    std::string const name = pair.substr(0, pair.find('='));
    std::string const got = name != "errno" ? param(info, name)
                            : info          ? std::to_string(info->nested_errno())
                                            : "-";
    EXPECT_EQ(got, pair.substr(name.size() + 1)) << name;
  }
  if (!function.empty()) {
    EXPECT_EQ(info ? std::string(info->location().function().view()) : "-",
              "zoserialize::" + std::string(function));
  }
}

}  // namespace zotest
