#include <algorithm>
#include <cstring>
#include <random>
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

namespace {

using zocore::StringKey;

TEST(StringKeyTest, DefaultKeyIsTheEmptyText) {
  StringKey const empty;
  EXPECT_TRUE(empty.empty());
  EXPECT_EQ(empty.size(), 0u);
  EXPECT_EQ(empty.value(), "");
  EXPECT_STREQ(empty.c_str(), "");
  EXPECT_EQ(StringKey::token_from_string(""), empty);
  EXPECT_EQ(StringKey::token_from_string(nullptr, 0), empty);
  EXPECT_EQ(StringKey::token_from_string(std::string_view()), empty);
  EXPECT_EQ(StringKey::token_from_string("x", 0), empty);
}

constexpr std::string_view kTexts[] = {
    "a",
    "b",
    "ab",
    "alpha",
    "Alpha",
    "alpha ",
    std::string_view("a\0b", 3),
    std::string_view("\0", 1),
    "\xC3\xA9t\xC3\xA9",
    "a text well beyond the length of any small-string buffer, so that it lives on the heap",
};

TEST(StringKeyTest, EqualTextsShareOneEntryAndDifferentTextsDoNot) {
  std::vector<StringKey> keys;
  for (std::string_view const text : kTexts) {
    // A separate copy each time, so that equality cannot come from the source address.
    std::string const copy(text);
    StringKey const key =
        StringKey::token_from_string(copy.data(), static_cast<unsigned>(copy.size()));
    EXPECT_EQ(key, StringKey::token_from_string(text));
    EXPECT_EQ(key.c_str(), StringKey::token_from_string(std::string(text)).c_str());
    EXPECT_EQ(key.hash(), StringKey::token_from_string(text).hash());
    EXPECT_EQ(key.value(), text);
    EXPECT_EQ(key.size(), text.size());
    EXPECT_FALSE(key.empty());
    EXPECT_EQ(key.c_str()[key.size()], '\0') << "not 0-terminated";
    keys.push_back(key);
  }
  for (std::size_t i = 0; i < keys.size(); ++i) {
    EXPECT_NE(keys[i], StringKey());
    for (std::size_t j = i + 1; j < keys.size(); ++j) {
      EXPECT_NE(keys[i], keys[j]) << i << " " << j;
    }
  }
}

TEST(StringKeyTest, KeepsItsOwnCopyOfTheText) {
  std::string text = "transient key text";
  StringKey const key = StringKey::token_from_string(text);
  text.assign(text.size(), '#');
  EXPECT_EQ(key.value(), "transient key text");
  EXPECT_EQ(StringKey::token_from_string("transient key text"), key);
}

TEST(StringKeyTest, WorksAsAnUnorderedSetElement) {
  std::unordered_set<StringKey> set;
  for (std::string_view const text : kTexts)
    set.insert(StringKey::token_from_string(text));
  for (std::string_view const text : kTexts)
    set.insert(StringKey::token_from_string(text));
  EXPECT_EQ(set.size(), std::size(kTexts));
  EXPECT_EQ(set.count(StringKey::token_from_string("alpha")), 1u);
  EXPECT_EQ(set.count(StringKey::token_from_string("gamma")), 0u);
}

TEST(StringKeyTest, TextTooLongForAKeyIsRejected) {
  // Only the length is looked at before the error, so the view need not be backed by memory.
  char const byte = 'x';
  std::string_view const huge(&byte, std::size_t{1} << 32);
  auto const info = ZO_EXPECT_ERROR(StringKey::token_from_string(huge), zocore::error::zocore_range,
                                    "String key of {@size} bytes is too long");
  ASSERT_TRUE(info);
  EXPECT_EQ(zotest::param(info, "size"), "4294967296");
  EXPECT_EQ(info->location().function().view(), "zocore::StringKey::token_from_string()");
}

// Every thread interns the same texts in its own order, so that many lookups race with the
// insertion of the same text by another thread.
TEST(StringKeyThreadsTest, ConcurrentInterningGivesOneEntryPerText) {
  constexpr int kThreads = 4;
  constexpr int kTextCount = 10'000;
  std::vector<std::string> texts;
  texts.reserve(kTextCount);
  for (int i = 0; i < kTextCount; ++i)
    texts.push_back("threads-test-key-" + std::to_string(i));

  std::vector<std::vector<StringKey>> keys(kThreads, std::vector<StringKey>(kTextCount));
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&texts, &keys, t] {
      std::vector<int> order(kTextCount);
      for (int i = 0; i < kTextCount; ++i)
        order[i] = i;
      if (t % 2 == 1) std::reverse(order.begin(), order.end());
      if (t >= 2) std::shuffle(order.begin(), order.end(), std::mt19937(static_cast<unsigned>(t)));
      for (int const i : order) {
        keys[t][i] = StringKey::token_from_string(texts[i]);
        // Look the text up again right away, as readers of an archive would.
        if (StringKey::token_from_string(texts[i]) != keys[t][i]) keys[t][i] = StringKey();
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();

  std::set<char const*> entries;
  for (int i = 0; i < kTextCount; ++i) {
    for (int t = 1; t < kThreads; ++t)
      ASSERT_EQ(keys[t][i], keys[0][i]) << texts[i];
    ASSERT_EQ(keys[0][i].value(), texts[i]);
    entries.insert(keys[0][i].c_str());
  }
  EXPECT_EQ(entries.size(), static_cast<std::size_t>(kTextCount));
}

}  // namespace
