#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <tuple>
#include <utility>

#include <support/hex_bytes.h>
#include <support/script.h>
#include <support/test_streams.h>
#include <support/xml_golden.h>
#include <zocore/absolute_time.h>

namespace zotest {

char const kXmlRoot[] = "<Serialized xmlns=\"http://schemas.zoserialize.org/tav/serialization\">";

std::string xml_document(std::string_view body) {
  return std::string(kXmlRoot) + std::string(body) + "</Serialized>";
}

std::string xml_double_text(double v) {
  auto const bits = std::bit_cast<std::uint64_t>(v);
  if ((bits & 0x7FF0000000000000ull) == 0x7FF0000000000000ull) {
    return (bits & 0x000FFFFFFFFFFFFFull) != 0 ? "NaN" : v < 0 ? "-INF" : "INF";
  }
  char text[64];
  std::snprintf(text, sizeof text, "%.18E", v);
  std::string const s = text;
  std::size_t const e = s.find('E');
  std::string mantissa = s.substr(0, e);
  while (mantissa.back() == '0')
    mantissa.pop_back();
  if (mantissa.back() == '.') mantissa.pop_back();
  bool const negative = s[e + 1] == '-';
  std::string exponent = s.substr(e + 2);
  exponent.erase(0, exponent.find_first_not_of('0'));
  return exponent.empty() ? mantissa : mantissa + "E" + (negative ? "-" : "") + exponent;
}

namespace {

// The expected documents are built here from the format's rules rather than with the codecs
// under test: base64 group by group, doubles through printf, times through the core's text.

std::string base64(std::string const& bytes) {
  std::string out;
  append_base64(out, bytes, true);
  return out;
}

std::string binary(std::string const& bytes) {
  return "<Binary encoding=\"base64\">" + base64(bytes) + "</Binary>";
}

std::string base64_string(std::string const& bytes) {
  return "<String encoding=\"base64\">" + base64(bytes) + "</String>";
}

// The string rule for strings without control characters, "]]>", '&', '<' or '>'.
std::string plain_string(std::string const& text) {
  if (text.empty()) return "<String/>";
  if (text.size() >= 512 || text.front() == ' ' || text.back() == ' ')
    return "<String><![CDATA[" + text + "]]></String>";
  return "<String>" + text + "</String>";
}

std::string repeat(std::string const& s, std::size_t n) {
  std::string out;
  for (std::size_t i = 0; i < n; ++i)
    out += s;
  return out;
}

std::string element(char const* name, std::string const& content) {
  return std::string("<") + name + ">" + content + "</" + name + ">";
}

std::string nulls(std::string const& start, unsigned n) {
  return start + repeat("<Item><Null/></Item>", n) + "</Sequence>";
}

using Pairs = std::initializer_list<std::pair<char const*, std::string>>;

void add_all(GoldenColumn& c, Pairs rows) {
  for (auto const& [row, body] : rows)
    c.add(row, xml_document(body));
}

void add_integers(GoldenColumn& c) {
  auto const i = [](std::string const& v) { return element("Int", v); };
  auto const u = [](std::string const& v) { return element("UInt", v); };
  add_all(c, {{"Int8_0", i("0")},
              {"Int8_1", i("1")},
              {"Int8_Minus1", i("-1")},
              {"Int8_127", i("127")},
              {"Int8_Minus128", i("-128")},
              {"Int16_128", i("128")},
              {"Int16_Minus129", i("-129")},
              {"Int16_32767", i("32767")},
              {"Int16_Minus32768", i("-32768")},
              {"Int32_32768", i("32768")},
              {"Int32_Minus32769", i("-32769")},
              {"Int32_Max", i("0x7fffffff")},
              {"Int32_Min", i("0x80000000")},
              {"Long_5", i("5")},
              {"Int64_Minus1", i("-1")},
              {"Int64_2Pow31", i("0x0080000000")},
              {"Int64_Minus2Pow31Minus1", i("0xff7fffffff")},
              {"Int64_Max", i("0x7fffffffffffffff")},
              {"Int64_Min", i("0x8000000000000000")},
              {"Uint8_0", u("0")},
              {"Uint8_1", u("1")},
              {"Uint8_2", u("2")},
              {"Uint8_255", u("255")},
              {"Uint16_256", u("256")},
              {"Uint16_65535", u("65535")},
              {"Uint32_65536", u("65536")},
              {"Uint32_Max", u("0xffffffff")},
              {"Uint64_2Pow32", u("0x0100000000")},
              {"Uint64_Max", u("0xffffffffffffffff")},
              {"ULong_300", u("300")},
              {"SignedImage_Empty", i("0")},
              {"SignedImage_3Bytes", i("74565")},
              {"SignedImage_3BytesNegative", i("-74565")},
              {"SignedImage_8BytesOne", i("1")},
              {"SignedImage_5BytesFitsIn8", i("0x0080000000")},
              {"SignedImage_16BytesMinus1", i("-1")},
              {"SignedImage_12Bytes128", i("128")},
              {"SignedImage_128Bytes5", i("5")},
              {"SignedImage_9Bytes2Pow63", i("0x0080" + repeat("00", 7))},
              {"SignedImage_9BytesMinus2Pow63Minus1", i("0xff7f" + repeat("ff", 7))},
              {"SignedImage_16BytesMax", i("0x7f" + repeat("ff", 15))},
              {"SignedImage_17Bytes", i("0x0080" + repeat("00", 15))},
              {"SignedImage_32BytesMax", i("0x7f" + repeat("ff", 31))},
              {"SignedImage_33Bytes", i("0x0080" + repeat("00", 31))},
              {"SignedImage_64BytesMax", i("0x7f" + repeat("ff", 63))},
              {"SignedImage_64BytesMin", i("0x80" + repeat("00", 63))},
              {"SignedImage_65BytesRedundantZero", i("0x7f" + repeat("ff", 63))},
              {"SignedImage_65BytesRedundantOnes", i("0x80" + repeat("00", 63))},
              {"UnsignedImage_Empty", u("0")},
              {"UnsignedImage_8BytesOne", u("1")},
              {"UnsignedImage_3Bytes", u("8388609")},
              {"UnsignedImage_16Bytes2Pow32", u("0x0100000000")},
              {"UnsignedImage_9Bytes2Pow64", u("0x01" + repeat("00", 8))},
              {"UnsignedImage_16BytesMax", u("0x" + repeat("ff", 16))},
              {"UnsignedImage_17Bytes", u("0x01" + repeat("00", 16))},
              {"UnsignedImage_32BytesMax", u("0x" + repeat("ff", 32))},
              {"UnsignedImage_33Bytes", u("0x01" + repeat("00", 32))},
              {"UnsignedImage_63BytesMax", u("0x" + repeat("ff", 63))},
              {"UnsignedImage_64BytesTopZero", u("0x" + repeat("ff", 63))}});
}

void add_scalars(GoldenColumn& c) {
  add_all(c, {{"Null", "<Null/>"},
              {"Bool_False", "<Bool>false</Bool>"},
              {"Bool_True", "<Bool>true</Bool>"},
              {"Null_TryRead", "<Null/><Bool>true</Bool>"}});
  // Every NaN is written as NaN and read back as the quiet NaN: a payload does not survive.
  for (GoldenDouble const& d : golden_doubles()) {
    std::string const name = std::string("Double_") + d.name;
    if (name.starts_with("Double_NaNPayload")) {
      c.absent(name);
    } else {
      double const v =
          std::bit_cast<double>(static_cast<std::uint64_t>(std::strtoull(d.bits, nullptr, 16)));
      c.add(name, xml_document(element("Double", xml_double_text(v))));
    }
  }
  c.add("Float_PointOne", xml_document(element("Double", xml_double_text(0.1f))));
  for (auto const& [name, count] : std::initializer_list<std::pair<char const*, std::int64_t>>{
           {"Zero", 0},
           {"Minus1", -1},
           {"2Pow31Minus1", 2147483647},
           {"Minus2Pow31", -2147483648LL},
           {"2Pow31", 2147483648LL},
           {"Minus2Pow31Minus1", -2147483649LL},
           {"MaxMinus1", INT64_MAX - 1},
           {"Min", INT64_MIN},
       }) {
    c.add(std::string("AbsoluteTime_") + name,
          xml_document(element("AbsTime", zocore::AbsoluteTime(count).as_string())));
  }
  add_all(c, {{"AbsoluteTime_Infinite", "<AbsTime>INF</AbsTime>"},
              {"RelativeTime_Zero", "<RelTime>P0S</RelTime>"},
              {"RelativeTime_Infinite", "<RelTime>INF</RelTime>"},
              {"RelativeTime_Minus1", "<RelTime>-P0.000000001S</RelTime>"},
              {"RelativeTime_2Pow31Minus1", "<RelTime>P2.147483647S</RelTime>"},
              {"RelativeTime_Minus2Pow31", "<RelTime>-P2.147483648S</RelTime>"},
              {"RelativeTime_2Pow31", "<RelTime>P2.147483648S</RelTime>"},
              {"RelativeTime_Minus2Pow31Minus1", "<RelTime>-P2.147483649S</RelTime>"},
              {"RelativeTime_MaxMinus1", "<RelTime>P9223372036.854775806S</RelTime>"},
              {"RelativeTime_Min", "<RelTime>-P9223372036.854775808S</RelTime>"},
              {"Uuid_Null", "<Uuid>00000000-0000-0000-0000-000000000000</Uuid>"},
              {"Uuid_Example", "<Uuid>123e4567-e89b-12d3-a456-426614174000</Uuid>"},
              {"Uuid_LastBitOnly", "<Uuid>00000000-0000-0000-0000-000000000001</Uuid>"}});
}

void add_payloads(GoldenColumn& c) {
  // Copied, a string comes through its stream, and one that fills the writer's block of 4098
  // bytes is written in base64.
  for (std::size_t n : {0, 7, 8, 255, 256, 65535, 65536}) {
    c.add("String_" + std::to_string(n) + "Bytes", xml_document(plain_string(golden_text(n))),
          n < 4098 ? ECopy::kIdentical : ECopy::kEquivalent);
    c.add("Binary_" + std::to_string(n) + "Bytes", xml_document(binary(pattern_string(0, n))));
  }
  c.add("String_Utf8", xml_document(plain_string(
                           unhex("47 72 C3 BC C3 9F 65 20 E4 B8 96 E7 95 8C 20 F0 9F 98 80"))));
  c.add("String_EmbeddedNul", xml_document("<String encoding=\"base64\">YQBi</String>"));
  // A string that is not UTF-8 makes a document that is not XML: the parser refuses it.
  c.absent("String_NotUtf8ByValue");
  c.add("String_IntoSourceString", xml_document("<String>key</String>"));
  auto const text = [](std::size_t n) { return plain_string(golden_text(n)); };
  auto const base64_text = [](std::size_t n) { return base64_string(golden_text(n)); };
  auto const data = [](std::size_t n) { return binary(pattern_string(0, n)); };
  add_all(c, {{"StreamString_Empty", "<String/>"},
              {"StreamBinary_EmptyEndedByNextElement", binary("") + "<Null/>"},
              {"StreamBinary_ZeroSizedWrite", binary("")},
              {"StreamString_5BytesClosed", text(5)},
              {"StreamBinary_3BytesFlushed", data(3)},
              {"StreamBinary_EndedByNextStream", binary("ab") + binary("cd")},
              {"FromStreamString_Known0", "<String/>"},
              {"FromStreamString_Known5", text(5)},
              {"FromStreamBinary_Known70000", data(70000)},
              {"FromStreamBinary_Unknown0", binary("")},
              {"FromStreamString_Unknown4095", text(4095)},
              {"FromStreamString_Unknown4096", text(4096)},
              {"FromStreamBinary_Unknown8392", data(8392)},
              {"StreamBinary_8193BytesOneByOne", data(8193)},
              {"StreamBinary_4396Bytes", data(4396)},
              {"StreamBinary_Direct4096", data(4096)},
              {"StreamBinary_Direct65535", data(65535)},
              {"StreamBinary_SmallThenLarge", data(5010)},
              {"StreamBinary_SmallThenLargeRestDirect", data(9010)},
              {"StreamBinary_LargeThenSmall", data(4106)},
              {"StreamBinary_LargeAfterBufferEmptied", data(9096)}});
  // A streamed string that fills the stream's buffer goes in base64; copied, it is read whole
  // and written as a string written whole (CDATA here).
  for (auto const& [row, body] : Pairs{
           {"StreamString_4095Bytes", base64_text(4095)},
           {"StreamString_4096BytesSmallPieces", base64_text(4096)},
           {"StreamString_4097Bytes", base64_text(4097) + "<Null/>"},
           {"StreamString_Direct65536", base64_text(65536) + "<Null/>"},
       })
    c.add(row, xml_document(body), ECopy::kEquivalent);
}

void add_structure(GoldenColumn& c) {
  add_all(c, {{"Sequence_NoHintEmpty", "<Sequence></Sequence>"},
              {"Sequence_Hint0Empty", "<Sequence></Sequence>"},
              {"Sequence_Hint0With3", nulls("<Sequence>", 3)}});
  for (unsigned n : {1, 2, 3, 4, 5, 6, 7, 8, 255, 256, 65535, 65536}) {
    c.add("Sequence_Hint" + std::to_string(n),
          xml_document(nulls("<Sequence count=\"" + std::to_string(n) + "\">", n)));
  }
  add_all(
      c, {{"Sequence_Nested",
           "<Sequence count=\"3\"><Item><Sequence count=\"1\"><Item><Int>1</Int></Item></Sequence>"
           "</Item><Item><Sequence></Sequence></Item><Item><Sequence count=\"2\"><Item><Int>2</Int>"
           "</Item><Item><Int>3</Int></Item></Sequence></Item></Sequence>"},
          {"Marker_Empty", "<Marker></Marker>"},
          {"Marker_Nested", "<Marker><Marker><Bool>true</Bool></Marker><Int>0</Int></Marker>"},
          {"Marker_InSequence",
           "<Sequence count=\"2\"><Item><Marker><Bool>true</Bool></Marker></Item><Item><Marker>"
           "</Marker></Item></Sequence>"},
          {"Marker_UnreadTailSkipped",
           "<Marker><Bool>true</Bool><String>abc</String><Sequence count=\"1\"><Item><Int>0</Int>"
           "</Item></Sequence><Marker><Bool>false</Bool></Marker>" +
               binary("\xBF\xBF") + "</Marker><Null/>"},
          {"Document_Mixed",
           "<Marker><Int>100000</Int><String>abc</String><Double>-0</Double><Sequence count=\"2\">"
           "<Item><AbsTime>1970-01-01 00:00:00.000000001</AbsTime></Item><Item><Uuid>"
           "00000000-0000-0000-0000-000000000000</Uuid></Item></Sequence><RelTime>INF</RelTime>" +
               binary("xyz") + "</Marker><Bool>true</Bool>"}});
}

// The edges of the document format that the writer produces: read back, and copied to the same
// document.
void add_written_forms(GoldenColumn& c) {
  for (auto const& [name, body, script] :
       std::initializer_list<std::tuple<char const*, std::string, std::string>>{
           {"Xml_Int8388607", "<Int>8388607</Int>", "i8388607"},
           {"Xml_Int8388608", "<Int>0x00800000</Int>", "i8388608"},
           {"Xml_IntMinus8388608", "<Int>-8388608</Int>", "i-8388608"},
           {"Xml_IntMinus8388609", "<Int>0xff7fffff</Int>", "i-8388609"},
           {"Xml_Uint16777215", "<UInt>16777215</UInt>", "u16777215"},
           {"Xml_Uint16777216", "<UInt>0x01000000</UInt>", "u16777216"},
           {"Xml_DoubleExponents",
            "<Double>1.235E2</Double><Double>1.000000000000000021E-3</Double>", "d123.5 d0.001"},
           {"Xml_StringEscaped", "<String>a&lt;b&amp;c&gt;d\"e'f</String>",
            "s%613C6226633E6422652766"},
           {"Xml_StringLeadingSpace", "<String><![CDATA[ a]]></String>", "s%2061"},
           {"Xml_StringTrailingSpace", "<String><![CDATA[a ]]></String>", "s%6120"},
           {"Xml_StringCdataSplit",
            "<String><![CDATA[ x]]]]><![CDATA[>y]]]]><![CDATA[>]]></String>",
            "s%20785D5D3E795D5D3E"},
           // 511 bytes of plain text, and 512, which take CDATA.
           {"Xml_String511", "<String>" + repeat("a&lt;", 254) + "abc</String>",
            "s%" + repeat("613C", 254) + "616263"},
           {"Xml_String512", "<String><![CDATA[" + repeat("a<", 256) + "]]></String>",
            "s%" + repeat("613C", 256)},
           {"Xml_StringTab", "<String encoding=\"base64\">YQli</String>", "s%610962"},
           {"Xml_StringUtf8AndSpaces", "<String>\xC3\xA9 t\xC3\xA9</String>", "s%C3A92074C3A9"},
           {"Xml_AbsTimeFraction", "<AbsTime>2018-03-05 12:00:00.5</AbsTime>",
            "a1520251200500000000"},
           {"Xml_RelTimeOnePointFive", "<RelTime>P1.5S</RelTime>", "r1500000000"},
           {"Xml_RelTimeMinusQuarter", "<RelTime>-P0.25S</RelTime>", "r-250000000"},
           {"Xml_SequenceItemWroteNothing",
            "<Sequence count=\"3\"><Item/><Item><Null/></Item><Item/></Sequence>", "[3 , n , ]"},
           {"Xml_SequenceHint1NothingWritten", "<Sequence count=\"1\"></Sequence>", "[1 ]"},
           {"Xml_WorkedExample",
            "<Sequence count=\"2\"><Item><Int>5</Int></Item><Item><String>a&lt;b</String></Item>"
            "</Sequence><Bool>true</Bool>",
            "[2 i5 , s%613C62 ] T"},
       }) {
    c.add_read_only(name, xml_document(body), script);
    c.add(name, xml_document(body));  // the writer's own form: a copy gives it back
  }
}

}  // namespace

GoldenColumn const& xml_column() {
  static GoldenColumn const column = [] {
    GoldenColumn c;
    add_integers(c);
    add_scalars(c);
    add_payloads(c);
    add_structure(c);
    add_written_forms(c);
    return c;
  }();
  return column;
}

}  // namespace zotest
