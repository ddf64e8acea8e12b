#include <cctype>
#include <cstdio>
#include <optional>
#include <set>
#include <thread>
#include <unordered_set>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <zocore/core_errors.h>
#include <zocore/string_key.h>
#include <zocore/uuid.h>
#include <zocore/uuid_key.h>

namespace {

using zocore::StringKey;
using zocore::Uuid;
using zocore::UuidKey;

Uuid uuid_of(std::string const& hex) {
  return Uuid::from_binary(reinterpret_cast<unsigned char const*>(zotest::bytes(hex).data()));
}

// The nothrow result (nullopt: failed, output untouched), which from_string must agree with.
std::optional<Uuid> parse(std::string const& text) {
  auto const size = static_cast<unsigned>(text.size());
  Uuid const untouched = uuid_of("0123456789abcdeffedcba9876543210");
  Uuid out = untouched;
  if (Uuid::from_string_nothrow(text.data(), size, &out)) {
    EXPECT_EQ(Uuid::from_string(text.data(), size), out);
    return out;
  }
  EXPECT_EQ(out, untouched);
  auto const info = ZO_EXPECT_ERROR(Uuid::from_string(text.data(), size),
                                    zocore::error::zocore_format, "Invalid UUID text: \"{@text}\"");
  EXPECT_EQ(zotest::param(info, "text"), text);
  EXPECT_EQ(info ? info->location().function().str() : "", "zocore::Uuid::from_string()");
  return std::nullopt;
}

TEST(UuidTest, BothTextFormsInTextOrderAndEitherCase) {
  for (auto const& [compact, hyphenated] :
       {std::pair{"00000000000000000000000000000000", "00000000-0000-0000-0000-000000000000"},
        std::pair{"0123456789abcdeffedcba9876543210", "01234567-89ab-cdef-fedc-ba9876543210"}}) {
    Uuid const u = uuid_of(compact);
    EXPECT_EQ(u.as_string(), hyphenated);
    EXPECT_EQ(u.as_string(Uuid::kCompact), compact);
    unsigned char out[17];
    out[16] = 0xEE;
    EXPECT_EQ(u.write_binary(out), 16u);
    EXPECT_EQ(zotest::hex({reinterpret_cast<char const*>(out), 17}),
              zotest::hex(zotest::bytes(compact) + "\xEE"));
    for (std::string text : {compact, hyphenated}) {
      EXPECT_EQ(parse(text), u);
      for (std::size_t i = 0; i < text.size(); i += 2)
        text[i] = static_cast<char>(std::toupper(text[i]));
      EXPECT_EQ(parse(text), u);  // mixed case
    }
  }
}

TEST(UuidTest, MalformedTextIsRejected) {
  // clang-format off
  std::string_view const rejected[] = {
      "", "123e4567-e89b-12d3-a456-42661417400", "123e4567-e89b-12d3-a456-4266141740000",
      "123e4567e89b12d3a45642661417400", "123e4567e89b12d3a4564266141740000",
      "123e4567-e89b-12d3-a456-42661417400g", "123e4567e89b12d3a45642661417400g",
      "123e456-7e89b-12d3-a456-426614174000", "123e4567_e89b_12d3_a456_426614174000",
      "0x3e4567e89b12d3a456426614174000", "+23e4567e89b12d3a456426614174000",
      {"123e4567e89b12d3a45642661417400\0", 32}, {"123e4567-e89b-12d3-\0" "456-426614174000", 36},
  };
  // clang-format on
  for (std::string_view const text : rejected)
    EXPECT_EQ(parse(std::string(text)), std::nullopt) << text;
  Uuid out;
  EXPECT_FALSE(Uuid::from_string_nothrow(nullptr, 0, &out));
  auto const info = ZO_EXPECT_ERROR(Uuid::from_string(nullptr, 0), zocore::error::zocore_format,
                                    "Invalid UUID text: \"{@text}\"");
  EXPECT_EQ(zotest::param(info, "text"), "");
}

TEST(UuidTest, NullAndOrderFollowEveryByte) {
  EXPECT_TRUE(Uuid().is_null());
  for (unsigned i = 0; i < 32; i += 2)
    EXPECT_FALSE(uuid_of(std::string(i, '0') + "01" + std::string(30 - i, '0')).is_null()) << i;
  EXPECT_LT(uuid_of("00ffffffffffffffffffffffffffffff"), uuid_of("01" + std::string(30, '0')));
}

TEST(StringKeyTest, EqualTextsShareOneEntryAndDifferentTextsDoNot) {
  StringKey const empty;
  EXPECT_STREQ(empty.c_str(), "");
  EXPECT_EQ(StringKey::token_from_string("x", 0), empty);
  // clang-format off
  std::string_view const texts[] = {
      "a", "b", "ab", "Alpha", "alpha", {"a\0b", 3}, {"\0", 1},
      "a text well beyond the length of any small-string buffer, so that it lives on the heap"};
  // clang-format on
  std::unordered_set<StringKey> keys{empty};
  for (std::string_view const text : texts) {
    std::string copy(text);  // transient, so that equality cannot come from the address
    auto const key = StringKey::token_from_string(copy.data(), static_cast<unsigned>(copy.size()));
    copy.assign(copy.size(), '#');
    EXPECT_EQ(key.c_str(), StringKey::token_from_string(text).c_str());
    EXPECT_EQ(key.value(), text);
    EXPECT_EQ(key.c_str()[key.size()], '\0') << "not 0-terminated";
    EXPECT_TRUE(keys.insert(key).second) << text;
  }
  // Only the length is looked at before the error, so the view need not be backed by memory.
  auto const info = ZO_EXPECT_ERROR(
      StringKey::token_from_string(std::string_view(texts[0].data(), std::size_t{1} << 32)),
      zocore::error::zocore_range, "String key of {@size} bytes is too long");
  EXPECT_EQ(zotest::param(info, "size"), "4294967296");
  EXPECT_EQ(info ? info->location().function().str() : "",
            "zocore::StringKey::token_from_string()");
}

Uuid numbered(unsigned n) {
  char hex[40];
  std::snprintf(hex, sizeof hex, "a5%022x%08x", 0u, n);
  return uuid_of(hex);
}

TEST(UuidKeyTest, EqualUuidsShareOneEntry) {
  EXPECT_TRUE(UuidKey().uuid().is_null());
  EXPECT_EQ(&UuidKey(Uuid()).uuid(), &UuidKey().uuid());
  UuidKey const key(numbered(1));
  EXPECT_NE(UuidKey(numbered(2)), key);
  EXPECT_EQ(key.hash(), zocore::UuidHash()(numbered(1)));
}

// Lookups race with insertions of the same key by other threads. Random UUIDs come from a
// generator per thread: seeding them all alike would repeat them.
TEST(StringKeyThreadsTest, ConcurrentInterningGivesOneEntryPerKey) {
  constexpr int kCount = 10'000;
  std::vector<std::string> texts;
  for (int i = 0; i < kCount; ++i)
    texts.push_back("threads-test-key-" + std::to_string(i));
  std::vector<std::vector<void const*>> entries(4, std::vector<void const*>(2 * kCount));
  std::vector<std::vector<Uuid>> drawn(4);
  {
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&, t] {
        for (int n = 0; n < kCount; ++n) {
          int const i = t % 2 == 0 ? n : kCount - 1 - n;
          StringKey const key = StringKey::token_from_string(texts[i]);
          entries[t][i] = key == StringKey::token_from_string(texts[i]) ? key.c_str() : nullptr;
          entries[t][kCount + i] = &UuidKey(numbered(1000 + i)).uuid();
          if (n % 5 == 0) drawn[t].push_back(Uuid::create_random());
        }
      });
    }
  }  // joined here
  for (int t = 1; t < 4; ++t)
    EXPECT_TRUE(entries[t] == entries[0]) << "thread " << t;
  for (int i = 0; i < kCount; ++i) {
    ASSERT_STREQ(static_cast<char const*>(entries[0][i]), texts[i].c_str());
    ASSERT_EQ(*static_cast<Uuid const*>(entries[0][kCount + i]), numbered(1000 + i));
  }
  EXPECT_EQ(std::set<void const*>(entries[0].begin(), entries[0].end()).size(), 2u * kCount);
  std::set<Uuid> all;
  for (std::vector<Uuid> const& list : drawn) {
    for (Uuid const& u : list) {
      EXPECT_TRUE(u.as_string()[14] == '4' && u.bytes()[8] >> 6 == 2) << u.as_string();  // v4
      all.insert(u);
    }
  }
  EXPECT_EQ(all.size(), 4u * kCount / 5);
}

}  // namespace
