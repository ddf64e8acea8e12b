#include <cstdint>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <support/memory_lists.h>
#include <support/script.h>
#include <support/test_streams.h>
#include <zocore/core_errors.h>
#include <zocore/error_exception.h>
#include <zocore/memory_stream.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/memory_reader.h>

namespace {

namespace error = zoserialize::error;
using zoserialize::ConstMemoryListPtr;
using zoserialize::IReadStream;
using zoserialize::MemoryListPtr;
using zoserialize::MemoryReader;
using zoserialize::Reader;
using zotest::bytes_of;
using zotest::list_in_pieces;
using zotest::list_of;
using zotest::pattern_string;

MemoryReader reader_of_hex(std::string_view hex) {
  return MemoryReader(ConstMemoryListPtr(list_of(zotest::bytes(hex))));
}

// Everything left in `reader`, copied element by element into a stream writer.
std::string copy_all(Reader& reader) {
  auto const sink = zocore::make_ref_counted<zocore::StringWriteStream>();
  zoserialize::BinaryWriter writer(sink, 4096);
  reader.read_copy_all(writer);
  writer.close();
  return sink->str();
}

std::string chunked_string(std::string const& text, std::size_t chunk) {
  std::string out;
  for (std::size_t at = 0; at < text.size(); at += chunk) {
    std::size_t const n = std::min(chunk, text.size() - at);
    out += zotest::bytes(at == 0 ? "5C" : "5E") + static_cast<char>(n >> 8) +
           static_cast<char>(n & 0xFF) + text.substr(at, n);
  }
  return out + zotest::bytes("5F");
}

// A bad byte anywhere fails in read_string_stream itself; characters cut by seams are whole again.
TEST(MemoryReaderTest, StringStreamsAreValidatedWholeAcrossSeams) {
  std::string const text = zotest::golden_text(120);
  std::vector<std::string> bad = {"51 C3", "53 61 E2 82", "5B 02 61 E2 5D 01 82 5F", "5B 01 F0 5F",
                                  "5B 01 C3 5D 00 5F"};  // cut characters
  for (std::string& e : bad)
    e = zotest::bytes(e);
  for (std::size_t at = 0; at < text.size(); ++at) {
    std::string broken = text;
    broken[at] = '\xFF';
    bad.insert(bad.end(), {zotest::bytes("58 78") + broken, chunked_string(broken, 7)});
  }
  for (std::string const& e : bad) {
    for (MemoryListPtr const& list :
         {list_of(e), list_in_pieces(e, {1}), list_in_pieces(e, {3, 5})}) {
      MemoryReader reader{ConstMemoryListPtr(list)};
      ZO_EXPECT_ERROR(reader.read_string_stream(), zocore::error::zocore_utf8,
                      "Invalid UTF-8 sequence at offset {@offset}");
    }
  }
  for (std::string const& e :
       {zotest::bytes("58 78") + text, chunked_string(text, 7), chunked_string(text, 1)}) {
    for (std::size_t cut = 0; cut < e.size(); ++cut) {
      MemoryReader reader{ConstMemoryListPtr(list_in_pieces(e, {cut, e.size()}))};
      EXPECT_TRUE(zotest::read_all(*reader.read_string_stream(), 5) == text) << cut;
    }
  }
}

TEST(MemoryReaderTest, ReadMemoryReaderReturnsTheContentsOfAMarker) {
  // 10 content bytes: 26 00 01 86 A0, 53 61 62 63, 11.
  for (char const* start : {"B0", "B4 0A", "B5 00 0A", "B7 00 00 00 00 00 00 00 0A"}) {
    std::string const data =
        zotest::bytes(std::string(start) + " 26 00 01 86 A0 53 61 62 63 11 BF 22");
    for (zotest::ListLayout const& layout : zotest::list_layouts()) {
      SCOPED_TRACE(::testing::Message() << start << " " << layout.name);
      MemoryReader reader{ConstMemoryListPtr(layout.make(data))};
      MemoryReader contents = reader.read_memory_reader();
      EXPECT_TRUE(reader.position() == data.size() - 1 && reader.read_int32() == -1);
      EXPECT_TRUE(contents.size() == 10 && contents.read_int32() == 100000);
      EXPECT_EQ(contents.position(), 5U);
      std::string rest;
      for (auto piece = contents.segment_iterator(); !piece.at_end(); piece.next())
        rest.append(piece.data(), piece.size());
      EXPECT_EQ(zotest::hex(rest), "53 61 62 63 11");
      EXPECT_TRUE(contents.read_string() == "abc" && contents.read_bool());
      // The range ends before the end tag, although the list goes on.
      EXPECT_TRUE(contents.is_eof() && contents.next_token() == Reader::EToken::Eof);
      ZO_EXPECT_ERROR(contents.read_marker_end(), error::zoserialize_reader_marker_mismatch,
                      "No markers are currently open");
      ZO_EXPECT_ERROR(contents.read_null(), error::zoserialize_reader_eof,
                      "Unable to read tag byte, reader at end of memory list");
    }
  }
  MemoryReader empty{ConstMemoryListPtr()};
  EXPECT_TRUE(empty.is_eof() && empty.size() == 0 && empty.memory_list()->empty());
  // Ranges nest and count from their own start; a marker in a range may not claim bytes beyond.
  MemoryReader outer = reader_of_hex("00 B4 0D 21 B4 03 22 A0 AF BF B4 05 11 BF 20 20 BF 00");
  outer.read_null();
  MemoryReader middle = outer.read_memory_reader();
  EXPECT_EQ(middle.read_int32(), 1);
  MemoryReader inner = middle.read_memory_reader();
  EXPECT_TRUE(zotest::hex(copy_all(inner)) == "22 A0 AF" && middle.position() == 7);
  zotest::expect_error_details([&] { middle.read_marker_start(); },
                               error::zoserialize_reader_data_size,
                               "Invalid marker size or truncated stream: number of bytes remaining "
                               "in stream is smaller than size of marker.  Expected={@expected}, "
                               "BytesRemaining={@remaining}",
                               "remaining=4");
  outer.read_null();
  EXPECT_TRUE(outer.is_eof());
}

TEST(MemoryReaderTest, MarkerEndOfAHalfReadSizedMarkerLandsOnTheEndTag) {
  // The end is the one the marker declared, from wherever the reader stands (the stream reader
  // skips the whole declared size again).
  std::string const data = zotest::bytes("B4 05 21 22 20 30 31 BF 00 B4 04 59 00 01 BF BF 11");
  for (zotest::ListLayout const& layout : zotest::list_layouts()) {
    MemoryReader reader{ConstMemoryListPtr(layout.make(data))};
    zotest::run_ops(reader, "{ i i }");
    EXPECT_EQ(reader.position(), 8U) << layout.name;
    zotest::run_ops(reader, "n { }");  // unread: skipped whole
    EXPECT_TRUE(reader.position() == 16 && reader.read_bool());
  }
}

TEST(MemoryReaderTest, PayloadStreamsOutliveTheirPositionAndTheReader) {
  std::string const data = pattern_string(0, 600);
  std::string const doc = zotest::bytes("99 02 58") + data + zotest::bytes("9C 01 2C") +
                          data.substr(0, 300) + zotest::bytes("9D 00 9E 01 2C") + data.substr(300) +
                          zotest::bytes("9F 11");
  for (zotest::ListLayout const& layout : zotest::list_layouts()) {
    SCOPED_TRACE(layout.name);
    zoserialize::InterfacePtr<IReadStream> plain, pieces;
    {
      MemoryReader reader{ConstMemoryListPtr(layout.make(doc))};
      plain = reader.read_binary();
      EXPECT_TRUE(plain->skip(10) == 10 && plain->bytes_remaining() == 590);
      pieces = reader.read_binary();
      EXPECT_TRUE(pieces->bytes_remaining() == 0xFFFFFFFFU && reader.read_bool());
    }
    EXPECT_EQ(plain->skip(90), 90U);
    EXPECT_TRUE(zotest::read_all(*plain, 7) == data.substr(100) && plain->bytes_remaining() == 0);
    EXPECT_EQ(pieces->skip(299), 299U);
    EXPECT_TRUE(zotest::read_all(*pieces, 13) == data.substr(299));
  }
  MemoryReader reader(ConstMemoryListPtr(list_of(zotest::bytes("93 01 02 03 9B 01 AA 9F"))));
  for (auto const& closed : {reader.read_binary(), reader.read_binary()}) {
    closed->close();
    char c;
    EXPECT_EQ(closed->read(&c, 1), 0U);
  }
}

TEST(MemoryReaderTest, PayloadsAsMemoryListsShareTheChunks) {
  std::string const payload = pattern_string(7, 5000);
  MemoryListPtr const list =
      list_in_pieces(zotest::bytes("99 13 88") + payload + zotest::bytes("00"), {1003, 2000, 3000});
  MemoryReader reader{ConstMemoryListPtr(list)};
  MemoryListPtr const result = reader.read_binary_as_memory_list();
  EXPECT_TRUE(bytes_of(*result) == payload);
  // The rest of the first piece, the second, the front of the third.
  EXPECT_EQ(zotest::chunks_of(*result), zotest::chunks_of(*list));
  EXPECT_EQ(result->begin()->size(), 1000U);
  reader.read_null();
  EXPECT_TRUE(reader.is_eof());
  std::string const chunked = zotest::bytes("9C 01 2C") + payload.substr(0, 300) +
                              zotest::bytes("9D 00 9D 64") + payload.substr(300, 100) +
                              zotest::bytes("9E 01 2C") + payload.substr(400, 300) +
                              zotest::bytes("9F 92 AA BB");
  MemoryListPtr const one = list_in_pieces(chunked, {chunked.size()});
  MemoryReader pieces{ConstMemoryListPtr(one)};
  MemoryListPtr const target = list_of("xy");
  pieces.read_binary_append_memory_list(target);
  pieces.read_binary_append_memory_list(target);
  EXPECT_TRUE(bytes_of(*target) == "xy" + payload.substr(0, 700) + "\xAA\xBB");
  for (void const* chunk : zotest::chunks_of(*target->sublist(2)))
    EXPECT_EQ(chunk, one->begin()->chunk().get());
}

TEST(MemoryReaderTest, CopiesKeepOrDropTheOpenScopes) {
  MemoryReader reader = reader_of_hex("B0 A2 21 AE 22 AF BF 00");
  zotest::run_ops(reader, "{ [ >");
  MemoryReader bare = reader.clone(false);
  for (MemoryReader copy : {MemoryReader(reader), reader.clone(true)}) {
    zotest::run_ops(copy,
                    "i > i > } n");  // both elements, the sequence end, the marker end, the null
    EXPECT_TRUE(copy.is_eof());
  }
  EXPECT_EQ(bare.read_int32(), 1);
  ZO_EXPECT_ERROR(bare.read_sequence_next(), error::zoserialize_reader_sequence_nesting,
                  "Attempt to advance to next element in sequence but no sequence is open");
  // A reader without scopes may be assigned to: list, position and range, never the scopes.
  MemoryReader outer = reader_of_hex("B0 21 22 BF 20");
  MemoryReader contents = outer.read_memory_reader();
  contents.read_int32();
  bare = contents;
  EXPECT_TRUE(bare.position() == 1 && bare.size() == 2 &&
              bare.memory_list() == outer.memory_list());
  EXPECT_TRUE(bare.read_int32() == -1 && bare.is_eof() && contents.position() == 1);
  reader.swap(contents);
  EXPECT_EQ(reader.read_int32(), -1);
  MemoryReader moved(std::move(contents));
  zotest::run_ops(moved, "i > i > }");
  EXPECT_EQ(moved.position(), 7U);
}

TEST(MemoryReaderTest, TracePrintsTheStateAndUpTo16NextBytes) {
  MemoryReader reader = reader_of_hex("B0 A1 55 61 62 63 64 65 AF BF 00 10 11 00 10 11 00 10 11");
  zotest::run_ops(reader, "{ [ >");
  std::ostringstream os;
  os << std::hex << 255 << ' ' << MemoryReader::Trace{reader} << ' ' << 255;
  EXPECT_EQ(os.str(),
            "ff MemoryReader: position=2, size=19, openMarkers=1, openSequences=true, "
            "currentTag=0xa1\n"
            "  00000002  55 61 62 63 64 65 af bf  00 10 11 00 10 11 00 10  |Uabcde..........| ff");
}

}  // namespace
