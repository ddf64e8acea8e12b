#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <zoserialize/memory_chunk.h>

namespace zoserialize {

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
  return {chunk.data() + offset, std::min(n, chunk.size() - offset)};
}

TEST(MemoryChunkTest, CreatePicksTheSizeClassByThreshold) {
  unsigned const cases[][2] = {{0, 1024},      {1024, 1024},     {1025, 4096},
                               {4096, 4096},   {4097, 16384},    {16384, 16384},
                               {16385, 65536}, {1000000, 65536}, {kToEnd, 65536}};
  for (auto const& [request, size] : cases) {
    MemoryChunkPtr const chunk = create_memory_chunk(request);
    EXPECT_TRUE(chunk->size() == size && chunk->is_unique()) << request;
  }
}

template <class Impl>
class PooledChunkTest : public ::testing::Test {};
using PooledClasses =
    ::testing::Types<impl::MemoryChunkImpl<1024, 512>, impl::MemoryChunkImpl<4096, 128>,
                     impl::MemoryChunkImpl<16384, 64>, impl::MemoryChunkImpl<65536, 32>>;
TYPED_TEST_SUITE(PooledChunkTest, PooledClasses);

// Up to Count idle chunks are kept, last in first out, with their old bytes; the one beyond the
// capacity and chunks with either guard word damaged are deleted.
TYPED_TEST(PooledChunkTest, PoolIsBoundedLastInFirstOutAndRefusesDamagedChunks) {
  constexpr unsigned kCount = TypeParam::kCount;
  std::vector<MemoryChunkPtr> held(kCount + 3);
  std::vector<MemoryChunk const*> addresses;
  for (unsigned i = 0; i < held.size(); ++i) {
    held[i] = TypeParam::create();
    std::memset(held[i]->data(), static_cast<int>(i), TypeParam::kSize);
    addresses.push_back(held[i].get());
  }
  EXPECT_EQ(Peer::pooled<TypeParam>(), 0U);
  for (unsigned word : {0U, 1U}) {
    Peer::guards<TypeParam>(*held[kCount + 1 + word])[word] ^= 0x100U;
    held[kCount + 1 + word] = nullptr;
    EXPECT_FALSE(Peer::is_pooled<TypeParam>(addresses[kCount + 1 + word])) << word;
  }
  EXPECT_EQ(Peer::pooled<TypeParam>(), 0U);
  for (MemoryChunkPtr& chunk : held)  // in order: the last one released is taken first
    chunk = nullptr;
  held.clear();
  EXPECT_EQ(Peer::pooled<TypeParam>(), kCount);
  EXPECT_FALSE(Peer::is_pooled<TypeParam>(addresses[kCount]));
  for (unsigned i = kCount; i-- > 0;) {
    held.push_back(TypeParam::create());
    ASSERT_TRUE(held.back().get() == addresses[i] && held.back()->is_unique());
  }
  EXPECT_EQ(bytes_of(*held[kCount - 2]), std::string(TypeParam::kSize, '\1'));
  MemoryChunkPtr const copy = held[kCount - 2]->clone_range(0, kToEnd);
  EXPECT_NE(dynamic_cast<TypeParam const*>(copy.get()), nullptr);
  EXPECT_EQ(bytes_of(*copy), std::string(TypeParam::kSize, '\1'));
}

TEST(MemoryChunkTest, CloneRangeCopiesTheRangeToTheStartOfANewChunk) {
  unsigned const cases[][3] = {{10, kToEnd, 1014}, {0, kToEnd, 1024}, {2000, 5, 0}, {1024, 1, 0},
                               {1000, 100, 24},    {3, 10, 10},       {5, 0, 0}};
  MemoryChunkPtr const source = create_memory_chunk(1024);
  for (unsigned i = 0; i < 1024; ++i)
    source->data()[i] = static_cast<char>(i * 7 + 5);
  for (auto const& [offset, length, copied] : cases) {
    // A chunk of 'Z' on top of the pool goes to the clone, so bytes not copied show.
    MemoryChunkPtr top = create_memory_chunk(1024);
    std::memset(top->data(), 'Z', top->size());
    MemoryChunk const* const top_address = top.get();
    top = nullptr;
    MemoryChunkPtr const copy = source->clone_range(offset, length);
    ASSERT_EQ(copy.get(), top_address);
    EXPECT_EQ(bytes_of(*copy, 0, copied), bytes_of(*source, std::min(offset, 1024U), copied))
        << offset;
    EXPECT_EQ(bytes_of(*copy, copied), std::string(1024 - copied, 'Z'));
  }
}

}  // namespace
}  // namespace zoserialize
