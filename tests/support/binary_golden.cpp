#include <bit>
#include <cstdint>
#include <limits>
#include <optional>
#include <ostream>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>

#include <support/binary_golden.h>
#include <support/hex_bytes.h>
#include <support/test_streams.h>

namespace zotest {
namespace {

using zoserialize::AbsoluteTime;
using zoserialize::Reader;
using zoserialize::RelativeTime;
using zoserialize::SourceLocation;
using zoserialize::SourceString;
using zoserialize::Uuid;
using zoserialize::Writer;
using Row = BinaryGoldenCase;
using Copy = BinaryGoldenCase::ECopy;
using WriteFn = std::function<void(Writer&)>;
using ReadFn = std::function<void(Reader&)>;

// "FF" x n as hex text.
std::string rep(std::string_view hex_pair, std::size_t n) {
  std::string out;
  for (std::size_t i = 0; i < n; ++i) {
    out += hex_pair;
    out += ' ';
  }
  return out;
}

// Compares without printing kilobytes of payload.
void expect_same_bytes(std::string const& got, std::string const& want) {
  if (got == want) return;
  std::size_t i = 0;
  while (i < got.size() && i < want.size() && got[i] == want[i])
    ++i;
  ADD_FAILURE() << "payload differs: got " << got.size() << " bytes, want " << want.size()
                << ", first difference at offset " << i;
}

// ---- Encoding helpers (independent of the archives, used for the long rows only) --------------

std::string be(std::uint64_t value, unsigned bytes) {
  std::string out(bytes, '\0');
  for (unsigned i = bytes; i-- > 0;) {
    out[i] = static_cast<char>(value & 0xFF);
    value >>= 8;
  }
  return out;
}

std::string tag(unsigned char byte) {
  return std::string(1, static_cast<char>(byte));
}

// A chunked value cut into chunks of the given sizes, then the end tag.
std::string chunked(unsigned char prefix, std::string const& payload,
                    std::vector<std::size_t> const& sizes) {
  std::string out;
  std::size_t at = 0;
  for (std::size_t i = 0; i < sizes.size(); ++i) {
    std::size_t const n = sizes[i];
    bool const first = i == 0;
    if (n < 256) {
      out += tag(static_cast<unsigned char>(prefix | (first ? 0xB : 0xD))) + be(n, 1);
    } else {
      out += tag(static_cast<unsigned char>(prefix | (first ? 0xC : 0xE))) + be(n, 2);
    }
    out += payload.substr(at, n);
    at += n;
  }
  return out + tag(prefix | 0xF);
}

// ---- Table builder --------------------------------------------------------------------------

class Table {
 public:
  std::vector<Row> rows;

  void add(std::string name, WriteFn write, std::string bytes, ReadFn read,
           Copy copy = Copy::kIdentical, std::size_t elements = 1) {
    rows.push_back(
        Row{std::move(name), std::move(write), std::move(bytes), std::move(read), copy, elements});
  }
  void add_hex(std::string name, WriteFn write, std::string_view hex, ReadFn read,
               std::size_t elements = 1) {
    add(std::move(name), std::move(write), bytes(hex), std::move(read), Copy::kIdentical, elements);
  }
  // A form no writer produces.
  void read_only(std::string name, std::string_view hex, ReadFn read, std::size_t elements = 1) {
    add(std::move(name), nullptr, bytes(hex), std::move(read), Copy::kEquivalent, elements);
  }

  template <class T>
  void typed(char const* name, T value, std::string_view hex) {
    add_hex(
        name, [value](Writer& w) { w << value; }, hex,
        [value](Reader& r) {
          T got{};
          r >> got;
          EXPECT_EQ(got, value);
        });
  }

  // write_int_big_endian / write_uint_big_endian of an image, read back into `read_size` bytes.
  void image(std::string name, bool is_signed, std::string const& image_hex, std::string_view hex,
             unsigned read_size, std::string const& read_hex) {
    std::string const img = bytes(image_hex);
    std::string const want = bytes(read_hex);
    add_hex(
        std::move(name),
        [img, is_signed](Writer& w) {
          auto const size = static_cast<unsigned>(img.size());
          if (is_signed) {
            w.write_int_big_endian(img.data(), size);
          } else {
            w.write_uint_big_endian(img.data(), size);
          }
        },
        hex,
        [want, read_size, is_signed](Reader& r) {
          std::string got(read_size, '?');
          if (is_signed) {
            r.read_int_big_endian(got.data(), read_size);
          } else {
            r.read_uint_big_endian(got.data(), read_size);
          }
          EXPECT_EQ(zotest::hex(got), zotest::hex(want));
        });
  }

  void dbl(std::string name, std::uint64_t bits, std::string_view hex) {
    add_hex(
        std::move(name), [bits](Writer& w) { w.write_double(std::bit_cast<double>(bits)); }, hex,
        [bits](Reader& r) { EXPECT_EQ(std::bit_cast<std::uint64_t>(r.read_double()), bits); });
    bool const is_nan =
        (bits & 0x7FF0000000000000u) == 0x7FF0000000000000u && (bits & 0x000FFFFFFFFFFFFFu) != 0;
    rows.back().self_equal = !is_nan;
  }

  void string_whole(std::string name, std::string const& text, std::string const& header_hex,
                    Copy copy = Copy::kIdentical) {
    std::string encoded = bytes(header_hex) + text;
    add(
        std::move(name),
        [text](Writer& w) { w.write_string(text.data(), static_cast<unsigned>(text.size())); },
        std::move(encoded), [text](Reader& r) { expect_same_bytes(r.read_string(), text); }, copy);
  }

  void binary_whole(std::string name, std::string const& data, std::string const& header_hex) {
    std::string encoded = bytes(header_hex) + data;
    add(
        std::move(name),
        [data](Writer& w) { w.write_binary(data.data(), static_cast<unsigned>(data.size())); },
        std::move(encoded),
        [data](Reader& r) {
          auto const stream = r.read_binary();
          EXPECT_EQ(stream->bytes_remaining(), data.size());
          expect_same_bytes(read_all(*stream), data);
        });
  }

  enum class EFinish { kLeftOpen, kClose, kNextElement, kFlush };

  // A value written through write_string_stream() / write_binary() in pieces: the sizes in
  // `pieces` in order, the last one repeated until the payload is done.
  void value_stream(std::string name, bool is_string, std::string const& payload,
                    std::vector<std::size_t> const& pieces, std::string encoded, EFinish finish,
                    Copy copy) {
    WriteFn write = [=](Writer& w) {
      auto const stream = is_string ? w.write_string_stream() : w.write_binary();
      std::size_t at = 0;
      std::size_t piece = 0;
      while (at < payload.size()) {
        std::size_t const n = std::min(pieces[piece], payload.size() - at);
        stream->write(payload.data() + at, static_cast<unsigned>(n));
        at += n;
        if (piece + 1 < pieces.size()) ++piece;
      }
      if (finish == EFinish::kClose) stream->close();
      if (finish == EFinish::kFlush) w.flush();
      if (finish == EFinish::kNextElement) w.write_null();
    };
    ReadFn read = [=](Reader& r) {
      if (is_string) {
        expect_same_bytes(r.read_string(), payload);
      } else {
        expect_same_bytes(read_all(*r.read_binary()), payload);
      }
      if (finish == EFinish::kNextElement) r.read_null();
    };
    std::size_t const elements = finish == EFinish::kNextElement ? 2 : 1;
    if (finish == EFinish::kNextElement) encoded += bytes("00");
    add(std::move(name), std::move(write), std::move(encoded), std::move(read), copy, elements);
  }

  // A value taken from an input stream (write_string_stream(IReadStream&) / write_binary(...)).
  void from_stream(std::string name, bool is_string, std::string const& payload, bool known_size,
                   std::string encoded) {
    add(
        std::move(name),
        [=](Writer& w) {
          ByteSource source(payload);
          if (!known_size) source.unknown_size();
          if (is_string) {
            w.write_string_stream(source);
          } else {
            w.write_binary(source);
          }
        },
        std::move(encoded),
        [=](Reader& r) {
          if (is_string) {
            expect_same_bytes(r.read_string(), payload);
          } else {
            expect_same_bytes(read_all(*r.read_binary()), payload);
          }
        });
  }

  void absolute(std::string name, std::int64_t count, std::string_view hex) {
    add_hex(
        std::move(name), [count](Writer& w) { w << AbsoluteTime(count); }, hex,
        [count](Reader& r) { EXPECT_EQ(r.read_absolute_time().count(), count); });
  }
  void relative(std::string name, std::int64_t count, std::string_view hex) {
    add_hex(
        std::move(name), [count](Writer& w) { w << RelativeTime(count); }, hex,
        [count](Reader& r) { EXPECT_EQ(r.read_relative_time().count(), count); });
  }

  // A sequence of n nulls; hint nullopt writes no hint.
  void null_sequence(std::string name, std::optional<unsigned> hint, unsigned n,
                     std::string_view header_hex) {
    std::string encoded = bytes(header_hex);
    for (unsigned i = 0; i < n; ++i) {
      if (i != 0) encoded.push_back('\xAE');
      encoded.push_back('\x00');
    }
    encoded.push_back('\xAF');
    add(
        std::move(name),
        [hint, n](Writer& w) {
          if (hint) {
            w.write_sequence_start(*hint);
          } else {
            w.write_sequence_start();
          }
          for (unsigned i = 0; i < n; ++i) {
            if (i != 0) w.write_sequence_separator();
            w.write_null();
          }
          w.write_sequence_end();
        },
        std::move(encoded),
        [hint, n](Reader& r) {
          EXPECT_EQ(r.read_sequence_start(), hint.value_or(0));
          unsigned seen = 0;
          while (r.read_sequence_next()) {
            r.read_null();
            ++seen;
          }
          EXPECT_EQ(seen, n);
        });
  }
};

Uuid uuid_of(std::string_view hex) {
  std::string const b = bytes(hex);
  return Uuid::from_binary(reinterpret_cast<unsigned char const*>(b.data()));
}

void add_integers(Table& t) {
  // Through the typed front end, at the width of the C++ type.
  t.typed<char>("Int8_0", 0, "20");
  t.typed<char>("Int8_1", 1, "21");
  t.typed<char>("Int8_Minus1", -1, "22");
  t.typed<char>("Int8_2", 2, "24 02");
  t.typed<char>("Int8_127", 127, "24 7F");
  t.typed<char>("Int8_Minus128", -128, "24 80");
  t.typed<short>("Int16_128", 128, "25 00 80");
  t.typed<short>("Int16_255", 255, "25 00 FF");
  t.typed<short>("Int16_Minus129", -129, "25 FF 7F");
  t.typed<short>("Int16_32767", 32767, "25 7F FF");
  t.typed<short>("Int16_Minus32768", -32768, "25 80 00");
  t.typed<short>("Int16_Minus1", -1, "22");
  t.typed<int>("Int32_0", 0, "20");
  t.typed<int>("Int32_127", 127, "24 7F");
  t.typed<int>("Int32_128", 128, "25 00 80");
  t.typed<int>("Int32_Minus128", -128, "24 80");
  t.typed<int>("Int32_32768", 32768, "26 00 00 80 00");
  t.typed<int>("Int32_Minus32769", -32769, "26 FF FF 7F FF");
  t.typed<int>("Int32_100000", 100000, "26 00 01 86 A0");
  t.typed<int>("Int32_Minus100000", -100000, "26 FF FE 79 60");
  t.typed<int>("Int32_8388608", 8388608, "26 00 80 00 00");
  t.typed<int>("Int32_Minus8388609", -8388609, "26 FF 7F FF FF");
  t.typed<int>("Int32_Max", std::numeric_limits<int>::max(), "26 7F FF FF FF");
  t.typed<int>("Int32_Min", std::numeric_limits<int>::min(), "26 80 00 00 00");
  t.typed<long>("Long_5", 5L, "24 05");
  t.typed<long long>("Int64_1", 1, "21");
  t.typed<long long>("Int64_Minus1", -1, "22");
  t.typed<long long>("Int64_2Pow31", 1LL << 31, "27 00 00 00 00 80 00 00 00");
  t.typed<long long>("Int64_Minus2Pow31Minus1", -(1LL << 31) - 1, "27 FF FF FF FF 7F FF FF FF");
  t.typed<long long>("Int64_2Pow32", 1LL << 32, "27 00 00 00 01 00 00 00 00");
  t.typed<long long>("Int64_Max", std::numeric_limits<long long>::max(),
                     "27 7F FF FF FF FF FF FF FF");
  t.typed<long long>("Int64_Min", std::numeric_limits<long long>::min(),
                     "27 80 00 00 00 00 00 00 00");

  t.typed<unsigned char>("Uint8_0", 0, "30");
  t.typed<unsigned char>("Uint8_1", 1, "31");
  t.typed<unsigned char>("Uint8_2", 2, "34 02");
  t.typed<unsigned char>("Uint8_128", 128, "34 80");
  t.typed<unsigned char>("Uint8_255", 255, "34 FF");
  t.typed<unsigned short>("Uint16_255", 255, "34 FF");
  t.typed<unsigned short>("Uint16_256", 256, "35 01 00");
  t.typed<unsigned short>("Uint16_65535", 65535, "35 FF FF");
  t.typed<unsigned>("Uint32_65536", 65536, "36 00 01 00 00");
  t.typed<unsigned>("Uint32_16777216", 16777216, "36 01 00 00 00");
  t.typed<unsigned>("Uint32_Max", 0xFFFFFFFFu, "36 FF FF FF FF");
  t.typed<unsigned long long>("Uint64_1", 1, "31");
  t.typed<unsigned long long>("Uint64_2Pow32", 1ULL << 32, "37 00 00 00 01 00 00 00 00");
  t.typed<unsigned long long>("Uint64_Max", ~0ULL, "37 FF FF FF FF FF FF FF FF");

  // Images of any width through the core operations.
  t.image("SignedImage_Empty", true, "", "20", 1, "00");
  t.image("SignedImage_3Bytes", true, "01 23 45", "26 00 01 23 45", 4, "00 01 23 45");
  t.image("SignedImage_3BytesNegative", true, "FE DC BB", "26 FF FE DC BB", 4, "FF FE DC BB");
  t.image("SignedImage_4BytesAllOnes", true, "FF FF FF FF", "22", 4, "FF FF FF FF");
  t.image("SignedImage_8BytesOne", true, "00 00 00 00 00 00 00 01", "21", 8,
          "00 00 00 00 00 00 00 01");
  t.image("SignedImage_5BytesFitsIn8", true, "00 80 00 00 00", "27 00 00 00 00 80 00 00 00", 8,
          "00 00 00 00 80 00 00 00");
  // Wide images whose value is small take the same short forms.
  t.image("SignedImage_16BytesZero", true, rep("00", 16), "20", 16, rep("00", 16));
  t.image("SignedImage_16BytesOne", true, rep("00", 15) + "01", "21", 16, rep("00", 15) + "01");
  t.image("SignedImage_16BytesMinus1", true, rep("FF", 16), "22", 16, rep("FF", 16));
  t.image("SignedImage_12Bytes128", true, rep("00", 10) + "00 80", "25 00 80", 2, "00 80");
  t.image("SignedImage_12BytesMinus129", true, rep("FF", 10) + "FF 7F", "25 FF 7F", 2, "FF 7F");
  t.image("SignedImage_16Bytes0x12345678", true, rep("00", 12) + "12 34 56 78", "26 12 34 56 78", 4,
          "12 34 56 78");
  t.image("SignedImage_16Bytes2Pow31", true, rep("00", 11) + "00 80 00 00 00",
          "27 00 00 00 00 80 00 00 00", 8, "00 00 00 00 80 00 00 00");
  t.image("SignedImage_128Bytes5", true, rep("00", 127) + "05", "24 05", 128,
          rep("00", 127) + "05");
  t.image("SignedImage_128BytesMinus2", true, rep("FF", 127) + "FE", "24 FE", 128,
          rep("FF", 127) + "FE");
  // 9 to 64 significant bytes: 16, 32 and 64-byte payloads, sign-extended.
  t.image("SignedImage_9Bytes2Pow63", true, "00 80" + rep("00", 7),
          "28 " + rep("00", 7) + "00 80 " + rep("00", 7), 16,
          rep("00", 7) + "00 80" + rep("00", 7));
  t.image("SignedImage_9BytesMinus2Pow63Minus1", true, "FF 7F" + rep("FF", 7),
          "28 " + rep("FF", 7) + "FF 7F " + rep("FF", 7), 9, "FF 7F" + rep("FF", 7));
  t.image("SignedImage_16BytesMax", true, "7F " + rep("FF", 15), "28 7F " + rep("FF", 15), 16,
          "7F " + rep("FF", 15));
  t.image("SignedImage_16BytesMin", true, "80 " + rep("00", 15), "28 80 " + rep("00", 15), 16,
          "80 " + rep("00", 15));
  t.image("SignedImage_17Bytes", true, "00 80 " + rep("00", 15),
          "29 " + rep("00", 15) + "00 80 " + rep("00", 15), 17, "00 80 " + rep("00", 15));
  t.image("SignedImage_32BytesMax", true, "7F " + rep("FF", 31), "29 7F " + rep("FF", 31), 32,
          "7F " + rep("FF", 31));
  t.image("SignedImage_33Bytes", true, "00 80 " + rep("00", 31),
          "2A " + rep("00", 31) + "00 80 " + rep("00", 31), 33, "00 80 " + rep("00", 31));
  t.image("SignedImage_64BytesMax", true, "7F " + rep("FF", 63), "2A 7F " + rep("FF", 63), 64,
          "7F " + rep("FF", 63));
  t.image("SignedImage_64BytesMin", true, "80 " + rep("00", 63), "2A 80 " + rep("00", 63), 64,
          "80 " + rep("00", 63));
  t.image("SignedImage_65BytesRedundantZero", true, "00 7F " + rep("FF", 63),
          "2A 7F " + rep("FF", 63), 64, "7F " + rep("FF", 63));
  t.image("SignedImage_65BytesRedundantOnes", true, "FF 80 " + rep("00", 63),
          "2A 80 " + rep("00", 63), 65, "FF 80 " + rep("00", 63));

  t.image("UnsignedImage_Empty", false, "", "30", 2, "00 00");
  t.image("UnsignedImage_8BytesOne", false, "00 00 00 00 00 00 00 01", "31", 8,
          "00 00 00 00 00 00 00 01");
  t.image("UnsignedImage_3Bytes", false, "80 00 01", "36 00 80 00 01", 3, "80 00 01");
  t.image("UnsignedImage_12Bytes0x1234", false, rep("00", 10) + "12 34", "35 12 34", 2, "12 34");
  t.image("UnsignedImage_16BytesZero", false, rep("00", 16), "30", 16, rep("00", 16));
  t.image("UnsignedImage_16BytesOne", false, rep("00", 15) + "01", "31", 1, "01");
  t.image("UnsignedImage_16Bytes2Pow32", false, rep("00", 11) + "01 00 00 00 00",
          "37 00 00 00 01 00 00 00 00", 8, "00 00 00 01 00 00 00 00");
  t.image("UnsignedImage_128Bytes128", false, rep("00", 127) + "80", "34 80", 128,
          rep("00", 127) + "80");
  t.image("UnsignedImage_9Bytes2Pow64", false, "01 " + rep("00", 8),
          "38 " + rep("00", 7) + "01 " + rep("00", 8), 9, "01 " + rep("00", 8));
  t.image("UnsignedImage_16BytesMax", false, rep("FF", 16), "38 " + rep("FF", 16), 16,
          rep("FF", 16));
  t.image("UnsignedImage_17Bytes", false, "01 " + rep("00", 16),
          "39 " + rep("00", 15) + "01 " + rep("00", 16), 17, "01 " + rep("00", 16));
  t.image("UnsignedImage_32BytesMax", false, rep("FF", 32), "39 " + rep("FF", 32), 32,
          rep("FF", 32));
  t.image("UnsignedImage_33Bytes", false, "01 " + rep("00", 32),
          "3A " + rep("00", 31) + "01 " + rep("00", 32), 64, rep("00", 31) + "01 " + rep("00", 32));
  // 63 significant bytes is the widest unsigned value; the form still has 64 bytes.
  t.image("UnsignedImage_63BytesMax", false, rep("FF", 63), "3A 00 " + rep("FF", 63), 63,
          rep("FF", 63));
  t.image("UnsignedImage_64BytesTopZero", false, "00 " + rep("FF", 63), "3A 00 " + rep("FF", 63),
          64, "00 " + rep("FF", 63));
}

void add_doubles(Table& t) {
  t.dbl("Double_PlusZero", 0x0000000000000000, "40");
  t.dbl("Double_One", 0x3FF0000000000000, "41");
  t.dbl("Double_MinusOne", 0xBFF0000000000000, "42");
  t.dbl("Double_MinusZero", 0x8000000000000000, "44 80 00");
  t.dbl("Double_Two", 0x4000000000000000, "44 40 00");
  t.dbl("Double_MinusTwo", 0xC000000000000000, "44 C0 00");
  t.dbl("Double_OnePointFive", 0x3FF8000000000000, "44 3F F8");
  t.dbl("Double_MinusOnePointFive", 0xBFF8000000000000, "44 BF F8");
  t.dbl("Double_PlusInfinity", 0x7FF0000000000000, "44 7F F0");
  t.dbl("Double_MinusInfinity", 0xFFF0000000000000, "44 FF F0");
  t.dbl("Double_PointOne", 0x3FB999999999999A, "47 3F B9 99 99 99 99 99 9A");
  t.dbl("Double_3Bytes", 0x3FF0010000000000, "45 3F F0 01");
  t.dbl("Double_3BytesSmallHi", 0x0000010000000000, "45 00 00 01");
  t.dbl("Double_4Bytes", 0x3FF0000100000000, "46 3F F0 00 01");
  t.dbl("Double_4BytesSmallHi", 0x0000000100000000, "46 00 00 00 01");
  t.dbl("Double_2BytesSmallHi", 0x0001000000000000, "44 00 01");
  t.dbl("Double_LowWordBit", 0x3FF0000080000000, "47 3F F0 00 00 80 00 00 00");
  t.dbl("Double_MinusZeroLowBit", 0x8000000000000001, "47 80 00 00 00 00 00 00 01");
  t.dbl("Double_QuietNaN", 0x7FF8000000000000, "44 7F F8");
  t.dbl("Double_NegativeQuietNaN", 0xFFF8000000000000, "44 FF F8");
  t.dbl("Double_NaNPayloadLowWord", 0x7FF0000000000001, "47 7F F0 00 00 00 00 00 01");
  t.dbl("Double_NaNPayloadHighWord", 0x7FF8000100000000, "46 7F F8 00 01");
  t.dbl("Double_NaNPayload2Bytes", 0x7FF4000000000000, "44 7F F4");
  t.dbl("Double_NaNPayload3Bytes", 0x7FF0010000000000, "45 7F F0 01");
  t.dbl("Double_SmallestDenormal", 0x0000000000000001, "47 00 00 00 00 00 00 00 01");
  t.dbl("Double_Denormal2Bytes", 0x0008000000000000, "44 00 08");
  t.dbl("Double_LargestDenormal", 0x000FFFFFFFFFFFFF, "47 00 0F FF FF FF FF FF FF");
  t.dbl("Double_SmallestNormal", 0x0010000000000000, "44 00 10");
  t.dbl("Double_Largest", 0x7FEFFFFFFFFFFFFF, "47 7F EF FF FF FF FF FF FF");
  // A float is widened exactly, so 0.1f keeps its float bits.
  t.add_hex(
      "Float_PointOne", [](Writer& w) { w << 0.1f; }, "47 3F B9 99 99 A0 00 00 00",
      [](Reader& r) { EXPECT_EQ(r.read_float(), 0.1f); });
  t.add_hex(
      "Float_Max", [](Writer& w) { w.write_float(std::numeric_limits<float>::max()); },
      "47 47 EF FF FF E0 00 00 00",
      [](Reader& r) { EXPECT_EQ(r.read_float(), std::numeric_limits<float>::max()); });
}

void add_strings(Table& t) {
  t.string_whole("String_Empty", "", "50");
  t.string_whole("String_1Byte", "a", "51");
  t.string_whole("String_Abc", "abc", "53");
  t.string_whole("String_7Bytes", golden_text(7), "57");
  t.string_whole("String_8Bytes", golden_text(8), "58 08");
  t.string_whole("String_255Bytes", golden_text(255), "58 FF");
  t.string_whole("String_256Bytes", golden_text(256), "59 01 00");
  t.string_whole("String_300Bytes", golden_text(300), "59 01 2C");
  t.string_whole("String_65535Bytes", golden_text(65535), "59 FF FF");
  t.string_whole("String_65536Bytes", golden_text(65536), "5A 00 01 00 00");
  t.string_whole("String_70000Bytes", golden_text(70000), "5A 00 01 11 70");
  t.string_whole("String_Utf8",
                 "Gr\xC3\xBC\xC3\x9F"
                 "e \xE4\xB8\x96\xE7\x95\x8C \xF0\x9F\x98\x80",
                 "58 13");
  t.string_whole("String_EmbeddedNul", std::string("a\0b", 3), "53");
  // Read by value, a string is not validated; copying streams it, which does validate.
  t.string_whole("String_NotUtf8ByValue", "\xC3(\xFF", "53", Copy::kNone);
  t.add_hex(
      "String_CString", [](Writer& w) { w << "hello"; }, "55 68 65 6C 6C 6F",
      [](Reader& r) {
        std::string s;
        r.read_string(s);
        EXPECT_EQ(s, "hello");
      });
  t.add_hex(
      "String_WideToUtf8", [](Writer& w) { w << std::wstring(L"\u00e9\u20ac"); },
      "55 C3 A9 E2 82 AC",
      [](Reader& r) {
        std::wstring s;
        r >> s;
        EXPECT_EQ(s, std::wstring(L"\u00e9\u20ac"));
      });
  t.add_hex(
      "String_IntoSourceString", [](Writer& w) { w << std::string("key"); }, "53 6B 65 79",
      [](Reader& r) {
        SourceString s;
        r.read_string(s);
        EXPECT_EQ(s.view(), "key");
      });

  t.binary_whole("Binary_Empty", "", "90");
  t.binary_whole("Binary_1Byte", bytes("FF"), "91");
  t.binary_whole("Binary_7Bytes", pattern_string(0, 7), "97");
  t.binary_whole("Binary_8Bytes", pattern_string(0, 8), "98 08");
  t.binary_whole("Binary_255Bytes", pattern_string(0, 255), "98 FF");
  t.binary_whole("Binary_256Bytes", pattern_string(0, 256), "99 01 00");
  t.binary_whole("Binary_65535Bytes", pattern_string(0, 65535), "99 FF FF");
  t.binary_whole("Binary_65536Bytes", pattern_string(0, 65536), "9A 00 01 00 00");
}

void add_value_streams(Table& t) {
  using F = Table::EFinish;
  auto const text = [](std::size_t n) { return golden_text(n); };
  auto const data = [](std::size_t n) { return pattern_string(0, n); };
  std::string const s4095 = text(4095);
  std::string const s4096 = text(4096);
  std::string const s4097 = text(4097);

  // Below one chunk: the ordinary whole forms.
  t.value_stream("StreamString_Empty", true, "", {1}, bytes("50"), F::kLeftOpen, Copy::kIdentical);
  t.value_stream("StreamBinary_EmptyEndedByNextElement", false, "", {1}, bytes("90"),
                 F::kNextElement, Copy::kIdentical);
  t.value_stream("StreamString_EmptyEndedByNextElement", true, "", {1}, bytes("50"),
                 F::kNextElement, Copy::kIdentical);
  t.value_stream("StreamString_5BytesClosed", true, "hello", {2}, bytes("55") + "hello", F::kClose,
                 Copy::kIdentical);
  t.value_stream("StreamBinary_3BytesFlushed", false, bytes("01 02 03"), {3}, bytes("93 01 02 03"),
                 F::kFlush, Copy::kIdentical);
  t.value_stream("StreamString_4095Bytes", true, s4095, {1000}, bytes("59 0F FF") + s4095,
                 F::kLeftOpen, Copy::kIdentical);
  // Full buffers become 0x1000-byte chunks.
  t.value_stream("StreamString_4096BytesSmallPieces", true, s4096, {100},
                 bytes("5C 10 00") + s4096 + bytes("5F"), F::kLeftOpen, Copy::kIdentical);
  t.value_stream(
      "StreamString_4097Bytes", true, s4097, {4095, 2},
      bytes("5C 10 00") + s4097.substr(0, 4096) + bytes("5D 01") + s4097.substr(4096) + bytes("5F"),
      F::kNextElement, Copy::kIdentical);
  t.value_stream("StreamString_8193Bytes", true, text(8193), {1000},
                 chunked(0x50, text(8193), {4096, 4096, 1}), F::kLeftOpen, Copy::kIdentical);
  t.value_stream("StreamBinary_8193BytesOneByOne", false, data(8193), {1},
                 chunked(0x90, data(8193), {4096, 4096, 1}), F::kClose, Copy::kIdentical);
  t.value_stream("StreamBinary_8192Bytes", false, data(8192), {4095},
                 chunked(0x90, data(8192), {4096, 4096}), F::kLeftOpen, Copy::kIdentical);
  t.value_stream("StreamBinary_4396Bytes", false, data(4396), {1000},
                 chunked(0x90, data(4396), {4096, 300}), F::kLeftOpen, Copy::kIdentical);
  t.value_stream("StreamString_12500Bytes", true, text(12500), {999},
                 chunked(0x50, text(12500), {4096, 4096, 4096, 212}), F::kLeftOpen,
                 Copy::kIdentical);
  // A write of 4096 bytes or more into an empty buffer goes out directly, in chunks of at most
  // 65535 bytes.
  t.value_stream("StreamBinary_Direct4096", false, data(4096), {4096},
                 bytes("9C 10 00") + data(4096) + bytes("9F"), F::kLeftOpen, Copy::kIdentical);
  t.value_stream("StreamBinary_Direct65535", false, data(65535), {65535},
                 bytes("9C FF FF") + data(65535) + bytes("9F"), F::kLeftOpen, Copy::kEquivalent);
  t.value_stream(
      "StreamBinary_Direct65536", false, data(65536), {65536},
      bytes("9C FF FF") + data(65535) + bytes("9D 01") + data(65536).substr(65535) + bytes("9F"),
      F::kLeftOpen, Copy::kEquivalent);
  t.value_stream("StreamString_Direct200000", true, text(200000), {200000},
                 chunked(0x50, text(200000), {65535, 65535, 65535, 3395}), F::kNextElement,
                 Copy::kEquivalent);
  // Mixed: a buffered start fills up before the rest of a large write is buffered again.
  t.value_stream("StreamBinary_SmallThenLarge", false, data(5010), {10, 5000},
                 chunked(0x90, data(5010), {4096, 914}), F::kLeftOpen, Copy::kIdentical);
  t.value_stream("StreamBinary_LargeThenSmall", false, data(4106), {4096, 10},
                 chunked(0x90, data(4106), {4096, 10}), F::kLeftOpen, Copy::kIdentical);
  t.value_stream("StreamBinary_LargeAfterBufferEmptied", false, data(9096), {2048, 2048, 5000},
                 chunked(0x90, data(9096), {4096, 5000}), F::kLeftOpen, Copy::kEquivalent);
  t.add(
      "StreamBinary_ZeroSizedWrites",
      [](Writer& w) {
        auto const s = w.write_binary();
        s->write("", 0);
        s->write("", 0);
      },
      bytes("90"), [](Reader& r) { EXPECT_EQ(read_all(*r.read_binary()), ""); });
  t.add(
      "StreamString_EndedByNextStream",
      [](Writer& w) {
        w.write_string_stream()->write("ab", 2);
        w.write_binary()->write("cd", 2);
      },
      bytes("52 61 62 92 63 64"),
      [](Reader& r) {
        EXPECT_EQ(r.read_string(), "ab");
        EXPECT_EQ(read_all(*r.read_binary()), "cd");
      },
      Copy::kIdentical, 2);

  // Values taken from input streams.
  t.from_stream("FromStreamString_Known5", true, "hello", true, bytes("55") + "hello");
  t.from_stream("FromStreamString_Known0", true, "", true, bytes("50"));
  t.from_stream("FromStreamBinary_Known5000", false, data(5000), true,
                bytes("99 13 88") + data(5000));
  t.from_stream("FromStreamBinary_Known70000", false, data(70000), true,
                bytes("9A 00 01 11 70") + data(70000));
  t.from_stream("FromStreamBinary_Unknown0", false, "", false, bytes("90"));
  t.from_stream("FromStreamBinary_Unknown100", false, data(100), false, bytes("98 64") + data(100));
  t.from_stream("FromStreamString_Unknown4095", true, s4095, false, bytes("59 0F FF") + s4095);
  t.from_stream("FromStreamString_Unknown4096", true, s4096, false,
                bytes("5C 10 00") + s4096 + bytes("5F"));
  t.from_stream("FromStreamBinary_Unknown5000", false, data(5000), false,
                chunked(0x90, data(5000), {4096, 904}));
  t.from_stream("FromStreamBinary_Unknown4296", false, data(4296), false,
                chunked(0x90, data(4296), {4096, 200}));
  t.from_stream("FromStreamBinary_Unknown12288", false, data(12288), false,
                chunked(0x90, data(12288), {4096, 4096, 4096}));
}

void add_times_and_uuids(Table& t) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
  t.absolute("AbsoluteTime_Zero", 0, "60");
  t.absolute("AbsoluteTime_Infinite", kMax, "61");
  t.absolute("AbsoluteTime_1", 1, "64 00 00 00 01");
  t.absolute("AbsoluteTime_Minus1", -1, "64 FF FF FF FF");
  t.absolute("AbsoluteTime_2Pow31Minus1", 0x7FFFFFFF, "64 7F FF FF FF");
  t.absolute("AbsoluteTime_Minus2Pow31", -0x80000000LL, "64 80 00 00 00");
  t.absolute("AbsoluteTime_2Pow31", 0x80000000LL, "65 00 00 00 00 80 00 00 00");
  t.absolute("AbsoluteTime_Minus2Pow31Minus1", -0x80000001LL, "65 FF FF FF FF 7F FF FF FF");
  t.absolute("AbsoluteTime_2023", 1700000000000000000LL, "65 17 97 9C FE 36 2A 00 00");
  t.absolute("AbsoluteTime_MaxMinus1", kMax - 1, "65 7F FF FF FF FF FF FF FE");
  t.absolute("AbsoluteTime_Min", kMin, "65 80 00 00 00 00 00 00 00");
  t.relative("RelativeTime_Zero", 0, "70");
  t.relative("RelativeTime_Infinite", kMax, "71");
  t.relative("RelativeTime_Minus5", -5, "74 FF FF FF FB");
  t.relative("RelativeTime_1500", 1500, "74 00 00 05 DC");
  t.relative("RelativeTime_Minus2Pow31", -0x80000000LL, "74 80 00 00 00");
  t.relative("RelativeTime_2Pow31", 0x80000000LL, "75 00 00 00 00 80 00 00 00");
  t.relative("RelativeTime_Min", kMin, "75 80 00 00 00 00 00 00 00");

  struct UuidRow {
    char const* name;
    char const* binary;
    char const* hex;
  };
  for (UuidRow const& u : {
           UuidRow{"Uuid_Null", "00000000000000000000000000000000", "80"},
           UuidRow{"Uuid_Example", "123e4567e89b12d3a456426614174000",
                   "81 12 3E 45 67 E8 9B 12 D3 A4 56 42 66 14 17 40 00"},
           UuidRow{"Uuid_LastBitOnly", "00000000000000000000000000000001",
                   "81 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01"},
           UuidRow{"Uuid_AllOnes", "ffffffffffffffffffffffffffffffff",
                   "81 FF FF FF FF FF FF FF FF FF FF FF FF FF FF FF FF"},
       }) {
    Uuid const id = uuid_of(u.binary);
    t.add_hex(
        u.name, [id](Writer& w) { w << id; }, u.hex,
        [id](Reader& r) { EXPECT_EQ(r.read_uuid(), id); });
  }
}

void add_sequences_and_markers(Table& t) {
  t.null_sequence("Sequence_NoHintEmpty", std::nullopt, 0, "A0");
  t.null_sequence("Sequence_Hint0Empty", 0u, 0, "A0");
  t.null_sequence("Sequence_NoHint3", std::nullopt, 3, "A0");
  t.null_sequence("Sequence_Hint1", 1u, 1, "A1");
  t.null_sequence("Sequence_Hint2", 2u, 2, "A2");
  t.null_sequence("Sequence_Hint3", 3u, 3, "A3");
  t.null_sequence("Sequence_Hint4", 4u, 4, "A4");
  t.null_sequence("Sequence_Hint5", 5u, 5, "A5");
  t.null_sequence("Sequence_Hint6", 6u, 6, "A6");
  t.null_sequence("Sequence_Hint7", 7u, 7, "A7");
  t.null_sequence("Sequence_Hint8", 8u, 8, "A8 08");
  t.null_sequence("Sequence_Hint255", 255u, 255, "A8 FF");
  t.null_sequence("Sequence_Hint256", 256u, 256, "A9 01 00");
  t.null_sequence("Sequence_Hint65535", 65535u, 65535, "A9 FF FF");
  t.null_sequence("Sequence_Hint65536", 65536u, 65536, "AA 00 01 00 00");
  t.null_sequence("Sequence_NoHint300", std::nullopt, 300, "A0");

  auto const read_1_2 = [](unsigned hint) {
    return [hint](Reader& r) {
      EXPECT_EQ(r.read_sequence_start(), hint);
      EXPECT_TRUE(r.read_sequence_next());
      EXPECT_EQ(r.read_int32(), 1);
      EXPECT_TRUE(r.read_sequence_next());
      EXPECT_EQ(r.read_int32(), 2);
      EXPECT_FALSE(r.read_sequence_next());
    };
  };
  t.add_hex(
      "Sequence_IntsWithHint",
      [](Writer& w) {
        w.write_sequence_start(2);
        w << 1;
        w.write_sequence_separator();
        w << 2;
        w.write_sequence_end();
      },
      "A2 21 AE 24 02 AF", read_1_2(2));
  t.add_hex(
      "Sequence_IntsWithoutHint",
      [](Writer& w) {
        w.write_sequence_start();
        w << 1;
        w.write_sequence_separator();
        w << 2;
        w.write_sequence_end();
      },
      "A0 21 AE 24 02 AF", read_1_2(0));
  t.add_hex(
      "Sequence_Nested",
      [](Writer& w) {
        w.write_sequence_start(3);
        w.write_sequence_start(1);
        w << 1;
        w.write_sequence_end();
        w.write_sequence_separator();
        w.write_sequence_start();
        w.write_sequence_end();
        w.write_sequence_separator();
        w.write_sequence_start(2);
        w << 2;
        w.write_sequence_separator();
        w << 3;
        w.write_sequence_end();
        w.write_sequence_end();
      },
      "A3 A1 21 AF AE A0 AF AE A2 24 02 AE 24 03 AF AF",
      [](Reader& r) {
        EXPECT_EQ(r.read_sequence_start(), 3u);
        EXPECT_TRUE(r.read_sequence_next());
        EXPECT_EQ(r.read_sequence_start(), 1u);
        EXPECT_TRUE(r.read_sequence_next());
        EXPECT_EQ(r.read_int32(), 1);
        EXPECT_FALSE(r.read_sequence_next());
        EXPECT_TRUE(r.read_sequence_next());
        EXPECT_EQ(r.read_sequence_start(), 0u);
        EXPECT_FALSE(r.read_sequence_next());
        EXPECT_TRUE(r.read_sequence_next());
        EXPECT_EQ(r.read_sequence_start(), 2u);
        EXPECT_TRUE(r.read_sequence_next());
        EXPECT_EQ(r.read_int32(), 2);
        EXPECT_TRUE(r.read_sequence_next());
        EXPECT_EQ(r.read_int32(), 3);
        EXPECT_FALSE(r.read_sequence_next());
        EXPECT_FALSE(r.read_sequence_next());
      });

  t.add_hex(
      "Marker_HoldingTrue",
      [](Writer& w) {
        w.write_marker_start();
        w << true;
        w.write_marker_end();
      },
      "B0 11 BF",
      [](Reader& r) {
        r.read_marker_start();
        EXPECT_FALSE(r.read_marker_is_end());
        EXPECT_TRUE(r.read_bool());
        EXPECT_TRUE(r.read_marker_is_end());
        r.read_marker_end();
      });
  t.add_hex(
      "Marker_Empty",
      [](Writer& w) {
        w.write_marker_start();
        w.write_marker_end();
      },
      "B0 BF",
      [](Reader& r) {
        r.read_marker_start();
        EXPECT_TRUE(r.read_marker_is_end());
        r.read_marker_end();
      });
  t.add_hex(
      "Marker_Nested",
      [](Writer& w) {
        w.write_marker_start();
        w.write_marker_start();
        w << true;
        w.write_marker_end();
        w << 0;
        w.write_marker_end();
      },
      "B0 B0 11 BF 20 BF",
      [](Reader& r) {
        r.read_marker_start();
        r.read_marker_start();
        EXPECT_TRUE(r.read_bool());
        r.read_marker_end();
        EXPECT_EQ(r.read_int32(), 0);
        r.read_marker_end();
      });
  t.add_hex(
      "Marker_InSequence",
      [](Writer& w) {
        w.write_sequence_start(2);
        w.write_marker_start();
        w << true;
        w.write_marker_end();
        w.write_sequence_separator();
        w.write_marker_start();
        w.write_marker_end();
        w.write_sequence_end();
      },
      "A2 B0 11 BF AE B0 BF AF",
      [](Reader& r) {
        EXPECT_EQ(r.read_sequence_start(), 2u);
        EXPECT_TRUE(r.read_sequence_next());
        r.read_marker_start();
        EXPECT_TRUE(r.read_bool());
        r.read_marker_end();
        EXPECT_TRUE(r.read_sequence_next());
        r.read_marker_start();
        r.read_marker_end();
        EXPECT_FALSE(r.read_sequence_next());
      });
  t.add_hex(
      "Marker_HoldingSequence",
      [](Writer& w) {
        w.write_marker_start();
        w.write_sequence_start(1);
        w << 0;
        w.write_sequence_end();
        w.write_marker_end();
      },
      "B0 A1 20 AF BF",
      [](Reader& r) {
        r.read_marker_start();
        EXPECT_EQ(r.read_sequence_start(), 1u);
        EXPECT_TRUE(r.read_sequence_next());
        EXPECT_EQ(r.read_int32(), 0);
        EXPECT_FALSE(r.read_sequence_next());
        r.read_marker_end();
      });
  // A newer writer appended fields that an older reader does not know: marker end skips them.
  t.add_hex(
      "Marker_UnreadTailSkipped",
      [](Writer& w) {
        w.write_marker_start();
        w << true << std::string("abc");
        w.write_sequence_start(1);
        w << 0;
        w.write_sequence_end();
        w.write_marker_start();
        w << false;
        w.write_marker_end();
        w.write_binary()->write("\xBF\xBF", 2);
        w.write_marker_end();
        w.write_null();
      },
      "B0 11 53 61 62 63 A1 20 AF B0 10 BF 92 BF BF BF 00",
      [](Reader& r) {
        r.read_marker_start();
        EXPECT_TRUE(r.read_bool());
        r.read_marker_end();
        r.read_null();
      },
      2);
  t.add_hex(
      "Marker_SourceLocation", [](Writer& w) { w << SourceLocation("fn()", "file", 42); },
      "B0 54 66 6E 28 29 54 66 69 6C 65 34 2A BF",
      [](Reader& r) {
        SourceLocation loc;
        r >> loc;
        EXPECT_EQ(loc.function().view(), "fn()");
        EXPECT_EQ(loc.file().view(), "file");
        EXPECT_EQ(loc.line(), 42u);
      });
  t.add_hex(
      "Document_Mixed",
      [](Writer& w) {
        w.write_marker_start();
        w << 100000 << std::string("abc") << -0.0;
        w.write_sequence_start(2);
        w << AbsoluteTime(1);
        w.write_sequence_separator();
        w << Uuid();
        w.write_sequence_end();
        w << RelativeTime::infinite();
        w.write_binary()->write("xyz", 3);
        w.write_marker_end();
        w << true;
      },
      "B0 26 00 01 86 A0 53 61 62 63 44 80 00 A2 64 00 00 00 01 AE 80 AF 71 93 78 79 7A BF 11",
      [](Reader& r) {
        r.read_marker_start();
        EXPECT_EQ(r.read_int32(), 100000);
        EXPECT_EQ(r.read_string(), "abc");
        EXPECT_EQ(std::bit_cast<std::uint64_t>(r.read_double()), 0x8000000000000000u);
        EXPECT_EQ(r.read_sequence_start(), 2u);
        EXPECT_TRUE(r.read_sequence_next());
        EXPECT_EQ(r.read_absolute_time().count(), 1);
        EXPECT_TRUE(r.read_sequence_next());
        EXPECT_TRUE(r.read_uuid().is_null());
        EXPECT_FALSE(r.read_sequence_next());
        EXPECT_EQ(r.next_token(), Reader::EToken::RelativeTime);
        EXPECT_TRUE(r.read_relative_time().is_infinite());
        EXPECT_EQ(read_all(*r.read_binary(), 1), "xyz");
        EXPECT_TRUE(r.read_marker_is_end());
        r.read_marker_end();
        EXPECT_TRUE(r.read_bool());
      },
      2);
}

void add_read_only_forms(Table& t) {
  // Sized markers: the size counts the bytes between the size field and the end tag.
  auto const read_true_marker = [](Reader& r) {
    r.read_marker_start();
    EXPECT_FALSE(r.read_marker_is_end());
    EXPECT_TRUE(r.read_bool());
    EXPECT_TRUE(r.read_marker_is_end());
    r.read_marker_end();
  };
  t.read_only("SizedMarker_1ByteField", "B4 01 11 BF", read_true_marker);
  t.read_only("SizedMarker_2ByteField", "B5 00 01 11 BF", read_true_marker);
  t.read_only("SizedMarker_4ByteField", "B6 00 00 00 01 11 BF", read_true_marker);
  t.read_only("SizedMarker_8ByteField", "B7 00 00 00 00 00 00 00 01 11 BF", read_true_marker);
  t.read_only("SizedMarker_Size0", "B4 00 BF", [](Reader& r) {
    r.read_marker_start();
    EXPECT_TRUE(r.read_marker_is_end());
    r.read_marker_end();
  });
  // Nothing of the marker read: its end skips the declared size and finds the end tag.
  t.read_only(
      "SizedMarker_SkippedWhole", "B4 05 B4 01 11 BF 20 BF 00",
      [](Reader& r) {
        r.read_marker_start();
        r.read_marker_end();
        r.read_null();
      },
      2);
  t.read_only("SizedMarker_InnerSkipped", "B4 07 B4 03 10 11 10 BF 20 BF", [](Reader& r) {
    r.read_marker_start();
    r.read_marker_start();
    r.read_marker_end();
    EXPECT_EQ(r.read_int32(), 0);
    r.read_marker_end();
  });

  // Longer forms than a writer picks.
  t.read_only("NonMinimal_Int4Bytes", "26 00 00 00 05",
              [](Reader& r) { EXPECT_EQ(r.read_int8(), 5); });
  t.read_only("NonMinimal_Int16BytesNegative", "28 " + rep("FF", 15) + "FE",
              [](Reader& r) { EXPECT_EQ(r.read_int16(), -2); });
  t.read_only("NonMinimal_Uint1ByteZero", "34 00",
              [](Reader& r) { EXPECT_EQ(r.read_uint64(), 0u); });
  t.read_only("NonMinimal_Uint64BytesSmall", "3A " + rep("00", 63) + "07",
              [](Reader& r) { EXPECT_EQ(r.read_uint8(), 7); });
  t.read_only("NonMinimal_DoubleOne", "44 3F F0",
              [](Reader& r) { EXPECT_EQ(r.read_double(), 1.0); });
  t.read_only("NonMinimal_DoubleZero8Bytes", "47 00 00 00 00 00 00 00 00",
              [](Reader& r) { EXPECT_EQ(std::bit_cast<std::uint64_t>(r.read_double()), 0u); });
  t.read_only("NonMinimal_StringLength1", "58 03 61 62 63",
              [](Reader& r) { EXPECT_EQ(r.read_string(), "abc"); });
  t.read_only("NonMinimal_StringLength2", "59 00 03 61 62 63",
              [](Reader& r) { EXPECT_EQ(r.read_string(), "abc"); });
  t.read_only("NonMinimal_StringLength4", "5A 00 00 00 03 61 62 63",
              [](Reader& r) { EXPECT_EQ(r.read_string(), "abc"); });
  t.read_only("NonMinimal_BinaryLength4", "9A 00 00 00 02 AA BB",
              [](Reader& r) { EXPECT_EQ(read_all(*r.read_binary()), bytes("AA BB")); });
  t.read_only("NonMinimal_Time4BytesZero", "64 00 00 00 00",
              [](Reader& r) { EXPECT_EQ(r.read_absolute_time().count(), 0); });
  t.read_only("NonMinimal_Time8BytesSmall", "75 FF FF FF FF FF FF FF FB",
              [](Reader& r) { EXPECT_EQ(r.read_relative_time().count(), -5); });
  t.read_only("NonMinimal_UuidZero16Bytes", "81 " + rep("00", 16),
              [](Reader& r) { EXPECT_TRUE(r.read_uuid().is_null()); });
  t.read_only("NonMinimal_SequenceHint1Byte", "A8 02 21 AE 21 AF", [](Reader& r) {
    EXPECT_EQ(r.read_sequence_start(), 2u);
    EXPECT_TRUE(r.read_sequence_next());
    r.skip_element();
    EXPECT_TRUE(r.read_sequence_next());
    r.skip_element();
    EXPECT_FALSE(r.read_sequence_next());
  });
  // The 8-byte count hint is accepted although no writer produces it.
  t.read_only("SequenceHint8Bytes", "AB 00 00 00 00 00 00 00 02 21 AE 21 AF", [](Reader& r) {
    EXPECT_EQ(r.read_sequence_start(), 2u);
    EXPECT_TRUE(r.read_sequence_next());
    EXPECT_EQ(r.read_int32(), 1);
    EXPECT_TRUE(r.read_sequence_next());
    EXPECT_EQ(r.read_int32(), 1);
    EXPECT_FALSE(r.read_sequence_next());
  });
  t.read_only("SequenceHint4Bytes", "AA 00 00 00 01 20 AF", [](Reader& r) {
    EXPECT_EQ(r.read_sequence_start(), 1u);
    EXPECT_TRUE(r.read_sequence_next());
    EXPECT_EQ(r.read_int32(), 0);
    EXPECT_FALSE(r.read_sequence_next());
  });

  // Chunk forms: 1-byte first chunk, empty chunks, chunks of 3, 0 and 2 bytes.
  t.read_only("Chunked_String3_0_2", "5B 03 61 62 63 5D 00 5E 00 02 64 65 5F",
              [](Reader& r) { EXPECT_EQ(r.read_string(), "abcde"); });
  t.read_only("Chunked_Binary3_0_2", "9B 03 01 02 03 9D 00 9E 00 02 04 05 9F",
              [](Reader& r) { EXPECT_EQ(read_all(*r.read_binary(), 2), bytes("01 02 03 04 05")); });
  t.read_only("Chunked_StringEmpty", "5B 00 5F", [](Reader& r) { EXPECT_EQ(r.read_string(), ""); });
  t.read_only("Chunked_BinaryEmptyFirst2Bytes", "9C 00 00 9D 01 AA 9F",
              [](Reader& r) { EXPECT_EQ(read_all(*r.read_binary()), bytes("AA")); });
  t.read_only("Chunked_StringMultiByteAcrossChunks", "5B 02 E2 82 5D 01 AC 5F",
              [](Reader& r) { EXPECT_EQ(r.read_string(), "\xE2\x82\xAC"); });
}

}  // namespace

std::string golden_text(std::size_t size) {
  static constexpr std::string_view kUnits[] = {"a", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80",
                                                "Z", "\xD0\x96", "\xE4\xB8\x96"};
  std::string out;
  out.reserve(size);
  std::size_t i = 0;
  while (out.size() < size) {
    std::string_view const unit = kUnits[i++ % std::size(kUnits)];
    if (unit.size() <= size - out.size()) {
      out += unit;
    } else {
      out.push_back('.');
    }
  }
  return out;
}

std::string read_all(zoserialize::IReadStream& stream, unsigned block) {
  std::string out;
  std::string buffer(block, '\0');
  for (;;) {
    unsigned const got = stream.read(buffer.data(), block);
    out.append(buffer.data(), got);
    if (got < block) return out;
  }
}

std::vector<BinaryGoldenCase> const& binary_golden_cases() {
  static std::vector<BinaryGoldenCase> const rows = [] {
    Table t;
    t.add_hex(
        "Null", [](Writer& w) { w.write_null(); }, "00", [](Reader& r) { r.read_null(); });
    t.add_hex(
        "Null_TryRead", [](Writer& w) { w.write_null(); }, "00",
        [](Reader& r) { EXPECT_TRUE(r.try_read_null()); });
    t.typed("Bool_False", false, "10");
    t.typed("Bool_True", true, "11");
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
  for (BinaryGoldenCase const& row : binary_golden_cases()) {
    if (row.write) out.push_back(row);
  }
  return out;
}

void PrintTo(BinaryGoldenCase const& row, std::ostream* os) {
  *os << row.name;
}

}  // namespace zotest
