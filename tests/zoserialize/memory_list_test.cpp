#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iomanip>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include <gtest/gtest.h>

#include <zocore/ref_counted.h>
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
constexpr unsigned kToEnd = 0xFFFFFFFFU;
constexpr unsigned kMaxSize = MemoryListBaseType::kMaxSize;

// ---- Test chunks and factories

// A chunk of any size from the heap, counting live instances so tests can see that every
// reference was given back.
class TestChunk final : public MemoryChunk {
 public:
  static MemoryChunkPtr create(unsigned size) {
    auto storage = std::make_unique<char[]>(size);
    char* data = storage.get();
    return MemoryChunkPtr(new TestChunk(data, size, std::move(storage)));
  }

  MemoryChunkPtr clone_range(unsigned offset, unsigned length) const override {
    MemoryChunkPtr copy = create(size());
    if (offset < size())
      std::memcpy(copy->data(), data() + offset, std::min(length, size() - offset));
    return copy;
  }

  static std::atomic<int> live;

 private:
  TestChunk(char* data, unsigned size, std::unique_ptr<char[]> storage)
      : MemoryChunk(data, size), storage_(std::move(storage)) {
    ++live;
  }
  ~TestChunk() override { --live; }

  std::unique_ptr<char[]> storage_;
};

std::atomic<int> TestChunk::live{0};

// Chunks of 1 to 23 bytes in a fixed rotation, whatever was asked: lists get many segments
// and every kind of seam.
MemoryChunkPtr small_chunk_factory(unsigned) {
  static unsigned next = 0;
  next = next % 23 + 1;
  return TestChunk::create(next);
}

std::vector<unsigned> g_requests;
MemoryChunkPtr recording_factory(unsigned size) {
  g_requests.push_back(size);
  return create_memory_chunk(size);
}

MemoryChunkPtr null_factory(unsigned) {
  return {};
}
MemoryChunkPtr empty_chunk_factory(unsigned) {
  return TestChunk::create(0);
}

// Every chunk is the same one: lists can reach the size limit without the memory.
MemoryChunkPtr same_chunk_factory(unsigned) {
  static MemoryChunkPtr const chunk = impl::create_heap_memory_chunk(65536);
  return chunk;
}

// ---- Helpers

std::string contents(MemoryListBaseType const& list) {
  std::string out(list.size(), '\0');
  EXPECT_EQ(list.read_at(0, out.data(), list.size()), list.size());
  return out;
}

std::string pattern(unsigned n, unsigned seed = 0) {
  std::string out(n, '\0');
  for (unsigned i = 0; i < n; ++i)
    out[i] = static_cast<char>('a' + (seed + i * 7) % 26);
  return out;
}

MemoryListPtr list_of(std::string const& text, MemoryChunkFactory factory = &create_memory_chunk) {
  MemoryListPtr list = MemoryList::create_with_factory(factory);
  list->append(text.data(), static_cast<unsigned>(text.size()));
  return list;
}

// A list whose segments hold exactly the given pieces, each in a chunk of its own.
MemoryListPtr list_of_pieces(std::vector<std::string> const& pieces) {
  MemoryListPtr list = MemoryList::create();
  for (std::string const& piece : pieces) {
    MemoryChunkPtr chunk = create_memory_chunk(static_cast<unsigned>(piece.size()));
    std::memcpy(chunk->data(), piece.data(), piece.size());
    list->append(chunk, 0, static_cast<unsigned>(piece.size()));
  }
  return list;
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

// ---- Appending

TEST(MemoryListAppendTest, ChunkRequestsGrowWithTheList) {
  g_requests.clear();
  MemoryListPtr const list = MemoryList::create_with_factory(&recording_factory);
  list->append(pattern(10).data(), 10);
  EXPECT_EQ(g_requests, std::vector<unsigned>({10}));
  EXPECT_EQ(list->remaining_space_last_chunk(), 1014U);

  std::string const more = pattern(2000, 3);
  list->append(more.data(), 2000);
  // 1014 bytes fill the first chunk; the other 986 ask for max(986, 1024).
  EXPECT_EQ(g_requests, std::vector<unsigned>({10, 1024}));
  EXPECT_EQ(segment_sizes(*list), std::vector<unsigned>({1024, 986}));
  EXPECT_EQ(contents(*list), pattern(10) + more);
  EXPECT_EQ(list->get_write_position(), 2010U);

  list->append(pattern(100000).data(), 100000);
  EXPECT_EQ(g_requests.at(2), 100000U - 38);  // 38 bytes still fitted the second chunk
  EXPECT_EQ(list->size(), 102010U);
  EXPECT_TRUE(list->validate_size());
}

struct ChunkRangeCase {
  unsigned offset;
  unsigned length;
  unsigned appended;
};

class MemoryListAppendChunkTest : public ::testing::TestWithParam<ChunkRangeCase> {};

TEST_P(MemoryListAppendChunkTest, AddsTheRangeSharingTheChunk) {
  MemoryChunkPtr const chunk = create_memory_chunk(1);
  std::string const bytes = pattern(1024);
  std::memcpy(chunk->data(), bytes.data(), 1024);
  MemoryListPtr const list = list_of("xy");
  list->write_seek(0);
  list->append(chunk, GetParam().offset, GetParam().length);
  EXPECT_EQ(list->size(), 2 + GetParam().appended);
  EXPECT_EQ(list->get_write_position(), list->size());
  EXPECT_EQ(list->segment_count(), GetParam().appended == 0 ? 1U : 2U);
  if (GetParam().appended != 0) {
    EXPECT_EQ(contents(*list), "xy" + bytes.substr(GetParam().offset, GetParam().appended));
    EXPECT_EQ((list->begin() + 1)->chunk(), chunk);
  }
}

INSTANTIATE_TEST_SUITE_P(Ranges, MemoryListAppendChunkTest,
                         ::testing::Values(ChunkRangeCase{0, kToEnd, 1024},
                                           ChunkRangeCase{1000, kToEnd, 24},
                                           ChunkRangeCase{1000, 5, 5}, ChunkRangeCase{1000, 50, 24},
                                           ChunkRangeCase{10, 0, 0}, ChunkRangeCase{1024, 1, 0},
                                           ChunkRangeCase{5000, kToEnd, 0}));

TEST(MemoryListAppendTest, EmptySegmentsAndNullChunksAddNothing) {
  MemoryListPtr const list = list_of("abc");
  list->write_seek(1);
  list->append(MemoryChunkSegment());
  list->append(MemoryChunkPtr(), 0, 10);
  EXPECT_EQ(list->segment_count(), 1U);
  EXPECT_EQ(list->get_write_position(), 3U);
}

TEST(MemoryListAppendTest, AppendingBehindASharedChunkCopiesItFirst) {
  MemoryListPtr const original = list_of("hello");
  MemoryListPtr const copy = original->shallow_clone();
  copy->append(" world", 6);
  copy->push_back('!');
  EXPECT_EQ(contents(*copy), "hello world!");
  EXPECT_EQ(contents(*original), "hello");
  EXPECT_NE(copy->begin()->chunk(), original->begin()->chunk());
  EXPECT_EQ(original->remaining_space_last_chunk(), 1019U);
}

TEST(MemoryListAppendTest, AppendListSharesChunksAndCutsTheEnds) {
  MemoryListPtr const source = list_of_pieces({"abcd", "efgh", "ijkl"});
  MemoryListPtr const list = list_of("0");
  list->append_list(*source, 2, 7);
  EXPECT_EQ(contents(*list), "0cdefghi");
  EXPECT_EQ(segment_sizes(*list), std::vector<unsigned>({1, 2, 4, 1}));
  EXPECT_EQ((list->begin() + 1)->chunk(), source->begin()->chunk());
  EXPECT_EQ((list->begin() + 3)->chunk(), (source->begin() + 2)->chunk());

  list->append_list(*list);  // itself, through a snapshot
  EXPECT_EQ(contents(*list), "0cdefghi0cdefghi");
  list->append(*source, source->cursor_at(10), kToEnd);
  EXPECT_EQ(contents(*list), "0cdefghi0cdefghikl");
  EXPECT_TRUE(list->validate_size());
}

// ---- Writing

TEST(MemoryListWriteTest, OverwritesAcrossSegmentsThenAppends) {
  MemoryListPtr const list = list_of_pieces({"abc", "def", "ghi"});
  EXPECT_EQ(list->write_seek(2), 2U);
  list->write("XYZ", 3);
  EXPECT_EQ(contents(*list), "abXYZfghi");
  EXPECT_EQ(list->get_write_position(), 5U);
  list->write("1", 1);  // ends exactly at a segment's end
  EXPECT_EQ(list->get_write_position(), 6U);
  list->write("2345", 4);
  EXPECT_EQ(contents(*list), "abXYZ12345");
  EXPECT_EQ(list->get_write_position(), 10U);
  EXPECT_EQ(list->write_seek(50), 10U);
  list->write("", 0);
  EXPECT_EQ(list->size(), 10U);
}

TEST(MemoryListWriteTest, WritingIntoSharedChunksLeavesOtherHoldersUnchanged) {
  MemoryListPtr const original = list_of_pieces({"abc", "def", "ghi"});
  MemoryListPtr const slice = original->sublist(1, 7);
  MemoryListPtr const clone = original->shallow_clone();
  clone->write_seek(1);
  clone->write("1234567", 7);
  slice->write_seek(0);
  slice->write("__", 2);
  EXPECT_EQ(contents(*clone), "a1234567i");
  EXPECT_EQ(contents(*slice), "__defgh");
  EXPECT_EQ(contents(*original), "abcdefghi");
}

TEST(MemoryListWriteTest, DefragmentedWritesOverlapSafelyAndAppendTheRest) {
  MemoryListPtr const list = list_of_pieces({"abcd", "efgh"});
  list->write_seek(2);
  list->write_defragmented(*list, 0, 5);  // source overlaps the destination
  EXPECT_EQ(contents(*list), "ababcdeh");
  EXPECT_EQ(list->get_write_position(), 7U);
  MemoryListPtr const other = list_of_pieces({"123", "456"});
  list->write_list_defragmented(*other, other->cursor_at(1), kToEnd);
  EXPECT_EQ(contents(*list), "ababcde23456");
  EXPECT_EQ(list->get_write_position(), 12U);

  list->write_seek(0);
  list->write_defragmented(static_cast<MemoryListBaseType const*>(nullptr), 0, 5);
  list->write_defragmented(*other, 6, 5);
  list->write_defragmented(*other, 2, 0);
  EXPECT_EQ(list->get_write_position(), 0U);
  EXPECT_EQ(contents(*list), "ababcde23456");
}

// ---- Erasing and resizing

struct EraseCase {
  unsigned erase;
  unsigned write_position;
  char const* remaining;
  unsigned new_write_position;
};

class MemoryListEraseFrontTest : public ::testing::TestWithParam<EraseCase> {};

TEST_P(MemoryListEraseFrontTest, DropsBytesAndMovesTheWriteCursorDown) {
  MemoryListPtr const list = list_of_pieces({"0123", "4567", "89"});
  list->write_seek(GetParam().write_position);
  list->erase_front(GetParam().erase);
  EXPECT_EQ(contents(*list), GetParam().remaining);
  EXPECT_EQ(list->get_write_position(), GetParam().new_write_position);
  EXPECT_TRUE(list->validate_size());
  if (list->empty()) {
    EXPECT_EQ(list->segment_count(), 0U);
  }
}

INSTANTIATE_TEST_SUITE_P(Cases, MemoryListEraseFrontTest,
                         ::testing::Values(EraseCase{0, 5, "0123456789", 5},
                                           EraseCase{3, 2, "3456789", 0},
                                           EraseCase{3, 7, "3456789", 4},
                                           EraseCase{4, 10, "456789", 6},
                                           EraseCase{6, 6, "6789", 0}, EraseCase{9, 10, "9", 1},
                                           EraseCase{10, 4, "", 0}, EraseCase{11, 10, "", 0}));

struct ResizeCase {
  unsigned size;
  unsigned write_position;
  unsigned new_write_position;
};

class MemoryListResizeTest : public ::testing::TestWithParam<ResizeCase> {};

TEST_P(MemoryListResizeTest, KeepsTheBytesBeforeTheNewEnd) {
  std::string const text = "0123456789";
  MemoryListPtr const list = list_of_pieces({"0123", "4567", "89"});
  list->write_seek(GetParam().write_position);
  list->resize(GetParam().size);
  ASSERT_EQ(list->size(), GetParam().size);
  EXPECT_TRUE(list->validate_size());
  EXPECT_EQ(contents(*list).substr(0, 10), text.substr(0, GetParam().size));
  EXPECT_EQ(list->get_write_position(), GetParam().new_write_position);
  for (auto const& segment : *list)
    EXPECT_FALSE(segment.empty());
}

INSTANTIATE_TEST_SUITE_P(Cases, MemoryListResizeTest,
                         ::testing::Values(ResizeCase{10, 3, 3}, ResizeCase{7, 3, 3},
                                           ResizeCase{7, 7, 7}, ResizeCase{7, 9, 7},
                                           ResizeCase{8, 10, 8}, ResizeCase{4, 2, 2},
                                           ResizeCase{1, 5, 1}, ResizeCase{0, 5, 0},
                                           ResizeCase{3000, 4, 4}, ResizeCase{200000, 10, 10}));

TEST(MemoryListResizeTest, GrowingFillsTheLastChunkThenAsksForTheMissingCount) {
  g_requests.clear();
  MemoryListPtr const list = MemoryList::create_with_factory(&recording_factory);
  list->append("abc", 3);
  list->resize(5000);
  EXPECT_EQ(g_requests, std::vector<unsigned>({3, 3976}));
  EXPECT_EQ(segment_sizes(*list), std::vector<unsigned>({1024, 3976}));
  EXPECT_EQ(list->get_write_position(), 3U);
}

TEST(MemoryListResizeTest, ResizeToZeroEqualsClear) {
  MemoryListPtr const a = list_of(pattern(3000));
  MemoryListPtr const b = list_of(pattern(3000));
  a->write_seek(100);
  b->write_seek(100);
  a->resize(0);
  b->clear();
  for (MemoryListPtr const& list : {a, b}) {
    EXPECT_EQ(list->size(), 0U);
    EXPECT_EQ(list->segment_count(), 0U);
    EXPECT_EQ(list->get_write_position(), 0U);
    EXPECT_TRUE(list->is_eof(list->begin_cursor()));
  }
}

TEST(MemoryListResizeTest, CreateWithASizeStartsWritingAtZero) {
  MemoryListPtr const list = MemoryList::create(5000);
  EXPECT_EQ(list->size(), 5000U);
  EXPECT_EQ(list->get_write_position(), 0U);
  list->write("ab", 2);
  EXPECT_EQ(list->element_at(1), 'b');
}

TEST(MemoryListResizeTest, ResizeToChunkBoundaryTakesTheWholeLastChunk) {
  MemoryListPtr const list = list_of("0123456789");
  MemoryListPtr const clone = list->shallow_clone();
  clone->write_seek(4);
  clone->resize_to_chunk_boundary(kToEnd);
  EXPECT_EQ(clone->size(), 1024U);
  EXPECT_EQ(clone->remaining_space_last_chunk(), 0U);
  EXPECT_EQ(clone->get_write_position(), 4U);
  EXPECT_EQ(contents(*clone).substr(0, 10), "0123456789");
  EXPECT_NE(clone->begin()->chunk(), list->begin()->chunk());  // the shared chunk was copied
  EXPECT_EQ(list->size(), 10U);

  clone->resize_to_chunk_boundary(kToEnd);
  EXPECT_EQ(clone->size(), 1024U);
  clone->resize_to_chunk_boundary(20);
  EXPECT_EQ(clone->size(), 20U);

  MemoryListPtr const empty = MemoryList::create();
  empty->resize_to_chunk_boundary(kToEnd);
  EXPECT_EQ(empty->size(), 0U);
}

// ---- Errors

TEST(MemoryListErrorTest, ElementAtOutsideTheListThrowsRangeError) {
  MemoryListPtr const list = list_of_pieces({"ab", "cd"});
  EXPECT_EQ(list->element_at(0), 'a');
  EXPECT_EQ(list->element_at(3), 'd');
  for (unsigned pos : {4U, 5U, kToEnd}) {
    SCOPED_TRACE(pos);
    expect_std_error<std::range_error>([&] { list->element_at(pos); },
                                       "zoserialize::MemoryList: Invalid element offset");
  }
  expect_std_error<std::range_error>([&] { MemoryList::create()->element_at(0); },
                                     "zoserialize::MemoryList: Invalid element offset");
}

struct LimitCase {
  char const* name;
  unsigned start_size;
  void (*grow)(MemoryListBaseType&);
};

constexpr LimitCase kLimitCases[] = {
    {"append", kMaxSize - 1, [](MemoryListBaseType& l) { l.append("ab", 2); }},
    {"push_back", kMaxSize, [](MemoryListBaseType& l) { l.push_back('x'); }},
    {"write_past_end", kMaxSize - 1,
     [](MemoryListBaseType& l) {
       l.write_seek(kMaxSize - 2);
       l.write("abc", 3);
     }},
    {"append_window", kMaxSize,
     [](MemoryListBaseType& l) {
       unsigned avail = 0;
       l.get_append_write_ptr(&avail, 1);
     }},
    {"resize_to_all_bits", 0, [](MemoryListBaseType& l) { l.resize(kToEnd); }},
    {"append_self", 0x80000000U, [](MemoryListBaseType& l) { l.append_list(l); }},
    {"append_chunk", kMaxSize - 10,
     [](MemoryListBaseType& l) { l.append(create_memory_chunk(1), 0, 11); }},
};

class MemoryListLimitTest : public ::testing::TestWithParam<LimitCase> {};

TEST_P(MemoryListLimitTest, GrowingBeyondTheSizeLimitThrowsLengthError) {
  MemoryListPtr const list = MemoryList::create_with_factory(&same_chunk_factory);
  list->resize(GetParam().start_size);
  ASSERT_EQ(list->size(), GetParam().start_size);
  expect_std_error<std::length_error>([&] { GetParam().grow(*list); },
                                      "zoserialize::MemoryList: Size limit exceeded");
  EXPECT_TRUE(list->validate_size());
}

INSTANTIATE_TEST_SUITE_P(Paths, MemoryListLimitTest, ::testing::ValuesIn(kLimitCases),
                         [](auto const& param_info) { return std::string(param_info.param.name); });

TEST(MemoryListErrorTest, TheLastByteBelowTheLimitCanBeAdded) {
  MemoryListPtr const list = MemoryList::create_with_factory(&same_chunk_factory);
  list->resize(kMaxSize - 1);
  list->push_back('z');
  EXPECT_EQ(list->size(), kMaxSize);
  EXPECT_EQ(list->element_at(kMaxSize - 1), 'z');
}

TEST(MemoryListErrorTest, AFactoryWithoutStorageThrowsLogicError) {
  for (MemoryChunkFactory factory : {&null_factory, &empty_chunk_factory}) {
    MemoryListPtr const list = MemoryList::create_with_factory(factory);
    expect_std_error<std::logic_error>(
        [&] { list->append("a", 1); },
        "zoserialize::MemoryList: Chunk factory returned no storage");
    expect_std_error<std::logic_error>(
        [&] { list->resize(5); }, "zoserialize::MemoryList: Chunk factory returned no storage");
    EXPECT_EQ(list->size(), 0U);
  }
  EXPECT_EQ(TestChunk::live, 0);
}

// ---- Positions, cursors and readers (seams: every position of a list in uneven pieces)

class MemoryListSeamTest : public ::testing::Test {
 protected:
  MemoryListPtr const list_ = list_of_pieces({"a", "bcd", "efghij", "k", "lmnopq"});
  std::string const text_ = "abcdefghijklmnopq";
};

TEST_F(MemoryListSeamTest, SegmentOffsetsAndPositionsRoundTrip) {
  for (unsigned pos = 0; pos <= text_.size() + 2; ++pos) {
    SCOPED_TRACE(pos);
    unsigned offset = 99;
    auto const segment = list_->calculate_segment_offset(pos, &offset);
    if (pos >= text_.size()) {
      EXPECT_EQ(segment, list_->end());
      EXPECT_EQ(offset, 0U);
      EXPECT_EQ(list_->calculate_position(segment, offset), text_.size());
      continue;
    }
    ASSERT_NE(segment, list_->end());
    ASSERT_LT(offset, segment->size());
    EXPECT_EQ(segment->data()[offset], text_[pos]);
    EXPECT_EQ(list_->calculate_position(segment, offset), pos);
    EXPECT_EQ(list_->element_at(pos), text_[pos]);
  }
}

TEST_F(MemoryListSeamTest, ReadAtCursorCopiesAcrossSegmentsFromEveryPosition) {
  for (unsigned pos = 0; pos <= text_.size(); ++pos) {
    for (unsigned n = 0; n <= text_.size() + 1 - pos; ++n) {
      Cursor cursor;
      list_->set_read_cursor_to_pos(cursor, pos);
      ASSERT_TRUE(list_->is_valid_cursor(cursor));
      char out[32] = {};
      unsigned const got = list_->read_at_cursor(cursor, out, n);
      unsigned const expected = std::min<unsigned>(n, text_.size() - pos);
      ASSERT_EQ(got, expected) << pos << "+" << n;
      EXPECT_EQ(std::string(out, got), text_.substr(pos, got));
      EXPECT_EQ(cursor.position, pos + got);
      // A cursor never rests on a segment's end: it moves on to the next segment.
      EXPECT_TRUE(list_->is_valid_cursor(cursor)) << pos << "+" << n;
      EXPECT_EQ(list_->is_eof(cursor), pos + got == text_.size());

      Cursor advanced = list_->cursor_at(pos);
      EXPECT_EQ(list_->cursor_advance(advanced, n), expected);
      EXPECT_EQ(advanced.segment, cursor.segment);
      EXPECT_EQ(advanced.offset, cursor.offset);
    }
  }
}

TEST_F(MemoryListSeamTest, SingleByteAdvanceAndCursorEnds) {
  Cursor cursor = list_->begin_cursor();
  std::string walked;
  while (!list_->is_eof(cursor)) {
    unsigned avail = 0;
    walked += *list_->readable_at_cursor(cursor, &avail);
    list_->cursor_advance(cursor);
  }
  EXPECT_EQ(walked, text_);
  list_->cursor_advance(cursor);
  EXPECT_EQ(cursor.position, text_.size());

  Cursor end;
  list_->set_read_cursor_to_end(end);
  EXPECT_TRUE(list_->is_eof(end));
  EXPECT_TRUE(list_->is_valid_cursor(end));
  EXPECT_EQ(list_->cursor_at(1000).position, text_.size());
  unsigned avail = 7;
  EXPECT_EQ(list_->readable_at_cursor(end, &avail), nullptr);
  EXPECT_EQ(avail, 0U);
}

TEST_F(MemoryListSeamTest, InvalidCursorsAreRecognised) {
  Cursor cursor = list_->cursor_at(5);
  ++cursor.position;
  EXPECT_FALSE(list_->is_valid_cursor(cursor));
  cursor = list_->cursor_at(5);
  cursor.offset = 6;
  EXPECT_FALSE(list_->is_valid_cursor(cursor));
  MemoryListPtr const other = list_->shallow_clone();
  EXPECT_FALSE(list_->is_valid_cursor(other->cursor_at(5)));
}

TEST_F(MemoryListSeamTest, ReadableAndWritablePointersReachToTheSegmentEnd) {
  unsigned avail = 0;
  char const* p = list_->readable_ptr_at(5, &avail);
  EXPECT_EQ(std::string(p, avail), "fghij");
  EXPECT_EQ(list_->readable_ptr_at(17, &avail), nullptr);
  EXPECT_EQ(avail, 0U);

  MemoryListPtr const copy = list_->shallow_clone();
  char* w = copy->writable_ptr_at(5, &avail);
  ASSERT_EQ(avail, 5U);
  w[0] = 'F';
  EXPECT_EQ(contents(*copy), "abcdeFghijklmnopq");
  EXPECT_EQ(contents(*list_), text_);
  EXPECT_EQ(copy->writable_ptr_at(20, &avail), nullptr);
}

TEST_F(MemoryListSeamTest, RangesAsSegmentsShareWhenTheyCanAndCopyWhenTheyMust) {
  MemoryChunkSegment const inside = list_->get_range_as_segment(5, 3);
  EXPECT_EQ(std::string(inside.data(), inside.size()), "fgh");
  EXPECT_EQ(inside.chunk(), (list_->begin() + 2)->chunk());

  Cursor cursor = list_->cursor_at(2);
  MemoryChunkSegment const across = list_->get_range_at_cursor_as_segment(cursor, 9);
  EXPECT_EQ(std::string(across.data(), across.size()), "cdefghijk");
  EXPECT_EQ(cursor.position, 11U);
  EXPECT_TRUE(across.chunk()->is_unique());

  MemoryChunkSegment const tail = list_->get_range_as_segment(15, kToEnd);
  EXPECT_EQ(std::string(tail.data(), tail.size()), "pq");
  EXPECT_TRUE(list_->get_range_as_segment(17, 5).empty());

  // Larger than any pooled chunk and spread over segments: still one contiguous copy.
  std::string const big = pattern(100000);
  MemoryListPtr const large = list_of("x");
  large->append(big.data(), 100000);
  MemoryChunkSegment const whole = large->get_range_as_segment(1, kToEnd);
  ASSERT_EQ(whole.size(), 100000U);
  EXPECT_EQ(std::string(whole.data(), whole.size()), big);
}

TEST_F(MemoryListSeamTest, LinearReaderSkipsPeeksAndSeeks) {
  LinearReader reader = list_->reader();
  EXPECT_EQ(reader.skip(4), 4U);
  EXPECT_EQ(reader.peek(), 'e');
  unsigned avail = 0;
  char const* p = reader.contiguous(&avail);
  EXPECT_EQ(std::string(p, avail), "efghij");
  reader.seek(16);
  EXPECT_EQ(reader.peek(), 'q');
  EXPECT_EQ(reader.skip(5), 1U);
  EXPECT_EQ(reader.contiguous(&avail), nullptr);
  EXPECT_EQ(avail, 0U);

  LinearReader window = list_->reader(3, 4);  // "defg": contiguous stops at the window's end
  window.skip(1);
  p = window.contiguous(&avail);
  EXPECT_EQ(std::string(p, avail), "efg");
  EXPECT_EQ(window.start(), 3U);
  EXPECT_EQ(window.cursor().position, 4U);

  LinearReader const empty;
  EXPECT_TRUE(empty.is_eof());
  EXPECT_TRUE(empty.segments().at_end());
}

TEST_F(MemoryListSeamTest, ReadersKeepTheListAlive) {
  LinearReader reader;
  SegmentReadIterator pieces;
  {
    MemoryListPtr const temporary = list_->sublist(5, 5);
    reader = temporary->reader();
    pieces = temporary->segment_read_iterator();
  }
  char out[5];
  EXPECT_EQ(reader.read(out, 5), 5U);
  EXPECT_EQ(std::string(out, 5), "fghij");
  EXPECT_EQ(std::string(pieces.data(), pieces.size()), "fghij");
}

TEST_F(MemoryListSeamTest, SegmentReadIteratorYieldsPiecesCutAtTheRangeEnds) {
  std::vector<std::string> pieces;
  for (SegmentReadIterator it = list_->segment_read_iterator(list_->cursor_at(2), 10); !it.at_end();
       ++it) {
    pieces.emplace_back(it.data(), it.size());
  }
  EXPECT_EQ(pieces, std::vector<std::string>({"cd", "efghij", "k", "l"}));

  pieces.clear();
  LinearReader reader = list_->reader(0, 16);
  reader.skip(8);
  for (SegmentReadIterator it = reader.segments(); !it.at_end(); it.next()) {
    pieces.emplace_back(it.data(), it.size());
  }
  EXPECT_EQ(pieces, std::vector<std::string>({"ij", "k", "lmnop"}));
  EXPECT_EQ(reader.position(), 8U);
}

// ---- Append window and push_back

TEST(MemoryListAppendWindowTest, WindowIsTheFreeRoomOfAPrivateLastChunk) {
  g_requests.clear();
  MemoryListPtr const list = MemoryList::create_with_factory(&recording_factory);
  unsigned avail = 0;
  char* p = list->get_append_write_ptr(&avail, 3000);
  EXPECT_EQ(g_requests, std::vector<unsigned>({3000}));
  ASSERT_EQ(avail, 4096U);
  std::copy_n("abcde", 5, p);
  list->commit_append_write(5);
  EXPECT_EQ(contents(*list), "abcde");
  EXPECT_EQ(list->get_write_position(), 5U);

  EXPECT_EQ(list->get_append_write_ptr(&avail, 1), p + 5);
  EXPECT_EQ(avail, 4091U);
  EXPECT_EQ(g_requests.size(), 1U);
  list->commit_append_write(0);
  EXPECT_EQ(list->size(), 5U);

  list->resize_to_chunk_boundary(kToEnd);
  list->get_append_write_ptr(&avail, 10);
  EXPECT_EQ(g_requests, std::vector<unsigned>({3000, 4096}));
  list->commit_append_write(0);  // an unused window leaves no empty segment behind
  EXPECT_EQ(list->segment_count(), 1U);
  EXPECT_TRUE(list->validate_size());
}

TEST(MemoryListAppendWindowTest, ASharedLastChunkIsCopiedBeforeTheWindowOpens) {
  MemoryListPtr const original = list_of("abc");
  MemoryListPtr const clone = original->shallow_clone();
  unsigned avail = 0;
  char* p = clone->get_append_write_ptr(&avail, 1);
  ASSERT_GE(avail, 1U);
  *p = 'd';
  clone->commit_append_write(1);
  EXPECT_EQ(contents(*clone), "abcd");
  EXPECT_EQ(contents(*original), "abc");
  EXPECT_TRUE(clone->begin()->chunk()->is_unique());
}

// ---- Clones

TEST(MemoryListCloneTest, ShallowCloneKeepsWritePositionAndFactorySublistAndDeepCloneEndAtTheEnd) {
  MemoryListPtr const list = list_of_pieces({"abc", "def"});
  MemoryListPtr const small = list_of("xyz", &small_chunk_factory);
  small->write_seek(1);
  list->write_seek(4);

  MemoryListPtr const shallow = small->shallow_clone();
  EXPECT_EQ(shallow->get_write_position(), 1U);
  EXPECT_EQ(shallow->chunk_factory(), &small_chunk_factory);
  EXPECT_EQ(shallow->begin()->chunk(), small->begin()->chunk());

  MemoryListPtr const sub = list->sublist(list->cursor_at(2), 3);
  EXPECT_EQ(contents(*sub), "cde");
  EXPECT_EQ(sub->get_write_position(), 3U);

  MemoryListPtr const deep = list->deep_clone(1, 4);
  EXPECT_EQ(contents(*deep), "bcde");
  EXPECT_EQ(deep->get_write_position(), 4U);
  for (auto const& segment : *deep)
    EXPECT_TRUE(segment.chunk()->is_unique());

  list->copy_from(*small);
  EXPECT_EQ(contents(*list), "xyz");
  EXPECT_EQ(list->get_write_position(), 1U);
  EXPECT_EQ(list->chunk_factory(), &small_chunk_factory);
  list->copy_from(*list);
  EXPECT_EQ(contents(*list), "xyz");
}

// ---- Trace

std::string address(void const* p) {
  std::ostringstream os;
  os << "0x" << std::hex << std::setw(16) << std::setfill('0')
     << reinterpret_cast<std::uintptr_t>(p);
  return os.str();
}

class MemoryListTraceTest : public ::testing::TestWithParam<int> {};

TEST_P(MemoryListTraceTest, PrintsHeaderSegmentsAndDumpsByLevel) {
  int const level = GetParam();
  MemoryChunkPtr const text = create_memory_chunk(1);
  std::memcpy(text->data(), "Hello, world!", 13);
  MemoryChunkPtr const binary = create_memory_chunk(1);
  for (int i = 0; i < 20; ++i)
    binary->data()[i] = static_cast<char>(i);

  MemoryListPtr const list = MemoryList::create();
  list->append(text, 7, 5);
  list->append(binary, 0, 20);
  list->write_seek(3);

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
  EXPECT_EQ(os.str(), expected);
}

INSTANTIATE_TEST_SUITE_P(Levels, MemoryListTraceTest, ::testing::Values(0, 1, 2, 3, -1));

// ---- Pooling of list objects

TEST(MemoryListPoolTest, ReleasedListsComeBackEmptyLastInFirstOutWithTheDefaultFactory) {
  MemoryListPtr list = MemoryList::create_with_factory(&small_chunk_factory);
  list->append(pattern(100).data(), 100);
  list->write_seek(5);
  MemoryListBaseType const* const address = list.get();
  list = nullptr;
  EXPECT_TRUE(Peer::is_pooled(address));
  EXPECT_EQ(TestChunk::live, 0);  // a pooled list holds no chunks

  MemoryListPtr const again = MemoryList::create();
  EXPECT_EQ(again.get(), address);
  EXPECT_TRUE(again->empty());
  EXPECT_EQ(again->segment_count(), 0U);
  EXPECT_EQ(again->get_write_position(), 0U);
  EXPECT_EQ(again->chunk_factory(), &create_memory_chunk);
  EXPECT_EQ(MemoryList::create_with_factory(nullptr)->chunk_factory(), &create_memory_chunk);
}

struct PoolCapacityCase {
  unsigned segments;
  unsigned capacity;
  bool pooled;
};

class MemoryListPoolCapacityTest : public ::testing::TestWithParam<PoolCapacityCase> {};

TEST_P(MemoryListPoolCapacityTest, ListsWithLargeSegmentStorageAreDeleted) {
  // Pooled lists keep their segment storage: empty the pool to get a new list object, which
  // also leaves the pool room for it.
  std::vector<MemoryListPtr> drained;
  while (Peer::pooled() != 0)
    drained.push_back(MemoryList::create());
  MemoryChunkPtr const chunk = create_memory_chunk(1);
  MemoryListPtr list = MemoryList::create();
  for (unsigned i = 0; i < GetParam().segments; ++i)
    list->append(chunk, i, 1);
  EXPECT_EQ(Peer::segment_capacity(*list), GetParam().capacity);
  MemoryListBaseType const* const address = list.get();
  list = nullptr;
  EXPECT_EQ(Peer::is_pooled(address), GetParam().pooled);
  EXPECT_TRUE(chunk->is_unique());
}

INSTANTIATE_TEST_SUITE_P(Sizes, MemoryListPoolCapacityTest,
                         ::testing::Values(PoolCapacityCase{1, 16, true},
                                           PoolCapacityCase{17, 32, true},
                                           PoolCapacityCase{64, 64, true},
                                           PoolCapacityCase{65, 128, false},
                                           PoolCapacityCase{300, 512, false}));

TEST(MemoryListPoolTest, PoolHoldsAtMost128Lists) {
  std::vector<MemoryListPtr> lists;
  lists.reserve(130);
  for (int i = 0; i < 130; ++i)
    lists.push_back(MemoryList::create());
  EXPECT_EQ(Peer::pooled(), 0U);
  lists.clear();
  EXPECT_EQ(Peer::pooled(), 128U);
}

// ---- Model-based test: random operations on lists sharing chunks, checked against strings

struct Holder {
  MemoryListPtr list;
  std::string bytes;
  unsigned write_position = 0;
};

struct LooseChunk {
  MemoryChunkPtr chunk;
  std::string bytes;
};

class ModelRun {
 public:
  ModelRun(MemoryChunkFactory factory, unsigned seed, unsigned max_size)
      : factory_(factory), rng_(seed), max_size_(max_size) {
    for (Holder& h : holders_)
      h.list = MemoryList::create_with_factory(factory_);
  }

  void run(unsigned steps) {
    for (unsigned step = 0; step < steps; ++step) {
      std::string const what = apply_random_operation();
      for (Holder const& h : holders_)
        verify(h, step, what);
      for (LooseChunk const& c : loose_) {
        ASSERT_EQ(std::string(c.chunk->data(), c.bytes.size()), c.bytes) << step << " " << what;
      }
      if (::testing::Test::HasFailure()) return;
    }
  }

 private:
  static constexpr int kOperations = 24;

  unsigned pick(unsigned n) { return static_cast<unsigned>(rng_() % n); }
  unsigned size_of(Holder const& h) const { return static_cast<unsigned>(h.bytes.size()); }

  // A position, sometimes beyond the end.
  unsigned position_in(Holder const& h) { return pick(size_of(h) + 4); }

  unsigned length() {
    switch (pick(5)) {
      case 0:
        return kToEnd;
      case 1:
        return pick(4);
      case 2:
        return pick(40);
      case 3:
        return pick(400);
      default:
        return pick(3000);
    }
  }

  std::string random_bytes(unsigned n) {
    std::string out(n, '\0');
    for (char& c : out)
      c = static_cast<char>(rng_());
    return out;
  }

  static std::string clipped(Holder const& h, unsigned pos, unsigned length) {
    std::size_t const start = std::min<std::size_t>(pos, h.bytes.size());
    return h.bytes.substr(start, std::min<std::size_t>(length, h.bytes.size() - start));
  }

  static void model_write(Holder& h, std::string const& data) {
    if (data.empty()) return;
    h.bytes.replace(h.write_position, std::min(data.size(), h.bytes.size() - h.write_position),
                    data);
    h.write_position += static_cast<unsigned>(data.size());
  }

  static void model_append(Holder& h, std::string const& data) {
    h.bytes += data;
    h.write_position = size_of_static(h);
  }

  static unsigned size_of_static(Holder const& h) { return static_cast<unsigned>(h.bytes.size()); }

  // Bytes a list exposed by growing: unspecified, so the model takes them from the list.
  static void adopt_new_bytes(Holder& h) {
    unsigned const old_size = size_of_static(h);
    std::string added(h.list->size() - old_size, '\0');
    h.list->read_at(old_size, added.data(), static_cast<unsigned>(added.size()));
    h.bytes += added;
  }

  std::string apply_random_operation() {
    Holder& h = holders_[pick(kHolders)];
    Holder& src = holders_[pick(kHolders)];
    if (size_of(h) > max_size_) {
      unsigned const n = size_of(h) - max_size_ / 2;
      h.list->erase_front(n);
      h.bytes.erase(0, n);
      h.write_position = h.write_position >= n ? h.write_position - n : 0;
      return "erase_front(bound)";
    }
    switch (pick(kOperations)) {
      case 0: {
        std::string const data = random_bytes(length() % 5000);
        h.list->append(data.data(), static_cast<unsigned>(data.size()));
        model_append(h, data);
        return "append";
      }
      case 1: {
        std::string const data = random_bytes(length() % 5000);
        h.list->write(data.data(), static_cast<unsigned>(data.size()));
        model_write(h, data);
        return "write";
      }
      case 2: {
        unsigned const pos = position_in(h);
        h.write_position = std::min(pos, size_of(h));
        EXPECT_EQ(h.list->write_seek(pos), h.write_position);
        return "write_seek";
      }
      case 3: {
        unsigned const n = pick(size_of(h) + 5);
        h.list->erase_front(n);
        if (n >= size_of(h)) {
          h.bytes.clear();
          h.write_position = 0;
        } else {
          h.bytes.erase(0, n);
          h.write_position = h.write_position >= n ? h.write_position - n : 0;
        }
        return "erase_front";
      }
      case 4: {
        h.list->resize(size_of(h) + pick(700));
        adopt_new_bytes(h);
        return "resize(grow)";
      }
      case 5: {
        unsigned const size = pick(size_of(h) + 1);
        h.list->resize(size);
        h.bytes.resize(size);
        h.write_position = std::min(h.write_position, size);
        return "resize(shrink)";
      }
      case 6: {
        unsigned const room = h.list->remaining_space_last_chunk();
        unsigned const old_size = size_of(h);
        h.list->resize_to_chunk_boundary(kToEnd);
        EXPECT_GE(h.list->size(), old_size + room);
        EXPECT_EQ(h.list->remaining_space_last_chunk(), 0U);
        adopt_new_bytes(h);
        return "resize_to_chunk_boundary";
      }
      case 7: {
        unsigned const pos = position_in(src);
        unsigned const len = length();
        Holder result{pick(2) ? src.list->sublist(pos, len)
                              : src.list->sublist(src.list->cursor_at(pos), len),
                      clipped(src, pos, len)};
        result.write_position = size_of(result);
        h = std::move(result);
        return "sublist";
      }
      case 8: {
        h = Holder{src.list->shallow_clone(), src.bytes, src.write_position};
        return "shallow_clone";
      }
      case 9: {
        unsigned const pos = position_in(src);
        unsigned const len = length();
        Holder result{src.list->deep_clone(pos, len), clipped(src, pos, len)};
        result.write_position = size_of(result);
        for (auto const& segment : *result.list)
          EXPECT_TRUE(segment.chunk()->is_unique());
        h = std::move(result);
        return "deep_clone";
      }
      case 10: {
        unsigned const pos = position_in(src);
        unsigned const len = length();
        std::string const data = clipped(src, pos, len);
        switch (pick(4)) {
          case 0:
            h.list->append_list(*src.list, pos, len);
            break;
          case 1:
            h.list->append(*src.list, src.list->cursor_at(pos), len);
            break;
          case 2:
            h.list->append_list(*src.list, src.list->cursor_at(pos), len);
            break;
          default: {
            std::string const whole = src.bytes;
            h.list->append(*src.list);
            model_append(h, whole);
            return "append(list)";
          }
        }
        model_append(h, data);
        return "append_list";
      }
      case 11: {
        unsigned const pos = position_in(src);
        unsigned const len = length();
        std::string const data = clipped(src, pos, len);
        if (pick(2)) {
          h.list->append_defragmented(*src.list, pos, len);
        } else {
          h.list->append_list_defragmented(*src.list, src.list->cursor_at(pos), len);
        }
        model_append(h, data);
        return "append_defragmented";
      }
      case 12: {
        unsigned const pos = position_in(src);
        unsigned const len = length();
        std::string const data = clipped(src, pos, len);
        switch (pick(3)) {
          case 0:
            h.list->write_defragmented(*src.list, pos, len);
            break;
          case 1:
            h.list->write_defragmented(src.list.get(), pos, len);
            break;
          default:
            h.list->write_list_defragmented(*src.list, src.list->cursor_at(pos), len);
            break;
        }
        model_write(h, data);
        return "write_defragmented";
      }
      case 13: {
        for (unsigned n = 1 + pick(40); n != 0; --n) {
          char const c = static_cast<char>(rng_());
          h.list->push_back(c);
          model_append(h, std::string(1, c));
        }
        return "push_back";
      }
      case 14: {
        unsigned avail = 0;
        char* const p = h.list->get_append_write_ptr(&avail, pick(5000));
        EXPECT_GT(avail, 0U);
        EXPECT_TRUE((h.list->end() - 1)->chunk()->is_unique());
        std::string const data = random_bytes(pick(std::min(avail, 600U) + 1));
        std::copy(data.begin(), data.end(), p);
        h.list->commit_append_write(static_cast<unsigned>(data.size()));
        model_append(h, data);
        return "append_window";
      }
      case 15: {
        if (pick(2)) {
          h.list->clear();
        } else {
          h.list->resize(0);
        }
        h.bytes.clear();
        h.write_position = 0;
        return "clear";
      }
      case 16: {
        unsigned const pos = position_in(h);
        std::string const data = random_bytes(pick(60));
        unsigned const written =
            h.list->overwrite_at(pos, data.data(), static_cast<unsigned>(data.size()));
        unsigned const expected =
            pos >= size_of(h) ? 0 : std::min(static_cast<unsigned>(data.size()), size_of(h) - pos);
        EXPECT_EQ(written, expected);
        if (expected != 0) h.bytes.replace(pos, expected, data.substr(0, expected));
        return "overwrite_at";
      }
      case 17: {
        if (h.bytes.empty()) return "writable_ptr_at(empty)";
        unsigned const pos = pick(size_of(h));
        unsigned avail = 0;
        char* const p = h.list->writable_ptr_at(pos, &avail);
        EXPECT_GE(avail, 1U);
        EXPECT_LE(avail, size_of(h) - pos);
        std::string const data = random_bytes(std::min(avail, 3U));
        std::copy(data.begin(), data.end(), p);
        h.bytes.replace(pos, data.size(), data);
        return "writable_ptr_at";
      }
      case 18: {
        unsigned const pos = position_in(src);
        unsigned const len = length();
        std::string const data = clipped(src, pos, len);
        MemoryChunkSegment const segment = src.list->get_range_as_segment(pos, len);
        EXPECT_EQ(segment.size(), data.size());
        if (!segment.empty()) {
          EXPECT_EQ(std::string(segment.data(), segment.size()), data);
        }
        h.list->append(segment);
        model_append(h, data);
        return "append(segment)";
      }
      case 19: {
        // A chunk also held outside any list, appended to one: no write may reach it.
        MemoryChunkPtr const chunk = create_memory_chunk(pick(3000));
        LooseChunk loose{chunk, random_bytes(chunk->size())};
        std::memcpy(chunk->data(), loose.bytes.data(), loose.bytes.size());
        unsigned const offset = pick(chunk->size() + 2);
        unsigned const len = length();
        std::string const data =
            offset >= chunk->size()
                ? ""
                : loose.bytes.substr(offset, std::min(len, chunk->size() - offset));
        h.list->append(chunk, offset, len);
        model_append(h, data);
        if (loose_.size() < 6) {
          loose_.push_back(std::move(loose));
        } else {
          loose_[pick(6)] = std::move(loose);
        }
        return "append(chunk)";
      }
      case 20: {
        h = Holder{MemoryList::create_with_factory(factory_), {}, 0};
        return "replace";
      }
      case 21: {
        // Sequential reading at random steps from a random position.
        unsigned const pos = position_in(h);
        unsigned const len = length();
        LinearReader reader = h.list->reader(pos, len);
        std::string got;
        char buffer[64];
        while (!reader.is_eof()) {
          if (pick(4) == 0) {
            unsigned avail = 0;
            char const* p = reader.contiguous(&avail);
            unsigned const n = std::min(avail, 1 + pick(avail));
            got.append(p, n);
            reader.skip(n);
          } else {
            got.append(buffer, reader.read(buffer, 1 + pick(64)));
          }
        }
        EXPECT_EQ(got, clipped(h, pos, len));
        return "reader";
      }
      case 22: {
        unsigned const pos = position_in(h);
        unsigned const len = length();
        std::string got;
        for (SegmentReadIterator it = h.list->segment_read_iterator(h.list->cursor_at(pos), len);
             !it.at_end(); ++it) {
          EXPECT_GT(it.size(), 0U);
          got.append(it.data(), it.size());
        }
        EXPECT_EQ(got, clipped(h, pos, len));
        return "segment_read_iterator";
      }
      default: {
        // Append a list to itself, shared or copied.
        Holder& self = h;
        std::string const data = self.bytes;
        if (pick(2)) {
          self.list->append_list(*self.list);
        } else {
          self.list->append_defragmented(*self.list);
        }
        model_append(self, data);
        return "append(self)";
      }
    }
  }

  static void verify(Holder const& h, unsigned step, std::string const& what) {
    MemoryListBaseType const& list = *h.list;
    ASSERT_EQ(list.size(), h.bytes.size()) << "step " << step << " after " << what;
    ASSERT_TRUE(list.validate_size()) << "step " << step << " after " << what;
    ASSERT_EQ(list.get_write_position(), h.write_position) << "step " << step << " after " << what;
    ASSERT_EQ(contents(list), h.bytes) << "step " << step << " after " << what;
    for (auto const& segment : list) {
      ASSERT_FALSE(segment.empty()) << "step " << step << " after " << what;
      ASSERT_LE(segment.last(), segment.chunk()->size());
    }
  }

  static constexpr unsigned kHolders = 5;
  MemoryChunkFactory factory_;
  std::mt19937 rng_;
  unsigned max_size_;
  Holder holders_[kHolders];
  std::vector<LooseChunk> loose_;
};

TEST(MemoryListModelTest, RandomOperationsOnListsSharingPooledChunks) {
  ModelRun(&create_memory_chunk, 20240601, 40000).run(20000);
}

TEST(MemoryListModelTest, RandomOperationsOnListsWithManySmallSegments) {
  { ModelRun(&small_chunk_factory, 77, 6000).run(10000); }
  EXPECT_EQ(TestChunk::live, 0);
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
        g_late_release.list = list_of(pattern(5000));
        g_late_release.chunk = create_memory_chunk(20000);
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "released after the pools");
}

// ---- Threads

TEST(MemoryThreadsTest, ListsAndChunksSharedBetweenThreadsStayIntact) {
  struct SharedList {
    MemoryListPtr list;
    std::string bytes;
  };
  struct SharedChunk {
    MemoryChunkPtr chunk;
    std::string bytes;
  };
  std::mutex mutex;
  std::deque<SharedList> lists;
  std::deque<SharedChunk> chunks;
  std::atomic<int> failures{0};

  auto check = [&](SharedList const& s) {
    std::string got(s.list->size(), '\0');
    s.list->read_at(0, got.data(), s.list->size());
    if (got != s.bytes || !s.list->validate_size()) ++failures;
  };

  auto worker = [&](unsigned seed) {
    std::mt19937 rng(seed);
    auto pick = [&](unsigned n) { return static_cast<unsigned>(rng() % n); };
    auto random_bytes = [&](unsigned n) {
      std::string out(n, '\0');
      for (char& c : out)
        c = static_cast<char>(rng());
      return out;
    };
    std::vector<SharedList> mine;
    for (int step = 0; step < 3000; ++step) {
      switch (pick(8)) {
        case 0: {
          std::string const bytes = random_bytes(pick(6000));
          mine.push_back({list_of(bytes), bytes});
          break;
        }
        case 1: {  // publish a list object this thread keeps holding too
          if (mine.empty()) break;
          SharedList dropped;
          std::lock_guard<std::mutex> lock(mutex);
          lists.push_back(mine[pick(static_cast<unsigned>(mine.size()))]);
          if (lists.size() > 32) {
            dropped = std::move(lists.front());
            lists.pop_front();
          }
          break;
        }
        case 2: {
          SharedList taken;
          {
            std::lock_guard<std::mutex> lock(mutex);
            if (lists.empty()) break;
            taken = std::move(lists.front());
            lists.pop_front();
          }
          check(taken);
          mine.push_back(std::move(taken));
          break;
        }
        case 3: {  // write: a shared list object is cloned first, shared chunks on write
          if (mine.empty()) break;
          SharedList& s = mine[pick(static_cast<unsigned>(mine.size()))];
          if (!s.list->is_unique()) s.list = s.list->shallow_clone();
          std::string const data = random_bytes(pick(3000));
          unsigned const pos = pick(static_cast<unsigned>(s.bytes.size()) + 1);
          switch (pick(4)) {
            case 0:
              s.list->write_seek(pos);
              s.list->write(data.data(), static_cast<unsigned>(data.size()));
              s.bytes.replace(pos, std::min(data.size(), s.bytes.size() - pos), data);
              break;
            case 1:
              s.list->append(data.data(), static_cast<unsigned>(data.size()));
              s.bytes += data;
              break;
            case 2:
              for (char c : data.substr(0, 100))
                s.list->push_back(c);
              s.bytes += data.substr(0, 100);
              break;
            default:
              s.list->erase_front(pos);
              s.bytes.erase(0, pos);
              break;
          }
          check(s);
          break;
        }
        case 4: {  // derive new lists sharing the chunks
          if (mine.empty()) break;
          SharedList const& s = mine[pick(static_cast<unsigned>(mine.size()))];
          unsigned const pos = pick(static_cast<unsigned>(s.bytes.size()) + 1);
          unsigned const len = pick(4000);
          std::string const part = s.bytes.substr(pos, len);
          SharedList derived{pick(2) ? s.list->sublist(pos, len) : s.list->deep_clone(pos, len),
                             part};
          check(derived);
          mine.push_back(std::move(derived));
          break;
        }
        case 5: {  // chunks on their own: publish, take, clone
          if (pick(2)) {
            MemoryChunkPtr const chunk = create_memory_chunk(pick(70000));
            std::string const bytes = random_bytes(64);
            std::memcpy(chunk->data(), bytes.data(), 64);
            std::lock_guard<std::mutex> lock(mutex);
            chunks.push_back({chunk, bytes});
            if (chunks.size() > 32) chunks.pop_front();
          } else {
            SharedChunk taken;
            {
              std::lock_guard<std::mutex> lock(mutex);
              if (chunks.empty()) break;
              taken = chunks.front();  // stays shared with the queue
            }
            MemoryChunkPtr const copy = taken.chunk->clone_range(0, 64);
            if (std::string(taken.chunk->data(), 64) != taken.bytes ||
                std::string(copy->data(), 64) != taken.bytes) {
              ++failures;
            }
          }
          break;
        }
        case 6:
          if (!mine.empty()) mine.erase(mine.begin() + pick(static_cast<unsigned>(mine.size())));
          break;
        default:
          for (SharedList const& s : mine)
            check(s);
          break;
      }
      if (mine.size() > 12) mine.erase(mine.begin());
    }
    for (SharedList const& s : mine)
      check(s);
  };

  std::vector<std::thread> threads;
  for (unsigned seed = 1; seed <= 4; ++seed)
    threads.emplace_back(worker, seed);
  for (std::thread& t : threads)
    t.join();
  for (SharedList const& s : lists)
    check(s);
  EXPECT_EQ(failures, 0);
}

}  // namespace
}  // namespace zoserialize
