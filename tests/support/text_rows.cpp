#include <bit>
#include <cstdint>
#include <limits>
#include <ostream>

#include <support/test_streams.h>
#include <support/text_rows.h>
#include <zocore/memory_stream.h>

namespace zotest {
namespace {

using zoserialize::AbsoluteTime;
using zoserialize::RelativeTime;
using zoserialize::Uuid;
using zoserialize::Writer;
using Write = std::function<void(Writer&)>;

template <class T>
Write value(T v) {
  return [v](Writer& w) { w << v; };
}

// An integer image of any width, given as bytes.
Write signed_image(std::string image) {
  return [image](Writer& w) {
    w.write_int_big_endian(image.data(), static_cast<unsigned>(image.size()));
  };
}

Write unsigned_image(std::string image) {
  return [image](Writer& w) {
    w.write_uint_big_endian(image.data(), static_cast<unsigned>(image.size()));
  };
}

Write bits(std::uint64_t b) {
  return value(std::bit_cast<double>(b));
}

Write text(std::string s) {
  return [s](Writer& w) { w << s; };
}

Write binary(std::string b) {
  return [b](Writer& w) { w.write_binary(b.data(), static_cast<unsigned>(b.size())); };
}

Write absolute(int y, unsigned mo, unsigned d, unsigned h = 0, unsigned mi = 0, unsigned s = 0,
               unsigned ns = 0) {
  AbsoluteTime t;
  AbsoluteTime::from_components_nothrow({y, mo, d, h, mi, s, ns}, &t);
  return value(t);
}

std::string base64_of_pattern(std::size_t n);

std::vector<TextRow> make_rows() {
  std::string const pattern3073 = pattern_string(0, 3073);
  return {
      {"Null", [](Writer& w) { w.write_null(); }, "Z"},
      {"True", value(true), "Y"},
      {"False", value(false), "N"},
      // Signed integers: decimal while they fit 3 bytes, then the shortest signed hex.
      {"Int0", value(0), "+"},
      {"IntMinus1", value(-1), "-1"},
      {"Int127", value(127), "+127"},
      {"Int128", value(128), "+128"},
      {"IntMinus128", value(-128), "-128"},
      {"Int8388607", value(8388607), "+8388607"},
      {"Int8388608", value(8388608), "I0800000"},
      {"IntMinus8388608", value(-8388608), "-8388608"},
      {"IntMinus8388609", value(-8388609), "If7fffff"},
      {"Int0x00FFFFFF", value(0x00FFFFFF), "I0ffffff"},
      {"IntMinus16777216", value(-16777216), "If000000"},
      {"Int2Pow32", value(std::int64_t{1} << 32), "I100000000"},
      {"IntMinus2Pow31", value(std::numeric_limits<std::int32_t>::min()), "I80000000"},
      {"Int64Min", value(std::numeric_limits<std::int64_t>::min()), "I8000000000000000"},
      {"Int64Max", value(std::numeric_limits<std::int64_t>::max()), "I7fffffffffffffff"},
      {"Int8Minus1", value(char(-1)), "-1"},
      {"Int16Bytes2Pow64", signed_image(std::string("\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0\0", 16)),
       "I10000000000000000"},
      {"Int16BytesMinus2Pow64",
       signed_image(std::string("\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\0\0\0\0\0\0\0\0", 16)),
       "If0000000000000000"},
      {"IntEmptyImage", signed_image(""), "+"},
      // Unsigned integers.
      {"Uint0", value(0u), "U"},
      {"Uint255Byte", value(static_cast<unsigned char>(255)), "U255"},
      {"Uint16777215", value(16777215u), "U16777215"},
      {"Uint16777216", value(16777216u), "X1000000"},
      {"Uint0x0abcdef0", value(0x0abcdef0u), "Xabcdef0"},
      {"Uint0xF0000000", value(0xF0000000u), "Xf0000000"},
      {"Uint64Max", value(std::numeric_limits<std::uint64_t>::max()), "Xffffffffffffffff"},
      {"UintEmptyImage", unsigned_image(""), "U"},
      // Doubles: the bits in hex without trailing zero digits.
      {"DoubleOne", value(1.0), "R3ff"},
      {"DoublePlusZero", value(0.0), "R"},
      {"DoubleMinusZero", value(-0.0), "R8"},
      {"DoubleMinusOnePointFive", value(-1.5), "Rbff8"},
      {"DoublePointOne", value(0.1), "R3fb999999999999a"},
      {"FloatPointOne", value(0.1f), "R3fb99999a"},
      {"DoubleInfinity", bits(0x7FF0000000000000), "R7ff"},
      {"DoubleLowBit", bits(1), "R0000000000000001"},
      {"DoubleQuietNaN", bits(0x7FF8000000000000), "R7ff8", true, false},
      // Strings: only control characters, '"', '~' and 0x7F are escaped by default.
      {"StringEmpty", text(""), "S"},
      {"StringSpace", text("a b"), "\"a b\""},
      {"StringEscapes", text("~\"\x01"), "\"~7e~22~01\""},
      {"StringControls", text("\t\n\r\x1f\x7f"), "\"~09~0a~0d~1f~7f\""},
      {"StringUtf8", text("caf\xC3\xA9 \xE2\x82\xAC"), "\"caf\xC3\xA9 \xE2\x82\xAC\""},
      {"StringTagsInside", text("(Z,{[}]) +-IUX"), "\"(Z,{[}]) +-IUX\""},
      {"StringEmptyStream", [](Writer& w) { w.write_string_stream(); }, "S"},
      {"StringStreamEmptyWrite", [](Writer& w) { w.write_string_stream()->write("", 0); }, "S"},
      {"StringStreamShort",
       [](Writer& w) {
         auto s = w.write_string_stream();
         s->write("a", 1);
         s->write("~b", 2);
       },
       "\"a~7eb\""},
      // Absolute times: each field while it or a finer one is not zero.
      {"AbsoluteMidnight", absolute(2018, 3, 5), "T20180305"},
      {"AbsoluteNoon", absolute(2018, 3, 5, 12), "T2018030512"},
      {"AbsoluteMinute", absolute(2018, 3, 5, 12, 34), "T201803051234"},
      {"AbsoluteSecond", absolute(2018, 3, 5, 0, 0, 56), "T20180305000056"},
      {"AbsoluteHalfSecond", absolute(2018, 3, 5, 12, 0, 0, 500000000), "T20180305120000.5"},
      {"AbsoluteNanosecond", value(AbsoluteTime(1)), "T19700101000000.000000001"},
      {"AbsoluteZero", value(AbsoluteTime(0)), "T19700101"},
      {"AbsoluteMin", value(AbsoluteTime(std::numeric_limits<std::int64_t>::min())),
       "T16770921001243.145224192"},
      {"AbsoluteMaxMinus1", value(AbsoluteTime(std::numeric_limits<std::int64_t>::max() - 1)),
       "T22620411234716.854775806"},
      {"AbsoluteInfinite", value(AbsoluteTime::infinite()), "T"},
      // Relative times: seconds with up to nine decimals; P for not negative, Q for negative.
      {"RelativeZero", value(RelativeTime(0)), "P0"},
      {"RelativeOneSecond", value(RelativeTime(1000000000)), "P1"},
      {"RelativeOnePointFive", value(RelativeTime(1500000000)), "P1.5"},
      {"RelativeQuarter", value(RelativeTime(250000000)), "P.25"},
      {"RelativeMinus2ns", value(RelativeTime(-2)), "Q.000000002"},
      {"RelativeMinusOnePointFive", value(RelativeTime(-1500000000)), "Q1.5"},
      {"RelativeMin", value(RelativeTime(std::numeric_limits<std::int64_t>::min())),
       "Q9223372036.854775808"},
      {"RelativeMaxMinus1", value(RelativeTime(std::numeric_limits<std::int64_t>::max() - 1)),
       "P9223372036.854775806"},
      {"RelativeInfinite", value(RelativeTime::infinite()), "P"},
      // UUIDs.
      {"UuidNull", value(Uuid()), "K"},
      {"Uuid", value(Uuid::from_string("123e4567-e89b-12d3-a456-426614174000", 36)),
       "K123e4567e89b12d3a456426614174000"},
      // Binaries: base64 without padding.
      {"BinaryEmpty", binary(""), "[]"},
      {"BinaryOneByte", binary(std::string(1, '\0')), "[AA]"},
      {"BinaryHi", binary("hi"), "[aGk]"},
      {"BinaryThreeBytes", binary("\xFF\xFE\xFD"), "[//79]"},
      {"Binary3072Bytes", binary(pattern3073.substr(0, 3072)), "[" + base64_of_pattern(3072) + "]"},
      {"Binary3073Bytes", binary(pattern3073), "[" + base64_of_pattern(3073) + "]"},
      {"BinaryStream",
       [pattern3073](Writer& w) {
         auto s = w.write_binary();
         for (std::size_t at = 0; at < pattern3073.size(); at += 1000)
           s->write(pattern3073.data() + at,
                    static_cast<unsigned>(std::min<std::size_t>(1000, pattern3073.size() - at)));
       },
       "[" + base64_of_pattern(3073) + "]"},
      {"BinaryFromSource",
       [pattern3073](Writer& w) {
         zocore::MemoryReadStream source(pattern3073);
         w.write_binary(source);
       },
       "[" + base64_of_pattern(3073) + "]"},
      {"StringFromEmptySource",
       [](Writer& w) {
         zocore::MemoryReadStream source("");
         w.write_string_stream(source);
       },
       "S"},
      // Sequences and markers.
      {"SequenceEmpty",
       [](Writer& w) {
         w.write_sequence_start();
         w.write_sequence_end();
       },
       "()"},
      {"SequenceHint3",
       [](Writer& w) {
         w.write_sequence_start(3);
         for (int i = 1; i <= 3; ++i) {
           if (i != 1) w.write_sequence_separator();
           w << i;
         }
         w.write_sequence_end();
       },
       "(3+1,+2,+3)"},
      {"SequenceNested",
       [](Writer& w) {
         w.write_sequence_start(2);
         w.write_sequence_start();
         w.write_sequence_end();
         w.write_sequence_separator();
         w.write_sequence_start(1);
         w.write_null();
         w.write_sequence_end();
         w.write_sequence_end();
       },
       "(2(),(1Z))"},
      {"MarkerEmpty",
       [](Writer& w) {
         w.write_marker_start();
         w.write_marker_end();
       },
       "{}"},
      {"MarkerNested",
       [](Writer& w) {
         w.write_marker_start();
         w << 1;
         w.write_marker_start();
         w.write_marker_end();
         w.write_marker_end();
       },
       "{+1{}}"},
      {"WorkedExample", write_worked_example,
       "{(3+5,\"a b\",Y)}R3ffT2018030512P1.5[aGk]KX12345678"},
      // Forms only the reader accepts.
      {"ReadMinusZero", value(0), "-0", false},
      {"ReadBareMinus", value(0), "-", false},
      {"ReadLeadingZeros", value(5), "+0005", false},
      {"ReadBareI", value(0), "I", false},
      {"ReadOddNegativeHex", value(-8), "I8", false},
      {"ReadLongHex", value(-1), "Iffffffffffffffffffff", false},
      {"ReadBareX", value(0u), "X", false},
      {"ReadShortX", value(255u), "X0ff", false},
      {"ReadUintLeadingZeros", value(7u), "U007", false},
      {"ReadDoubleAllDigits", value(1.0), "R3ff0000000000000", false},
      {"ReadAbsoluteZeroFields", absolute(2018, 3, 5, 12), "T20180305120000", false},
      {"ReadAbsoluteFractionZeros", absolute(2018, 3, 5, 12, 0, 0, 500000000),
       "T20180305120000.500", false},
      {"ReadRelativeZeroFraction", value(RelativeTime(250000000)), "P0.250", false},
      {"ReadRelativeMinusZero", value(RelativeTime(0)), "Q0", false},
      {"ReadRelativeExplicitMax", value(RelativeTime::infinite()), "P9223372036.854775807", false},
      {"ReadUuidZeros", value(Uuid()), "K00000000000000000000000000000000", false},
      {"ReadSequenceHintZero",
       [](Writer& w) {
         w.write_sequence_start();
         w.write_sequence_end();
       },
       "(0)", false},
  };
}

char const kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Unpadded base64 of the first n pattern bytes, computed here bit by bit rather than with the
// codec under test.
std::string base64_of_pattern(std::size_t n) {
  std::string const data = pattern_string(0, n);
  std::string out;
  unsigned acc = 0;
  int nbits = 0;
  for (unsigned char const c : data) {
    acc = (acc << 8) | c;
    nbits += 8;
    while (nbits >= 6) {
      nbits -= 6;
      out.push_back(kBase64Alphabet[(acc >> nbits) & 63]);
    }
  }
  if (nbits > 0) out.push_back(kBase64Alphabet[(acc << (6 - nbits)) & 63]);
  return out;
}

}  // namespace

void write_worked_example(Writer& w) {
  w.write_marker_start();
  w.write_sequence_start(3);
  w.write_int32(5);
  w.write_sequence_separator();
  w << "a b";
  w.write_sequence_separator();
  w << true;
  w.write_sequence_end();
  w.write_marker_end();
  w << 1.0;
  AbsoluteTime t;
  AbsoluteTime::from_components_nothrow({2018, 3, 5, 12}, &t);
  w << t << RelativeTime(1500000000);
  w.write_binary("hi", 2);
  w << Uuid();
  w.write_uint32(0x12345678);
}

std::vector<TextRow> const& text_rows() {
  static std::vector<TextRow> const rows = make_rows();
  return rows;
}

void PrintTo(TextRow const& row, std::ostream* os) {
  *os << row.name;
}

}  // namespace zotest
