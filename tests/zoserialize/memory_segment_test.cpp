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

// A 1024-byte chunk holding `text`, then dots.
MemoryChunkPtr chunk_with(std::string const& text) {
  MemoryChunkPtr chunk = create_memory_chunk(static_cast<unsigned>(text.size()));
  std::memset(chunk->data(), '.', chunk->size());
  std::memcpy(chunk->data(), text.data(), text.size());
  return chunk;
}

std::string text_of(Segment const& segment) {
  return segment.empty() ? std::string() : std::string(segment.data(), segment.size());
}

TEST(MemorySegmentTest, RangesAreClampedToTheChunkAndSubrangesToTheSegment) {
  unsigned const cases[][4] = {// first, size -> first, size
                               {0, kToEnd, 0, 1024},     {10, 20, 10, 20},   {1000, 100, 1000, 24},
                               {1000, kToEnd, 1000, 24}, {2000, 5, 1024, 0}, {5, 0, 5, 0}};
  for (auto const& c : cases) {
    Segment const segment(create_memory_chunk(1), c[0], c[1]);
    EXPECT_EQ(segment.first(), c[2]) << c[0] << "+" << c[1];
    EXPECT_EQ(segment.size(), c[3]);
    EXPECT_EQ(segment.space_remaining(), 1024 - c[2] - c[3]);
  }
  Segment const empty;
  EXPECT_TRUE(empty.empty());
  EXPECT_EQ(empty.data(), nullptr);
  EXPECT_EQ(empty.space_remaining(), 0U);
  EXPECT_FALSE(empty.is_shared());
  EXPECT_TRUE(empty.deep_clone().empty());
  MemoryChunkPtr const chunk = create_memory_chunk(0);
  Segment const whole(chunk);
  EXPECT_EQ(whole.data(), chunk->data());
  EXPECT_EQ(whole.size(), 1024U);
  EXPECT_TRUE(whole.is_shared());

  Segment const segment(chunk_with("0123456789"), 2, 6);  // "234567"
  EXPECT_EQ(text_of(segment.subsegment(1, 3)), "345");
  EXPECT_EQ(text_of(segment.subsegment(4, kToEnd)), "67");
  EXPECT_EQ(text_of(segment.subsegment(4, 100)), "67");
  EXPECT_TRUE(segment.subsegment(9, 1).empty());
  EXPECT_EQ(segment.subsegment(1, 3).chunk(), segment.chunk());
  EXPECT_EQ(text_of(Segment(segment, 1, kToEnd)), "34567");

  Segment const copy = segment.deep_clone();
  EXPECT_EQ(text_of(copy), "234567");
  EXPECT_EQ(copy.first(), 0U);
  EXPECT_FALSE(copy.is_shared());
}

TEST(MemorySegmentTest, MoveLeavesTheSourceEmpty) {
  Segment source(chunk_with("abc"), 0, 3);
  Segment target(chunk_with("xyz"), 1, 1);
  target = std::move(source);
  EXPECT_EQ(text_of(target), "abc");
  // NOLINTNEXTLINE(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
  EXPECT_TRUE(source.empty() && !source.chunk());
  Segment const moved(std::move(target));
  EXPECT_EQ(text_of(moved), "abc");
  EXPECT_TRUE(target.empty());  // NOLINT(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
}

TEST(MemorySegmentTest, WritesStayInsideTheSegmentOrItsChunksRoom) {
  Segment segment(chunk_with("ab"), 0, 2);
  MemoryChunk const* const chunk = segment.chunk().get();
  std::string const big(2000, 'x');
  EXPECT_EQ(segment.append(big.data(), 2000), 1022U);
  EXPECT_EQ(segment.chunk().get(), chunk);  // a private chunk is filled in place
  EXPECT_EQ(segment.append("y", 1), 0U);
  EXPECT_FALSE(segment.push_back('y'));
  EXPECT_EQ(text_of(segment), "ab" + std::string(1022, 'x'));
  segment.size(5000);
  EXPECT_EQ(segment.size(), 1024U);
  segment.size(1023);
  EXPECT_TRUE(segment.push_back('z'));
  segment.commit_append_write(100);
  EXPECT_EQ(segment.size(), 1024U);
  EXPECT_EQ(segment.data()[1023], 'z');

  Segment bcde(chunk_with("abcdef"), 1, 4);
  EXPECT_EQ(bcde.get_inplace_write_ptr(4), nullptr);
  EXPECT_EQ(bcde.get_inplace_write_ptr(2, 3), nullptr);
  ASSERT_NE(bcde.get_inplace_write_ptr(2, 2), nullptr);
  EXPECT_EQ(*bcde.get_inplace_write_ptr(2, 2), 'd');
  EXPECT_EQ(bcde.overwrite(4, "x", 1), 0U);
  char out[8] = {};
  EXPECT_EQ(bcde.copy_to(out, 8), 4U);
  EXPECT_EQ(std::string(out, 4), "bcde");
  EXPECT_EQ(bcde.copy_to(3, out, 8), 1U);
  EXPECT_EQ(out[0], 'e');
  EXPECT_EQ(bcde.copy_to(4, out, 8), 0U);
}

TEST(MemorySegmentTest, EveryWritePathCopiesASharedChunkFirst) {
  struct Case {
    void (*write)(Segment&);
    char const* expected;
  };
  Case const cases[] = {
      {[](Segment& s) { EXPECT_EQ(s.append("XY", 2), 2U); }, "cdefXY"},
      {[](Segment& s) { EXPECT_TRUE(s.push_back('X')); }, "cdefX"},
      {[](Segment& s) {
         unsigned avail = 0;
         std::memcpy(s.get_append_write_ptr(&avail), "XY", 2);
         EXPECT_GE(avail, 2U);
         s.commit_append_write(2);
       },
       "cdefXY"},
      {[](Segment& s) { EXPECT_EQ(s.overwrite(1, "XYZW", 4), 3U); }, "cXYZ"},
      {[](Segment& s) { *s.get_inplace_write_ptr(3) = 'X'; }, "cdeX"},
  };
  for (Case const& c : cases) {
    MemoryChunkPtr const chunk = chunk_with("abcdefgh");
    Segment other(chunk, 0, 8);
    Segment writer(chunk, 2, 4);  // "cdef"
    c.write(writer);
    EXPECT_EQ(text_of(writer), c.expected);
    EXPECT_EQ(writer.first(), 0U);
    EXPECT_FALSE(writer.is_shared());
    EXPECT_EQ(std::string(chunk->data(), 10), "abcdefgh..");
    EXPECT_EQ(text_of(other), "abcdefgh");
  }
}

// Element i of an array filled by fill() is the 1-byte segment at offset i of `chunk`.
void fill(SegmentArray& array, MemoryChunkPtr const& chunk, unsigned count) {
  for (unsigned i = 0; i < count; ++i)
    array.push_back(chunk, array.size(), 1);
}

TEST(MemorySegmentArrayTest, CapacityDoublesOnceTheInlineStorageIsFull) {
  unsigned const cases[][2] = {{0, 16}, {16, 16}, {17, 32}, {33, 64}, {65, 128}, {1000, 1024}};
  for (auto const& [count, capacity] : cases) {
    MemoryChunkPtr const chunk = create_memory_chunk(1);
    SegmentArray array;
    fill(array, chunk, count);
    EXPECT_EQ(array.capacity(), capacity);
    EXPECT_EQ(array.uses_static_buf(), capacity == 16);
    ASSERT_EQ(array.size(), count);
    for (unsigned i = 0; i < count; ++i)
      ASSERT_EQ(array[i].first(), i);
    EXPECT_EQ(chunk->ref_count(), count + 1);
  }
  SegmentArray array;
  array.alloc_grow(40);  // 16 -> 32 -> 64
  EXPECT_EQ(array.capacity(), 64U);
  array.alloc_grow(1);
  EXPECT_EQ(array.capacity(), 128U);
}

TEST(MemorySegmentArrayTest, EraseAppendAndClearKeepOrderAndReferences) {
  MemoryChunkPtr const chunk = create_memory_chunk(1);
  SegmentArray array;
  fill(array, chunk, 16);
  array.push_back(array[3]);  // an own element, while the array grows
  EXPECT_EQ(array[16].first(), 3U);
  array.erase(array.begin() + 2, array.begin() + 10);
  ASSERT_EQ(array.size(), 9U);
  EXPECT_EQ(array[1].first(), 1U);
  EXPECT_EQ(array[2].first(), 10U);
  EXPECT_EQ(chunk->ref_count(), 10U);
  array.append(array.begin(), array.end());  // a range of itself
  array.append(array.begin(), array.end());
  ASSERT_EQ(array.size(), 36U);
  EXPECT_EQ(array[9].first(), 0U);
  EXPECT_EQ(array[35].first(), 3U);
  EXPECT_EQ(chunk->ref_count(), 37U);
  array.pop_back();
  unsigned const capacity = array.capacity();
  array.clear();
  EXPECT_TRUE(array.empty());
  EXPECT_EQ(array.capacity(), capacity);
  EXPECT_EQ(chunk->ref_count(), 1U);
}

}  // namespace
}  // namespace zoserialize
