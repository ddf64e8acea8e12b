#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zoserialize/memory_chunk.h>

namespace zoserialize {

// Reaches the pools and guard words of the pooled chunk classes.
class MemoryChunkTestPeer {
 public:
  template <class Impl>
  static std::size_t pooled() {
    return Impl::pooled_count();
  }
  template <class Impl>
  static bool is_pooled(MemoryChunk const* chunk) {
    return Impl::is_pooled(chunk);
  }
  template <class Impl>
  static std::uint32_t* guards(MemoryChunk& chunk) {
    return static_cast<Impl&>(chunk).guard_;
  }
};

namespace {

constexpr unsigned kToEnd = 0xFFFFFFFFU;
using Peer = MemoryChunkTestPeer;

std::string bytes_of(MemoryChunk const& chunk, unsigned offset = 0, unsigned n = kToEnd) {
  offset = std::min(offset, chunk.size());
  return {chunk.data() + offset, std::min(n, chunk.size() - offset)};
}

void fill_pattern(MemoryChunk& chunk, unsigned seed) {
  for (unsigned i = 0; i < chunk.size(); ++i)
    chunk.data()[i] = static_cast<char>(seed + i * 7);
}

TEST(MemoryChunkTest, CreatePicksTheSizeClassByThreshold) {
  // Each class has its own size, so the size tells the class.
  unsigned const cases[][2] = {{0, 1024},      {1, 1024},        {1024, 1024},   {1025, 4096},
                               {4096, 4096},   {4097, 16384},    {16384, 16384}, {16385, 65536},
                               {65536, 65536}, {1000000, 65536}, {kToEnd, 65536}};
  for (auto const& [request, size] : cases) {
    MemoryChunkPtr const chunk = create_memory_chunk(request);
    EXPECT_EQ(chunk->size(), size) << request;
    EXPECT_TRUE(chunk->is_unique());
  }
}

template <class Impl>
class PooledChunkTest : public ::testing::Test {};

using PooledClasses =
    ::testing::Types<impl::MemoryChunkImpl<1024, 512>, impl::MemoryChunkImpl<4096, 128>,
                     impl::MemoryChunkImpl<16384, 64>, impl::MemoryChunkImpl<65536, 32>>;
TYPED_TEST_SUITE(PooledChunkTest, PooledClasses);

// Up to Count idle chunks are kept, last in first out, with their old bytes; the chunk beyond the
// capacity and chunks with a damaged guard word (storage inside the chunk, then two guard words)
// are deleted.
TYPED_TEST(PooledChunkTest, PoolIsBoundedLastInFirstOutAndRefusesDamagedChunks) {
  constexpr unsigned kCount = TypeParam::kCount;
  std::vector<MemoryChunkPtr> held(kCount + 3);
  std::vector<MemoryChunk const*> addresses;
  for (unsigned i = 0; i < held.size(); ++i) {
    held[i] = TypeParam::create();
    fill_pattern(*held[i], i);
    addresses.push_back(held[i].get());
  }
  EXPECT_EQ(Peer::pooled<TypeParam>(), 0U);
  std::string const bytes1 = bytes_of(*held[1]);
  for (unsigned word : {0U, 1U}) {
    MemoryChunk& chunk = *held[kCount + 1 + word];
    auto const* object = reinterpret_cast<char const*>(&chunk);
    EXPECT_TRUE(chunk.data() > object && chunk.data() < object + sizeof(TypeParam));
    std::uint32_t* guards = Peer::guards<TypeParam>(chunk);
    EXPECT_EQ(reinterpret_cast<char const*>(guards), chunk.data() + TypeParam::kSize);
    EXPECT_TRUE(guards[0] == 0x55AACC33U && guards[1] == 0xDEADBEEFU);
    guards[word] ^= 0x100U;
    held[kCount + 1 + word] = nullptr;
    EXPECT_FALSE(Peer::is_pooled<TypeParam>(addresses[kCount + 1 + word])) << word;
  }
  EXPECT_EQ(Peer::pooled<TypeParam>(), 0U);
  for (MemoryChunkPtr& chunk : held)
    chunk = nullptr;
  EXPECT_EQ(Peer::pooled<TypeParam>(), kCount);
  EXPECT_FALSE(Peer::is_pooled<TypeParam>(addresses[kCount]));
  held.clear();
  for (unsigned i = kCount; i-- > 0;) {
    held.push_back(TypeParam::create());
    ASSERT_EQ(held.back().get(), addresses[i]);
    ASSERT_TRUE(held.back()->is_unique());
  }
  EXPECT_EQ(bytes_of(*held[kCount - 2]), bytes1);
  MemoryChunkPtr const copy = held[kCount - 2]->clone_range(0, kToEnd);
  EXPECT_NE(dynamic_cast<TypeParam const*>(copy.get()), nullptr);
  EXPECT_EQ(bytes_of(*copy), bytes1);
}

TEST(MemoryChunkTest, CloneRangeCopiesTheRangeToTheStartOfANewChunk) {
  unsigned const cases[][3] = {{10, kToEnd, 1014}, {0, kToEnd, 1024}, {2000, 5, 0},
                               {1024, 1, 0},       {1000, 100, 24},   {3, 10, 10},
                               {5, 0, 0},          {1023, kToEnd, 1}};
  MemoryChunkPtr const source = create_memory_chunk(1024);
  fill_pattern(*source, 5);
  for (auto const& [offset, length, copied] : cases) {
    // A chunk of 'Z' on top of the pool goes to the clone, so bytes not copied show.
    MemoryChunkPtr top = create_memory_chunk(1024);
    std::memset(top->data(), 'Z', top->size());
    MemoryChunk const* const top_address = top.get();
    top = nullptr;
    MemoryChunkPtr const copy = source->clone_range(offset, length);
    ASSERT_EQ(copy.get(), top_address);
    EXPECT_EQ(bytes_of(*copy, 0, copied), bytes_of(*source, offset, copied)) << offset;
    EXPECT_EQ(bytes_of(*copy, copied), std::string(1024 - copied, 'Z'));
  }
}

}  // namespace
}  // namespace zoserialize
