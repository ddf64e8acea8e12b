#include <cstring>
#include <string>

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

// Segments clamp ranges to their chunk; writes stay inside the chunk's room.
TEST(MemorySegmentTest, RangesAndWritesStayInsideTheChunk) {
  unsigned const cases[][4] = {// first, size -> first, size
                               {0, kToEnd, 0, 1024},
                               {1000, 100, 1000, 24},
                               {2000, 5, 1024, 0}};
  for (auto const& c : cases) {
    Segment const segment(create_memory_chunk(1), c[0], c[1]);
    EXPECT_TRUE(segment.first() == c[2] && segment.size() == c[3]) << c[0] << "+" << c[1];
  }
  Segment const cdefgh(chunk_with("abcdefgh"), 2, 6);
  EXPECT_TRUE(text_of(cdefgh.subsegment(4, 100)) == "gh" && cdefgh.subsegment(9, 1).empty());
  Segment segment(chunk_with("ab"), 0, 2);
  std::string const big(2000, 'x');
  EXPECT_EQ(segment.append(big.data(), 2000), 1022U);
  EXPECT_TRUE(segment.append("y", 1) == 0 && !segment.push_back('y'));
  EXPECT_EQ(Segment(cdefgh).get_inplace_write_ptr(2, 5), nullptr);
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
