#include <cstdint>
#include <string>
#include <utility>

#include <support/hex_bytes.h>
#include <support/test_streams.h>
#include <support/text_golden.h>

namespace zotest {
namespace {

constexpr char kHex[] = "0123456789abcdef";

// The expected texts are built here from the grammar's rules, byte by byte and bit by bit, rather
// than with the codecs under test.

// A string with the default escapes: control characters, '"', '~' and 0x7F as `~` and two hex
// digits.
std::string quoted(std::string const& bytes) {
  if (bytes.empty()) return "S";
  std::string out = "\"";
  for (char const c : bytes) {
    auto const b = static_cast<unsigned char>(c);
    if (b < 0x20 || b == '"' || b == '~' || b == 0x7F) {
      out += '~';
      out += kHex[b >> 4];
      out += kHex[b & 15];
    } else {
      out += c;
    }
  }
  return out + "\"";
}

// `[`, unpadded base64, `]`.
std::string binary(std::string const& bytes) {
  std::string out = "[";
  append_base64(out, bytes, false);
  return out + "]";
}

// `R` and the lowercase hex of the bits without trailing zero digits.
std::string real(std::string bits_hex) {
  for (char& c : bits_hex)
    c = static_cast<char>(c >= 'A' && c <= 'F' ? c - 'A' + 'a' : c);
  while (!bits_hex.empty() && bits_hex.back() == '0')
    bits_hex.pop_back();
  return "R" + bits_hex;
}

std::string repeat(std::string const& s, std::size_t n) {
  std::string out;
  for (std::size_t i = 0; i < n; ++i)
    out += s;
  return out;
}

// `(`, the hint, n nulls with separators, `)`.
std::string nulls(std::string const& hint, unsigned n) {
  std::string out = "(" + hint;
  for (unsigned i = 0; i < n; ++i)
    out += i == 0 ? "Z" : ",Z";
  return out + ")";
}

using Pairs = std::initializer_list<std::pair<char const*, std::string>>;

void add_all(GoldenColumn& c, Pairs rows) {
  for (auto const& [row, text] : rows)
    c.add(row, text);
}

void add_scalars(GoldenColumn& c) {
  add_all(c, {{"Null", "Z"},
              {"Bool_False", "N"},
              {"Bool_True", "Y"},
              {"Null_TryRead", "ZY"},
              {"Int8_0", "+"},
              {"Int8_1", "+1"},
              {"Int8_Minus1", "-1"},
              {"Int8_127", "+127"},
              {"Int8_Minus128", "-128"},
              {"Int16_128", "+128"},
              {"Int16_Minus129", "-129"},
              {"Int16_32767", "+32767"},
              {"Int16_Minus32768", "-32768"},
              {"Int32_32768", "+32768"},
              {"Int32_Minus32769", "-32769"},
              {"Int32_Max", "I7fffffff"},
              {"Int32_Min", "I80000000"},
              {"Long_5", "+5"},
              {"Int64_Minus1", "-1"},
              {"Int64_2Pow31", "I080000000"},
              {"Int64_Minus2Pow31Minus1", "If7fffffff"},
              {"Int64_Max", "I7fffffffffffffff"},
              {"Int64_Min", "I8000000000000000"},
              {"Uint8_0", "U"},
              {"Uint8_1", "U1"},
              {"Uint8_2", "U2"},
              {"Uint8_255", "U255"},
              {"Uint16_256", "U256"},
              {"Uint16_65535", "U65535"},
              {"Uint32_65536", "U65536"},
              {"Uint32_Max", "Xffffffff"},
              {"Uint64_2Pow32", "X100000000"},
              {"Uint64_Max", "Xffffffffffffffff"},
              {"ULong_300", "U300"},
              {"SignedImage_Empty", "+"},
              {"SignedImage_3Bytes", "+74565"},
              {"SignedImage_3BytesNegative", "-74565"},
              {"SignedImage_8BytesOne", "+1"},
              {"SignedImage_5BytesFitsIn8", "I080000000"},
              {"SignedImage_16BytesMinus1", "-1"},
              {"SignedImage_12Bytes128", "+128"},
              {"SignedImage_128Bytes5", "+5"},
              {"SignedImage_9Bytes2Pow63", "I08000000000000000"},
              {"SignedImage_9BytesMinus2Pow63Minus1", "If7fffffffffffffff"},
              {"SignedImage_16BytesMax", "I7f" + repeat("ff", 15)},
              {"SignedImage_17Bytes", "I080" + repeat("00", 15)},
              {"SignedImage_32BytesMax", "I7f" + repeat("ff", 31)},
              {"SignedImage_33Bytes", "I080" + repeat("00", 31)},
              {"SignedImage_64BytesMax", "I7f" + repeat("ff", 63)},
              {"SignedImage_64BytesMin", "I80" + repeat("00", 63)},
              {"SignedImage_65BytesRedundantZero", "I7f" + repeat("ff", 63)},
              {"SignedImage_65BytesRedundantOnes", "I80" + repeat("00", 63)},
              {"UnsignedImage_Empty", "U"},
              {"UnsignedImage_8BytesOne", "U1"},
              {"UnsignedImage_3Bytes", "U8388609"},
              {"UnsignedImage_16Bytes2Pow32", "X100000000"},
              {"UnsignedImage_9Bytes2Pow64", "X1" + repeat("00", 8)},
              {"UnsignedImage_16BytesMax", "X" + repeat("ff", 16)},
              {"UnsignedImage_17Bytes", "X1" + repeat("00", 16)},
              {"UnsignedImage_32BytesMax", "X" + repeat("ff", 32)},
              {"UnsignedImage_33Bytes", "X1" + repeat("00", 32)},
              {"UnsignedImage_63BytesMax", "X" + repeat("ff", 63)},
              {"UnsignedImage_64BytesTopZero", "X" + repeat("ff", 63)}});
  for (GoldenDouble const& d : golden_doubles())
    c.add(std::string("Double_") + d.name, real(d.bits));
  c.add("Float_PointOne", real("3FB99999A0000000"));
  add_all(c, {{"AbsoluteTime_Zero", "T19700101"},
              {"AbsoluteTime_Infinite", "T"},
              {"AbsoluteTime_Minus1", "T19691231235959.999999999"},
              {"AbsoluteTime_2Pow31Minus1", "T19700101000002.147483647"},
              {"AbsoluteTime_Minus2Pow31", "T19691231235957.852516352"},
              {"AbsoluteTime_2Pow31", "T19700101000002.147483648"},
              {"AbsoluteTime_Minus2Pow31Minus1", "T19691231235957.852516351"},
              {"AbsoluteTime_MaxMinus1", "T22620411234716.854775806"},
              {"AbsoluteTime_Min", "T16770921001243.145224192"},
              {"RelativeTime_Zero", "P0"},
              {"RelativeTime_Infinite", "P"},
              {"RelativeTime_Minus1", "Q.000000001"},
              {"RelativeTime_2Pow31Minus1", "P2.147483647"},
              {"RelativeTime_Minus2Pow31", "Q2.147483648"},
              {"RelativeTime_2Pow31", "P2.147483648"},
              {"RelativeTime_Minus2Pow31Minus1", "Q2.147483649"},
              {"RelativeTime_MaxMinus1", "P9223372036.854775806"},
              {"RelativeTime_Min", "Q9223372036.854775808"},
              {"Uuid_Null", "K"},
              {"Uuid_Example", "K123e4567e89b12d3a456426614174000"},
              {"Uuid_LastBitOnly", "K00000000000000000000000000000001"}});
}

void add_payloads(GoldenColumn& c) {
  for (std::size_t n : {0, 7, 8, 255, 256, 65535, 65536}) {
    c.add("String_" + std::to_string(n) + "Bytes", quoted(golden_text(n)));
    c.add("Binary_" + std::to_string(n) + "Bytes", binary(pattern_string(0, n)));
  }
  c.add("String_Utf8", quoted(unhex("47 72 C3 BC C3 9F 65 20 E4 B8 96 E7 95 8C 20 F0 9F 98 80")));
  c.add("String_EmbeddedNul", "\"a~00b\"");
  // Strings read by value are checked as UTF-8 by the text reader, so this row's point (a string
  // by value that is not UTF-8 reads back unchecked) does not hold for text.
  c.absent("String_NotUtf8ByValue");
  c.add("String_IntoSourceString", "\"key\"");
  auto const text = [](std::size_t n) { return quoted(golden_text(n)); };
  auto const data = [](std::size_t n) { return binary(pattern_string(0, n)); };
  add_all(c, {{"StreamString_Empty", "S"},
              {"StreamBinary_EmptyEndedByNextElement", "[]Z"},
              {"StreamBinary_ZeroSizedWrite", "[]"},
              {"StreamString_5BytesClosed", text(5)},
              {"StreamBinary_3BytesFlushed", data(3)},
              {"StreamBinary_EndedByNextStream", "[YWI][Y2Q]"},
              {"StreamString_4095Bytes", text(4095)},
              {"StreamString_4096BytesSmallPieces", text(4096)},
              {"StreamString_4097Bytes", text(4097) + "Z"},
              {"StreamBinary_8193BytesOneByOne", data(8193)},
              {"StreamBinary_4396Bytes", data(4396)},
              {"StreamBinary_Direct4096", data(4096)},
              {"StreamBinary_Direct65535", data(65535)},
              {"StreamString_Direct65536", text(65536) + "Z"},
              {"StreamBinary_SmallThenLarge", data(5010)},
              {"StreamBinary_SmallThenLargeRestDirect", data(9010)},
              {"StreamBinary_LargeThenSmall", data(4106)},
              {"StreamBinary_LargeAfterBufferEmptied", data(9096)},
              {"FromStreamString_Known0", "S"},
              {"FromStreamString_Known5", text(5)},
              {"FromStreamBinary_Known70000", data(70000)},
              {"FromStreamBinary_Unknown0", "[]"},
              {"FromStreamString_Unknown4095", text(4095)},
              {"FromStreamString_Unknown4096", text(4096)},
              {"FromStreamBinary_Unknown8392", data(8392)}});
}

void add_structure(GoldenColumn& c) {
  c.add("Sequence_NoHintEmpty", "()");
  c.add("Sequence_Hint0Empty", "()");
  c.add("Sequence_Hint0With3", nulls("", 3));
  for (unsigned n : {1, 2, 3, 4, 5, 6, 7, 8, 255, 256, 65535, 65536})
    c.add("Sequence_Hint" + std::to_string(n), nulls(std::to_string(n), n));
  add_all(c, {{"Sequence_Nested", "(3(1+1),(),(2+2,+3))"},
              {"Marker_Empty", "{}"},
              {"Marker_Nested", "{{Y}+}"},
              {"Marker_InSequence", "(2{Y},{})"},
              {"Marker_UnreadTailSkipped", "{Y\"abc\"(1+){N}[v78]}Z"},
              {"Document_Mixed", "{+100000\"abc\"R8(2T19700101000000.000000001,K)P[eHl6]}Y"}});
}

// The edges of the grammar, which the writer produces: read back, and copied to the same text.
void add_written_forms(GoldenColumn& c) {
  for (auto const& [name, text, script] :
       std::initializer_list<std::tuple<char const*, char const*, char const*>>{
           {"Text_Int8388607", "+8388607", "i8388607"},
           {"Text_Int8388608", "I0800000", "i8388608"},
           {"Text_IntMinus8388608", "-8388608", "i-8388608"},
           {"Text_IntMinus8388609", "If7fffff", "i-8388609"},
           {"Text_Int0x00FFFFFF", "I0ffffff", "i16777215"},
           {"Text_IntMinus16777216", "If000000", "i-16777216"},
           {"Text_Int2Pow32", "I100000000", "i64:4294967296"},
           {"Text_Uint16777215", "U16777215", "u16777215"},
           {"Text_Uint16777216", "X1000000", "u16777216"},
           {"Text_Uint0x0abcdef0", "Xabcdef0", "u180150000"},
           {"Text_StringEscapes", "\"~7e~22~01~09~0a~0d~1f~7f\"", "s%7E2201090A0D1F7F"},
           {"Text_StringSpaceAndUtf8", "\"a b \xC3\xA9\"", "s%61206220C3A9"},
           {"Text_StringOfTags", "\"(Z,{[}]+-IUX\"", "s(Z,{[}]+-IUX"},
           {"Text_AbsoluteMidnight", "T20180305", "a1520208000000000000"},
           {"Text_AbsoluteNoon", "T2018030512", "a1520251200000000000"},
           {"Text_AbsoluteHalfSecond", "T20180305120000.5", "a1520251200500000000"},
           {"Text_RelativeOneSecond", "P1", "r1000000000"},
           {"Text_RelativeOnePointFive", "P1.5", "r1500000000"},
           {"Text_RelativeQuarter", "P.25", "r250000000"},
           {"Text_RelativeMinus2ns", "Q.000000002", "r-2"},
           {"Text_BinaryOneByte", "[AA]", "w%00"},
           {"Text_Binary3Bytes", "[//79]", "w%FFFEFD"},
           {"Text_WorkedExample", "{(3+5,\"a b\",Y)}R3ffT2018030512P1.5[aGk]KX12345678",
            "{ [3 i5 , s%612062 , T ] } d1 a1520251200000000000 r1500000000 w%6869 g0 u305419896"},
       }) {
    c.add_read_only(name, text, script);
    c.add(name, text);  // the writer's own form: a copy gives it back
  }
}

}  // namespace

GoldenColumn const& text_column() {
  static GoldenColumn const column = [] {
    GoldenColumn c;
    add_scalars(c);
    add_payloads(c);
    add_structure(c);
    add_written_forms(c);
    return c;
  }();
  return column;
}

}  // namespace zotest
