#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iomanip>
#include <mutex>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include <gtest/gtest.h>

#include <support/memory_lists.h>
#include <support/test_streams.h>
#include <zoserialize/memory_list.h>

namespace zoserialize {

// Reaches the list pool and the segment storage of lists.
class MemoryListTestPeer {
 public:
  static std::size_t pooled() { return MemoryList::pooled_count(); }
  static bool is_pooled(MemoryListBaseType const* list) { return MemoryList::is_pooled(list); }
  static unsigned segment_capacity(MemoryListBaseType const& list) {
    return list.segment_capacity();
  }
};

namespace {

using Peer = MemoryListTestPeer;
using Cursor = MemoryListCursor;
using zotest::bytes_of;
using zotest::list_in_pieces;
using zotest::list_of;
using zotest::pattern_string;
constexpr unsigned kToEnd = 0xFFFFFFFFU;
constexpr unsigned kMaxSize = MemoryListBaseType::kMaxSize;

// Heap chunks of 1 to 23 bytes in rotation, whatever was asked: many segments, every kind of seam.
MemoryChunkPtr small_chunk_factory(unsigned) {
  static unsigned next = 0;
  next = next % 23 + 1;
  return impl::create_heap_memory_chunk(next);
}

std::vector<unsigned> g_requests;
MemoryChunkPtr recording_factory(unsigned size) {
  g_requests.push_back(size);
  return create_memory_chunk(size);
}

// Every chunk is the same one: lists can reach the size limit without the memory.
MemoryChunkPtr same_chunk_factory(unsigned) {
  static MemoryChunkPtr const chunk = impl::create_heap_memory_chunk(65536);
  return chunk;
}

std::vector<unsigned> segment_sizes(MemoryListBaseType const& list) {
  std::vector<unsigned> sizes;
  for (auto const& segment : list)
    sizes.push_back(segment.size());
  return sizes;
}

template <class Exception, class F>
void expect_std_error(F const& f, char const* what) {
  try {
    f();
    ADD_FAILURE() << "no exception, expected: " << what;
  } catch (Exception const& e) {
    EXPECT_EQ(typeid(e), typeid(Exception));
    EXPECT_STREQ(e.what(), what);
  }
}

// ---- Growth

TEST(MemoryListTest, ChunkRequestsGrowWithTheList) {
  g_requests.clear();
  std::string const text = pattern_string(0, 102010);
  MemoryListPtr const list = MemoryList::create_with_factory(&recording_factory);
  list->append(text.data(), 10);
  EXPECT_EQ(list->remaining_space_last_chunk(), 1014U);
  // 1014 bytes fill the first chunk, the other 986 ask for max(986, 1024).
  list->append(text.data() + 10, 2000);
  EXPECT_EQ(segment_sizes(*list), (std::vector<unsigned>{1024, 986}));
  list->append(text.data() + 2010, 100000);  // 38 bytes still fit the second chunk
  EXPECT_EQ(g_requests, (std::vector<unsigned>{10, 1024, 99962, 67584}));
  EXPECT_TRUE(bytes_of(*list) == text);
  EXPECT_EQ(list->get_write_position(), 102010U);

  // resize() fills the last chunk, then asks for the missing count.
  g_requests.clear();
  MemoryListPtr const grown = list_of("abc", MemoryList::create_with_factory(&recording_factory));
  grown->resize(5000);
  EXPECT_EQ(g_requests, (std::vector<unsigned>{3, 3976}));
  EXPECT_EQ(segment_sizes(*grown), (std::vector<unsigned>{1024, 3976}));
  EXPECT_EQ(grown->get_write_position(), 3U);

  // The append window is the free room of the last chunk; an unused one leaves no segment.
  g_requests.clear();
  MemoryListPtr const window = MemoryList::create_with_factory(&recording_factory);
  unsigned avail = 0;
  char* const p = window->get_append_write_ptr(&avail, 3000);
  ASSERT_EQ(avail, 4096U);
  std::memcpy(p, "abcde", 5);
  window->commit_append_write(5);
  EXPECT_EQ(window->get_append_write_ptr(&avail, 1), p + 5);
  EXPECT_EQ(avail, 4091U);
  window->resize_to_chunk_boundary(kToEnd);
  window->get_append_write_ptr(&avail, 10);
  window->commit_append_write(0);
  EXPECT_EQ(g_requests, (std::vector<unsigned>{3000, 4096}));
  EXPECT_EQ(window->segment_count(), 1U);
  EXPECT_EQ(bytes_of(*window).substr(0, 5), "abcde");

  MemoryListPtr const sized = MemoryList::create(5000);
  EXPECT_EQ(sized->size(), 5000U);
  EXPECT_EQ(sized->get_write_position(), 0U);
}

TEST(MemoryListTest, AppendingListsAndChunksSharesTheChunks) {
  MemoryListPtr const source = list_in_pieces("abcdefghijkl", {4});
  MemoryListPtr const list = list_of("0");
  list->append_list(*source, 2, 7);
  EXPECT_EQ(bytes_of(*list), "0cdefghi");
  EXPECT_EQ(segment_sizes(*list), (std::vector<unsigned>{1, 2, 4, 1}));
  std::vector<void const*> const chunks = zotest::chunks_of(*source);
  EXPECT_EQ(zotest::chunks_of(*list)[1], chunks[0]);
  EXPECT_EQ(zotest::chunks_of(*list)[3], chunks[2]);
  list->append_list(*list);  // itself, through a snapshot
  EXPECT_EQ(bytes_of(*list), "0cdefghi0cdefghi");
  list->append(*source, source->cursor_at(10), kToEnd);
  EXPECT_EQ(bytes_of(*list), "0cdefghi0cdefghikl");

  MemoryChunkPtr const chunk = create_memory_chunk(1);
  std::memcpy(chunk->data() + 1000, "xyz", 3);
  list->write_seek(1);
  list->append(chunk, 1000, 3);
  EXPECT_EQ(list->get_write_position(), 21U);
  EXPECT_EQ(zotest::chunks_of(*list).back(), chunk.get());
  list->append(chunk, 1020, kToEnd);
  EXPECT_EQ(list->segment_count(), 11U);
  EXPECT_EQ(list->size(), 25U);
  for (MemoryChunkSegment const& nothing : {MemoryChunkSegment(), MemoryChunkSegment(chunk, 5, 0)})
    list->append(nothing);
  list->append(MemoryChunkPtr(), 0, 10);
  list->append(chunk, 1024, 1);
  list->write_seek(0);
  list->write_defragmented(static_cast<MemoryListBaseType const*>(nullptr), 0, 5);
  EXPECT_EQ(list->segment_count(), 11U);
  EXPECT_EQ(list->size(), 25U);
  EXPECT_EQ(list->get_write_position(), 0U);
}

// ---- Erasing and resizing

TEST(MemoryListTest, EraseFrontAndResizeMoveTheWriteCursor) {
  struct Case {
    unsigned write_position;
    void (*op)(MemoryListBaseType&);
    char const* remaining;
    unsigned new_write_position;
  };
  Case const cases[] = {
      {2, [](MemoryListBaseType& l) { l.erase_front(3); }, "3456789", 0},
      {7, [](MemoryListBaseType& l) { l.erase_front(3); }, "3456789", 4},
      {10, [](MemoryListBaseType& l) { l.erase_front(4); }, "456789", 6},
      {4, [](MemoryListBaseType& l) { l.erase_front(10); }, "", 0},
      {9, [](MemoryListBaseType& l) { l.resize(7); }, "0123456", 7},
      {3, [](MemoryListBaseType& l) { l.resize(4); }, "0123", 3},
      {10, [](MemoryListBaseType& l) { l.resize_to_chunk_boundary(8); }, "01234567", 8},
      {5, [](MemoryListBaseType& l) { l.resize(0); }, "", 0},
      {5, [](MemoryListBaseType& l) { l.clear(); }, "", 0},
  };
  for (Case const& c : cases) {
    MemoryListPtr const list = list_in_pieces("0123456789", {4});
    list->write_seek(c.write_position);
    c.op(*list);
    EXPECT_EQ(bytes_of(*list), c.remaining);
    EXPECT_EQ(list->get_write_position(), c.new_write_position) << c.remaining;
    EXPECT_TRUE(list->validate_size());
    EXPECT_EQ(list->empty(), list->segment_count() == 0);
    EXPECT_EQ(list->is_eof(list->begin_cursor()), list->empty());
  }
}

// ---- Errors

TEST(MemoryListTest, ElementAtOutsideTheListThrowsRangeError) {
  MemoryListPtr const list = list_in_pieces("abcd", {2});
  EXPECT_EQ(list->element_at(3), 'd');
  for (unsigned pos : {4U, 5U, kToEnd}) {
    expect_std_error<std::range_error>([&] { list->element_at(pos); },
                                       "zoserialize::MemoryList: Invalid element offset");
  }
  expect_std_error<std::range_error>([&] { MemoryList::create()->element_at(0); },
                                     "zoserialize::MemoryList: Invalid element offset");
}

TEST(MemoryListTest, GrowingBeyondTheSizeLimitThrowsLengthError) {
  struct Case {
    unsigned start_size;
    void (*grow)(MemoryListBaseType&);
  };
  Case const cases[] = {
      {kMaxSize - 1, [](MemoryListBaseType& l) { l.append("ab", 2); }},
      {kMaxSize, [](MemoryListBaseType& l) { l.push_back('x'); }},
      {kMaxSize - 1,
       [](MemoryListBaseType& l) {
         l.write_seek(kMaxSize - 2);
         l.write("abc", 3);
       }},
      {kMaxSize, [](MemoryListBaseType& l) { l.get_append_write_ptr(nullptr, 1); }},
      {0, [](MemoryListBaseType& l) { l.resize(kToEnd); }},
      {0x80000000U, [](MemoryListBaseType& l) { l.append_list(l); }},
      {kMaxSize - 10, [](MemoryListBaseType& l) { l.append(create_memory_chunk(1), 0, 11); }},
  };
  for (Case const& c : cases) {
    MemoryListPtr const list = MemoryList::create_with_factory(&same_chunk_factory);
    list->resize(c.start_size);
    expect_std_error<std::length_error>([&] { c.grow(*list); },
                                        "zoserialize::MemoryList: Size limit exceeded");
    EXPECT_EQ(list->size(), c.start_size);
    EXPECT_TRUE(list->validate_size());
  }
  MemoryListPtr const list = MemoryList::create_with_factory(&same_chunk_factory);
  list->resize(kMaxSize - 1);
  list->push_back('z');
  EXPECT_EQ(list->element_at(kMaxSize - 1), 'z');
}

TEST(MemoryListTest, AFactoryWithoutStorageThrowsLogicError) {
  for (MemoryChunkFactory factory : {+[](unsigned) { return MemoryChunkPtr(); },
                                     +[](unsigned) { return impl::create_heap_memory_chunk(0); }}) {
    MemoryListPtr const list = MemoryList::create_with_factory(factory);
    for (auto const& grow : {+[](MemoryListBaseType& l) { l.append("a", 1); },
                             +[](MemoryListBaseType& l) { l.resize(5); }}) {
      expect_std_error<std::logic_error>(
          [&] { grow(*list); }, "zoserialize::MemoryList: Chunk factory returned no storage");
    }
    EXPECT_EQ(list->size(), 0U);
  }
}

// ---- Positions, cursors and readers over uneven segments

std::string const kSeamText = "abcdefghijklmnopq";
MemoryListPtr seam_list() {
  return list_in_pieces(kSeamText, {1, 3, 6, 1, 6});
}

TEST(MemoryListSeamTest, CursorsAndPositionsAtEveryPosition) {
  MemoryListPtr const list = seam_list();
  auto const size = static_cast<unsigned>(kSeamText.size());
  for (unsigned pos = 0; pos <= size + 2; ++pos) {
    unsigned offset = 99;
    auto const segment = list->calculate_segment_offset(pos, &offset);
    EXPECT_EQ(list->calculate_position(segment, offset), std::min(pos, size));
    if (pos >= size) {
      EXPECT_TRUE(segment == list->end() && offset == 0) << pos;
      continue;
    }
    EXPECT_EQ(segment->data()[offset], kSeamText[pos]);
    EXPECT_EQ(list->element_at(pos), kSeamText[pos]);
    for (unsigned n = 0; n <= size + 1 - pos; ++n) {
      Cursor cursor;
      list->set_read_cursor_to_pos(cursor, pos);
      char out[32] = {};
      unsigned const got = list->read_at_cursor(cursor, out, n);
      ASSERT_EQ(got, std::min(n, size - pos)) << pos << "+" << n;
      EXPECT_EQ(std::string(out, got), kSeamText.substr(pos, got));
      EXPECT_EQ(cursor.position, pos + got);
      // A cursor never rests on a segment's end: it moves on to the next segment.
      EXPECT_TRUE(list->is_valid_cursor(cursor)) << pos << "+" << n;
      EXPECT_EQ(list->is_eof(cursor), pos + got == size);
      Cursor advanced = list->cursor_at(pos);
      EXPECT_EQ(list->cursor_advance(advanced, n), got);
      EXPECT_TRUE(advanced.segment == cursor.segment && advanced.offset == cursor.offset);
    }
  }
  Cursor cursor = list->begin_cursor();
  std::string walked;
  for (unsigned avail = 0; !list->is_eof(cursor); list->cursor_advance(cursor))
    walked += *list->readable_at_cursor(cursor, &avail);
  EXPECT_EQ(walked, kSeamText);
  list->set_read_cursor_to_end(cursor);
  EXPECT_TRUE(list->is_valid_cursor(cursor) && list->is_eof(cursor));
  unsigned avail = 7;
  EXPECT_EQ(list->readable_at_cursor(cursor, &avail), nullptr);
  EXPECT_EQ(avail, 0U);
  EXPECT_EQ(list->cursor_at(1000).position, size);
  cursor = list->cursor_at(5);
  ++cursor.position;
  EXPECT_FALSE(list->is_valid_cursor(cursor));
  cursor = list->cursor_at(5);
  cursor.offset = 6;
  EXPECT_FALSE(list->is_valid_cursor(cursor));
  EXPECT_FALSE(list->is_valid_cursor(list->shallow_clone()->cursor_at(5)));
}

TEST(MemoryListSeamTest, PointersAndRangesShareWhenTheyCanAndCopyWhenTheyMust) {
  MemoryListPtr const list = seam_list();
  unsigned avail = 0;
  char const* p = list->readable_ptr_at(5, &avail);
  EXPECT_EQ(std::string(p, avail), "fghij");
  EXPECT_EQ(list->readable_ptr_at(17, &avail), nullptr);
  EXPECT_EQ(list->writable_ptr_at(20, &avail), nullptr);

  MemoryChunkSegment const inside = list->get_range_as_segment(5, 3);
  EXPECT_EQ(std::string(inside.data(), inside.size()), "fgh");
  EXPECT_EQ(inside.chunk(), (list->begin() + 2)->chunk());
  Cursor cursor = list->cursor_at(2);
  MemoryChunkSegment const across = list->get_range_at_cursor_as_segment(cursor, 9);
  EXPECT_EQ(std::string(across.data(), across.size()), "cdefghijk");
  EXPECT_EQ(cursor.position, 11U);
  EXPECT_TRUE(across.chunk()->is_unique());
  EXPECT_TRUE(list->get_range_as_segment(17, 5).empty());
  // Larger than any pooled chunk and spread over segments: still one contiguous copy.
  std::string const big = pattern_string(0, 100000);
  MemoryChunkSegment const whole = list_of(big, list_of("x"))->get_range_as_segment(1, kToEnd);
  EXPECT_TRUE(std::string(whole.data(), whole.size()) == big);
}

TEST(MemoryListSeamTest, ReadersWalkTheirRangeAndKeepTheListAlive) {
  LinearReader reader;
  SegmentReadIterator pieces;
  {
    MemoryListPtr const list = seam_list();
    reader = list->reader();
    pieces = list->segment_read_iterator(list->cursor_at(2), 10);
  }
  EXPECT_EQ(reader.skip(4), 4U);
  EXPECT_EQ(reader.peek(), 'e');
  unsigned avail = 0;
  char const* p = reader.contiguous(&avail);
  EXPECT_EQ(std::string(p, avail), "efghij");
  reader.seek(16);
  EXPECT_EQ(reader.skip(5), 1U);
  EXPECT_EQ(reader.contiguous(&avail), nullptr);
  std::vector<std::string> got;
  for (; !pieces.at_end(); ++pieces)
    got.emplace_back(pieces.data(), pieces.size());
  EXPECT_EQ(got, (std::vector<std::string>{"cd", "efghij", "k", "l"}));

  LinearReader window = reader.list()->reader(3, 12);  // "defghijklmno"
  window.skip(5);
  EXPECT_EQ(window.start(), 3U);
  EXPECT_EQ(window.position(), 5U);
  got.clear();
  for (SegmentReadIterator it = window.segments(); !it.at_end(); it.next())
    got.emplace_back(it.data(), it.size());
  EXPECT_EQ(got, (std::vector<std::string>{"ij", "k", "lmno"}));
  EXPECT_TRUE(LinearReader().is_eof());
}

// ---- Clones and trace

TEST(MemoryListTest, ClonesKeepTheFactoryAndCopyFromTakesEverything) {
  MemoryListPtr const small = list_of("xyz", MemoryList::create_with_factory(&small_chunk_factory));
  small->write_seek(1);
  for (MemoryListPtr const& clone :
       {small->shallow_clone(), small->sublist(0), small->deep_clone()})
    EXPECT_EQ(clone->chunk_factory(), &small_chunk_factory);
  MemoryListPtr const list = list_of("abcdef");
  list->copy_from(*small);
  EXPECT_EQ(bytes_of(*list), "xyz");
  EXPECT_EQ(list->get_write_position(), 1U);
  EXPECT_EQ(list->chunk_factory(), &small_chunk_factory);
  EXPECT_EQ(zotest::chunks_of(*list), zotest::chunks_of(*small));
  list->copy_from(*list);
  EXPECT_EQ(bytes_of(*list), "xyz");
}

std::string address(void const* p) {
  std::ostringstream os;
  os << "0x" << std::hex << std::setw(16) << std::setfill('0')
     << reinterpret_cast<std::uintptr_t>(p);
  return os.str();
}

TEST(MemoryListTest, TracePrintsHeaderSegmentsAndDumpsByLevel) {
  MemoryChunkPtr const text = create_memory_chunk(1);
  std::memcpy(text->data(), "Hello, world!", 13);
  MemoryChunkPtr const binary = create_memory_chunk(1);
  for (int i = 0; i < 20; ++i)
    binary->data()[i] = static_cast<char>(i);
  MemoryListPtr const list = MemoryList::create();
  list->append(text, 7, 5);
  list->append(binary, 0, 20);
  list->write_seek(3);
  for (int level : {-1, 0, 1, 2, 3}) {
    std::ostringstream os;
    os << std::hex;  // the stream's formatting must not change the numbers
    list->write_trace(os, level);
    std::string expected = "\nTotalSize:  25\nWritePos:   3\nSegments:   2";
    if (level == 1 || level == 2) {
      expected += "\n[0] - pos=0, size=5, first=7, data=" + address(text->data() + 7) +
                  ", (Chunk: this=" + address(text.get()) + ", size=1024)";
      if (level == 2) expected += "\n  00000000  77 6f 72 6c 64" + std::string(36, ' ') + "|world|";
      expected += "\n[1] - pos=5, size=20, first=0, data=" + address(binary->data()) +
                  ", (Chunk: this=" + address(binary.get()) + ", size=1024)";
      if (level == 2) {
        expected +=
            "\n  00000005  00 01 02 03 04 05 06 07  08 09 0a 0b 0c 0d 0e 0f  |................|"
            "\n  00000015  10 11 12 13" +
            std::string(39, ' ') + "|....|";
      }
    }
    EXPECT_EQ(os.str(), expected) << "level " << level;
  }
}

// ---- Pooling of list objects

TEST(MemoryListPoolTest, ReleasedListsComeBackEmptyLastInFirstOutWithTheDefaultFactory) {
  MemoryChunkPtr const chunk = create_memory_chunk(1);
  MemoryListPtr list = MemoryList::create_with_factory(&small_chunk_factory);
  list->append(chunk, 0, 100);
  list->write_seek(5);
  MemoryListBaseType const* const address = list.get();
  list = nullptr;
  EXPECT_TRUE(Peer::is_pooled(address));
  EXPECT_TRUE(chunk->is_unique());  // a pooled list holds no chunks
  MemoryListPtr const again = MemoryList::create();
  EXPECT_EQ(again.get(), address);
  EXPECT_TRUE(again->empty() && again->segment_count() == 0);
  EXPECT_EQ(again->get_write_position(), 0U);
  EXPECT_EQ(again->chunk_factory(), &create_memory_chunk);
  EXPECT_EQ(MemoryList::create_with_factory(nullptr)->chunk_factory(), &create_memory_chunk);
}

TEST(MemoryListPoolTest, PoolHoldsAtMost128ListsOfAtMost64Segments) {
  std::vector<MemoryListPtr> lists;
  for (int i = 0; i < 130; ++i)
    lists.push_back(MemoryList::create());
  EXPECT_EQ(Peer::pooled(), 0U);
  lists.resize(128);
  MemoryChunkPtr const chunk = create_memory_chunk(1);
  unsigned const cases[][2] = {{1, 16}, {17, 32}, {64, 64}, {65, 128}};  // segments, capacity
  for (auto const& [segments, capacity] : cases) {
    MemoryListPtr list = std::move(lists.back());
    lists.pop_back();
    for (unsigned i = 0; i < segments; ++i)
      list->append(chunk, i, 1);
    EXPECT_EQ(Peer::segment_capacity(*list), capacity);
    MemoryListBaseType const* const address = list.get();
    list = nullptr;
    EXPECT_EQ(Peer::is_pooled(address), capacity <= 64) << segments;
  }
  EXPECT_EQ(Peer::pooled(), 5U);  // two of the 130, three of the four
  lists.clear();
  EXPECT_EQ(Peer::pooled(), 128U);
  EXPECT_TRUE(chunk->is_unique());
}

// ---- Model-based test: random operations on lists sharing chunks, checked against strings

struct Model {
  MemoryListPtr list;
  std::string bytes;
  unsigned write_position = 0;
};

struct LooseChunk {
  MemoryChunkPtr chunk;
  std::string bytes;
};

unsigned size_of(std::string const& s) {
  return static_cast<unsigned>(s.size());
}

class ModelRun {
 public:
  ModelRun(MemoryChunkFactory factory, unsigned seed, unsigned max_size)
      : factory_(factory), rng_(seed), max_size_(max_size) {
    for (Model& m : models_)
      m.list = MemoryList::create_with_factory(factory_);
  }

  void run(unsigned steps) {
    for (unsigned step = 0; step < steps && !::testing::Test::HasFailure(); ++step) {
      char const* const what = apply_random_operation();
      SCOPED_TRACE(::testing::Message() << "step " << step << " after " << what);
      for (Model const& m : models_) {
        MemoryListBaseType const& list = *m.list;
        ASSERT_TRUE(list.validate_size());
        ASSERT_EQ(list.size(), m.bytes.size());
        ASSERT_EQ(list.get_write_position(), m.write_position);
        ASSERT_TRUE(bytes_of(list) == m.bytes);
        for (auto const& s : list)
          ASSERT_TRUE(!s.empty() && s.last() <= s.chunk()->size());
      }
      for (LooseChunk const& c : loose_)
        ASSERT_EQ(std::string(c.chunk->data(), c.bytes.size()), c.bytes);
    }
  }

 private:
  unsigned pick(unsigned n) { return static_cast<unsigned>(rng_() % n); }

  unsigned length() {
    unsigned const limits[] = {kToEnd, 4, 40, 400, 3000};
    unsigned const limit = limits[pick(5)];
    return limit == kToEnd ? kToEnd : pick(limit);
  }

  std::string random_bytes(unsigned n) {
    std::string out(n, '\0');
    for (char& c : out)
      c = static_cast<char>(rng_());
    return out;
  }

  static std::string clipped(Model const& m, unsigned pos, unsigned length) {
    std::size_t const start = std::min<std::size_t>(pos, m.bytes.size());
    return m.bytes.substr(start, std::min<std::size_t>(length, m.bytes.size() - start));
  }

  static void model_write(Model& m, std::string const& data) {
    m.bytes.replace(m.write_position, data.size(), data);
    m.write_position += size_of(data);
  }

  static void model_append(Model& m, std::string const& data) {
    m.bytes += data;
    m.write_position = size_of(m.bytes);
  }

  static void erase_front(Model& m, unsigned n) {
    m.list->erase_front(n);
    m.bytes.erase(0, n);
    m.write_position = m.write_position > n ? m.write_position - n : 0;
  }

  // Bytes a list exposed by growing are unspecified: the model takes them from the list.
  static void adopt_new_bytes(Model& m) {
    std::string added(m.list->size() - size_of(m.bytes), '\0');
    m.list->read_at(size_of(m.bytes), added.data(), size_of(added));
    m.bytes += added;
  }

  char const* apply_random_operation() {
    Model& h = models_[pick(kModels)];
    Model& src = models_[pick(kModels)];  // may be h itself
    if (size_of(h.bytes) > max_size_) {
      erase_front(h, size_of(h.bytes) - max_size_ / 2);
      return "erase_front(bound)";
    }
    unsigned const pos = pick(size_of(src.bytes) + 4);
    unsigned const len = length();
    std::string data = clipped(src, pos, len);
    unsigned const hpos = pick(size_of(h.bytes) + 4);
    unsigned avail = 0;
    switch (pick(26)) {
      case 0:
        data = random_bytes(length() % 5000);
        h.list->append(data.data(), size_of(data));
        model_append(h, data);
        return "append";
      case 1:
        data = random_bytes(length() % 5000);
        h.list->write(data.data(), size_of(data));
        model_write(h, data);
        return "write";
      case 2:
        h.write_position = std::min(hpos, size_of(h.bytes));
        EXPECT_EQ(h.list->write_seek(hpos), h.write_position);
        return "write_seek";
      case 3:
        erase_front(h, pick(size_of(h.bytes) + 5));
        return "erase_front";
      case 4:
        h.list->resize(size_of(h.bytes) + pick(700));
        adopt_new_bytes(h);
        return "resize(grow)";
      case 5:
        h.bytes.resize(pick(size_of(h.bytes) + 1));
        h.list->resize(size_of(h.bytes));
        h.write_position = std::min(h.write_position, size_of(h.bytes));
        return "resize(shrink)";
      case 6:
        avail = h.list->remaining_space_last_chunk();
        h.list->resize_to_chunk_boundary(kToEnd);
        EXPECT_GE(h.list->size(), size_of(h.bytes) + avail);
        EXPECT_EQ(h.list->remaining_space_last_chunk(), 0U);
        adopt_new_bytes(h);
        return "resize_to_chunk_boundary";
      case 7:
        h = Model{pick(2) ? src.list->sublist(pos, len)
                          : src.list->sublist(src.list->cursor_at(pos), len),
                  data, size_of(data)};
        return "sublist";
      case 8:
        h = Model{src.list->shallow_clone(), src.bytes, src.write_position};
        return "shallow_clone";
      case 9:
        h = Model{src.list->deep_clone(pos, len), data, size_of(data)};
        for (auto const& segment : *h.list)
          EXPECT_TRUE(segment.chunk()->is_unique());
        return "deep_clone";
      case 10:
        h.list->append_list(*src.list, pos, len);
        model_append(h, data);
        return "append_list(pos)";
      case 11:
        if (pick(2)) {
          h.list->append(*src.list, src.list->cursor_at(pos), len);
        } else {
          h.list->append_list(*src.list, src.list->cursor_at(pos), len);
        }
        model_append(h, data);
        return "append_list(cursor)";
      case 12:
        data = src.bytes;
        h.list->append(*src.list);
        model_append(h, data);
        return "append(list)";
      case 13:
        if (pick(2)) {
          h.list->append_defragmented(*src.list, pos, len);
        } else {
          h.list->append_list_defragmented(*src.list, src.list->cursor_at(pos), len);
        }
        model_append(h, data);
        return "append_defragmented";
      case 14:
        if (pick(2)) {
          h.list->write_defragmented(src.list.get(), pos, len);
        } else {
          h.list->write_list_defragmented(*src.list, src.list->cursor_at(pos), len);
        }
        model_write(h, data);
        return "write_defragmented";
      case 15:
        for (unsigned n = 1 + pick(40); n != 0; --n) {
          h.list->push_back(static_cast<char>(n));
          model_append(h, std::string(1, static_cast<char>(n)));
        }
        return "push_back";
      case 16: {
        char* const p = h.list->get_append_write_ptr(&avail, pick(5000));
        EXPECT_GT(avail, 0U);
        EXPECT_TRUE((h.list->end() - 1)->chunk()->is_unique());
        data = random_bytes(pick(std::min(avail, 600U) + 1));
        std::copy(data.begin(), data.end(), p);
        h.list->commit_append_write(size_of(data));
        model_append(h, data);
        return "append_window";
      }
      case 17:
        if (pick(2)) {
          h.list->clear();
        } else {
          h.list->resize(0);
        }
        h.bytes.clear();
        h.write_position = 0;
        return "clear";
      case 18:
        data = random_bytes(pick(60));
        avail = hpos >= size_of(h.bytes) ? 0 : std::min(size_of(data), size_of(h.bytes) - hpos);
        EXPECT_EQ(h.list->overwrite_at(hpos, data.data(), size_of(data)), avail);
        if (avail != 0) h.bytes.replace(hpos, avail, data.substr(0, avail));
        return "overwrite_at";
      case 19: {
        if (h.bytes.empty()) return "writable_ptr_at(empty)";
        unsigned const at = hpos % size_of(h.bytes);
        char* const p = h.list->writable_ptr_at(at, &avail);
        EXPECT_TRUE(avail >= 1 && avail <= size_of(h.bytes) - at);
        data = random_bytes(std::min(avail, 3U));
        std::copy(data.begin(), data.end(), p);
        h.bytes.replace(at, data.size(), data);
        return "writable_ptr_at";
      }
      case 20: {
        MemoryChunkSegment const segment = src.list->get_range_as_segment(pos, len);
        EXPECT_TRUE(segment.size() == data.size() &&
                    (data.empty() || std::string(segment.data(), segment.size()) == data));
        h.list->append(segment);
        model_append(h, data);
        return "append(segment)";
      }
      case 21: {
        // A chunk also held outside any list, appended to one: no write may reach it.
        LooseChunk loose{create_memory_chunk(pick(3000)), {}};
        loose.bytes = random_bytes(loose.chunk->size());
        std::memcpy(loose.chunk->data(), loose.bytes.data(), loose.bytes.size());
        unsigned const offset = pick(loose.chunk->size() + 2);
        h.list->append(loose.chunk, offset, len);
        model_append(h, loose.bytes.substr(std::min(offset, loose.chunk->size()), len));
        loose_.push_back(std::move(loose));
        if (loose_.size() > 6) loose_.erase(loose_.begin() + pick(7));
        return "append(chunk)";
      }
      case 22:
        h = Model{MemoryList::create_with_factory(factory_), {}, 0};
        return "replace";
      case 23: {
        LinearReader reader = h.list->reader(hpos, len);
        std::string got;
        char buffer[64];
        while (!reader.is_eof()) {
          if (pick(4) == 0) {
            char const* p = reader.contiguous(&avail);
            unsigned const n = std::min(avail, 1 + pick(avail));
            got.append(p, n);
            reader.skip(n);
          } else {
            got.append(buffer, reader.read(buffer, 1 + pick(64)));
          }
        }
        EXPECT_TRUE(got == clipped(h, hpos, len));
        return "reader";
      }
      case 24: {
        std::string got;
        for (auto it = h.list->segment_read_iterator(h.list->cursor_at(hpos), len); !it.at_end();
             ++it) {
          EXPECT_GT(it.size(), 0U);
          got.append(it.data(), it.size());
        }
        EXPECT_TRUE(got == clipped(h, hpos, len));
        return "segment_read_iterator";
      }
      default:
        h.list->copy_from(*src.list);
        h.bytes = src.bytes;
        h.write_position = src.write_position;
        return "copy_from";
    }
  }

  static constexpr unsigned kModels = 5;
  MemoryChunkFactory factory_;
  std::mt19937 rng_;
  unsigned max_size_;
  Model models_[kModels];
  std::vector<LooseChunk> loose_;
};

TEST(MemoryListModelTest, RandomOperationsOnListsSharingPooledChunks) {
  ModelRun(&create_memory_chunk, 20240601, 40000).run(20000);
}

TEST(MemoryListModelTest, RandomOperationsOnListsWithManySmallSegments) {
  ModelRun(&small_chunk_factory, 77, 6000).run(10000);
}

// ---- Release after the pools are gone

// Constructed before main, so before any pool (the pools are built on first use) and hence
// destroyed after them.
struct LateRelease {
  MemoryListPtr list;
  MemoryChunkPtr chunk;
  ~LateRelease() {
    if (!list && !chunk) return;
    list = nullptr;
    chunk = nullptr;
    std::fputs("released after the pools\n", stderr);
  }
};
LateRelease g_late_release;

TEST(MemoryListDeathTest, ListsAndChunksReleasedAfterThePoolsAreDeleted) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        g_late_release.list = list_of(pattern_string(0, 5000));
        g_late_release.chunk = create_memory_chunk(20000);
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "released after the pools");
}

// ---- Threads

// Lists and chunks travel between threads through shared queues; a list object that is shared is
// cloned before writing, chunks are shared and cloned on write. Every holder's bytes must stay
// what it wrote.
TEST(MemoryThreadsTest, ListsAndChunksSharedBetweenThreadsStayIntact) {
  std::mutex mutex;
  std::vector<Model> lists;
  std::vector<LooseChunk> chunks;
  std::atomic<int> failures{0};
  auto check = [&](Model const& m) {
    if (bytes_of(*m.list) != m.bytes || !m.list->validate_size()) ++failures;
  };
  auto worker = [&](unsigned seed) {
    std::mt19937 rng(seed);
    auto pick = [&](std::size_t n) { return static_cast<unsigned>(rng() % n); };
    std::vector<Model> mine;
    for (int step = 0; step < 3000; ++step) {
      std::string const data = pattern_string(rng(), pick(5000));
      Model* const m = mine.empty() ? nullptr : &mine[pick(mine.size())];
      unsigned const pos = m ? pick(m->bytes.size() + 1) : 0;
      switch (pick(7)) {
        case 0:
          mine.push_back({list_of(data), data});
          break;
        case 1: {  // publish a list this thread keeps holding too, or take one
          std::lock_guard<std::mutex> lock(mutex);
          if (m && pick(2)) {
            lists.push_back(*m);
          } else if (!lists.empty()) {
            mine.push_back(std::move(lists.front()));
            lists.erase(lists.begin());
          }
          if (lists.size() > 32) lists.erase(lists.begin());
          break;
        }
        case 2:
          if (!m) break;
          if (!m->list->is_unique()) m->list = m->list->shallow_clone();
          if (pick(3) == 0) {
            m->list->erase_front(pos);
            m->bytes.erase(0, pos);
          } else if (pick(2)) {
            m->list->write_seek(pos);
            m->list->write(data.data(), size_of(data));
            m->bytes.replace(pos, data.size(), data);
          } else {
            m->list->append(data.data(), size_of(data));
            m->bytes += data;
          }
          check(*m);
          break;
        case 3:  // derive lists sharing the chunks, or copying them
          if (!m) break;
          mine.push_back({pick(2) ? m->list->sublist(pos, 4000) : m->list->deep_clone(pos, 4000),
                          m->bytes.substr(pos, 4000)});
          check(mine.back());
          break;
        case 4: {  // chunks on their own: publish, or read and clone one still shared
          std::unique_lock<std::mutex> lock(mutex);
          if (pick(2)) {
            LooseChunk c{create_memory_chunk(pick(70000)), data.substr(0, 64)};
            std::memcpy(c.chunk->data(), c.bytes.data(), c.bytes.size());
            chunks.push_back(std::move(c));
            if (chunks.size() > 32) chunks.erase(chunks.begin());
          } else if (!chunks.empty()) {
            LooseChunk const taken = chunks[pick(chunks.size())];
            lock.unlock();
            MemoryChunkPtr const copy = taken.chunk->clone_range(0, size_of(taken.bytes));
            if (std::string(taken.chunk->data(), taken.bytes.size()) != taken.bytes ||
                std::string(copy->data(), taken.bytes.size()) != taken.bytes) {
              ++failures;
            }
          }
          break;
        }
        case 5:
          if (m) mine.erase(mine.begin() + (m - mine.data()));
          break;
        default:
          for (Model const& each : mine)
            check(each);
          break;
      }
      if (mine.size() > 12) mine.erase(mine.begin());
    }
  };
  std::vector<std::thread> threads;
  for (unsigned seed = 1; seed <= 4; ++seed)
    threads.emplace_back(worker, seed);
  for (std::thread& t : threads)
    t.join();
  for (Model const& m : lists)
    check(m);
  EXPECT_EQ(failures, 0);
}

}  // namespace
}  // namespace zoserialize
