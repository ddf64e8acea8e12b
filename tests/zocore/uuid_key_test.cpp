#include <array>
#include <thread>
#include <unordered_set>
#include <vector>

#include <gtest/gtest.h>

#include <zocore/uuid.h>
#include <zocore/uuid_key.h>

namespace {

using zocore::Uuid;
using zocore::UuidKey;

Uuid numbered(unsigned n) {
  std::array<unsigned char, 16> bytes{};
  bytes[0] = 0xA5;
  bytes[12] = static_cast<unsigned char>(n >> 24);
  bytes[13] = static_cast<unsigned char>(n >> 16);
  bytes[14] = static_cast<unsigned char>(n >> 8);
  bytes[15] = static_cast<unsigned char>(n);
  return Uuid(bytes);
}

TEST(UuidKeyTest, DefaultKeyIsTheNullUuid) {
  EXPECT_TRUE(UuidKey().uuid().is_null());
  EXPECT_EQ(UuidKey(Uuid()), UuidKey());
  EXPECT_EQ(&UuidKey(Uuid()).uuid(), &UuidKey().uuid());
}

TEST(UuidKeyTest, EqualUuidsShareOneEntry) {
  Uuid const a = numbered(1);
  Uuid const b = numbered(2);
  UuidKey const key_a(a);
  EXPECT_EQ(key_a.uuid(), a);
  EXPECT_EQ(UuidKey(numbered(1)), key_a);
  EXPECT_EQ(&UuidKey(numbered(1)).uuid(), &key_a.uuid());
  EXPECT_NE(UuidKey(b), key_a);
  EXPECT_NE(key_a, UuidKey());
  EXPECT_EQ(key_a.hash(), zocore::UuidHash()(a));
}

TEST(UuidKeyTest, WorksAsAnUnorderedSetElement) {
  std::unordered_set<UuidKey> set;
  for (unsigned n = 0; n < 100; ++n)
    set.insert(UuidKey(numbered(n % 10)));
  EXPECT_EQ(set.size(), 10u);
  EXPECT_EQ(set.count(UuidKey(numbered(3))), 1u);
  EXPECT_EQ(set.count(UuidKey()), 0u);
}

TEST(UuidKeyThreadsTest, ConcurrentInterningGivesOneEntryPerUuid) {
  constexpr int kThreads = 4;
  constexpr unsigned kCount = 5000;
  std::vector<std::vector<Uuid const*>> entries(kThreads, std::vector<Uuid const*>(kCount));
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&entries, t] {
      for (unsigned i = 0; i < kCount; ++i) {
        // Half the threads walk backwards, so insertions of one UUID meet from both sides.
        unsigned const n = t % 2 == 0 ? i : kCount - 1 - i;
        entries[t][n] = &UuidKey(numbered(1000 + n)).uuid();
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  std::unordered_set<Uuid const*> distinct;
  for (unsigned n = 0; n < kCount; ++n) {
    for (int t = 1; t < kThreads; ++t)
      ASSERT_EQ(entries[t][n], entries[0][n]);
    ASSERT_EQ(*entries[0][n], numbered(1000 + n));
    distinct.insert(entries[0][n]);
  }
  EXPECT_EQ(distinct.size(), kCount);
}

}  // namespace
