#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <support/memory_lists.h>
#include <support/random_document.h>
#include <support/script.h>
#include <support/test_streams.h>
#include <zocore/memory_stream.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/memory_reader.h>
#include <zoserialize/memory_writer.h>

namespace {

namespace error = zoserialize::error;
using zoserialize::ConstMemoryListPtr;
using zoserialize::MemoryList;
using zoserialize::MemoryListBaseType;
using zoserialize::MemoryListPtr;
using zoserialize::MemoryReader;
using zoserialize::MemoryWriter;
using zotest::bytes_of;
using zotest::chunks_of;
using zotest::list_of;
using zotest::pattern_string;
using Chunks = std::vector<void const*>;

std::string written(MemoryWriter& writer) {
  return bytes_of(*writer.memory_list());
}

std::string hex_written(MemoryWriter& writer) {
  return zotest::hex(written(writer));
}

// What a stream writer makes of the same calls.
template <class F>
std::string stream_bytes(F const& write) {
  auto const sink = zocore::make_ref_counted<zocore::StringWriteStream>();
  zoserialize::BinaryWriter writer(sink, 4096);
  write(writer, sink);
  writer.close();
  return sink->str();
}

// Whatever is taken from the writer while it writes (its list, a sublist sharing only chunks, a
// reader) holds exactly what was written up to then, and keeps holding it.
TEST(MemoryWriterTest, SnapshotsTakenWhileWritingNeverChange) {
  for (std::uint64_t seed = 2; seed <= 40; seed += 2) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    MemoryWriter writer(seed % 3 ? zotest::tiny_chunk_list(seed % 3 == 1 ? 7 : 64) : nullptr);
    std::vector<MemoryListPtr> lists;
    std::vector<MemoryReader> readers;
    auto const ends = zotest::RandomDocument(seed).write(writer, [&]() -> std::size_t {
      if (lists.size() % 2 == 0) readers.push_back(writer.reader());
      lists.push_back(lists.size() % 4 == 1 ? writer.memory_list()->sublist(0)
                                            : writer.memory_list());
      return lists.back()->size();
    });
    writer.close();
    std::string const all = written(writer);
    for (std::size_t i = 0; i < lists.size(); ++i)
      EXPECT_TRUE(bytes_of(*lists[i]) == all.substr(0, ends[i]) && lists[i]->validate_size());
    for (std::size_t i = 0; i < readers.size(); ++i) {
      EXPECT_EQ(readers[i].size(), ends[2 * i]);
      std::size_t elements = 0;
      for (; !readers[i].is_eof(); ++elements)
        readers[i].skip_element();
      EXPECT_EQ(elements, 2 * i + 1);
    }
  }
}

// A writer continues a list at its write position and clears a list; a list it shares with
// another holder stays as it was.
TEST(MemoryWriterTest, ContinuesAtTheWritePositionAndClearsLeavingASharedListUnchanged) {
  std::string const twenty = pattern_string(0, 20);
  for (bool shared : {false, true}) {
    MemoryListPtr list = list_of(twenty);
    list->write_seek(10);
    MemoryListBaseType const* raw = list.get();
    MemoryWriter writer(shared ? list : std::move(list));
    EXPECT_EQ(writer.memory_list().get() == raw, !shared);
    EXPECT_EQ(written(writer), twenty.substr(0, 10));
    EXPECT_TRUE(!shared || chunks_of(*writer.memory_list()) == chunks_of(*list));  // not copied
    writer << true << zotest::golden_text(3000);
    EXPECT_EQ(written(writer).substr(0, 11), twenty.substr(0, 10) + "\x11");
    EXPECT_TRUE(!shared || (bytes_of(*list) == twenty && list->get_write_position() == 10));
    MemoryListPtr const copy = shared ? writer.memory_list() : nullptr;
    std::string const before = written(writer);
    raw = writer.memory_list().get();
    writer.clear();
    EXPECT_EQ(writer.memory_list().get() == raw, !shared);
    writer << false;
    EXPECT_EQ(hex_written(writer), "10");
    EXPECT_TRUE(!shared || bytes_of(*copy) == before);
  }
}

TEST(MemoryWriterTest, ReadersFinishAnOpenValueStreamAndMarkersCarryNoSize) {
  MemoryWriter writer;
  auto const stream = writer.write_string_stream();
  stream->write("ab", 2);
  MemoryReader reader = writer.reader();
  ZO_EXPECT_ERROR(stream->write("d", 1), error::zoserialize_writer_state,
                  "Binary stream writer object has already been closed");
  writer.write_binary()->write("xy", 2);
  auto raw = std::as_const(writer).create_raw_reader();
  writer.write_marker_start();
  writer.write_marker_end();
  EXPECT_EQ(hex_written(writer), "52 61 62 92 78 79 B0 BF");
  EXPECT_TRUE(reader.read_string() == "ab" && reader.is_eof() && raw.size() == 6);
}

// A refused operation changes neither writer nor list; the writer goes on and closes normally.
TEST(MemoryWriterTest, RefusalsComeBeforeAnyChange) {
  enum Open { kNothing, kSequence, kMarker, kBoth };
  struct Case {
    Open open;
    char op;  // c: close, d: close_and_detach_memory_list, e: write_marker_end, x: clear, r: raw
    zocore::ErrorCode const* code;
    char const* message;
    char const* function;
  };
  auto const* markers = &error::zoserialize_writer_marker_nesting;
  auto const* incomplete = &error::zoserialize_writer_incomplete;
  char const* const close_markers = "Attempt to close writer that has open markers";
  char const* const no_marker = "Attempt to close marker and none is open";
  char const* const clear = "Cannot clear writer when there are open sequences or markers";
  char const* const raw =
      "Cannot create reader from a writer while it has open sequences or markers";
  Case const cases[] = {
      {kBoth, 'c', markers, close_markers, "MemoryWriter::close()"},
      {kSequence, 'c', &error::zoserialize_writer_sequence_nesting,
       "Attempt to close writer that has open sequences", "BinaryWriterBase::close()"},
      {kMarker, 'd', markers, close_markers, "MemoryWriter::close()"},
      {kNothing, 'e', markers, no_marker, "MemoryWriter::write_marker_end()"},
      {kSequence, 'e', markers, no_marker, "MemoryWriter::write_marker_end()"},
      {kSequence, 'x', incomplete, clear, "MemoryWriter::clear()"},
      {kMarker, 'x', incomplete, clear, "MemoryWriter::clear()"},
      {kSequence, 'r', incomplete, raw, "MemoryWriter::create_raw_reader()"},
      {kMarker, 'r', incomplete, raw, "MemoryWriter::create_raw_reader()"},
  };
  for (Case const& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.op << " with " << c.open);
    MemoryWriter w;
    w << 5;
    if (c.open & kSequence) w.write_sequence_start();
    if (c.open & kMarker) w.write_marker_start();
    MemoryListBaseType const* const list = w.memory_list().get();
    std::string const before = written(w);
    zotest::expect_error_details(
        [&] {
          c.op == 'c'   ? w.close()
          : c.op == 'd' ? (void)w.close_and_detach_memory_list()
          : c.op == 'e' ? w.write_marker_end()
          : c.op == 'x' ? w.clear()
                        : (void)w.create_raw_reader();
        },
        *c.code, c.message, "", c.function);
    EXPECT_TRUE(w.memory_list().get() == list && written(w) == before);
    EXPECT_EQ(w.is_complete(), c.open == kNothing);
    w.write_null();
    if (c.open & kMarker) w.write_marker_end();
    if (c.open & kSequence) w.write_sequence_end();
    w.close();
    w.close();
    EXPECT_EQ(written(w), before + std::string(1, '\0') +
                              zotest::bytes(c.open & kMarker ? "BF" : "") +
                              zotest::bytes(c.open & kSequence ? "AF" : ""));
  }
}

// Writes fail once the writer is closed or has handed its list over; the list stays readable
// and clear() reopens the writer.
TEST(MemoryWriterTest, ClosedWriterRefusesEveryWrite) {
  void (*const ops[])(MemoryWriter&) = {
      [](MemoryWriter& w) { w.write_null(); },
      [](MemoryWriter& w) { w << zotest::golden_text(70000); },
      [](MemoryWriter& w) {
        w.write_string_stream(*zocore::make_ref_counted<zotest::ByteSource>("abc"));
      },
      [](MemoryWriter& w) { w.write_binary(); },
      [](MemoryWriter& w) { w.write_marker_start(); },
      [](MemoryWriter& w) { w.write_binary(ConstMemoryListPtr(list_of("abc"))); },
      [](MemoryWriter& w) { w.write_memory_list_as_binary(*MemoryList::create()); },
      [](MemoryWriter& w) { w.write_memory_reader(MemoryReader(ConstMemoryListPtr())); },
  };
  for (auto const op : ops) {
    for (bool detach : {false, true}) {
      MemoryWriter writer;
      writer.write_null();
      writer.write_binary()->write("x", 1);  // finished by close
      MemoryListPtr const list = detach ? writer.close_and_detach_memory_list() : nullptr;
      if (!detach) writer.close();
      zotest::expect_error_details([&] { op(writer); }, error::zoserialize_writer_closed,
                                   "Cannot write to MemoryWriter, it has already been closed", "",
                                   "MemoryWriter::impl_write()");
      EXPECT_TRUE(writer.is_complete());
      if (detach) {
        EXPECT_TRUE(!writer.memory_list() && list->is_unique() && writer.reader().is_eof());
        EXPECT_EQ(writer.create_raw_reader().size(), 0U);
        writer.close();
      }
      EXPECT_EQ(zotest::hex(detach ? bytes_of(*list) : written(writer)), "00 91 78");
      writer.clear();
      writer << 8;
      EXPECT_EQ(hex_written(writer), "24 08");
    }
  }
}

TEST(MemoryWriterTest, EmbeddedListsHaveTheBytesOfAWholeBinary) {
  std::size_t const cases[][2] = {{0, 0},   {1, 0},     {7, 10},     {8, 0},       {255, 1000},
                                  {256, 3}, {65535, 0}, {65536, 70}, {100000, 519}};  // size, lead
  for (auto const& [size, lead_size] : cases) {
    std::string const data = pattern_string(11, size);
    std::string const lead = zotest::golden_text(lead_size);
    std::string const expected = stream_bytes([&](auto& stream, auto const&) {
      if (lead_size != 0) stream << lead;
      stream.write_binary(data.data(), static_cast<unsigned>(size));
      stream.write_null();
    });
    for (MemoryListPtr const& source :
         {list_of(data), zotest::list_in_pieces(data, {1, 3, 500, 7000}),
          list_of(data, zotest::tiny_chunk_list(7))}) {
      for (int form = 0; form < 3; ++form) {
        MemoryWriter writer;
        if (lead_size != 0) writer << lead;
        if (form == 0) writer.write_binary(ConstMemoryListPtr(source));
        if (form == 1) writer.write_memory_list_as_binary(ConstMemoryListPtr(source));
        if (form == 2) writer.write_memory_list_as_binary(*source);
        writer.write_null();
        EXPECT_TRUE(written(writer) == expected) << size << " after " << lead_size;
        EXPECT_TRUE(writer.memory_list()->validate_size() && bytes_of(*source) == data);
      }
    }
  }
}

// The writer's 1024-byte chunk has 500 free bytes once the 5-byte tag of the 100,000-byte binary
// is written: pieces that fit are copied, the rest is shared, and neither side sees what the other
// writes later.
TEST(MemoryWriterTest, EmbeddingCopiesOnlyWhatFitsTheFreeRoomAndSharesTheRest) {
  std::string const data = pattern_string(5, 100000);
  std::string const lead = pattern_string(0, 1024 - 5 - 500 - 3);
  for (MemoryListPtr const& source :
       {zotest::list_in_pieces(data, {100, 400, 1, 2, 99497}), list_of(data)}) {
    // 100 and 400 bytes fill the room, the 1-byte piece does not fit: it and all after it are
    // shared. The pooled list's first piece (65536 bytes) does not fit: everything is shared.
    unsigned const copied = source->segment_count() == 5 ? 2 : 0;
    MemoryWriter writer;
    writer.write_binary(lead.data(), static_cast<unsigned>(lead.size()));
    writer.write_binary(ConstMemoryListPtr(source));
    Chunks const chunks = chunks_of(*writer.memory_list());
    Chunks const shared = chunks_of(*source);
    EXPECT_EQ(Chunks(chunks.begin() + 1, chunks.end()),
              Chunks(shared.begin() + copied, shared.end()));
    EXPECT_EQ(writer.memory_list()->begin()->size(), copied != 0 ? 1024U : 524U);
    source->append("tail", 4);
    writer << true << zotest::golden_text(3000);
    EXPECT_TRUE(bytes_of(*source) == data + "tail");
    MemoryReader reader = writer.reader();
    EXPECT_TRUE(zotest::read_all(*reader.read_binary()) == lead &&
                zotest::read_all(*reader.read_binary()) == data && reader.read_bool() &&
                reader.read_string() == zotest::golden_text(3000));
  }
  MemoryWriter writer;  // its own list: what was written before
  writer << 1 << std::string("abc");
  writer.write_memory_list_as_binary(*writer.memory_list());
  writer << 2;
  EXPECT_EQ(hex_written(writer), "21 53 61 62 63 95 21 53 61 62 63 24 02");
}

// The rest of a reader becomes one sized marker (an empty rest: an unsized one), copied while it
// fits the free room and shared beyond.
TEST(MemoryWriterTest, RestOfAReaderBecomesOneSizedMarker) {
  std::size_t const sizes[] = {0, 1, 255, 256, 65535, 65536, 150000};
  char const* const headers[] = {"B0",       "B4 01",          "B4 FF",         "B5 01 00",
                                 "B5 FF FF", "B6 00 01 00 00", "B6 00 02 49 F0"};
  for (int i = 0; i < 7; ++i) {
    std::string const rest = pattern_string(1, sizes[i]);
    for (zotest::ListLayout const& layout : zotest::list_layouts(true)) {
      MemoryListPtr const source = layout.make(zotest::bytes("21 22") + rest);
      MemoryReader reader{ConstMemoryListPtr(source)};
      reader.read_int32();
      reader.read_int32();
      MemoryWriter writer;
      writer.write_null();
      writer.write_memory_reader(reader);
      writer.write_null();
      EXPECT_TRUE(written(writer) ==
                  std::string(1, '\0') + zotest::bytes(headers[i]) + rest + zotest::bytes("BF 00"))
          << sizes[i] << " " << layout.name;
      EXPECT_TRUE(reader.position() == 2 && writer.is_complete()) << "the reader is not moved";
      if (sizes[i] < 150000 || layout.name != "Pooled") continue;
      Chunks const chunks = chunks_of(*writer.memory_list());
      Chunks const shared = chunks_of(*source);
      EXPECT_EQ(Chunks(chunks.end() - 1 - shared.size(), chunks.end() - 1), shared);
    }
  }
  MemoryReader outer(ConstMemoryListPtr(list_of(zotest::bytes("B0 21 22 BF 11"))));
  MemoryReader contents = outer.read_memory_reader();
  contents.read_int32();
  MemoryWriter part;
  part << 1 << 2;
  MemoryReader own = part.reader();
  own.read_int32();
  part.write_memory_reader(contents);  // only its range
  part.write_memory_reader(own);       // a reader over the writer's own list
  EXPECT_EQ(hex_written(part), "21 24 02 B4 01 22 BF B4 02 24 02 BF");
}

// A source that throws after its value's header went out leaves the writer failed: every later
// operation, close() included, refuses.
TEST(MemoryWriterTest, SourceFailureInTheMiddleOfAValueLeavesTheWriterFailed) {
  MemoryWriter writer;
  zotest::ByteSource source(std::string(5000, 'x'));
  source.fail_at_call(1);
  ZO_EXPECT_ERROR(writer.write_binary(source), zotest::test_stream_error,
                  "Injected source failure");
  for (auto const& op : {std::function<void()>([&] { writer.write_null(); }),
                         std::function<void()>([&] { writer.close(); })}) {
    ZO_EXPECT_ERROR(op(), error::zoserialize_writer_state,
                    "Writer output is incomplete: its output stream or a source failed in the "
                    "middle of an element, so nothing more can be written");
  }
}

// Snapshots taken from a writer are read, and their payload streams finished, on other threads
// while the writer goes on appending: the writer never touches bytes it shares.
TEST(MemoryWriterThreadsTest, SnapshotsAreReadOnOtherThreadsWhileTheWriterWrites) {
  std::string const text = zotest::golden_text(700);
  MemoryWriter writer;
  std::vector<std::thread> readers;
  for (int round = 0; round < 60; ++round) {
    for (int i = 0; i < 5; ++i)
      writer << round << text;
    readers.emplace_back([snapshot = writer.reader(), round, &text]() mutable {
      std::vector<zoserialize::InterfacePtr<zoserialize::IReadStream>> streams;
      for (int element = 0; element < (round + 1) * 5; ++element) {
        EXPECT_EQ(snapshot.read_int32(), element / 5);
        streams.push_back(snapshot.read_string_stream());
      }
      EXPECT_TRUE(snapshot.is_eof());
      std::thread([held = std::move(streams), &text] {
        for (auto const& stream : held)
          EXPECT_TRUE(zotest::read_all(*stream, 512) == text);
      }).join();
    });
    if (readers.size() == 4 || round == 59) {
      for (std::thread& t : readers)
        t.join();
      readers.clear();
    }
  }
  EXPECT_TRUE(writer.close_and_detach_memory_list()->is_unique());
}

}  // namespace
