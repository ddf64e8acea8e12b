#include <algorithm>
#include <utility>

#include <support/golden.h>
#include <support/hex_bytes.h>
#include <zocore/utf8.h>

namespace zotest {
namespace {

class Rows {
 public:
  std::vector<GoldenRow> rows;

  void add(std::string name, std::string const& script) {
    Script parsed = parse_script(script);
    bool const nan = std::any_of(parsed.begin(), parsed.end(), [](ScriptOp const& op) {
      return (op.kind == 'd' || op.kind == 'f') && op.real != op.real;
    });
    bool const text = std::all_of(parsed.begin(), parsed.end(), [](ScriptOp const& op) {
      return op.kind != 's' || zocore::is_valid_utf8(op.data.data(), op.data.size());
    });
    std::size_t const elements = element_count(parsed);
    std::size_t const payload = largest_payload(parsed);
    rows.push_back({std::move(name), std::move(parsed), elements, !nan, payload, text});
  }

  // write_int_big_endian / write_uint_big_endian of an image, read back into `size` bytes.
  void image(std::string name, bool is_signed, std::string_view image, unsigned size,
             std::string_view read) {
    add(std::move(name), std::string(is_signed ? "I" : "U") + compact(image) + "/" +
                             std::to_string(size) + "/" + compact(read));
  }

  // A sequence of n nulls after the start token `start`.
  void nulls(std::string name, std::string start, unsigned n) {
    for (unsigned i = 0; i < n; ++i)
      start += i == 0 ? " n" : " , n";
    add(std::move(name), start + " ]");
  }

 private:
  static std::string compact(std::string_view hex_text) {
    std::string out = hex(unhex(hex_text));
    out.erase(std::remove(out.begin(), out.end(), ' '), out.end());
    return out;
  }
};

void add_integers(Rows& t) {
  for (auto const& [name, script] : std::initializer_list<std::pair<char const*, char const*>>{
           {"Int8_0", "i8:0"},
           {"Int8_1", "i8:1"},
           {"Int8_Minus1", "i8:-1"},
           {"Int8_127", "i8:127"},
           {"Int8_Minus128", "i8:-128"},
           {"Int16_128", "i16:128"},
           {"Int16_Minus129", "i16:-129"},
           {"Int16_32767", "i16:32767"},
           {"Int16_Minus32768", "i16:-32768"},
           {"Int32_32768", "i32768"},
           {"Int32_Minus32769", "i-32769"},
           {"Int32_Max", "i2147483647"},
           {"Int32_Min", "i-2147483648"},
           {"Long_5", "il:5"},
           {"Int64_Minus1", "i64:-1"},
           {"Int64_2Pow31", "i64:2147483648"},
           {"Int64_Minus2Pow31Minus1", "i64:-2147483649"},
           {"Int64_Max", "i64:9223372036854775807"},
           {"Int64_Min", "i64:-9223372036854775808"},
           {"Uint8_0", "u8:0"},
           {"Uint8_1", "u8:1"},
           {"Uint8_2", "u8:2"},
           {"Uint8_255", "u8:255"},
           {"Uint16_256", "u16:256"},
           {"Uint16_65535", "u16:65535"},
           {"Uint32_65536", "u65536"},
           {"Uint32_Max", "u4294967295"},
           {"Uint64_2Pow32", "u64:4294967296"},
           {"Uint64_Max", "u64:18446744073709551615"},
           {"ULong_300", "ul:300"},
       })
    t.add(name, script);
  // Images of any width through the core operations, read back into other widths.
  t.image("SignedImage_Empty", true, "", 1, "00");
  t.image("SignedImage_3Bytes", true, "01 23 45", 4, "00 01 23 45");
  t.image("SignedImage_3BytesNegative", true, "FE DC BB", 4, "FF FE DC BB");
  t.image("SignedImage_8BytesOne", true, "00*7 01", 8, "00*7 01");
  t.image("SignedImage_5BytesFitsIn8", true, "00 80 00*3", 8, "00*4 80 00*3");
  t.image("SignedImage_16BytesMinus1", true, "FF*16", 16, "FF*16");
  t.image("SignedImage_12Bytes128", true, "00*11 80", 2, "00 80");
  t.image("SignedImage_128Bytes5", true, "00*127 05", 128, "00*127 05");
  t.image("SignedImage_9Bytes2Pow63", true, "00 80 00*7", 16, "00*8 80 00*7");
  t.image("SignedImage_9BytesMinus2Pow63Minus1", true, "FF 7F FF*7", 9, "FF 7F FF*7");
  t.image("SignedImage_16BytesMax", true, "7F FF*15", 16, "7F FF*15");
  t.image("SignedImage_17Bytes", true, "00 80 00*15", 17, "00 80 00*15");
  t.image("SignedImage_32BytesMax", true, "7F FF*31", 32, "7F FF*31");
  t.image("SignedImage_33Bytes", true, "00 80 00*31", 33, "00 80 00*31");
  t.image("SignedImage_64BytesMax", true, "7F FF*63", 64, "7F FF*63");
  t.image("SignedImage_64BytesMin", true, "80 00*63", 64, "80 00*63");
  t.image("SignedImage_65BytesRedundantZero", true, "00 7F FF*63", 64, "7F FF*63");
  t.image("SignedImage_65BytesRedundantOnes", true, "FF 80 00*63", 65, "FF 80 00*63");
  t.image("UnsignedImage_Empty", false, "", 2, "00 00");
  t.image("UnsignedImage_8BytesOne", false, "00*7 01", 8, "00*7 01");
  t.image("UnsignedImage_3Bytes", false, "80 00 01", 3, "80 00 01");
  t.image("UnsignedImage_16Bytes2Pow32", false, "00*11 01 00*4", 8, "00*3 01 00*4");
  t.image("UnsignedImage_9Bytes2Pow64", false, "01 00*8", 9, "01 00*8");
  t.image("UnsignedImage_16BytesMax", false, "FF*16", 16, "FF*16");
  t.image("UnsignedImage_17Bytes", false, "01 00*16", 17, "01 00*16");
  t.image("UnsignedImage_32BytesMax", false, "FF*32", 32, "FF*32");
  t.image("UnsignedImage_33Bytes", false, "01 00*32", 64, "00*31 01 00*32");
  t.image("UnsignedImage_63BytesMax", false, "FF*63", 63, "FF*63");
  t.image("UnsignedImage_64BytesTopZero", false, "00 FF*63", 64, "00 FF*63");
}

void add_doubles(Rows& t) {
  for (GoldenDouble const& d : golden_doubles())
    t.add(std::string("Double_") + d.name, std::string("d#") + d.bits);
  // A float is widened exactly, so 0.1f keeps its float bits.
  t.add("Float_PointOne", "f0.1");
}

void add_strings(Rows& t) {
  for (std::size_t n : {0, 7, 8, 255, 256, 65535, 65536}) {
    t.add("String_" + std::to_string(n) + "Bytes", "s*" + std::to_string(n));
    t.add("Binary_" + std::to_string(n) + "Bytes", "w*" + std::to_string(n));
  }
  t.add("String_Utf8", "s%4772C3BCC39F6520E4B896E7958C20F09F9880");
  t.add("String_EmbeddedNul", "s%610062");
  // Read by value, a string is not validated; copying streams it, which does validate.
  t.add("String_NotUtf8ByValue", "s%C328FF");
  t.add("String_IntoSourceString", "$key");
  t.add("Null_TryRead", "N T");
}

// Payloads written through value streams in pieces, or taken from input streams.
void add_value_streams(Rows& t) {
  for (auto const& [name, script] : std::initializer_list<std::pair<char const*, char const*>>{
           {"StreamString_Empty", "s*0@p1"},
           {"StreamBinary_EmptyEndedByNextElement", "w*0@p1 n"},
           {"StreamBinary_ZeroSizedWrite", "w*0@p0"},
           {"StreamString_5BytesClosed", "s*5@p2c"},
           {"StreamBinary_3BytesFlushed", "w*3@p3f"},
           {"StreamBinary_EndedByNextStream", "w%6162@p2 w%6364@p2"},
           {"StreamString_4095Bytes", "s*4095@p1000"},
           {"StreamString_4096BytesSmallPieces", "s*4096@p100"},
           {"StreamString_4097Bytes", "s*4097@p4095,2 n"},
           {"StreamBinary_8193BytesOneByOne", "w*8193@p1c"},
           {"StreamBinary_4396Bytes", "w*4396@p1000"},
           {"StreamBinary_Direct4096", "w*4096@p4096"},
           {"StreamBinary_Direct65535", "w*65535@p65535"},
           {"StreamString_Direct65536", "s*65536@p65536 n"},
           {"StreamBinary_SmallThenLarge", "w*5010@p10,5000"},
           {"StreamBinary_SmallThenLargeRestDirect", "w*9010@p10,9000"},
           {"StreamBinary_LargeThenSmall", "w*4106@p4096,10"},
           {"StreamBinary_LargeAfterBufferEmptied", "w*9096@p2048,2048,5000"},
           {"FromStreamString_Known0", "s*0@k"},
           {"FromStreamString_Known5", "s*5@k"},
           {"FromStreamBinary_Known70000", "w*70000@k"},
           {"FromStreamBinary_Unknown0", "w*0@u"},
           {"FromStreamString_Unknown4095", "s*4095@u"},
           {"FromStreamString_Unknown4096", "s*4096@u"},
           {"FromStreamBinary_Unknown8392", "w*8392@u"},
       })
    t.add(name, script);
}

void add_times_and_uuids(Rows& t) {
  for (auto const& [name, count] : std::initializer_list<std::pair<char const*, char const*>>{
           {"Zero", "0"},
           {"Infinite", "9223372036854775807"},
           {"Minus1", "-1"},
           {"2Pow31Minus1", "2147483647"},
           {"Minus2Pow31", "-2147483648"},
           {"2Pow31", "2147483648"},
           {"Minus2Pow31Minus1", "-2147483649"},
           {"MaxMinus1", "9223372036854775806"},
           {"Min", "-9223372036854775808"},
       }) {
    t.add(std::string("AbsoluteTime_") + name, std::string("a") + count);
    t.add(std::string("RelativeTime_") + name, std::string("r") + count);
  }
  t.add("Uuid_Null", "g0");
  t.add("Uuid_Example", "g123E4567E89B12D3A456426614174000");
  t.add("Uuid_LastBitOnly", "g00000000000000000000000000000001");
}

void add_sequences_and_markers(Rows& t) {
  t.nulls("Sequence_NoHintEmpty", "[", 0);
  t.nulls("Sequence_Hint0Empty", "[0", 0);
  t.nulls("Sequence_Hint0With3", "[0", 3);
  for (unsigned n : {1, 2, 3, 4, 5, 6, 7, 8, 255, 256, 65535, 65536})
    t.nulls("Sequence_Hint" + std::to_string(n), "[" + std::to_string(n), n);
  t.add("Sequence_Nested", "[3 [1 i1 ] , [ ] , [2 i2 , i3 ] ]");
  t.add("Marker_Empty", "{ }");
  t.add("Marker_Nested", "{ { T } i0 }");
  t.add("Marker_InSequence", "[2 { T } , { } ]");
  // A newer writer appended fields that an older reader does not know: the marker end skips them.
  t.add("Marker_UnreadTailSkipped", "{ T ~ sabc [1 i0 ] { F } w%BFBF@p2 } n");
  t.add("Document_Mixed", "{ i100000 sabc d-0 [2 a1 , g0 ] r9223372036854775807 w%78797A@p3 } T");
}

}  // namespace

// Zeros, ones, infinities, NaNs with payloads, denormals, and values whose significant bytes end
// at every byte of the binary64.
std::vector<GoldenDouble> const& golden_doubles() {
  static std::vector<GoldenDouble> const doubles = {
      {"PlusZero", "0000000000000000"},
      {"One", "3FF0000000000000"},
      {"MinusOne", "BFF0000000000000"},
      {"MinusZero", "8000000000000000"},
      {"OnePointFive", "3FF8000000000000"},
      {"MinusInfinity", "FFF0000000000000"},
      {"PointOne", "3FB999999999999A"},
      {"3Bytes", "3FF0010000000000"},
      {"4Bytes", "3FF0000100000000"},
      {"4BytesSmallHi", "0000000100000000"},
      {"LowWordBit", "3FF0000080000000"},
      {"MinusZeroLowBit", "8000000000000001"},
      {"QuietNaN", "7FF8000000000000"},
      {"NaNPayloadLowWord", "7FF0000000000001"},
      {"NaNPayloadHighWord", "7FF8000100000000"},
      {"NaNPayload3Bytes", "7FF0010000000000"},
      {"SmallestDenormal", "0000000000000001"},
  };
  return doubles;
}

std::vector<GoldenRow> const& golden_rows() {
  static std::vector<GoldenRow> const rows = [] {
    Rows t;
    t.add("Null", "n");
    t.add("Bool_False", "F");
    t.add("Bool_True", "T");
    add_integers(t);
    add_doubles(t);
    add_strings(t);
    add_value_streams(t);
    add_times_and_uuids(t);
    add_sequences_and_markers(t);
    return std::move(t.rows);
  }();
  return rows;
}

GoldenRow const* find_golden_row(std::string_view name) {
  for (GoldenRow const& row : golden_rows())
    if (row.name == name) return &row;
  return nullptr;
}

void GoldenColumn::add(std::string const& row, std::string bytes, ECopy copy) {
  entries_[row] = GoldenRendering{std::move(bytes), copy};
}

void GoldenColumn::absent(std::string const& row) {
  entries_[row] = std::nullopt;
}

void GoldenColumn::add_read_only(std::string const& name, std::string bytes,
                                 std::string_view script) {
  Script parsed = parse_script(script);
  std::size_t const elements = element_count(parsed);
  read_only_.push_back({name, std::move(parsed), elements, true, 0, true});
  add(name, std::move(bytes), ECopy::kEquivalent);
}

GoldenRendering const* GoldenColumn::find(std::string_view row) const {
  auto const it = entries_.find(row);
  return it == entries_.end() || !it->second ? nullptr : &*it->second;
}

std::vector<std::string> GoldenColumn::names() const {
  std::vector<std::string> out;
  for (auto const& entry : entries_)
    out.push_back(entry.first);
  return out;
}

}  // namespace zotest
