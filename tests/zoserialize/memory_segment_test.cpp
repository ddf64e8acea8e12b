#include <cstring>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include <zoserialize/memory_segment.h>

namespace zoserialize {
namespace {

constexpr unsigned kToEnd = 0xFFFFFFFFU;
using Segment = MemoryChunkSegment;

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
    EXPECT_TRUE(segment.first() == c[2] && segment.size() == c[3]) << c[0] << "+" << c[1];
    EXPECT_EQ(segment.space_remaining(), 1024 - c[2] - c[3]);
  }
  EXPECT_TRUE(Segment().empty() && !Segment().data() && Segment().space_remaining() == 0);
  Segment const segment(chunk_with("0123456789"), 2, 6);  // "234567"
  EXPECT_EQ(text_of(segment.subsegment(1, 3)), "345");
  EXPECT_EQ(text_of(segment.subsegment(4, kToEnd)), "67");
  EXPECT_EQ(text_of(segment.subsegment(4, 100)), "67");
  EXPECT_TRUE(segment.subsegment(9, 1).empty());
  EXPECT_EQ(segment.subsegment(1, 3).chunk(), segment.chunk());
  EXPECT_EQ(text_of(Segment(segment, 1, kToEnd)), "34567");
  EXPECT_TRUE(Segment(segment.chunk()).size() == 1024 && Segment(segment.chunk()).is_shared());
  Segment moved = segment.deep_clone();
  Segment const copy = std::move(moved);
  EXPECT_TRUE(moved.empty() && !moved.chunk());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(text_of(copy), "234567");
  EXPECT_TRUE(copy.first() == 0 && !copy.is_shared());
}

TEST(MemorySegmentTest, WritesStayInsideTheSegmentAndItsChunksRoom) {
  Segment segment(chunk_with("ab"), 0, 2);
  MemoryChunk const* const chunk = segment.chunk().get();
  std::string const big(2000, 'x');
  EXPECT_EQ(segment.append(big.data(), 2000), 1022U);
  EXPECT_EQ(segment.chunk().get(), chunk);  // a private chunk is filled in place
  EXPECT_TRUE(segment.append("y", 1) == 0 && !segment.push_back('y'));
  segment.size(5000);
  EXPECT_EQ(segment.size(), 1024U);
  segment.size(1023);
  segment.commit_append_write(100);
  EXPECT_EQ(segment.size(), 1024U);

  Segment bcde(chunk_with("abcdef"), 1, 4);
  EXPECT_EQ(bcde.get_inplace_write_ptr(4), nullptr);
  EXPECT_EQ(bcde.get_inplace_write_ptr(2, 3), nullptr);
  EXPECT_EQ(*bcde.get_inplace_write_ptr(2, 2), 'd');
  EXPECT_EQ(bcde.overwrite(4, "x", 1), 0U);
  char out[8] = {};
  EXPECT_TRUE(bcde.copy_to(3, out, 8) == 1 && out[0] == 'e' && bcde.copy_to(4, out, 8) == 0);
}

TEST(MemorySegmentTest, EveryWritePathCopiesASharedChunkFirst) {
  struct Case {
    void (*write)(Segment&);
    char const* expected;
  };
  Case const cases[] = {
      {[](Segment& s) { EXPECT_EQ(s.append("XY", 2), 2U); }, "cdefXY"},
      {[](Segment& s) { EXPECT_TRUE(s.push_back('X')); }, "cdefX"},
      {[](Segment& s) { *s.get_append_write_ptr(nullptr) = 'X', s.commit_append_write(1); },
       "cdefX"},
      {[](Segment& s) { EXPECT_EQ(s.overwrite(1, "XYZW", 4), 3U); }, "cXYZ"},
      {[](Segment& s) { *s.get_inplace_write_ptr(3) = 'X'; }, "cdeX"},
  };
  for (Case const& c : cases) {
    MemoryChunkPtr const chunk = chunk_with("abcdefgh");
    Segment other(chunk, 0, 8);
    Segment writer(chunk, 2, 4);  // "cdef"
    c.write(writer);
    EXPECT_EQ(text_of(writer), c.expected);
    EXPECT_TRUE(writer.first() == 0 && !writer.is_shared());
    EXPECT_EQ(std::string(chunk->data(), 10), "abcdefgh..");
    EXPECT_EQ(text_of(other), "abcdefgh");
  }
}

TEST(MemorySegmentArrayTest, CapacityDoublesOnceTheInlineStorageIsFullAndOrderIsKept) {
  MemoryChunkPtr const chunk = create_memory_chunk(1);
  auto fill = [&](MemoryChunkSegmentArray& array, unsigned count) {
    while (array.size() < count)
      array.push_back(chunk, array.size(), 1);  // element i: the byte at offset i
  };
  MemoryChunkSegmentArray array;
  for (unsigned count : {16U, 17U, 33U, 1000U}) {
    fill(array, count);
    EXPECT_EQ(array.capacity(), count == 16 ? 16U : count == 17 ? 32U : count == 33 ? 64U : 1024U);
    EXPECT_EQ(array.uses_static_buf(), count == 16);
  }
  array.clear();
  EXPECT_TRUE(array.empty() && array.capacity() == 1024U);
  array.alloc_grow(1025);  // doubles until the request fits
  EXPECT_EQ(array.capacity(), 4096U);

  MemoryChunkSegmentArray own;
  fill(own, 16);
  own.push_back(own[3]);  // an own element, while the array moves out of its inline storage
  own.erase(own.begin() + 2, own.begin() + 10);
  own.append(own.begin(), own.end());  // a range of itself
  ASSERT_EQ(own.size(), 18U);
  for (unsigned i = 0; i < 18; ++i)
    EXPECT_EQ(own[i].first(), i % 9 < 2 ? i % 9 : i % 9 == 8 ? 3 : i % 9 + 8) << i;
  EXPECT_EQ(chunk->ref_count(), 19U);
}

}  // namespace
}  // namespace zoserialize
