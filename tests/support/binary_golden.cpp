#include <cstdint>
#include <utility>
#include <vector>

#include <support/binary_golden.h>
#include <support/hex_bytes.h>
#include <support/test_streams.h>

namespace zotest {
namespace {

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
std::string encoded(bool is_string, std::size_t n, std::vector<std::size_t> const& chunks = {}) {
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

using Pairs = std::initializer_list<std::pair<char const*, char const*>>;

void add_hex(GoldenColumn& c, Pairs rows) {
  for (auto const& [row, bytes] : rows)
    c.add(row, unhex(bytes));
}

void add_scalars(GoldenColumn& c) {
  add_hex(c, {{"Null", "00"},
              {"Bool_False", "10"},
              {"Bool_True", "11"},
              {"Null_TryRead", "00 11"},
              {"Int8_0", "20"},
              {"Int8_1", "21"},
              {"Int8_Minus1", "22"},
              {"Int8_127", "24 7F"},
              {"Int8_Minus128", "24 80"},
              {"Int16_128", "25 00 80"},
              {"Int16_Minus129", "25 FF 7F"},
              {"Int16_32767", "25 7F FF"},
              {"Int16_Minus32768", "25 80 00"},
              {"Int32_32768", "26 00 00 80 00"},
              {"Int32_Minus32769", "26 FF FF 7F FF"},
              {"Int32_Max", "26 7F FF FF FF"},
              {"Int32_Min", "26 80 00 00 00"},
              {"Long_5", "24 05"},
              {"Int64_Minus1", "22"},
              {"Int64_2Pow31", "27 00 00 00 00 80 00 00 00"},
              {"Int64_Minus2Pow31Minus1", "27 FF FF FF FF 7F FF FF FF"},
              {"Int64_Max", "27 7F FF*7"},
              {"Int64_Min", "27 80 00*7"},
              {"Uint8_0", "30"},
              {"Uint8_1", "31"},
              {"Uint8_2", "34 02"},
              {"Uint8_255", "34 FF"},
              {"Uint16_256", "35 01 00"},
              {"Uint16_65535", "35 FF FF"},
              {"Uint32_65536", "36 00 01 00 00"},
              {"Uint32_Max", "36 FF FF FF FF"},
              {"Uint64_2Pow32", "37 00 00 00 01 00 00 00 00"},
              {"Uint64_Max", "37 FF*8"},
              {"ULong_300", "35 01 2C"},
              {"SignedImage_Empty", "20"},
              {"SignedImage_3Bytes", "26 00 01 23 45"},
              {"SignedImage_3BytesNegative", "26 FF FE DC BB"},
              {"SignedImage_8BytesOne", "21"},
              {"SignedImage_5BytesFitsIn8", "27 00*4 80 00*3"},
              {"SignedImage_16BytesMinus1", "22"},
              {"SignedImage_12Bytes128", "25 00 80"},
              {"SignedImage_128Bytes5", "24 05"},
              // 9 to 64 significant bytes: 16, 32 and 64-byte payloads, sign-extended.
              {"SignedImage_9Bytes2Pow63", "28 00*8 80 00*7"},
              {"SignedImage_9BytesMinus2Pow63Minus1", "28 FF*8 7F FF*7"},
              {"SignedImage_16BytesMax", "28 7F FF*15"},
              {"SignedImage_17Bytes", "29 00*16 80 00*15"},
              {"SignedImage_32BytesMax", "29 7F FF*31"},
              {"SignedImage_33Bytes", "2A 00*32 80 00*31"},
              {"SignedImage_64BytesMax", "2A 7F FF*63"},
              {"SignedImage_64BytesMin", "2A 80 00*63"},
              {"SignedImage_65BytesRedundantZero", "2A 7F FF*63"},
              {"SignedImage_65BytesRedundantOnes", "2A 80 00*63"},
              {"UnsignedImage_Empty", "30"},
              {"UnsignedImage_8BytesOne", "31"},
              {"UnsignedImage_3Bytes", "36 00 80 00 01"},
              {"UnsignedImage_16Bytes2Pow32", "37 00*3 01 00*4"},
              {"UnsignedImage_9Bytes2Pow64", "38 00*7 01 00*8"},
              {"UnsignedImage_16BytesMax", "38 FF*16"},
              {"UnsignedImage_17Bytes", "39 00*15 01 00*16"},
              {"UnsignedImage_32BytesMax", "39 FF*32"},
              {"UnsignedImage_33Bytes", "3A 00*31 01 00*32"},
              // 63 significant bytes is the widest unsigned value; the form still has 64 bytes.
              {"UnsignedImage_63BytesMax", "3A 00 FF*63"},
              {"UnsignedImage_64BytesTopZero", "3A 00 FF*63"},
              {"Double_PlusZero", "40"},
              {"Double_One", "41"},
              {"Double_MinusOne", "42"},
              {"Double_MinusZero", "44 80 00"},
              {"Double_OnePointFive", "44 3F F8"},
              {"Double_MinusInfinity", "44 FF F0"},
              {"Double_PointOne", "47 3F B9 99 99 99 99 99 9A"},
              {"Double_3Bytes", "45 3F F0 01"},
              {"Double_4Bytes", "46 3F F0 00 01"},
              {"Double_4BytesSmallHi", "46 00 00 00 01"},
              {"Double_LowWordBit", "47 3F F0 00 00 80 00 00 00"},
              {"Double_MinusZeroLowBit", "47 80 00*6 01"},
              {"Double_QuietNaN", "44 7F F8"},
              {"Double_NaNPayloadLowWord", "47 7F F0 00*5 01"},
              {"Double_NaNPayloadHighWord", "46 7F F8 00 01"},
              {"Double_NaNPayload3Bytes", "45 7F F0 01"},
              {"Double_SmallestDenormal", "47 00*7 01"},
              {"Float_PointOne", "47 3F B9 99 99 A0 00 00 00"},
              {"AbsoluteTime_Zero", "60"},
              {"AbsoluteTime_Infinite", "61"},
              {"AbsoluteTime_Minus1", "64 FF FF FF FF"},
              {"AbsoluteTime_2Pow31Minus1", "64 7F FF FF FF"},
              {"AbsoluteTime_Minus2Pow31", "64 80 00 00 00"},
              {"AbsoluteTime_2Pow31", "65 00 00 00 00 80 00 00 00"},
              {"AbsoluteTime_Minus2Pow31Minus1", "65 FF FF FF FF 7F FF FF FF"},
              {"AbsoluteTime_MaxMinus1", "65 7F FF*6 FE"},
              {"AbsoluteTime_Min", "65 80 00*7"},
              {"RelativeTime_Zero", "70"},
              {"RelativeTime_Infinite", "71"},
              {"RelativeTime_Minus1", "74 FF FF FF FF"},
              {"RelativeTime_2Pow31Minus1", "74 7F FF FF FF"},
              {"RelativeTime_Minus2Pow31", "74 80 00 00 00"},
              {"RelativeTime_2Pow31", "75 00 00 00 00 80 00 00 00"},
              {"RelativeTime_Minus2Pow31Minus1", "75 FF FF FF FF 7F FF FF FF"},
              {"RelativeTime_MaxMinus1", "75 7F FF*6 FE"},
              {"RelativeTime_Min", "75 80 00*7"},
              {"Uuid_Null", "80"},
              {"Uuid_Example", "81 12 3E 45 67 E8 9B 12 D3 A4 56 42 66 14 17 40 00"},
              {"Uuid_LastBitOnly", "81 00*15 01"}});
}

void add_payloads(GoldenColumn& c) {
  for (std::size_t n : {0, 7, 8, 255, 256, 65535, 65536}) {
    c.add("String_" + std::to_string(n) + "Bytes", encoded(true, n));
    c.add("Binary_" + std::to_string(n) + "Bytes", encoded(false, n));
  }
  c.add("String_Utf8",
        unhex("58 13") + "Gr\xC3\xBC\xC3\x9F" + "e \xE4\xB8\x96\xE7\x95\x8C \xF0\x9F\x98\x80");
  c.add("String_EmbeddedNul", unhex("53 61 00 62"));
  c.add("String_NotUtf8ByValue", unhex("53 C3 28 FF"));
  c.add("String_IntoSourceString", unhex("53 6B 65 79"));
  // A value that never filled the 4096-byte buffer is written whole; full buffers become chunks
  // of 0x1000 bytes.
  std::string const null = unhex("00");
  c.add("StreamString_Empty", encoded(true, 0));
  c.add("StreamBinary_EmptyEndedByNextElement", encoded(false, 0) + null);
  c.add("StreamBinary_ZeroSizedWrite", encoded(false, 0));
  c.add("StreamString_5BytesClosed", encoded(true, 5));
  c.add("StreamBinary_3BytesFlushed", encoded(false, 3));
  c.add("StreamBinary_EndedByNextStream", unhex("92 61 62 92 63 64"));
  c.add("StreamString_4095Bytes", encoded(true, 4095));
  c.add("StreamString_4096BytesSmallPieces", encoded(true, 4096, {4096}));
  c.add("StreamString_4097Bytes", encoded(true, 4097, {4096, 1}) + null);
  c.add("StreamBinary_8193BytesOneByOne", encoded(false, 8193, {4096, 4096, 1}));
  c.add("StreamBinary_4396Bytes", encoded(false, 4396, {4096, 300}));
  // A write of 4096 bytes or more into an empty buffer goes out directly, in chunks of at most
  // 65535 bytes; copying re-chunks them.
  c.add("StreamBinary_Direct4096", encoded(false, 4096, {4096}));
  c.add("StreamBinary_Direct65535", encoded(false, 65535, {65535}), ECopy::kEquivalent);
  c.add("StreamString_Direct65536", encoded(true, 65536, {65535, 1}) + null, ECopy::kEquivalent);
  // A large write into a partly filled buffer fills it and emits it; the rest is buffered again
  // when it is below 4096 bytes, and goes out directly when it is 4096 bytes or more.
  c.add("StreamBinary_SmallThenLarge", encoded(false, 5010, {4096, 914}));
  c.add("StreamBinary_SmallThenLargeRestDirect", encoded(false, 9010, {4096, 4914}),
        ECopy::kEquivalent);
  c.add("StreamBinary_LargeThenSmall", encoded(false, 4106, {4096, 10}));
  c.add("StreamBinary_LargeAfterBufferEmptied", encoded(false, 9096, {4096, 5000}),
        ECopy::kEquivalent);
  // From input streams: the size announced gives the whole form; an unknown size is read in
  // blocks of 4096, and a value that fills the first block goes out in chunks.
  c.add("FromStreamString_Known0", encoded(true, 0));
  c.add("FromStreamString_Known5", encoded(true, 5));
  c.add("FromStreamBinary_Known70000", encoded(false, 70000));
  c.add("FromStreamBinary_Unknown0", encoded(false, 0));
  c.add("FromStreamString_Unknown4095", encoded(true, 4095));
  c.add("FromStreamString_Unknown4096", encoded(true, 4096, {4096}));
  c.add("FromStreamBinary_Unknown8392", encoded(false, 8392, {4096, 4096, 200}));
}

// A sequence of n nulls after the start tag.
std::string nulls(std::string hex, unsigned n) {
  for (unsigned i = 0; i < n; ++i)
    hex += i == 0 ? " 00" : " AE 00";
  return unhex(hex + " AF");
}

void add_structures(GoldenColumn& c) {
  c.add("Sequence_NoHintEmpty", nulls("A0", 0));
  c.add("Sequence_Hint0Empty", nulls("A0", 0));
  c.add("Sequence_Hint0With3", nulls("A0", 3));
  for (unsigned n = 1; n <= 7; ++n)
    c.add("Sequence_Hint" + std::to_string(n), nulls(be_hex(0xA0 + n, 1), n));
  c.add("Sequence_Hint8", nulls("A8 08", 8));
  c.add("Sequence_Hint255", nulls("A8 FF", 255));
  c.add("Sequence_Hint256", nulls("A9 01 00", 256));
  c.add("Sequence_Hint65535", nulls("A9 FF FF", 65535));
  c.add("Sequence_Hint65536", nulls("AA 00 01 00 00", 65536));
  add_hex(c, {{"Sequence_Nested", "A3 A1 21 AF AE A0 AF AE A2 24 02 AE 24 03 AF AF"},
              {"Marker_Empty", "B0 BF"},
              {"Marker_Nested", "B0 B0 11 BF 20 BF"},
              {"Marker_InSequence", "A2 B0 11 BF AE B0 BF AF"},
              {"Marker_UnreadTailSkipped", "B0 11 53 61 62 63 A1 20 AF B0 10 BF 92 BF BF BF 00"},
              {"Document_Mixed",
               "B0 26 00 01 86 A0 53 61 62 63 44 80 00 A2 64 00 00 00 01 AE "
               "80 AF 71 93 78 79 7A BF 11"}});
}

void add_read_only_forms(GoldenColumn& c) {
  for (auto const& [name, bytes, script] :
       std::initializer_list<std::tuple<char const*, char const*, char const*>>{
           // Sized markers: the size counts the bytes between the size field and the end tag.
           {"SizedMarker_1ByteField", "B4 01 11 BF", "{ T }"},
           {"SizedMarker_2ByteField", "B5 00 01 11 BF", "{ T }"},
           {"SizedMarker_4ByteField", "B6 00 00 00 01 11 BF", "{ T }"},
           {"SizedMarker_8ByteField", "B7 00*7 01 11 BF", "{ T }"},
           {"SizedMarker_Size0", "B4 00 BF", "{ }"},
           // Nothing of the marker read: its end skips the declared size and finds the end tag.
           {"SizedMarker_SkippedWhole", "B4 05 B4 01 11 BF 20 BF 00", "{ ~ { T } i0 } n"},
           {"SizedMarker_InnerSkipped", "B4 07 B4 03 10 11 10 BF 20 BF", "{ { ~ F T F } i0 }"},
           // Longer forms than a writer picks.
           {"NonMinimal_Int4Bytes", "26 00 00 00 05", "i5"},
           {"NonMinimal_Int16BytesNegative", "28 FF*15 FE", "i-2"},
           {"NonMinimal_Uint1ByteZero", "34 00", "u0"},
           {"NonMinimal_Uint64BytesSmall", "3A 00*63 07", "u7"},
           {"NonMinimal_DoubleOne", "44 3F F0", "d1"},
           {"NonMinimal_DoubleZero8Bytes", "47 00*8", "d0"},
           {"NonMinimal_StringLength1", "58 03 61 62 63", "sabc"},
           {"NonMinimal_StringLength4", "5A 00 00 00 03 61 62 63", "sabc"},
           {"NonMinimal_BinaryLength2", "99 00 02 AA BB", "w%AABB"},
           {"NonMinimal_Time8BytesSmall", "75 FF*7 FB", "r-5"},
           {"NonMinimal_UuidZero16Bytes", "81 00*16", "g0"},
           {"NonMinimal_SequenceHint1Byte", "A8 02 21 AE 21 AF", "[2 i1 , i1 ]"},
           {"SequenceHint4Bytes", "AA 00 00 00 01 20 AF", "[1 i0 ]"},
           // The 8-byte count hint is accepted although no writer produces it.
           {"SequenceHint8Bytes", "AB 00*7 02 21 AE 21 AF", "[2 i1 , i1 ]"},
           // Chunk forms: 1-byte first chunk, empty chunks, chunks of 3, 0 and 2 bytes.
           {"Chunked_String3_0_2", "5B 03 61 62 63 5D 00 5E 00 02 64 65 5F", "sabcde"},
           {"Chunked_StringEmpty", "5B 00 5F", "s*0"},
           {"Chunked_BinaryEmptyFirst2Bytes", "9C 00 00 9D 01 AA 9F", "w%AA"},
           {"Chunked_StringMultiByteAcrossChunks", "5B 02 E2 82 5D 01 AC 5F", "s%E282AC"},
       })
    c.add_read_only(name, unhex(bytes), script);
}

}  // namespace

GoldenColumn const& binary_column() {
  static GoldenColumn const column = [] {
    GoldenColumn c;
    add_scalars(c);
    add_payloads(c);
    add_structures(c);
    add_read_only_forms(c);
    return c;
  }();
  return column;
}

}  // namespace zotest
