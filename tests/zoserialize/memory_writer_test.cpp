#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <support/binary_golden.h>
#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <support/memory_lists.h>
#include <support/random_document.h>
#include <support/test_streams.h>
#include <zocore/memory_stream.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/binary_reader.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/memory_reader.h>
#include <zoserialize/memory_writer.h>

namespace {

namespace error = zoserialize::error;
using zoserialize::BinaryReader;
using zoserialize::BinaryWriter;
using zoserialize::ConstMemoryListPtr;
using zoserialize::MemoryList;
using zoserialize::MemoryListBaseType;
using zoserialize::MemoryListPtr;
using zoserialize::MemoryReader;
using zoserialize::MemoryWriter;
using zoserialize::Reader;
using zoserialize::Writer;
using zotest::BinaryGoldenCase;
using zotest::bytes_of;
using zotest::list_in_pieces;
using zotest::list_of;

// What a stream writer makes of the same calls.
std::string stream_bytes(std::function<void(Writer&)> const& write) {
  auto const sink = zocore::make_ref_counted<zocore::StringWriteStream>();
  {
    BinaryWriter writer(sink, 16384);
    write(writer);
    writer.close();
  }
  return sink->str();
}

std::string written(MemoryWriter& writer) {
  return bytes_of(*writer.memory_list());
}

std::string hex_written(MemoryWriter& writer) {
  return zotest::hex(written(writer));
}

// The chunks the list's segments live in, in order.
std::vector<void const*> chunks_of(MemoryListBaseType const& list) {
  std::vector<void const*> out;
  for (auto const& segment : list)
    out.push_back(segment.chunk().get());
  return out;
}

// ---- Golden vectors -----------------------------------------------------------------------------

// Where a writer starts: a fresh list, lists of tiny chunks (every element crosses chunk seams),
// or behind bytes already in a list that somebody else still holds.
struct Start {
  char const* name;
  std::function<MemoryListPtr()> list;  // null: the default constructor
  std::string prefix;                   // bytes already in the list: a null and a true
  bool keep;                            // the test keeps a reference to the list
};

std::vector<Start> const& starts() {
  static std::vector<Start> const all = {
      {"Default", nullptr, "", false},
      {"NullList", [] { return MemoryListPtr(); }, "", false},
      {"Chunks1", [] { return zotest::tiny_chunk_list(1); }, "", false},
      {"Chunks3", [] { return zotest::tiny_chunk_list(3); }, "", false},
      {"Chunks7", [] { return zotest::tiny_chunk_list(7); }, "", false},
      {"AfterOwnBytes", [] { return list_of(zotest::bytes("00 11")); }, zotest::bytes("00 11"),
       false},
      {"AfterSharedBytes", [] { return list_of(zotest::bytes("00 11")); }, zotest::bytes("00 11"),
       true},
      {"AfterSharedChunks3",
       [] {
         MemoryListPtr list = zotest::tiny_chunk_list(3);
         list->append("\x00\x11", 2);
         return list;
       },
       zotest::bytes("00 11"), true},
  };
  return all;
}

class MemoryWriterGoldenTest : public ::testing::TestWithParam<BinaryGoldenCase> {};

TEST_P(MemoryWriterGoldenTest, WritesTheBytesOfTheStreamWriter) {
  BinaryGoldenCase const& row = GetParam();
  for (Start const& start : starts()) {
    SCOPED_TRACE(start.name);
    MemoryListPtr const kept = start.list && start.keep ? start.list() : nullptr;
    std::unique_ptr<MemoryWriter> writer;
    if (!start.list) {
      writer = std::make_unique<MemoryWriter>();
    } else {
      writer = std::make_unique<MemoryWriter>(kept ? kept : start.list());
    }
    row.write(*writer);
    writer->close();
    std::string const got = written(*writer);
    EXPECT_TRUE(got == start.prefix + row.bytes) << zotest::hex(got.substr(0, 64));
    EXPECT_TRUE(writer->memory_list()->validate_size());
    if (kept) {
      EXPECT_EQ(zotest::hex(bytes_of(*kept)), zotest::hex(start.prefix));
    }

    MemoryReader reader = writer->reader();
    if (!start.prefix.empty()) {
      reader.read_null();
      EXPECT_TRUE(reader.read_bool());
    }
    row.read(reader);
    EXPECT_TRUE(reader.is_eof());
  }
}

INSTANTIATE_TEST_SUITE_P(Written, MemoryWriterGoldenTest,
                         ::testing::ValuesIn(zotest::binary_golden_written_cases()),
                         [](auto const& p) { return p.param.name; });

TEST(MemoryWriterTest, RandomDocumentsMatchTheStreamWriter) {
  for (std::uint64_t seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    auto const sink = zocore::make_ref_counted<zocore::StringWriteStream>();
    std::vector<std::size_t> stream_ends;
    {
      BinaryWriter writer(sink, 4096);
      stream_ends = zotest::RandomDocument(seed).write(writer, [&] { return sink->str().size(); });
      writer.close();
    }
    MemoryWriter writer(seed % 2 ? zotest::tiny_chunk_list(7) : MemoryListPtr());
    std::vector<std::size_t> const ends =
        zotest::RandomDocument(seed).write(writer, [&] { return writer.memory_list()->size(); });
    writer.close();
    EXPECT_EQ(ends, stream_ends);
    EXPECT_TRUE(written(writer) == sink->str())
        << written(writer).size() << " bytes, the stream writer wrote " << sink->str().size();
  }
}

// ---- Where writing starts -----------------------------------------------------------------------

// 20 bytes whose write position is 10.
MemoryListPtr half_written_list() {
  MemoryListPtr list = list_of(zotest::pattern_string(0, 20));
  list->write_seek(10);
  return list;
}

TEST(MemoryWriterTest, ContinuesAtTheWritePositionOfItsOwnList) {
  MemoryListPtr list = half_written_list();
  MemoryListBaseType const* const raw = list.get();
  MemoryWriter writer(std::move(list));
  EXPECT_EQ(writer.memory_list().get(), raw);
  EXPECT_EQ(written(writer), zotest::pattern_string(0, 10));
  writer.write_null();
  EXPECT_EQ(written(writer), zotest::pattern_string(0, 10) + std::string(1, '\0'));
}

TEST(MemoryWriterTest, ContinuesAtTheWritePositionOfASharedListWithoutChangingIt) {
  MemoryListPtr const list = half_written_list();
  MemoryWriter writer(list);
  EXPECT_NE(writer.memory_list().get(), list.get());
  EXPECT_EQ(written(writer), zotest::pattern_string(0, 10));
  // The first ten bytes are shared, not copied.
  EXPECT_EQ(chunks_of(*writer.memory_list()), chunks_of(*list));
  writer << true << zotest::golden_text(3000);
  EXPECT_EQ(bytes_of(*list), zotest::pattern_string(0, 20));
  EXPECT_EQ(list->size(), 20u);
  EXPECT_EQ(list->get_write_position(), 10u);
  EXPECT_EQ(written(writer).substr(0, 11), zotest::pattern_string(0, 10) + "\x11");
}

TEST(MemoryWriterTest, ContinuesAtTheEndOfASharedListWithoutChangingIt) {
  MemoryListPtr const list = list_of(zotest::bytes("00 11"));
  MemoryWriter writer(list);
  writer << false;
  EXPECT_EQ(hex_written(writer), "00 11 10");
  EXPECT_EQ(zotest::hex(bytes_of(*list)), "00 11");
}

// ---- Sharing what has been written --------------------------------------------------------------

// Whatever is taken from the writer while it writes (its list, a sublist sharing only chunks, a
// reader) holds exactly what was written up to then, and keeps holding it.
TEST(MemoryWriterTest, SnapshotsTakenWhileWritingNeverChange) {
  for (std::uint64_t seed = 1; seed <= 12; ++seed) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    MemoryWriter writer(seed % 3 == 0 ? zotest::tiny_chunk_list(64) : MemoryListPtr());
    std::vector<MemoryListPtr> copies;
    std::vector<MemoryListPtr> sublists;
    std::vector<MemoryReader> readers;
    std::vector<std::size_t> const ends =
        zotest::RandomDocument(seed).write(writer, [&]() -> std::size_t {
          switch (copies.size() % 3) {
            case 0:
              readers.push_back(writer.reader());
              break;
            case 1:
              sublists.push_back(writer.memory_list()->sublist(0));
              break;
            default:
              break;
          }
          copies.push_back(writer.memory_list());
          return copies.back()->size();
        });
    writer.close();
    std::string const all = written(writer);
    ASSERT_EQ(copies.size(), ends.size());
    for (std::size_t i = 0; i < copies.size(); ++i) {
      EXPECT_TRUE(bytes_of(*copies[i]) == all.substr(0, ends[i])) << "copy " << i;
      EXPECT_TRUE(copies[i]->validate_size());
    }
    for (std::size_t i = 0; i < sublists.size(); ++i) {
      EXPECT_TRUE(bytes_of(*sublists[i]) == all.substr(0, ends[3 * i + 1])) << "sublist " << i;
    }
    for (std::size_t i = 0; i < readers.size(); ++i) {
      EXPECT_EQ(readers[i].size(), ends[3 * i]);
      std::size_t elements = 0;
      while (!readers[i].is_eof()) {
        readers[i].skip_element();
        ++elements;
      }
      EXPECT_EQ(elements, i * 3 + 1);
    }
  }
}

TEST(MemoryWriterTest, AppendingToASublistDoesNotDisturbTheWriter) {
  MemoryWriter writer;
  writer << std::string("abc");
  MemoryListPtr const sublist = writer.memory_list()->sublist(0);
  sublist->append("XYZ", 3);
  writer << true;
  sublist->append("Q", 1);
  EXPECT_EQ(hex_written(writer), "53 61 62 63 11");
  EXPECT_EQ(bytes_of(*sublist),
            "\x53"
            "abcXYZQ");
}

TEST(MemoryWriterTest, ReaderSeesWhatWasWrittenAndNothingLater) {
  MemoryWriter writer;
  writer << 1;
  MemoryReader reader = writer.reader();
  writer << 2;
  EXPECT_EQ(reader.size(), 1u);
  EXPECT_EQ(reader.read_int32(), 1);
  EXPECT_TRUE(reader.is_eof());
  EXPECT_EQ(hex_written(writer), "21 24 02");
}

TEST(MemoryWriterTest, ReaderFinishesAnOpenValueStream) {
  MemoryWriter writer;
  auto const stream = writer.write_binary();
  stream->write("abc", 3);
  MemoryReader reader = writer.reader();
  EXPECT_EQ(zotest::read_all(*reader.read_binary()), "abc");
  ZO_EXPECT_ERROR(stream->write("d", 1), error::zoserialize_writer_state,
                  "Binary stream writer object has already been closed");
  EXPECT_EQ(hex_written(writer), "93 61 62 63");
}

TEST(MemoryWriterTest, MemoryListLeavesAnOpenValueStreamOpen) {
  MemoryWriter writer;
  writer.write_null();
  auto const stream = writer.write_string_stream();
  stream->write("ab", 2);
  EXPECT_EQ(hex_written(writer), "00");
  stream->write("c", 1);
  writer.flush();
  EXPECT_EQ(hex_written(writer), "00 53 61 62 63");
}

TEST(MemoryWriterTest, RawReaderReadsTheBytesAfterFinishingAValueStream) {
  MemoryWriter writer;
  writer << -1;
  writer.write_binary()->write("xy", 2);
  auto reader = writer.create_raw_reader();
  EXPECT_EQ(reader.size(), 4u);
  std::string got(4, '\0');
  EXPECT_EQ(reader.read(got.data(), 4), 4u);
  EXPECT_EQ(zotest::hex(got), "22 92 78 79");
  writer << 0;
  EXPECT_TRUE(reader.is_eof());
  EXPECT_EQ(hex_written(writer), "22 92 78 79 20");
}

// ---- Markers, close, clear ----------------------------------------------------------------------

TEST(MemoryWriterTest, MarkersAreWrittenWithoutSize) {
  MemoryWriter writer;
  EXPECT_TRUE(writer.is_complete());
  writer.write_marker_start();
  EXPECT_FALSE(writer.is_complete());
  writer.write_marker_start();
  writer << std::string("abc");
  writer.write_marker_end();
  writer.write_marker_end();
  EXPECT_TRUE(writer.is_complete());
  writer.close();
  EXPECT_EQ(hex_written(writer), "B0 B0 53 61 62 63 BF BF");
}

// An operation that must fail with a fixed error and leave writer and list as they were.
struct Refusal {
  char const* name;
  std::function<void(MemoryWriter&)> setup;
  std::function<void(MemoryWriter&)> op;
  zocore::ErrorCode const* code;
  char const* message;
  char const* function;
};

std::ostream& operator<<(std::ostream& os, Refusal const& r) {
  return os << r.name;
}

class MemoryWriterRefusalTest : public ::testing::TestWithParam<Refusal> {};

TEST_P(MemoryWriterRefusalTest, FailsBeforeChangingAnything) {
  Refusal const& r = GetParam();
  MemoryWriter writer;
  writer << 5;
  r.setup(writer);
  MemoryListBaseType const* const list = writer.memory_list().get();
  std::string const before = written(writer);
  bool const complete = writer.is_complete();
  auto const info = zotest::expect_error([&] { r.op(writer); }, *r.code, r.message);
  ASSERT_TRUE(info);
  EXPECT_EQ(info->location().function().view(), r.function);
  EXPECT_EQ(writer.memory_list().get(), list);
  EXPECT_EQ(zotest::hex(written(writer)), zotest::hex(before));
  EXPECT_EQ(writer.is_complete(), complete);
  // Still open: it goes on writing.
  writer.write_null();
  EXPECT_EQ(zotest::hex(written(writer)), zotest::hex(before + std::string(1, '\0')));
}

void open_sequence(MemoryWriter& w) {
  w.write_sequence_start(2);
  w << 1;
}
void open_marker(MemoryWriter& w) {
  w.write_marker_start();
}
void open_both(MemoryWriter& w) {
  w.write_sequence_start();
  w.write_marker_start();
}
void nothing(MemoryWriter&) {}

constexpr char kCloseMarkers[] = "Attempt to close writer that has open markers";
constexpr char kCloseSequences[] = "Attempt to close writer that has open sequences";
constexpr char kClearIncomplete[] = "Cannot clear writer when there are open sequences or markers";
constexpr char kReaderIncomplete[] =
    "Cannot create reader from a writer while it has open sequences or markers";

INSTANTIATE_TEST_SUITE_P(
    Cases, MemoryWriterRefusalTest,
    ::testing::Values(
        Refusal{"CloseWithOpenMarker", open_marker, [](MemoryWriter& w) { w.close(); },
                &error::zoserialize_writer_marker_nesting, kCloseMarkers,
                "zoserialize::MemoryWriter::close()"},
        Refusal{"CloseWithMarkerAndSequenceReportsTheMarker", open_both,
                [](MemoryWriter& w) { w.close(); }, &error::zoserialize_writer_marker_nesting,
                kCloseMarkers, "zoserialize::MemoryWriter::close()"},
        Refusal{"CloseWithOpenSequence", open_sequence, [](MemoryWriter& w) { w.close(); },
                &error::zoserialize_writer_sequence_nesting, kCloseSequences,
                "zoserialize::BinaryWriterBase::close()"},
        Refusal{"DetachWithOpenMarker", open_marker,
                [](MemoryWriter& w) { w.close_and_detach_memory_list(); },
                &error::zoserialize_writer_marker_nesting, kCloseMarkers,
                "zoserialize::MemoryWriter::close()"},
        Refusal{"DetachWithOpenSequence", open_sequence,
                [](MemoryWriter& w) { w.close_and_detach_memory_list(); },
                &error::zoserialize_writer_sequence_nesting, kCloseSequences,
                "zoserialize::BinaryWriterBase::close()"},
        Refusal{"MarkerEndWithoutMarker", nothing, [](MemoryWriter& w) { w.write_marker_end(); },
                &error::zoserialize_writer_marker_nesting,
                "Attempt to close marker and none is open",
                "zoserialize::MemoryWriter::write_marker_end()"},
        Refusal{"MarkerEndInsideASequenceOnly", open_sequence,
                [](MemoryWriter& w) { w.write_marker_end(); },
                &error::zoserialize_writer_marker_nesting,
                "Attempt to close marker and none is open",
                "zoserialize::MemoryWriter::write_marker_end()"},
        Refusal{"ClearInsideASequence", open_sequence, [](MemoryWriter& w) { w.clear(); },
                &error::zoserialize_writer_incomplete, kClearIncomplete,
                "zoserialize::MemoryWriter::clear()"},
        Refusal{"ClearInsideAMarker", open_marker, [](MemoryWriter& w) { w.clear(); },
                &error::zoserialize_writer_incomplete, kClearIncomplete,
                "zoserialize::MemoryWriter::clear()"},
        Refusal{"RawReaderInsideASequence", open_sequence,
                [](MemoryWriter& w) { w.create_raw_reader(); },
                &error::zoserialize_writer_incomplete, kReaderIncomplete,
                "zoserialize::MemoryWriter::create_raw_reader()"},
        Refusal{"RawReaderInsideAMarker", open_marker,
                [](MemoryWriter& w) { w.create_raw_reader(); },
                &error::zoserialize_writer_incomplete, kReaderIncomplete,
                "zoserialize::MemoryWriter::create_raw_reader()"}),
    [](auto const& p) { return std::string(p.param.name); });

TEST(MemoryWriterTest, FailedCloseLeavesTheWriterUsable) {
  MemoryWriter writer;
  writer.write_sequence_start();
  writer.write_marker_start();
  ZO_EXPECT_ERROR(writer.close(), error::zoserialize_writer_marker_nesting, kCloseMarkers);
  writer.write_marker_end();
  ZO_EXPECT_ERROR(writer.close(), error::zoserialize_writer_sequence_nesting, kCloseSequences);
  writer.write_sequence_end();
  writer.close();
  writer.close();
  EXPECT_EQ(hex_written(writer), "A0 B0 BF AF");
}

TEST(MemoryWriterTest, ClearEmptiesItsOwnListInPlace) {
  MemoryWriter writer;
  writer << std::string("abc");
  MemoryListBaseType const* const list = writer.memory_list().get();
  writer.clear();
  EXPECT_EQ(writer.memory_list().get(), list);
  EXPECT_TRUE(writer.memory_list()->empty());
  writer << true;
  EXPECT_EQ(hex_written(writer), "11");
}

TEST(MemoryWriterTest, ClearOfASharedListStartsANewOne) {
  MemoryWriter writer;
  writer << std::string("abc");
  MemoryListPtr const copy = writer.memory_list();
  writer.clear();
  EXPECT_NE(writer.memory_list().get(), copy.get());
  EXPECT_TRUE(writer.memory_list()->empty());
  writer << true;
  EXPECT_EQ(hex_written(writer), "11");
  EXPECT_EQ(zotest::hex(bytes_of(*copy)), "53 61 62 63");
}

TEST(MemoryWriterTest, ClearAfterAFailedClearWorks) {
  MemoryWriter writer;
  writer.write_sequence_start();
  ZO_EXPECT_ERROR(writer.clear(), error::zoserialize_writer_incomplete, kClearIncomplete);
  EXPECT_EQ(hex_written(writer), "A0");
  writer.write_sequence_end();
  writer.clear();
  EXPECT_TRUE(writer.memory_list()->empty());
}

// ---- Closed writers -----------------------------------------------------------------------------

struct ClosedCase {
  char const* name;
  std::function<void(MemoryWriter&)> op;
};

std::ostream& operator<<(std::ostream& os, ClosedCase const& c) {
  return os << c.name;
}

class MemoryWriterClosedTest : public ::testing::TestWithParam<ClosedCase> {};

constexpr char kClosed[] = "Cannot write to MemoryWriter, it has already been closed";

void expect_closed_failure(MemoryWriter& writer, ClosedCase const& c) {
  auto const info = ZO_EXPECT_ERROR(c.op(writer), error::zoserialize_writer_closed, kClosed);
  ASSERT_TRUE(info);
  EXPECT_EQ(info->location().function().view(), "zoserialize::MemoryWriter::impl_write()");
  EXPECT_TRUE(writer.is_complete());
}

TEST_P(MemoryWriterClosedTest, FailsAfterCloseAndKeepsTheListReadable) {
  MemoryWriter writer;
  writer.write_null();
  writer.close();
  expect_closed_failure(writer, GetParam());
  EXPECT_EQ(hex_written(writer), "00");
  MemoryReader reader = writer.reader();
  reader.read_null();
  EXPECT_TRUE(reader.is_eof());
  // clear() reopens it.
  writer.clear();
  writer << true;
  EXPECT_EQ(hex_written(writer), "11");
}

TEST_P(MemoryWriterClosedTest, FailsAfterTheListWasHandedOver) {
  MemoryWriter writer;
  writer.write_null();
  MemoryListPtr const list = writer.close_and_detach_memory_list();
  expect_closed_failure(writer, GetParam());
  EXPECT_FALSE(writer.memory_list());
  EXPECT_EQ(zotest::hex(bytes_of(*list)), "00");
  EXPECT_TRUE(list->is_unique());
}

INSTANTIATE_TEST_SUITE_P(
    Operations, MemoryWriterClosedTest,
    ::testing::Values(
        ClosedCase{"Null", [](MemoryWriter& w) { w.write_null(); }},
        ClosedCase{"Int", [](MemoryWriter& w) { w << 100000; }},
        ClosedCase{"WideInt",
                   [](MemoryWriter& w) {
                     unsigned char const image[20] = {1};
                     w.write_int_big_endian(image, 20);
                   }},
        ClosedCase{"Double", [](MemoryWriter& w) { w << 0.1; }},
        ClosedCase{"String", [](MemoryWriter& w) { w << std::string("abc"); }},
        ClosedCase{"LargeString", [](MemoryWriter& w) { w << zotest::golden_text(70000); }},
        ClosedCase{"StringFromStream",
                   [](MemoryWriter& w) {
                     zotest::ByteSource source("abc");
                     w.write_string_stream(source);
                   }},
        ClosedCase{"StringStream", [](MemoryWriter& w) { w.write_string_stream(); }},
        ClosedCase{"BinaryStream", [](MemoryWriter& w) { w.write_binary(); }},
        ClosedCase{"BinaryStreamFinished",
                   [](MemoryWriter& w) {
                     w.write_binary()->write("abc", 3);
                     w.flush();
                   }},
        ClosedCase{"BinaryStreamDirect",
                   [](MemoryWriter& w) {
                     std::string const data(5000, 'x');
                     w.write_binary()->write(data.data(), 5000);
                   }},
        ClosedCase{"Uuid", [](MemoryWriter& w) { w << zoserialize::Uuid(); }},
        ClosedCase{"SequenceStart", [](MemoryWriter& w) { w.write_sequence_start(3); }},
        ClosedCase{"MarkerStart", [](MemoryWriter& w) { w.write_marker_start(); }},
        ClosedCase{"EmbeddedList",
                   [](MemoryWriter& w) { w.write_binary(ConstMemoryListPtr(list_of("abc"))); }},
        ClosedCase{"EmbeddedNullList",
                   [](MemoryWriter& w) { w.write_binary(ConstMemoryListPtr()); }},
        ClosedCase{"EmbeddedEmptyList",
                   [](MemoryWriter& w) { w.write_memory_list_as_binary(*MemoryList::create()); }},
        ClosedCase{"EmbeddedReader",
                   [](MemoryWriter& w) {
                     w.write_memory_reader(MemoryReader(ConstMemoryListPtr(list_of("\x11"))));
                   }},
        ClosedCase{
            "EmbeddedEndedReader",
            [](MemoryWriter& w) { w.write_memory_reader(MemoryReader(ConstMemoryListPtr())); }}),
    [](auto const& p) { return std::string(p.param.name); });

TEST(MemoryWriterTest, DetachedWriterHasNothingToReadAndClearStartsAgain) {
  MemoryWriter writer;
  writer << 7;
  MemoryListPtr const list = writer.close_and_detach_memory_list();
  EXPECT_EQ(zotest::hex(bytes_of(*list)), "24 07");
  EXPECT_TRUE(writer.reader().is_eof());
  EXPECT_EQ(writer.create_raw_reader().size(), 0u);
  writer.flush();
  writer.close();
  writer.clear();
  writer << 8;
  EXPECT_EQ(hex_written(writer), "24 08");
  EXPECT_EQ(zotest::hex(bytes_of(*list)), "24 07");
}

// ---- Embedded lists -----------------------------------------------------------------------------

struct EmbedCase {
  std::size_t size;
  std::size_t lead;  // bytes written before the embedded list
};

class MemoryWriterEmbedTest : public ::testing::TestWithParam<EmbedCase> {};

TEST_P(MemoryWriterEmbedTest, EmbeddedListsHaveTheBytesOfAWholeBinary) {
  EmbedCase const& c = GetParam();
  std::string const data = zotest::pattern_string(11, c.size);
  std::string const lead = zotest::golden_text(c.lead);
  std::string const expected = stream_bytes([&](Writer& w) {
    if (c.lead != 0) w << lead;
    w.write_binary(data.data(), static_cast<unsigned>(data.size()));
    w.write_null();
  });
  std::vector<MemoryListPtr> sources = {list_of(data), list_in_pieces(data, {1, 3, 500, 7000}),
                                        list_in_pieces(data, {1000})};
  MemoryListPtr tiny = zotest::tiny_chunk_list(7);
  tiny->append(data.data(), static_cast<unsigned>(data.size()));
  sources.push_back(tiny);
  for (MemoryListPtr const& source : sources) {
    for (int form = 0; form < 3; ++form) {
      MemoryWriter writer;
      if (c.lead != 0) writer << lead;
      if (form == 0) writer.write_binary(ConstMemoryListPtr(source));
      if (form == 1) writer.write_memory_list_as_binary(ConstMemoryListPtr(source));
      if (form == 2) writer.write_memory_list_as_binary(*source);
      writer.write_null();
      EXPECT_TRUE(written(writer) == expected) << "form " << form;
      EXPECT_TRUE(writer.memory_list()->validate_size());
      EXPECT_TRUE(bytes_of(*source) == data);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, MemoryWriterEmbedTest,
                         ::testing::Values(EmbedCase{0, 0}, EmbedCase{1, 0}, EmbedCase{7, 10},
                                           EmbedCase{8, 0}, EmbedCase{255, 1000}, EmbedCase{256, 3},
                                           EmbedCase{4096, 1020}, EmbedCase{65535, 0},
                                           EmbedCase{65536, 70}, EmbedCase{100000, 519}),
                         [](auto const& p) {
                           return "Size" + std::to_string(p.param.size) + "After" +
                                  std::to_string(p.param.lead);
                         });

TEST(MemoryWriterTest, NullListIsAnEmptyBinary) {
  MemoryWriter writer;
  writer.write_binary(ConstMemoryListPtr());
  writer.write_memory_list_as_binary(ConstMemoryListPtr());
  writer.write_memory_list_as_binary(*MemoryList::create());
  EXPECT_EQ(hex_written(writer), "90 90 90");
}

// A writer whose single 1024-byte chunk has `free` bytes left once the 5-byte tag of a
// 100,000-byte binary is written.
std::unique_ptr<MemoryWriter> writer_with_room(unsigned free) {
  auto writer = std::make_unique<MemoryWriter>();
  std::string const lead = zotest::pattern_string(0, 1024 - 5 - free - 3);
  writer->write_binary(lead.data(), static_cast<unsigned>(lead.size()));  // 99 xx xx + lead
  EXPECT_EQ(writer->memory_list()->segment_count(), 1u);
  EXPECT_EQ(writer->memory_list()->remaining_space_last_chunk(), free + 5);
  return writer;
}

TEST(MemoryWriterTest, EmbeddingCopiesOnlyWhatFitsTheFreeRoomAndSharesTheRest) {
  std::string const data = zotest::pattern_string(5, 100000);
  MemoryListPtr const source = list_in_pieces(data, {100, 400, 1, 2, 99497});
  std::vector<void const*> const source_chunks = chunks_of(*source);
  auto const writer = writer_with_room(500);
  writer->write_binary(ConstMemoryListPtr(source));
  MemoryListPtr const& list = writer->memory_list();
  // 100 and 400 bytes fill the free room; the 1-byte piece no longer fits, so it and everything
  // after it are shared.
  ASSERT_EQ(list->segment_count(), 4u);
  EXPECT_EQ(list->begin()->size(), 1024u);
  std::vector<void const*> const chunks = chunks_of(*list);
  EXPECT_EQ(std::vector<void const*>(chunks.begin() + 1, chunks.end()),
            std::vector<void const*>(source_chunks.begin() + 2, source_chunks.end()));
  EXPECT_TRUE(written(*writer).substr(1024 - 500) == data.substr(0, data.size()));
}

TEST(MemoryWriterTest, EmbeddingALargeFirstPieceSharesEverything) {
  std::string const data = zotest::pattern_string(5, 100000);
  MemoryListPtr const source = list_of(data);  // pooled: 65536 + 34464 bytes
  auto const writer = writer_with_room(500);
  writer->write_binary(ConstMemoryListPtr(source));
  std::vector<void const*> const chunks = chunks_of(*writer->memory_list());
  ASSERT_EQ(chunks.size(), 1 + source->segment_count());
  EXPECT_EQ(std::vector<void const*>(chunks.begin() + 1, chunks.end()), chunks_of(*source));
  EXPECT_EQ(writer->memory_list()->begin()->size(), 1024u - 500);
}

TEST(MemoryWriterTest, EmbeddedChunksStaySharedWhileWritingGoesOn) {
  std::string const data = zotest::pattern_string(5, 100000);
  MemoryListPtr const source = list_of(data);
  ASSERT_NE(source->remaining_space_last_chunk(), 0u);
  MemoryWriter writer;
  writer.write_binary(ConstMemoryListPtr(source));
  writer << true << zotest::golden_text(3000);
  std::vector<void const*> const chunks = chunks_of(*writer.memory_list());
  std::vector<void const*> const shared = chunks_of(*source);
  ASSERT_GE(chunks.size(), 1 + shared.size());
  EXPECT_EQ(std::vector<void const*>(chunks.begin() + 1, chunks.begin() + 1 + shared.size()),
            shared);
  // Neither side sees the other's later bytes.
  source->append("tail", 4);
  writer.write_null();
  EXPECT_TRUE(bytes_of(*source) == data + "tail");
  MemoryReader reader = writer.reader();
  EXPECT_TRUE(zotest::read_all(*reader.read_binary()) == data);
  EXPECT_TRUE(reader.read_bool());
  EXPECT_TRUE(reader.read_string() == zotest::golden_text(3000));
  reader.read_null();
  EXPECT_TRUE(reader.is_eof());
}

TEST(MemoryWriterTest, EmbeddingItsOwnListEmbedsWhatWasWrittenBefore) {
  for (int form = 0; form < 3; ++form) {
    SCOPED_TRACE(::testing::Message() << "form " << form);
    MemoryWriter writer;
    writer << 1 << std::string("abc");
    std::vector<void const*> const before = chunks_of(*writer.memory_list());
    if (form == 0) writer.write_binary(writer.memory_list());
    if (form == 1) writer.write_memory_list_as_binary(*writer.memory_list());
    if (form == 2) {
      MemoryListPtr const held = writer.memory_list();
      writer.write_memory_list_as_binary(*held);
    }
    writer << 2;
    EXPECT_EQ(hex_written(writer), "21 53 61 62 63 95 21 53 61 62 63 24 02");
    if (form == 1) {
      // memory_list() shares the list with the caller, so the writer moved to a clone of its own
      // before writing the tag into a new chunk, and copied the five embedded bytes behind it.
      std::vector<void const*> const chunks = chunks_of(*writer.memory_list());
      EXPECT_EQ(std::count(chunks.begin(), chunks.end(), before[0]), 1);
    }
  }
}

// ---- Embedded readers ---------------------------------------------------------------------------

TEST(MemoryWriterTest, ReaderAtItsEndBecomesAnEmptyMarker) {
  MemoryReader reader(ConstMemoryListPtr(list_of(zotest::bytes("11"))));
  reader.read_bool();
  MemoryWriter writer;
  writer.write_memory_reader(reader);
  writer.write_memory_reader(MemoryReader(ConstMemoryListPtr()));
  EXPECT_TRUE(writer.is_complete());
  EXPECT_EQ(hex_written(writer), "B0 BF B0 BF");
  EXPECT_TRUE(reader.is_eof());
}

class MemoryWriterRestTest : public ::testing::TestWithParam<std::size_t> {};

TEST_P(MemoryWriterRestTest, RestOfAReaderBecomesOneSizedMarker) {
  std::size_t const size = GetParam();
  std::string const rest = zotest::pattern_string(1, size);
  std::string header;
  if (size < 256) {
    header = zotest::bytes("B4") + std::string(1, static_cast<char>(size));
  } else if (size < 65536) {
    header = zotest::bytes("B5") + std::string(1, static_cast<char>(size >> 8)) +
             std::string(1, static_cast<char>(size & 0xFF));
  } else {
    header = zotest::bytes("B6 00") + std::string(1, static_cast<char>(size >> 16)) +
             std::string(1, static_cast<char>((size >> 8) & 0xFF)) +
             std::string(1, static_cast<char>(size & 0xFF));
  }
  for (zotest::ListLayout const& layout : zotest::large_list_layouts()) {
    SCOPED_TRACE(layout.name);
    MemoryListPtr const source = layout.make(zotest::bytes("21 22") + rest);
    MemoryReader reader{ConstMemoryListPtr(source)};
    reader.read_int32();
    reader.read_int32();
    MemoryWriter writer;
    writer.write_null();
    writer.write_memory_reader(reader);
    writer.write_null();
    std::string expected(1, '\0');
    expected += header;
    expected += rest;
    expected += zotest::bytes("BF 00");
    EXPECT_TRUE(written(writer) == expected);
    EXPECT_EQ(reader.position(), 2u) << "the reader is not moved";
    EXPECT_TRUE(bytes_of(*source) == zotest::bytes("21 22") + rest);
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, MemoryWriterRestTest,
                         ::testing::Values(1, 7, 255, 256, 1500, 65535, 65536, 70000));

TEST(MemoryWriterTest, LargeRestIsSharedByReference) {
  std::string const rest = zotest::pattern_string(1, 150000);
  MemoryListPtr const source = list_of(rest);  // 65536, 65536 and 18928 bytes, room behind
  MemoryReader reader{ConstMemoryListPtr(source)};
  MemoryWriter writer;
  writer.write_memory_reader(reader);
  writer.write_null();
  std::vector<void const*> const chunks = chunks_of(*writer.memory_list());
  std::vector<void const*> const shared = chunks_of(*source);
  ASSERT_GE(chunks.size(), 1 + shared.size());
  EXPECT_EQ(std::vector<void const*>(chunks.begin() + 1, chunks.begin() + 1 + shared.size()),
            shared);
  MemoryReader back = writer.reader();
  MemoryReader contents = back.read_memory_reader();
  EXPECT_EQ(contents.size(), rest.size());
  back.read_null();
  EXPECT_TRUE(back.is_eof());
}

TEST(MemoryWriterTest, MarkerContentsReaderWritesOnlyItsRange) {
  MemoryReader outer(ConstMemoryListPtr(list_of(zotest::bytes("B0 21 22 BF 11"))));
  MemoryReader contents = outer.read_memory_reader();
  contents.read_int32();
  MemoryWriter writer;
  writer.write_memory_reader(contents);
  EXPECT_EQ(hex_written(writer), "B4 01 22 BF");
}

TEST(MemoryWriterTest, ReaderOverItsOwnListEmbedsTheRest) {
  MemoryWriter writer;
  writer << 1 << 2;
  MemoryReader reader = writer.reader();
  reader.read_int32();
  writer.write_memory_reader(reader);
  writer.write_memory_reader(reader);
  EXPECT_EQ(hex_written(writer), "21 24 02 B4 02 24 02 BF B4 02 24 02 BF");
}

// A relay decodes the envelope of a message and forwards the body it does not understand, without
// re-encoding it; the receiver reads the body as if it had been sent directly.
TEST(MemoryWriterTest, ForwardsTheRestOfADecodedMessage) {
  std::string const payload = zotest::pattern_string(0, 5000);
  MemoryWriter sender(zotest::tiny_chunk_list(64));
  sender.write_marker_start();
  sender << std::string("to:relay") << 42u;
  sender.write_sequence_start(2);
  sender << std::string("body");
  sender.write_sequence_separator();
  sender.write_binary(payload.data(), static_cast<unsigned>(payload.size()));
  sender.write_sequence_end();
  sender << zoserialize::RelativeTime(1500);
  sender.write_marker_end();
  std::string const sent = written(sender);

  MemoryReader relay_in = sender.reader();
  MemoryReader message = relay_in.read_memory_reader();
  EXPECT_TRUE(relay_in.is_eof());
  EXPECT_EQ(message.read_string(), "to:relay");
  EXPECT_EQ(message.read_uint32(), 42u);
  MemoryWriter relay_out;
  relay_out.write_marker_start();
  relay_out << std::string("to:receiver");
  relay_out.write_memory_reader(message);
  relay_out.write_marker_end();

  auto const read_body = [&](Reader& body) {
    EXPECT_EQ(body.read_sequence_start(), 2u);
    EXPECT_TRUE(body.read_sequence_next());
    EXPECT_EQ(body.read_string(), "body");
    EXPECT_TRUE(body.read_sequence_next());
    EXPECT_TRUE(zotest::read_all(*body.read_binary()) == payload);
    EXPECT_FALSE(body.read_sequence_next());
    EXPECT_EQ(body.read_relative_time().count(), 1500);
  };
  // As a reader of its own.
  MemoryReader in = relay_out.reader();
  in.read_marker_start();
  EXPECT_EQ(in.read_string(), "to:receiver");
  MemoryReader body = in.read_memory_reader();
  read_body(body);
  EXPECT_TRUE(body.is_eof());
  in.read_marker_end();
  EXPECT_TRUE(in.is_eof());
  // As a marker in the reader's own stream, by the memory reader and by the stream reader.
  MemoryReader direct = relay_out.reader();
  BinaryReader stream(zocore::make_ref_counted<zotest::ByteSource>(written(relay_out)), 16);
  for (Reader* r : {static_cast<Reader*>(&direct), static_cast<Reader*>(&stream)}) {
    r->read_marker_start();
    EXPECT_EQ(r->read_string(), "to:receiver");
    r->read_marker_start();
    read_body(*r);
    EXPECT_TRUE(r->read_marker_is_end());
    r->read_marker_end();
    r->read_marker_end();
    EXPECT_TRUE(r->is_eof());
  }
  EXPECT_TRUE(written(sender) == sent);
}

// ---- Threads ------------------------------------------------------------------------------------

// Lists taken from a writer go to other threads, which read and release them while the writer
// goes on appending: the writer never touches bytes it shares.
TEST(MemoryWriterThreadsTest, SnapshotsAreReadOnOtherThreadsWhileTheWriterWrites) {
  std::string const text = zotest::golden_text(700);
  MemoryWriter writer;
  std::vector<std::thread> readers;
  std::vector<std::size_t> expected_elements;
  for (int round = 0; round < 60; ++round) {
    for (int i = 0; i < 5; ++i)
      writer << text << round;
    MemoryReader snapshot = writer.reader();
    readers.emplace_back([snapshot = std::move(snapshot), round, &text]() mutable {
      int elements = 0;
      while (!snapshot.is_eof()) {
        EXPECT_TRUE(snapshot.read_string() == text);
        EXPECT_EQ(snapshot.read_int32(), elements / 5);
        ++elements;
      }
      EXPECT_EQ(elements, (round + 1) * 5);
    });
    if (readers.size() == 4) {
      for (std::thread& t : readers)
        t.join();
      readers.clear();
    }
  }
  for (std::thread& t : readers)
    t.join();
  // Every snapshot is gone: the writer hands over a list nobody else holds.
  EXPECT_TRUE(writer.close_and_detach_memory_list()->is_unique());
}

}  // namespace
