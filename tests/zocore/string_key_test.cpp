#include <array>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_set>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zocore/core_errors.h>
#include <zocore/string_key.h>
#include <zocore/uuid_key.h>

namespace {

using zocore::StringKey;
using zocore::Uuid;
using zocore::UuidKey;

TEST(StringKeyTest, EqualTextsShareOneEntryAndDifferentTextsDoNot) {
  StringKey const empty;
  EXPECT_STREQ(empty.c_str(), "");
  EXPECT_EQ(StringKey::token_from_string("x", 0), empty);
  // clang-format off
  std::string_view const texts[] = {
      "a", "b", "ab", "Alpha", "alpha", "alpha ", {"a\0b", 3}, {"\0", 1}, "\xC3\xA9t\xC3\xA9",
      "a text well beyond the length of any small-string buffer, so that it lives on the heap"};
  // clang-format on
  std::unordered_set<StringKey> keys{empty};
  for (std::string_view const text : texts) {
    // A transient copy, so that equality cannot come from the source address.
    std::string copy(text);
    StringKey const key =
        StringKey::token_from_string(copy.data(), static_cast<unsigned>(copy.size()));
    copy.assign(copy.size(), '#');
    EXPECT_EQ(key.c_str(), StringKey::token_from_string(text).c_str());
    EXPECT_EQ(key.value(), text);
    EXPECT_EQ(key.c_str()[key.size()], '\0') << "not 0-terminated";
    EXPECT_TRUE(keys.insert(key).second) << text;
  }
}

TEST(StringKeyTest, TextTooLongForAKeyIsRejected) {
  // Only the length is looked at before the error, so the view need not be backed by memory.
  char const byte = 'x';
  auto const info =
      ZO_EXPECT_ERROR(StringKey::token_from_string(std::string_view(&byte, std::size_t{1} << 32)),
                      zocore::error::zocore_range, "String key of {@size} bytes is too long");
  ASSERT_TRUE(info);
  EXPECT_EQ(zotest::param(info, "size"), "4294967296");
  EXPECT_EQ(info->location().function().view(), "zocore::StringKey::token_from_string()");
}

Uuid numbered(unsigned n) {
  std::array<unsigned char, 16> bytes{0xA5};
  for (unsigned i = 0; i < 4; ++i)
    bytes[15 - i] = static_cast<unsigned char>(n >> (8 * i));
  return Uuid(bytes);
}

TEST(UuidKeyTest, EqualUuidsShareOneEntry) {
  EXPECT_TRUE(UuidKey().uuid().is_null());
  EXPECT_EQ(&UuidKey(Uuid()).uuid(), &UuidKey().uuid());
  UuidKey const key(numbered(1));
  EXPECT_EQ(key.uuid(), numbered(1));
  EXPECT_EQ(&UuidKey(numbered(1)).uuid(), &key.uuid());
  EXPECT_NE(UuidKey(numbered(2)), key);
  EXPECT_EQ(key.hash(), zocore::UuidHash()(numbered(1)));
  std::unordered_set<UuidKey> set{UuidKey()};
  for (unsigned n = 0; n < 100; ++n)
    set.insert(UuidKey(numbered(n % 10)));
  EXPECT_EQ(set.size(), 11u);
}

// Every thread interns the same texts and UUIDs, half of them backwards, and looks each text up
// again at once, so that lookups race with the insertion of the same key by another thread.
TEST(StringKeyThreadsTest, ConcurrentInterningGivesOneEntryPerKey) {
  constexpr int kCount = 10'000;
  std::vector<std::string> texts;
  for (int i = 0; i < kCount; ++i)
    texts.push_back("threads-test-key-" + std::to_string(i));
  std::vector<std::vector<void const*>> entries(4, std::vector<void const*>(2 * kCount));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int n = 0; n < kCount; ++n) {
        int const i = t % 2 == 0 ? n : kCount - 1 - n;
        StringKey const key = StringKey::token_from_string(texts[i]);
        entries[t][i] = key == StringKey::token_from_string(texts[i]) ? key.c_str() : nullptr;
        entries[t][kCount + i] = &UuidKey(numbered(1000 + i)).uuid();
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  for (int t = 1; t < 4; ++t)
    EXPECT_TRUE(entries[t] == entries[0]) << "thread " << t;
  for (int i = 0; i < kCount; ++i) {
    ASSERT_STREQ(static_cast<char const*>(entries[0][i]), texts[i].c_str());
    ASSERT_EQ(*static_cast<Uuid const*>(entries[0][kCount + i]), numbered(1000 + i));
  }
  EXPECT_EQ(std::set<void const*>(entries[0].begin(), entries[0].end()).size(), 2u * kCount);
}

}  // namespace
