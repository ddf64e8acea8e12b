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
using Chunk1K = impl::MemoryChunkImpl<1024, 512>;
using Chunk4K = impl::MemoryChunkImpl<4096, 128>;
using Chunk16K = impl::MemoryChunkImpl<16384, 64>;
using Chunk64K = impl::MemoryChunkImpl<65536, 32>;

std::string bytes_of(MemoryChunk const& chunk, unsigned offset, unsigned n) {
  return {chunk.data() + offset, n};
}

void fill_pattern(MemoryChunk& chunk, unsigned seed) {
  for (unsigned i = 0; i < chunk.size(); ++i)
    chunk.data()[i] = static_cast<char>(seed + i * 7);
}

TEST(CreateMemoryChunkTest, PicksTheSizeClassByThreshold) {
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

using PooledClasses = ::testing::Types<Chunk1K, Chunk4K, Chunk16K, Chunk64K>;
TYPED_TEST_SUITE(PooledChunkTest, PooledClasses);

TYPED_TEST(PooledChunkTest, StorageIsInlineAndADamagedGuardWordIsNeverPooled) {
  for (int word : {0, 1}) {
    MemoryChunkPtr chunk = TypeParam::create();
    auto const* object = reinterpret_cast<char const*>(chunk.get());
    EXPECT_TRUE(chunk->data() > object && chunk->data() < object + sizeof(TypeParam));
    std::uint32_t* guards = Peer::guards<TypeParam>(*chunk);
    EXPECT_EQ(reinterpret_cast<char const*>(guards), chunk->data() + TypeParam::kSize);
    EXPECT_EQ(guards[0], 0x55AACC33U);
    EXPECT_EQ(guards[1], 0xDEADBEEFU);
    std::size_t const pooled_before = Peer::pooled<TypeParam>();
    guards[word] ^= 0x100U;
    MemoryChunk const* const address = chunk.get();
    chunk = nullptr;
    EXPECT_FALSE(Peer::is_pooled<TypeParam>(address)) << word;
    EXPECT_EQ(Peer::pooled<TypeParam>(), pooled_before);
  }
}

TYPED_TEST(PooledChunkTest, PoolIsBoundedAndLastInFirstOutWithOldBytes) {
  constexpr unsigned kCount = TypeParam::kCount;
  std::vector<MemoryChunkPtr> held;
  for (unsigned i = 0; i <= kCount; ++i)
    held.push_back(TypeParam::create());
  EXPECT_EQ(Peer::pooled<TypeParam>(), 0U);
  fill_pattern(*held[0], 1);
  fill_pattern(*held[1], 2);
  std::string const bytes0 = bytes_of(*held[0], 0, TypeParam::kSize);
  std::string const bytes1 = bytes_of(*held[1], 0, TypeParam::kSize);
  std::vector<MemoryChunk const*> addresses;
  for (MemoryChunkPtr const& chunk : held)
    addresses.push_back(chunk.get());
  for (unsigned i = 0; i <= kCount; ++i)
    held[i] = nullptr;
  // The chunk beyond the capacity was deleted.
  EXPECT_EQ(Peer::pooled<TypeParam>(), kCount);
  EXPECT_FALSE(Peer::is_pooled<TypeParam>(addresses[kCount]));

  for (unsigned i = kCount; i-- > 0;) {
    held[i] = TypeParam::create();
    ASSERT_EQ(held[i].get(), addresses[i]);
    ASSERT_TRUE(held[i]->is_unique());
  }
  EXPECT_EQ(bytes_of(*held[0], 0, TypeParam::kSize), bytes0);
  EXPECT_EQ(bytes_of(*held[1], 0, TypeParam::kSize), bytes1);

  MemoryChunkPtr const copy = held[1]->clone_range(0, kToEnd);
  EXPECT_NE(dynamic_cast<TypeParam const*>(copy.get()), nullptr);
  EXPECT_EQ(bytes_of(*copy, 0, TypeParam::kSize), bytes1);
}

TEST(MemoryChunkCloneTest, CopiesTheRangeToTheStartOfTheNewChunk) {
  struct Case {
    unsigned offset, length, copied;
  };
  Case const cases[] = {{10, kToEnd, 1014}, {0, kToEnd, 1024}, {2000, 5, 0}, {1024, 1, 0},
                        {1000, 100, 24},    {3, 10, 10},       {5, 0, 0},    {1023, kToEnd, 1}};
  MemoryChunkPtr const source = create_memory_chunk(1024);
  fill_pattern(*source, 5);
  for (Case const& c : cases) {
    // A chunk of 'Z' on top of the pool goes to the clone, so bytes not copied show.
    MemoryChunkPtr top = create_memory_chunk(1024);
    std::memset(top->data(), 'Z', top->size());
    MemoryChunk const* const top_address = top.get();
    top = nullptr;
    MemoryChunkPtr const copy = source->clone_range(c.offset, c.length);
    ASSERT_EQ(copy.get(), top_address);
    EXPECT_EQ(bytes_of(*copy, 0, c.copied), bytes_of(*source, c.offset, c.copied)) << c.offset;
    EXPECT_EQ(bytes_of(*copy, c.copied, 1024 - c.copied), std::string(1024 - c.copied, 'Z'));
  }
}

}  // namespace
}  // namespace zoserialize
