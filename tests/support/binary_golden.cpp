#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <ostream>
#include <string_view>
#include <type_traits>
#include <utility>

#include <gtest/gtest.h>

#include <support/binary_golden.h>
#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <support/test_streams.h>
#include <zocore/memory_stream.h>
#include <zoserialize/binary_writer.h>

namespace zotest {
namespace {

using zoserialize::AbsoluteTime;
using zoserialize::Reader;
using zoserialize::RelativeTime;
using zoserialize::Uuid;
using zoserialize::Writer;
using Copy = BinaryGoldenCase::ECopy;
using EToken = Reader::EToken;
using WriteFn = std::function<void(Writer&)>;
using ReadFn = std::function<void(Reader&)>;
using Tokens = std::vector<std::string>;

Tokens tokenize(std::string_view text) {
  Tokens out;
  for (std::size_t at = 0; at < text.size();) {
    std::size_t const end = std::min(text.find(' ', at), text.size());
    if (end > at) out.emplace_back(text.substr(at, end - at));
    at = end + 1;
  }
  return out;
}

// " 01 00": value as n big-endian bytes, in hex.
std::string be_hex(std::uint64_t value, unsigned n) {
  std::string out(n, '\0');
  for (unsigned i = n; i-- > 0; value >>= 8)
    out[i] = static_cast<char>(value & 0xFF);
  return " " + hex(out);
}

std::string whole_header(unsigned prefix, std::size_t n) {
  if (n < 8) return be_hex(prefix | n, 1);
  if (n < 256) return be_hex(prefix | 8, 1) + be_hex(n, 1);
  if (n < 65536) return be_hex(prefix | 9, 1) + be_hex(n, 2);
  return be_hex(prefix | 10, 1) + be_hex(n, 4);
}

std::string payload_of(bool is_string, std::size_t n) {
  return is_string ? golden_text(n) : pattern_string(0, n);
}

// n payload bytes, whole (no chunk sizes) or in chunks of the given sizes and the end tag.
std::string encoded(bool is_string, std::size_t n, std::vector<std::size_t> const& chunks) {
  unsigned const prefix = is_string ? 0x50 : 0x90;
  std::string const payload = payload_of(is_string, n);
  if (chunks.empty()) return unhex(whole_header(prefix, n)) + payload;
  std::string out;
  std::size_t at = 0;
  for (std::size_t const size : chunks) {
    unsigned const nibble = (at == 0 ? 0xB : 0xD) + (size < 256 ? 0 : 1);
    out += unhex(be_hex(prefix | nibble, 1) + be_hex(size, size < 256 ? 1 : 2));
    out += payload.substr(at, size);
    at += size;
  }
  return out + static_cast<char>(prefix | 0xF);
}

std::string hex_of(double value) {
  return be_hex(std::bit_cast<std::uint64_t>(value), 8);
}

double dbits(std::uint64_t bits) {
  return std::bit_cast<double>(bits);
}

Uuid uuid_of(std::string_view hex) {
  std::string const raw = unhex(hex);
  return Uuid::from_binary(reinterpret_cast<unsigned char const*>(raw.data()));
}

// Reads a payload stream in pieces of odd sizes, so that reads end anywhere in chunks and buffers.
std::string read_odd(zoserialize::IReadStream& stream) {
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

// Compares without printing kilobytes of payload.
void expect_same(std::string const& got, std::string const& want) {
  EXPECT_TRUE(got == want) << "got " << got.size() << " bytes, want " << want.size();
}

// ---- Element scripts ------------------------------------------------------------------------
// One token per element or structural call, so that a row states its elements once and both
// directions follow: n null; T, F bool; i<int>, u<unsigned>; d<double> (bits compared); s<text>;
// b<hex> binary written through a value stream; a<count>, r<count> times; g the null UUID; [ or
// [<hint>, ",", ] sequences; {, } markers; ~ (reader only) leaves the rest of the marker unread.

EToken token_of(char c) {
  std::size_t const at = std::string_view("?nTiudsargb[,]{}").find(c == 'F' ? 'T' : c);
  return at == std::string_view::npos ? EToken::Unknown : static_cast<EToken>(at);
}

bool starts_element(char c) {
  return std::string_view("nTFiudsbagr[{").find(c) != std::string_view::npos;
}

void write_script(Writer& w, Tokens const& tokens) {
  for (std::string const& t : tokens) {
    char const c = t[0];
    std::string const arg = t.substr(1);
    if (c == 'n') w.write_null();
    if (c == 'T' || c == 'F') w << (c == 'T');
    if (c == 'i') w << std::stoi(arg);
    if (c == 'u') w << static_cast<unsigned>(std::stoul(arg));
    if (c == 'd') w << std::stod(arg);
    if (c == 's') w << arg;
    if (c == 'b') w.write_binary()->write(bytes(arg).data(), static_cast<unsigned>(arg.size() / 2));
    if (c == 'a') w << AbsoluteTime(std::stoll(arg));
    if (c == 'r') w << RelativeTime(std::stoll(arg));
    if (c == 'g') w << Uuid();
    if (c == '[' && arg.empty()) w.write_sequence_start();
    if (c == '[' && !arg.empty()) w.write_sequence_start(static_cast<unsigned>(std::stoul(arg)));
    if (c == ',') w.write_sequence_separator();
    if (c == ']') w.write_sequence_end();
    if (c == '{') w.write_marker_start();
    if (c == '}') w.write_marker_end();
  }
}

// A gtest assertion as a plain call, so that it can stand in an if without braces.
template <class A, class B>
void check_eq(A const& got, B const& want, std::string const& token) {
  EXPECT_EQ(got, want) << "token " << token;
}

void read_script(Reader& r, Tokens const& tokens) {
  std::vector<char> scopes;  // '[' sequence before its first element, ',' after it, '{' marker
  for (std::size_t i = 0; i < tokens.size(); ++i) {
    std::string const& t = tokens[i];
    char const c = t[0];
    std::string const arg = t.substr(1);
    char const scope = scopes.empty() || !starts_element(c) ? ' ' : scopes.back();
    if (scope == '{') check_eq(r.read_marker_is_end(), false, t);
    if (scope == '[') check_eq(r.read_sequence_next(), true, t);
    if (scope == '[') scopes.back() = ',';
    if (c != '~') check_eq(r.next_token(), token_of(c), t);
    if (c == 'n') r.read_null();
    if (c == 'T' || c == 'F') check_eq(r.read_bool(), c == 'T', t);
    if (c == 'i') check_eq(r.read_int32(), std::stoi(arg), t);
    if (c == 'u') check_eq(r.read_uint32(), std::stoul(arg), t);
    if (c == 'd') check_eq(hex_of(r.read_double()), hex_of(std::stod(arg)), t);
    std::string text = "stale content";  // read_string must replace it, not append to it
    if (c == 's') r.read_string(text);
    if (c == 's') check_eq(text, arg, t);
    if (c == 'b') check_eq(read_all(*r.read_binary()), bytes(arg), t);
    if (c == 'a') check_eq(r.read_absolute_time().count(), std::stoll(arg), t);
    if (c == 'r') check_eq(r.read_relative_time().count(), std::stoll(arg), t);
    if (c == 'g') check_eq(r.read_uuid().is_null(), true, t);
    if (c == '[') check_eq(r.read_sequence_start(), arg.empty() ? 0u : std::stoul(arg), t);
    if (c == '[' || c == '{') scopes.push_back(c);
    if (c == ',') check_eq(r.read_sequence_next(), true, t);
    if (c == ']') check_eq(r.read_sequence_next(), false, t);
    if (c == '{') r.read_marker_start();
    if (c == '}') check_eq(r.read_marker_is_end(), true, t);
    for (int depth = 1; c == '~' && depth != 0; ++i)
      depth += tokens[i + 1][0] == '{' ? 1 : tokens[i + 1][0] == '}' ? -1 : 0;
    if (c == '}' || c == '~') r.read_marker_end();
    if (c == ']' || c == '}' || c == '~') scopes.pop_back();
  }
}

std::size_t top_level_elements(Tokens const& tokens) {
  std::size_t n = 0;
  int depth = 0;
  for (std::string const& t : tokens) {
    if (depth == 0 && starts_element(t[0])) ++n;
    depth += (t[0] == '[' || t[0] == '{') ? 1 : (t[0] == ']' || t[0] == '}') ? -1 : 0;
  }
  return n;
}

// ---- Table builder --------------------------------------------------------------------------

class Table {
 public:
  enum class EFinish { kLeftOpen, kClose, kNextElement, kFlush, kKnownSource, kUnknownSource };

  std::vector<BinaryGoldenCase> rows;

  void add(std::string name, WriteFn write, std::string bytes, ReadFn read,
           Copy copy = Copy::kIdentical, std::size_t elements = 1) {
    rows.push_back(
        {std::move(name), std::move(write), std::move(bytes), std::move(read), copy, elements});
  }

  // A row described by an element script; read-only rows are forms that no writer produces.
  void doc(std::string name, std::string_view script, std::string_view hex, bool written = true) {
    Tokens const tokens = tokenize(script);
    WriteFn write = [tokens](Writer& w) { write_script(w, tokens); };
    add(
        std::move(name), written ? std::move(write) : nullptr, unhex(hex),
        [tokens](Reader& r) { read_script(r, tokens); },
        written ? Copy::kIdentical : Copy::kEquivalent, top_level_elements(tokens));
  }
  void read_only(std::string name, std::string_view hex, std::string_view script) {
    doc(std::move(name), script, hex, false);
  }
  // A sequence of n nulls after the start token `start`.
  void nulls(std::string name, std::string start, std::string hex, unsigned n) {
    for (unsigned i = 0; i < n; ++i) {
      start += i == 0 ? " n" : " , n";
      hex += i == 0 ? " 00" : " AE 00";
    }
    doc(std::move(name), start + " ]", hex + " AF");
  }

  // Through the typed front end, at the width of the C++ type; floating point compared by bits.
  template <class T>
  void typed(std::string name, T value, std::string_view hex) {
    add(
        std::move(name), [value](Writer& w) { w << value; }, unhex(hex),
        [value](Reader& r) {
          T got{};
          r >> got;
          if constexpr (std::is_floating_point_v<T>)
            EXPECT_EQ(hex_of(got), hex_of(value));
          else
            EXPECT_EQ(got, value);
        });
    if constexpr (std::is_floating_point_v<T>) rows.back().self_equal = !std::isnan(value);
  }

  // write_int_big_endian / write_uint_big_endian of an image, read back into `read_size` bytes.
  void image(std::string name, bool is_signed, std::string_view image_hex, std::string_view hex,
             unsigned read_size, std::string_view read_hex) {
    std::string const img = unhex(image_hex);
    std::string const want = unhex(read_hex);
    add(
        std::move(name),
        [img, is_signed](Writer& w) {
          auto const size = static_cast<unsigned>(img.size());
          is_signed ? w.write_int_big_endian(img.data(), size)
                    : w.write_uint_big_endian(img.data(), size);
        },
        unhex(hex),
        [want, read_size, is_signed](Reader& r) {
          std::string got(read_size, '?');
          is_signed ? r.read_int_big_endian(got.data(), read_size)
                    : r.read_uint_big_endian(got.data(), read_size);
          EXPECT_EQ(zotest::hex(got), zotest::hex(want));
        });
  }

  // A string or binary given whole.
  void whole(std::string name, bool is_string, std::string const& data, std::string_view header,
             Copy copy = Copy::kIdentical) {
    auto const size = static_cast<unsigned>(data.size());
    add(
        std::move(name),
        [=](Writer& w) {
          is_string ? w.write_string(data.data(), size) : w.write_binary(data.data(), size);
        },
        unhex(header) + data,
        [=](Reader& r) {
          if (is_string) return expect_same(r.read_string(), data);
          auto const stream = r.read_binary();
          EXPECT_EQ(stream->bytes_remaining(), size);
          expect_same(read_odd(*stream), data);
        },
        copy);
  }

  // n bytes written through write_string_stream() / write_binary() in pieces of the given sizes
  // (the last one repeated) and finished as told, or taken from an input stream.
  void stream(std::string name, bool is_string, std::size_t n, std::vector<std::size_t> pieces,
              std::vector<std::size_t> const& chunks, EFinish finish,
              Copy copy = Copy::kIdentical) {
    std::string const payload = payload_of(is_string, n);
    WriteFn write = [=](Writer& w) {
      if (finish == EFinish::kKnownSource || finish == EFinish::kUnknownSource) {
        ByteSource source(payload);
        if (finish == EFinish::kUnknownSource) source.unknown_size();
        return is_string ? w.write_string_stream(source) : w.write_binary(source);
      }
      auto const stream = is_string ? w.write_string_stream() : w.write_binary();
      for (std::size_t at = 0, piece = 0; at < n; ++piece) {
        std::size_t const size = std::min(pieces[std::min(piece, pieces.size() - 1)], n - at);
        stream->write(payload.data() + at, static_cast<unsigned>(size));
        at += size;
      }
      if (finish == EFinish::kClose) stream->close();
      if (finish == EFinish::kFlush) w.flush();
      if (finish == EFinish::kNextElement) w.write_null();
    };
    bool const next = finish == EFinish::kNextElement;
    ReadFn read = [=](Reader& r) {
      expect_same(is_string ? r.read_string() : read_odd(*r.read_binary()), payload);
      if (next) r.read_null();
    };
    std::string const bytes = encoded(is_string, n, chunks);
    add(std::move(name), std::move(write), next ? bytes + '\0' : bytes, std::move(read), copy,
        next ? 2 : 1);
  }
};

void add_integers(Table& t) {
  t.typed<char>("Int8_0", 0, "20");
  t.typed<char>("Int8_1", 1, "21");
  t.typed<char>("Int8_Minus1", -1, "22");
  t.typed<char>("Int8_127", 127, "24 7F");
  t.typed<char>("Int8_Minus128", -128, "24 80");
  t.typed<short>("Int16_128", 128, "25 00 80");
  t.typed<short>("Int16_Minus129", -129, "25 FF 7F");
  t.typed<short>("Int16_32767", 32767, "25 7F FF");
  t.typed<short>("Int16_Minus32768", -32768, "25 80 00");
  t.typed<int>("Int32_32768", 32768, "26 00 00 80 00");
  t.typed<int>("Int32_Minus32769", -32769, "26 FF FF 7F FF");
  t.typed<int>("Int32_Max", INT32_MAX, "26 7F FF FF FF");
  t.typed<int>("Int32_Min", INT32_MIN, "26 80 00 00 00");
  t.typed<long>("Long_5", 5L, "24 05");
  t.typed<long long>("Int64_Minus1", -1, "22");
  t.typed<long long>("Int64_2Pow31", 1LL << 31, "27 00 00 00 00 80 00 00 00");
  t.typed<long long>("Int64_Minus2Pow31Minus1", -(1LL << 31) - 1, "27 FF FF FF FF 7F FF FF FF");
  t.typed<long long>("Int64_Max", INT64_MAX, "27 7F FF*7");
  t.typed<long long>("Int64_Min", INT64_MIN, "27 80 00*7");
  t.typed<unsigned char>("Uint8_0", 0, "30");
  t.typed<unsigned char>("Uint8_1", 1, "31");
  t.typed<unsigned char>("Uint8_2", 2, "34 02");
  t.typed<unsigned char>("Uint8_255", 255, "34 FF");
  t.typed<unsigned short>("Uint16_256", 256, "35 01 00");
  t.typed<unsigned short>("Uint16_65535", 65535, "35 FF FF");
  t.typed<unsigned>("Uint32_65536", 65536, "36 00 01 00 00");
  t.typed<unsigned>("Uint32_Max", 0xFFFFFFFFu, "36 FF FF FF FF");
  t.typed<unsigned long long>("Uint64_2Pow32", 1ULL << 32, "37 00 00 00 01 00 00 00 00");
  t.typed<unsigned long long>("Uint64_Max", ~0ULL, "37 FF*8");
  // Images of any width through the core operations, read back into `read_size` bytes.
  t.image("SignedImage_Empty", true, "", "20", 1, "00");
  t.image("SignedImage_3Bytes", true, "01 23 45", "26 00 01 23 45", 4, "00 01 23 45");
  t.image("SignedImage_3BytesNegative", true, "FE DC BB", "26 FF FE DC BB", 4, "FF FE DC BB");
  t.image("SignedImage_8BytesOne", true, "00*7 01", "21", 8, "00*7 01");
  t.image("SignedImage_5BytesFitsIn8", true, "00 80 00*3", "27 00*4 80 00*3", 8, "00*4 80 00*3");
  t.image("SignedImage_16BytesMinus1", true, "FF*16", "22", 16, "FF*16");
  t.image("SignedImage_12Bytes128", true, "00*11 80", "25 00 80", 2, "00 80");
  t.image("SignedImage_128Bytes5", true, "00*127 05", "24 05", 128, "00*127 05");
  // 9 to 64 significant bytes: 16, 32 and 64-byte payloads, sign-extended.
  t.image("SignedImage_9Bytes2Pow63", true, "00 80 00*7", "28 00*8 80 00*7", 16, "00*8 80 00*7");
  t.image("SignedImage_9BytesMinus2Pow63Minus1", true, "FF 7F FF*7", "28 FF*8 7F FF*7", 9,
          "FF 7F FF*7");
  t.image("SignedImage_16BytesMax", true, "7F FF*15", "28 7F FF*15", 16, "7F FF*15");
  t.image("SignedImage_17Bytes", true, "00 80 00*15", "29 00*16 80 00*15", 17, "00 80 00*15");
  t.image("SignedImage_32BytesMax", true, "7F FF*31", "29 7F FF*31", 32, "7F FF*31");
  t.image("SignedImage_33Bytes", true, "00 80 00*31", "2A 00*32 80 00*31", 33, "00 80 00*31");
  t.image("SignedImage_64BytesMax", true, "7F FF*63", "2A 7F FF*63", 64, "7F FF*63");
  t.image("SignedImage_64BytesMin", true, "80 00*63", "2A 80 00*63", 64, "80 00*63");
  t.image("SignedImage_65BytesRedundantZero", true, "00 7F FF*63", "2A 7F FF*63", 64, "7F FF*63");
  t.image("SignedImage_65BytesRedundantOnes", true, "FF 80 00*63", "2A 80 00*63", 65,
          "FF 80 00*63");
  t.image("UnsignedImage_Empty", false, "", "30", 2, "00 00");
  t.image("UnsignedImage_8BytesOne", false, "00*7 01", "31", 8, "00*7 01");
  t.image("UnsignedImage_3Bytes", false, "80 00 01", "36 00 80 00 01", 3, "80 00 01");
  t.image("UnsignedImage_16Bytes2Pow32", false, "00*11 01 00*4", "37 00*3 01 00*4", 8,
          "00*3 01 00*4");
  t.image("UnsignedImage_9Bytes2Pow64", false, "01 00*8", "38 00*7 01 00*8", 9, "01 00*8");
  t.image("UnsignedImage_16BytesMax", false, "FF*16", "38 FF*16", 16, "FF*16");
  t.image("UnsignedImage_17Bytes", false, "01 00*16", "39 00*15 01 00*16", 17, "01 00*16");
  t.image("UnsignedImage_32BytesMax", false, "FF*32", "39 FF*32", 32, "FF*32");
  t.image("UnsignedImage_33Bytes", false, "01 00*32", "3A 00*31 01 00*32", 64, "00*31 01 00*32");
  // 63 significant bytes is the widest unsigned value; the form still has 64 bytes.
  t.image("UnsignedImage_63BytesMax", false, "FF*63", "3A 00 FF*63", 63, "FF*63");
  t.image("UnsignedImage_64BytesTopZero", false, "00 FF*63", "3A 00 FF*63", 64, "00 FF*63");
}

void add_doubles(Table& t) {
  t.typed("Double_PlusZero", dbits(0x0000000000000000), "40");
  t.typed("Double_One", dbits(0x3FF0000000000000), "41");
  t.typed("Double_MinusOne", dbits(0xBFF0000000000000), "42");
  t.typed("Double_MinusZero", dbits(0x8000000000000000), "44 80 00");
  t.typed("Double_OnePointFive", dbits(0x3FF8000000000000), "44 3F F8");
  t.typed("Double_MinusInfinity", dbits(0xFFF0000000000000), "44 FF F0");
  t.typed("Double_PointOne", dbits(0x3FB999999999999A), "47 3F B9 99 99 99 99 99 9A");
  t.typed("Double_3Bytes", dbits(0x3FF0010000000000), "45 3F F0 01");
  t.typed("Double_4Bytes", dbits(0x3FF0000100000000), "46 3F F0 00 01");
  t.typed("Double_4BytesSmallHi", dbits(0x0000000100000000), "46 00 00 00 01");
  t.typed("Double_LowWordBit", dbits(0x3FF0000080000000), "47 3F F0 00 00 80 00 00 00");
  t.typed("Double_MinusZeroLowBit", dbits(0x8000000000000001), "47 80 00*6 01");
  t.typed("Double_QuietNaN", dbits(0x7FF8000000000000), "44 7F F8");
  t.typed("Double_NaNPayloadLowWord", dbits(0x7FF0000000000001), "47 7F F0 00*5 01");
  t.typed("Double_NaNPayloadHighWord", dbits(0x7FF8000100000000), "46 7F F8 00 01");
  t.typed("Double_NaNPayload3Bytes", dbits(0x7FF0010000000000), "45 7F F0 01");
  t.typed("Double_SmallestDenormal", dbits(0x0000000000000001), "47 00*7 01");
  // A float is widened exactly, so 0.1f keeps its float bits.
  t.typed("Float_PointOne", 0.1f, "47 3F B9 99 99 A0 00 00 00");
}

void add_strings(Table& t) {
  for (std::size_t n : {0, 7, 8, 255, 256, 65535, 65536}) {
    t.whole("String_" + std::to_string(n) + "Bytes", true, golden_text(n), whole_header(0x50, n));
    t.whole("Binary_" + std::to_string(n) + "Bytes", false, pattern_string(0, n),
            whole_header(0x90, n));
  }
  t.whole("String_Utf8", true,
          "Gr\xC3\xBC\xC3\x9F"
          "e \xE4\xB8\x96\xE7\x95\x8C \xF0\x9F\x98\x80",
          "58 13");
  t.whole("String_EmbeddedNul", true, std::string("a\0b", 3), "53");
  // Read by value, a string is not validated; copying streams it, which does validate.
  t.whole("String_NotUtf8ByValue", true, "\xC3(\xFF", "53", Copy::kNone);
  t.add(
      "String_IntoSourceString", [](Writer& w) { w << std::string("key"); }, bytes("53 6B 65 79"),
      [](Reader& r) {
        zoserialize::SourceString s;
        r.read_string(s);
        EXPECT_EQ(s.view(), "key");
      });
}

// Payloads written through value streams, in pieces of the given sizes (the last one repeated),
// and expected in chunks of the given sizes (none: the whole form).
void add_value_streams(Table& t) {
  using F = Table::EFinish;
  constexpr bool kStr = true;
  constexpr bool kBin = false;
  t.stream("StreamString_Empty", kStr, 0, {1}, {}, F::kLeftOpen);
  t.stream("StreamBinary_EmptyEndedByNextElement", kBin, 0, {1}, {}, F::kNextElement);
  t.stream("StreamString_5BytesClosed", kStr, 5, {2}, {}, F::kClose);
  t.stream("StreamBinary_3BytesFlushed", kBin, 3, {3}, {}, F::kFlush);
  t.stream("StreamString_4095Bytes", kStr, 4095, {1000}, {}, F::kLeftOpen);
  // Full buffers become 0x1000-byte chunks.
  t.stream("StreamString_4096BytesSmallPieces", kStr, 4096, {100}, {4096}, F::kLeftOpen);
  t.stream("StreamString_4097Bytes", kStr, 4097, {4095, 2}, {4096, 1}, F::kNextElement);
  t.stream("StreamBinary_8193BytesOneByOne", kBin, 8193, {1}, {4096, 4096, 1}, F::kClose);
  t.stream("StreamBinary_4396Bytes", kBin, 4396, {1000}, {4096, 300}, F::kLeftOpen);
  // A write of 4096 bytes or more into an empty buffer goes out directly, in chunks of at most
  // 65535 bytes; copying re-chunks them.
  t.stream("StreamBinary_Direct4096", kBin, 4096, {4096}, {4096}, F::kLeftOpen);
  t.stream("StreamBinary_Direct65535", kBin, 65535, {65535}, {65535}, F::kLeftOpen,
           Copy::kEquivalent);
  t.stream("StreamString_Direct65536", kStr, 65536, {65536}, {65535, 1}, F::kNextElement,
           Copy::kEquivalent);
  // Mixed: a buffered start fills up before the rest of a large write is buffered again.
  t.stream("StreamBinary_SmallThenLarge", kBin, 5010, {10, 5000}, {4096, 914}, F::kLeftOpen);
  t.stream("StreamBinary_LargeThenSmall", kBin, 4106, {4096, 10}, {4096, 10}, F::kLeftOpen);
  t.stream("StreamBinary_LargeAfterBufferEmptied", kBin, 9096, {2048, 2048, 5000}, {4096, 5000},
           F::kLeftOpen, Copy::kEquivalent);
  t.doc("StreamBinary_ZeroSizedWrite", "b", "90");
  t.doc("StreamBinary_EndedByNextStream", "b6162 b6364", "92 61 62 92 63 64");
  // Values taken from input streams of known or unknown size.
  t.stream("FromStreamString_Known0", kStr, 0, {}, {}, F::kKnownSource);
  t.stream("FromStreamString_Known5", kStr, 5, {}, {}, F::kKnownSource);
  t.stream("FromStreamBinary_Known70000", kBin, 70000, {}, {}, F::kKnownSource);
  t.stream("FromStreamBinary_Unknown0", kBin, 0, {}, {}, F::kUnknownSource);
  t.stream("FromStreamString_Unknown4095", kStr, 4095, {}, {}, F::kUnknownSource);
  t.stream("FromStreamString_Unknown4096", kStr, 4096, {}, {4096}, F::kUnknownSource);
  t.stream("FromStreamBinary_Unknown8392", kBin, 8392, {}, {4096, 4096, 200}, F::kUnknownSource);
}

void add_times_and_uuids(Table& t) {
  t.doc("AbsoluteTime_Zero", "a0", "60");
  t.doc("AbsoluteTime_Infinite", "a9223372036854775807", "61");
  t.doc("AbsoluteTime_Minus1", "a-1", "64 FF FF FF FF");
  t.doc("AbsoluteTime_2Pow31Minus1", "a2147483647", "64 7F FF FF FF");
  t.doc("AbsoluteTime_Minus2Pow31", "a-2147483648", "64 80 00 00 00");
  t.doc("AbsoluteTime_2Pow31", "a2147483648", "65 00 00 00 00 80 00 00 00");
  t.doc("AbsoluteTime_Minus2Pow31Minus1", "a-2147483649", "65 FF FF FF FF 7F FF FF FF");
  t.doc("AbsoluteTime_MaxMinus1", "a9223372036854775806", "65 7F FF*6 FE");
  t.doc("AbsoluteTime_Min", "a-9223372036854775808", "65 80 00*7");
  t.doc("RelativeTime_Zero", "r0", "70");
  t.doc("RelativeTime_Infinite", "r9223372036854775807", "71");
  t.doc("RelativeTime_Minus2Pow31", "r-2147483648", "74 80 00 00 00");
  t.doc("RelativeTime_2Pow31", "r2147483648", "75 00 00 00 00 80 00 00 00");
  t.typed("Uuid_Null", Uuid(), "80");
  t.typed("Uuid_Example", uuid_of("12 3E 45 67 E8 9B 12 D3 A4 56 42 66 14 17 40 00"),
          "81 12 3E 45 67 E8 9B 12 D3 A4 56 42 66 14 17 40 00");
  t.typed("Uuid_LastBitOnly", uuid_of("00*15 01"), "81 00*15 01");
}

void add_sequences_and_markers(Table& t) {
  t.nulls("Sequence_NoHintEmpty", "[", "A0", 0);
  t.nulls("Sequence_Hint0Empty", "[0", "A0", 0);
  t.nulls("Sequence_Hint0With3", "[0", "A0", 3);
  for (unsigned n = 1; n <= 7; ++n)
    t.nulls("Sequence_Hint" + std::to_string(n), "[" + std::to_string(n), be_hex(0xA0 + n, 1), n);
  t.nulls("Sequence_Hint8", "[8", "A8 08", 8);
  t.nulls("Sequence_Hint255", "[255", "A8 FF", 255);
  t.nulls("Sequence_Hint256", "[256", "A9 01 00", 256);
  t.nulls("Sequence_Hint65535", "[65535", "A9 FF FF", 65535);
  t.nulls("Sequence_Hint65536", "[65536", "AA 00 01 00 00", 65536);
  t.doc("Sequence_Nested", "[3 [1 i1 ] , [ ] , [2 i2 , i3 ] ]",
        "A3 A1 21 AF AE A0 AF AE A2 24 02 AE 24 03 AF AF");
  t.doc("Marker_Empty", "{ }", "B0 BF");
  t.doc("Marker_Nested", "{ { T } i0 }", "B0 B0 11 BF 20 BF");
  t.doc("Marker_InSequence", "[2 { T } , { } ]", "A2 B0 11 BF AE B0 BF AF");
  // A newer writer appended fields that an older reader does not know: the marker end skips them.
  t.doc("Marker_UnreadTailSkipped", "{ T ~ sabc [1 i0 ] { F } bBFBF } n",
        "B0 11 53 61 62 63 A1 20 AF B0 10 BF 92 BF BF BF 00");
  t.doc("Document_Mixed", "{ i100000 sabc d-0 [2 a1 , g ] r9223372036854775807 b78797A } T",
        "B0 26 00 01 86 A0 53 61 62 63 44 80 00 A2 64 00 00 00 01 AE 80 AF 71 93 78 79 7A BF 11");
}

void add_read_only_forms(Table& t) {
  // Sized markers: the size counts the bytes between the size field and the end tag.
  t.read_only("SizedMarker_1ByteField", "B4 01 11 BF", "{ T }");
  t.read_only("SizedMarker_2ByteField", "B5 00 01 11 BF", "{ T }");
  t.read_only("SizedMarker_4ByteField", "B6 00 00 00 01 11 BF", "{ T }");
  t.read_only("SizedMarker_8ByteField", "B7 00*7 01 11 BF", "{ T }");
  t.read_only("SizedMarker_Size0", "B4 00 BF", "{ }");
  // Nothing of the marker read: its end skips the declared size and finds the end tag.
  t.read_only("SizedMarker_SkippedWhole", "B4 05 B4 01 11 BF 20 BF 00", "{ ~ { T } i0 } n");
  t.read_only("SizedMarker_InnerSkipped", "B4 07 B4 03 10 11 10 BF 20 BF", "{ { ~ F T F } i0 }");
  // Longer forms than a writer picks.
  t.read_only("NonMinimal_Int4Bytes", "26 00 00 00 05", "i5");
  t.read_only("NonMinimal_Int16BytesNegative", "28 FF*15 FE", "i-2");
  t.read_only("NonMinimal_Uint1ByteZero", "34 00", "u0");
  t.read_only("NonMinimal_Uint64BytesSmall", "3A 00*63 07", "u7");
  t.read_only("NonMinimal_DoubleOne", "44 3F F0", "d1");
  t.read_only("NonMinimal_DoubleZero8Bytes", "47 00*8", "d0");
  t.read_only("NonMinimal_StringLength1", "58 03 61 62 63", "sabc");
  t.read_only("NonMinimal_StringLength4", "5A 00 00 00 03 61 62 63", "sabc");
  t.read_only("NonMinimal_BinaryLength2", "99 00 02 AA BB", "bAABB");
  t.read_only("NonMinimal_Time8BytesSmall", "75 FF*7 FB", "r-5");
  t.read_only("NonMinimal_UuidZero16Bytes", "81 00*16", "g");
  t.read_only("NonMinimal_SequenceHint1Byte", "A8 02 21 AE 21 AF", "[2 i1 , i1 ]");
  t.read_only("SequenceHint4Bytes", "AA 00 00 00 01 20 AF", "[1 i0 ]");
  // The 8-byte count hint is accepted although no writer produces it.
  t.read_only("SequenceHint8Bytes", "AB 00*7 02 21 AE 21 AF", "[2 i1 , i1 ]");
  // Chunk forms: 1-byte first chunk, empty chunks, chunks of 3, 0 and 2 bytes.
  t.read_only("Chunked_String3_0_2", "5B 03 61 62 63 5D 00 5E 00 02 64 65 5F", "sabcde");
  t.read_only("Chunked_StringEmpty", "5B 00 5F", "s");
  t.read_only("Chunked_BinaryEmptyFirst2Bytes", "9C 00 00 9D 01 AA 9F", "bAA");
  t.read_only("Chunked_StringMultiByteAcrossChunks", "5B 02 E2 82 5D 01 AC 5F", "s\xE2\x82\xAC");
}

}  // namespace

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

std::string read_all(zoserialize::IReadStream& stream, unsigned block) {
  std::string out;
  std::string buffer(block, '\0');
  for (unsigned got = block; got == block;) {
    got = stream.read(buffer.data(), block);
    out.append(buffer.data(), got);
  }
  return out;
}

std::vector<BinaryGoldenCase> const& binary_golden_cases() {
  static std::vector<BinaryGoldenCase> const rows = [] {
    Table t;
    t.doc("Null", "n", "00");
    t.doc("Bool_False", "F", "10");
    t.doc("Bool_True", "T", "11");
    add_integers(t);
    add_doubles(t);
    add_strings(t);
    add_value_streams(t);
    add_times_and_uuids(t);
    add_sequences_and_markers(t);
    add_read_only_forms(t);
    return std::move(t.rows);
  }();
  return rows;
}

std::vector<BinaryGoldenCase> binary_golden_written_cases() {
  std::vector<BinaryGoldenCase> out;
  std::copy_if(binary_golden_cases().begin(), binary_golden_cases().end(), std::back_inserter(out),
               [](BinaryGoldenCase const& row) { return row.write != nullptr; });
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

namespace {

using zoserialize::IReadStream;

void run_op(Reader& r, std::string const& op, zoserialize::InterfacePtr<IReadStream>& stream) {
  char const c = op[0];
  if (c == '!') {
    EXPECT_THROW(run_op(r, op.substr(1), stream), zocore::ErrorException) << op;
    return;
  }
  std::string buffer(op.size() > 1 ? std::stoul(op.substr(1)) : 0, '\0');
  auto const n = static_cast<unsigned>(buffer.size());
  if (c == 'n') r.read_null();
  if (c == 'N') r.try_read_null();
  if (c == 'b') r.read_bool();
  if (c == 'i') r.read_int32();
  if (c == 'u') r.read_uint32();
  if (c == 'd') r.read_double();
  if (c == 's') r.read_string();
  if (c == 'a') r.read_absolute_time();
  if (c == 'R') r.read_relative_time();
  if (c == 'g') r.read_uuid();
  if (c == '[') r.read_sequence_start();
  if (c == '>') r.read_sequence_next();
  while (c == 'L' && r.read_sequence_next())
    r.skip_element();
  if (c == '{') r.read_marker_start();
  if (c == '?') r.read_marker_is_end();
  if (c == '}') r.read_marker_end();
  if (c == 'k') r.skip_element();
  if (c == 't') r.next_token();
  if (c == 'e') r.is_eof();
  if (c == 'X') r.close();
  if (c == 'S') stream = r.read_string_stream();
  if (c == 'B') stream = r.read_binary();
  if (c == 'r') stream->read(buffer.data(), n);
  if (c == 'x') stream->skip(n);
  if (c == 'C') stream->close();
  if (c == 'q') stream->bytes_remaining();
  if (c == 'c') {
    zoserialize::BinaryWriter writer(zocore::make_ref_counted<zocore::StringWriteStream>());
    r.read_copy(writer);
  }
}

}  // namespace

void run_reader_ops(Reader& reader, std::string_view ops) {
  zoserialize::InterfacePtr<IReadStream> stream;
  for (std::string const& op : tokenize(ops))
    run_op(reader, op, stream);
}

void expect_failure(
    ReaderFailure const& c,
    std::function<std::unique_ptr<Reader>(std::string bytes, bool known_size)> const& make) {
  SCOPED_TRACE(::testing::Message() << c.bytes << " / " << c.ops);
  bool const known = c.bytes[0] != '?';
  std::unique_ptr<Reader> const reader = make(unhex(c.bytes + (known ? 0 : 1)), known);
  Tokens const ops = tokenize(c.ops);
  zoserialize::InterfacePtr<IReadStream> stream;
  for (std::size_t i = 0; i + 1 < ops.size(); ++i)
    run_op(*reader, ops[i], stream);
  expect_error_details([&] { run_op(*reader, ops.back(), stream); }, *c.code, c.message, c.params,
                       c.function);
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

void PrintTo(BinaryGoldenCase const& row, std::ostream* os) {
  *os << row.name;
}

}  // namespace zotest
