#include <cstring>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include <zoserialize/memory_segment.h>

namespace zoserialize {
namespace {

constexpr unsigned kToEnd = 0xFFFFFFFFU;
using Segment = MemoryChunkSegment;
using SegmentArray = MemoryChunkSegmentArray;

MemoryChunkPtr chunk_with(std::string const& text) {
  MemoryChunkPtr chunk = create_memory_chunk(static_cast<unsigned>(text.size()));
  std::memset(chunk->data(), '.', chunk->size());
  std::memcpy(chunk->data(), text.data(), text.size());
  return chunk;
}

std::string text_of(Segment const& segment) {
  return segment.empty() ? std::string() : std::string(segment.data(), segment.size());
}

struct RangeCase {
  unsigned first;
  unsigned size;
  unsigned expected_first;
  unsigned expected_size;
};

class SegmentRangeTest : public ::testing::TestWithParam<RangeCase> {};

TEST_P(SegmentRangeTest, ConstructorClampsTheRangeToTheChunk) {
  RangeCase const c = GetParam();
  Segment const segment(create_memory_chunk(1), c.first, c.size);
  EXPECT_EQ(segment.first(), c.expected_first);
  EXPECT_EQ(segment.size(), c.expected_size);
  EXPECT_EQ(segment.last(), c.expected_first + c.expected_size);
  EXPECT_EQ(segment.space_remaining(), 1024 - segment.last());
}

INSTANTIATE_TEST_SUITE_P(Ranges, SegmentRangeTest,
                         ::testing::Values(RangeCase{0, kToEnd, 0, 1024}, RangeCase{10, 20, 10, 20},
                                           RangeCase{1000, 100, 1000, 24},
                                           RangeCase{1000, kToEnd, 1000, 24},
                                           RangeCase{2000, 5, 1024, 0}, RangeCase{5, 0, 5, 0}));

TEST(MemorySegmentTest, EmptyAndWholeChunkSegments) {
  Segment const empty;
  EXPECT_TRUE(empty.empty());
  EXPECT_EQ(empty.data(), nullptr);
  EXPECT_EQ(empty.space_remaining(), 0U);
  EXPECT_FALSE(empty.is_shared());

  MemoryChunkPtr const chunk = create_memory_chunk(0);
  Segment const whole(chunk);
  EXPECT_EQ(whole.first(), 0U);
  EXPECT_EQ(whole.size(), chunk->size());
  EXPECT_EQ(whole.data(), chunk->data());
  EXPECT_EQ(whole.space_remaining(), 0U);
  EXPECT_TRUE(whole.is_shared());  // `chunk` holds it too
}

TEST(MemorySegmentTest, SubRangesShareTheChunkAndClampToTheSegment) {
  Segment const segment(chunk_with("0123456789"), 2, 6);  // "234567"
  EXPECT_EQ(text_of(segment.subsegment(1, 3)), "345");
  EXPECT_EQ(text_of(segment.subsegment(4, kToEnd)), "67");
  EXPECT_EQ(text_of(segment.subsegment(4, 100)), "67");
  EXPECT_TRUE(segment.subsegment(9, 1).empty());
  EXPECT_EQ(segment.subsegment(1, 3).chunk(), segment.chunk());
  EXPECT_EQ(text_of(Segment(segment, 0, kToEnd)), "234567");
}

TEST(MemorySegmentTest, MoveLeavesTheSourceEmpty) {
  Segment source(chunk_with("abc"), 0, 3);
  Segment const moved(std::move(source));
  EXPECT_EQ(text_of(moved), "abc");
  // The moved-from state is part of the contract: an empty segment without a chunk.
  // NOLINTNEXTLINE(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
  EXPECT_TRUE(source.empty());
  EXPECT_FALSE(source.chunk());  // NOLINT(clang-analyzer-cplusplus.Move)

  Segment target(chunk_with("xyz"), 1, 1);
  target = Segment(chunk_with("hello"), 1, 3);
  EXPECT_EQ(text_of(target), "ell");
}

TEST(MemorySegmentTest, AppendFillsTheRoomOfAPrivateChunkInPlace) {
  Segment segment(chunk_with("ab"), 0, 2);
  MemoryChunk const* const chunk = segment.chunk().get();
  std::string const big(2000, 'x');
  EXPECT_EQ(segment.append(big.data(), 2000), 1022U);
  EXPECT_EQ(segment.chunk().get(), chunk);
  EXPECT_EQ(segment.size(), 1024U);
  EXPECT_EQ(segment.append("y", 1), 0U);
  EXPECT_EQ(text_of(segment), "ab" + std::string(1022, 'x'));
}

// Every write path of a segment must leave another holder of the chunk unchanged.
struct SharedWriteCase {
  char const* name;
  void (*write)(Segment&);
  char const* expected;  // the writer's bytes afterwards
};

constexpr SharedWriteCase kSharedWrites[] = {
    {"append", [](Segment& s) { EXPECT_EQ(s.append("XY", 2), 2U); }, "cdefXY"},
    {"push_back", [](Segment& s) { EXPECT_TRUE(s.push_back('X')); }, "cdefX"},
    {"append_window",
     [](Segment& s) {
       unsigned avail = 0;
       char* p = s.get_append_write_ptr(&avail);
       ASSERT_GE(avail, 2U);
       p[0] = 'X';
       p[1] = 'Y';
       s.commit_append_write(2);
     },
     "cdefXY"},
    {"overwrite", [](Segment& s) { EXPECT_EQ(s.overwrite(1, "XYZW", 4), 3U); }, "cXYZ"},
    {"inplace_write_ptr", [](Segment& s) { *s.get_inplace_write_ptr(3) = 'X'; }, "cdeX"},
};

class SegmentCopyOnWriteTest : public ::testing::TestWithParam<SharedWriteCase> {};

TEST_P(SegmentCopyOnWriteTest, WritingASharedChunkCopiesItFirst) {
  MemoryChunkPtr const chunk = chunk_with("abcdefgh");
  Segment other(chunk, 0, 8);
  Segment writer(chunk, 2, 4);  // "cdef"
  GetParam().write(writer);
  EXPECT_EQ(text_of(writer), GetParam().expected);
  EXPECT_NE(writer.chunk(), chunk);
  EXPECT_EQ(writer.first(), 0U);
  EXPECT_FALSE(writer.is_shared());
  EXPECT_EQ(std::string(chunk->data(), 10), "abcdefgh..");
  EXPECT_EQ(text_of(other), "abcdefgh");
}

INSTANTIATE_TEST_SUITE_P(WritePaths, SegmentCopyOnWriteTest, ::testing::ValuesIn(kSharedWrites),
                         [](auto const& param_info) { return std::string(param_info.param.name); });

TEST(MemorySegmentTest, WritePointersAndCopiesStayInsideTheSegment) {
  Segment segment(chunk_with("abcdef"), 1, 4);  // "bcde"
  EXPECT_EQ(segment.get_inplace_write_ptr(4), nullptr);
  EXPECT_EQ(segment.get_inplace_write_ptr(2, 3), nullptr);
  EXPECT_EQ(segment.get_inplace_write_ptr(5, 0), nullptr);
  ASSERT_NE(segment.get_inplace_write_ptr(2, 2), nullptr);
  EXPECT_EQ(*segment.get_inplace_write_ptr(2, 2), 'd');
  EXPECT_EQ(segment.overwrite(4, "x", 1), 0U);

  char out[8] = {};
  EXPECT_EQ(segment.copy_to(out, 8), 4U);
  EXPECT_EQ(std::string(out, 4), "bcde");
  EXPECT_EQ(segment.copy_to(3, out, 8), 1U);
  EXPECT_EQ(out[0], 'e');
  EXPECT_EQ(segment.copy_to(4, out, 8), 0U);
}

TEST(MemorySegmentTest, SizeIsClampedToTheChunkAndPushBackStopsWhenFull) {
  Segment segment(create_memory_chunk(1), 1000, 10);
  segment.size(5000);
  EXPECT_EQ(segment.size(), 24U);
  EXPECT_FALSE(segment.push_back('x'));
  segment.size(23);
  EXPECT_TRUE(segment.push_back('x'));
  EXPECT_EQ(segment.data()[23], 'x');
  segment.commit_append_write(100);
  EXPECT_EQ(segment.size(), 24U);
}

TEST(MemorySegmentTest, DeepCloneCopiesIntoAPrivateChunk) {
  Segment const segment(chunk_with("0123456789"), 3, 4);
  Segment const copy = segment.deep_clone();
  EXPECT_EQ(text_of(copy), "3456");
  EXPECT_NE(copy.chunk(), segment.chunk());
  EXPECT_EQ(copy.first(), 0U);
  EXPECT_FALSE(copy.is_shared());
  EXPECT_TRUE(Segment().deep_clone().empty());
}

// Each element records which segment it is by its first offset.
void fill(SegmentArray& array, MemoryChunkPtr const& chunk, unsigned count) {
  for (unsigned i = 0; i < count; ++i)
    array.push_back(chunk, array.size(), 1);
}

bool in_order(SegmentArray const& array, MemoryChunkPtr const& chunk) {
  for (unsigned i = 0; i < array.size(); ++i) {
    if (array[i].chunk() != chunk || array[i].first() != i || array[i].size() != 1) return false;
  }
  return true;
}

struct GrowthCase {
  unsigned segments;
  unsigned capacity;
  bool inline_storage;
};

class SegmentArrayGrowthTest : public ::testing::TestWithParam<GrowthCase> {};

TEST_P(SegmentArrayGrowthTest, CapacityDoublesOnceTheInlineStorageIsFull) {
  MemoryChunkPtr const chunk = create_memory_chunk(1);
  SegmentArray array;
  fill(array, chunk, GetParam().segments);
  EXPECT_EQ(array.size(), GetParam().segments);
  EXPECT_EQ(array.capacity(), GetParam().capacity);
  EXPECT_EQ(array.uses_static_buf(), GetParam().inline_storage);
  EXPECT_TRUE(in_order(array, chunk));
  EXPECT_EQ(chunk->ref_count(), GetParam().segments + 1);
}

INSTANTIATE_TEST_SUITE_P(Sizes, SegmentArrayGrowthTest,
                         ::testing::Values(GrowthCase{0, 16, true}, GrowthCase{16, 16, true},
                                           GrowthCase{17, 32, false}, GrowthCase{32, 32, false},
                                           GrowthCase{33, 64, false}, GrowthCase{64, 64, false},
                                           GrowthCase{65, 128, false},
                                           GrowthCase{1000, 1024, false}));

TEST(MemorySegmentArrayTest, AllocGrowDoublesUntilTheRequestFits) {
  SegmentArray array;
  array.alloc_grow(40);  // 16 -> 32 -> 64
  EXPECT_EQ(array.capacity(), 64U);
  EXPECT_FALSE(array.uses_static_buf());
  array.alloc_grow(1);
  EXPECT_EQ(array.capacity(), 128U);
}

TEST(MemorySegmentArrayTest, EraseAppendAndClearKeepOrderAndReferences) {
  MemoryChunkPtr const chunk = create_memory_chunk(1);
  SegmentArray array;
  fill(array, chunk, 10);
  array.erase(array.begin() + 2, array.begin() + 5);
  ASSERT_EQ(array.size(), 7U);
  EXPECT_EQ(array[1].first(), 1U);
  EXPECT_EQ(array[2].first(), 5U);
  EXPECT_EQ(array.back().first(), 9U);
  EXPECT_EQ(chunk->ref_count(), 8U);

  // Appending a range of itself that forces the array out of its inline storage.
  array.append(array.begin(), array.end());
  array.append(array.begin(), array.end());
  ASSERT_EQ(array.size(), 28U);
  EXPECT_EQ(array[7].first(), 0U);
  EXPECT_EQ(array[27].first(), 9U);
  EXPECT_EQ(chunk->ref_count(), 29U);

  array.pop_back();
  EXPECT_EQ(array.size(), 27U);
  unsigned const capacity = array.capacity();
  array.clear();
  EXPECT_TRUE(array.empty());
  EXPECT_EQ(array.capacity(), capacity);
  EXPECT_EQ(chunk->ref_count(), 1U);
}

TEST(MemorySegmentArrayTest, PushBackOfAnOwnElementSurvivesGrowth) {
  MemoryChunkPtr const chunk = create_memory_chunk(1);
  SegmentArray array;
  fill(array, chunk, 16);
  array.push_back(array[3]);
  ASSERT_EQ(array.size(), 17U);
  EXPECT_EQ(array[16].first(), 3U);
  EXPECT_EQ(array[16].chunk(), chunk);
}

}  // namespace
}  // namespace zoserialize
