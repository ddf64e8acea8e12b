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

struct SizeClassCase {
  unsigned request;
  unsigned chunk_size;
};

class CreateMemoryChunkTest : public ::testing::TestWithParam<SizeClassCase> {};

TEST_P(CreateMemoryChunkTest, PicksTheSizeClassByThreshold) {
  MemoryChunkPtr const chunk = create_memory_chunk(GetParam().request);
  ASSERT_TRUE(chunk);
  EXPECT_EQ(chunk->size(), GetParam().chunk_size);
  EXPECT_TRUE(chunk->is_unique());
  bool const right_class = [&] {
    switch (GetParam().chunk_size) {
      case 1024:
        return dynamic_cast<Chunk1K const*>(chunk.get()) != nullptr;
      case 4096:
        return dynamic_cast<Chunk4K const*>(chunk.get()) != nullptr;
      case 16384:
        return dynamic_cast<Chunk16K const*>(chunk.get()) != nullptr;
      default:
        return dynamic_cast<Chunk64K const*>(chunk.get()) != nullptr;
    }
  }();
  EXPECT_TRUE(right_class);
}

INSTANTIATE_TEST_SUITE_P(Requests, CreateMemoryChunkTest,
                         ::testing::Values(SizeClassCase{0, 1024}, SizeClassCase{1, 1024},
                                           SizeClassCase{1024, 1024}, SizeClassCase{1025, 4096},
                                           SizeClassCase{4096, 4096}, SizeClassCase{4097, 16384},
                                           SizeClassCase{16384, 16384}, SizeClassCase{16385, 65536},
                                           SizeClassCase{65536, 65536},
                                           SizeClassCase{1000000, 65536},
                                           SizeClassCase{kToEnd, 65536}));

// The same behaviour for each pooled class.
template <class Impl>
class PooledChunkTest : public ::testing::Test {};

using PooledClasses = ::testing::Types<Chunk1K, Chunk4K, Chunk16K, Chunk64K>;
TYPED_TEST_SUITE(PooledChunkTest, PooledClasses);

TYPED_TEST(PooledChunkTest, StorageLiesInsideTheChunkFollowedByGuardWords) {
  MemoryChunkPtr const chunk = TypeParam::create();
  ASSERT_EQ(chunk->size(), TypeParam::kSize);
  char const* const object = reinterpret_cast<char const*>(chunk.get());
  EXPECT_GT(chunk->data(), object);
  EXPECT_LT(chunk->data(), object + sizeof(TypeParam));
  std::uint32_t const* guards = Peer::guards<TypeParam>(*chunk);
  EXPECT_EQ(reinterpret_cast<char const*>(guards), chunk->data() + chunk->size());
  EXPECT_EQ(guards[0], 0x55AACC33U);
  EXPECT_EQ(guards[1], 0xDEADBEEFU);
}

TYPED_TEST(PooledChunkTest, ReuseIsLastInFirstOutWithOldBytesKept) {
  MemoryChunkPtr a = TypeParam::create();
  MemoryChunkPtr b = TypeParam::create();
  // Holding two chunks leaves the pool room for both.
  fill_pattern(*a, 1);
  fill_pattern(*b, 2);
  std::string const a_bytes = bytes_of(*a, 0, a->size());
  std::string const b_bytes = bytes_of(*b, 0, b->size());
  MemoryChunk const* const a_address = a.get();
  MemoryChunk const* const b_address = b.get();

  a = nullptr;
  b = nullptr;
  EXPECT_TRUE(Peer::is_pooled<TypeParam>(a_address));
  EXPECT_TRUE(Peer::is_pooled<TypeParam>(b_address));

  MemoryChunkPtr const first = TypeParam::create();
  MemoryChunkPtr const second = TypeParam::create();
  EXPECT_EQ(first.get(), b_address);
  EXPECT_EQ(second.get(), a_address);
  EXPECT_EQ(bytes_of(*first, 0, first->size()), b_bytes);
  EXPECT_EQ(bytes_of(*second, 0, second->size()), a_bytes);
  EXPECT_TRUE(first->is_unique());
}

TYPED_TEST(PooledChunkTest, ChunkWithADamagedGuardWordIsDeletedNotPooled) {
  for (int word : {0, 1}) {
    SCOPED_TRACE(word);
    MemoryChunkPtr chunk = TypeParam::create();
    std::size_t const pooled_before = Peer::pooled<TypeParam>();
    Peer::guards<TypeParam>(*chunk)[word] ^= 0x100U;
    MemoryChunk const* const address = chunk.get();
    chunk = nullptr;
    EXPECT_FALSE(Peer::is_pooled<TypeParam>(address));
    EXPECT_EQ(Peer::pooled<TypeParam>(), pooled_before);
  }
}

TYPED_TEST(PooledChunkTest, PoolHoldsAtMostItsCapacity) {
  constexpr unsigned kCount = TypeParam::kCount;
  std::vector<MemoryChunkPtr> held;
  for (unsigned i = 0; i <= kCount; ++i)
    held.push_back(TypeParam::create());
  EXPECT_EQ(Peer::pooled<TypeParam>(), 0U);

  for (unsigned i = 0; i < kCount; ++i)
    held[i] = nullptr;
  EXPECT_EQ(Peer::pooled<TypeParam>(), kCount);

  MemoryChunk const* const extra = held[kCount].get();
  held[kCount] = nullptr;
  EXPECT_EQ(Peer::pooled<TypeParam>(), kCount);
  EXPECT_FALSE(Peer::is_pooled<TypeParam>(extra));
}

TYPED_TEST(PooledChunkTest, CloneRangeMakesAChunkOfTheSameClass) {
  MemoryChunkPtr const source = TypeParam::create();
  fill_pattern(*source, 3);
  MemoryChunkPtr const copy = source->clone_range(0, kToEnd);
  ASSERT_NE(copy.get(), source.get());
  EXPECT_NE(dynamic_cast<TypeParam const*>(copy.get()), nullptr);
  EXPECT_EQ(copy->size(), TypeParam::kSize);
  EXPECT_EQ(bytes_of(*copy, 0, copy->size()), bytes_of(*source, 0, source->size()));
}

struct CloneCase {
  unsigned offset;
  unsigned length;
  unsigned copied;
};

class CloneRangeTest : public ::testing::TestWithParam<CloneCase> {};

TEST_P(CloneRangeTest, CopiesTheRangeToTheStartOfTheNewChunk) {
  CloneCase const c = GetParam();
  MemoryChunkPtr const source = create_memory_chunk(1024);
  fill_pattern(*source, 5);

  // Put a chunk of 'Z' on top of the pool so the clone receives it and untouched bytes show.
  MemoryChunkPtr marker = create_memory_chunk(1024);
  std::memset(marker->data(), 'Z', marker->size());
  MemoryChunk const* const marker_address = marker.get();
  marker = nullptr;

  MemoryChunkPtr const copy = source->clone_range(c.offset, c.length);
  ASSERT_EQ(copy.get(), marker_address);
  EXPECT_EQ(copy->size(), 1024U);
  EXPECT_EQ(bytes_of(*copy, 0, c.copied), bytes_of(*source, c.offset, c.copied));
  EXPECT_EQ(bytes_of(*copy, c.copied, 1024 - c.copied), std::string(1024 - c.copied, 'Z'));
}

INSTANTIATE_TEST_SUITE_P(Ranges, CloneRangeTest,
                         ::testing::Values(CloneCase{10, kToEnd, 1014}, CloneCase{0, kToEnd, 1024},
                                           CloneCase{2000, 5, 0}, CloneCase{1024, 1, 0},
                                           CloneCase{1000, 100, 24}, CloneCase{3, 10, 10},
                                           CloneCase{5, 0, 0}, CloneCase{1023, kToEnd, 1}));

TEST(HeapMemoryChunkTest, HasExactlyTheRequestedZeroedStorageAndClonesLikeAPooledChunk) {
  MemoryChunkPtr const chunk = impl::create_heap_memory_chunk(100000);
  ASSERT_EQ(chunk->size(), 100000U);
  EXPECT_EQ(bytes_of(*chunk, 0, chunk->size()), std::string(100000, '\0'));
  fill_pattern(*chunk, 9);

  MemoryChunkPtr const copy = chunk->clone_range(99990, kToEnd);
  ASSERT_EQ(copy->size(), 100000U);
  EXPECT_EQ(bytes_of(*copy, 0, 10), bytes_of(*chunk, 99990, 10));
  EXPECT_EQ(bytes_of(*copy, 10, 10), std::string(10, '\0'));
  EXPECT_EQ(chunk->clone_range(100000, 5)->size(), 100000U);
}

}  // namespace
}  // namespace zoserialize
