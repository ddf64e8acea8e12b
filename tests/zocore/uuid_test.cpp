#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <zocore/core_errors.h>
#include <zocore/uuid.h>

namespace {

using zocore::Uuid;

Uuid uuid_of(std::string const& hex) {
  std::string const raw = zotest::bytes(hex);
  EXPECT_EQ(raw.size(), Uuid::kBinarySize);
  return Uuid::from_binary(reinterpret_cast<unsigned char const*>(raw.data()));
}

std::string binary_of(Uuid const& u) {
  unsigned char out[Uuid::kBinarySize + 1];
  out[Uuid::kBinarySize] = 0xEE;
  EXPECT_EQ(u.write_binary(out), Uuid::kBinarySize);
  EXPECT_EQ(out[Uuid::kBinarySize], 0xEE) << "wrote past 16 bytes";
  return std::string(reinterpret_cast<char const*>(out), Uuid::kBinarySize);
}

struct TextForms {
  char const* binary;
  char const* hyphenated;
  char const* compact;
};

TextForms const kTextForms[] = {
    {"00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00", "00000000-0000-0000-0000-000000000000",
     "00000000000000000000000000000000"},
    {"12 3E 45 67 E8 9B 12 D3 A4 56 42 66 14 17 40 00", "123e4567-e89b-12d3-a456-426614174000",
     "123e4567e89b12d3a456426614174000"},
    {"FF FF FF FF FF FF FF FF FF FF FF FF FF FF FF FF", "ffffffff-ffff-ffff-ffff-ffffffffffff",
     "ffffffffffffffffffffffffffffffff"},
    {"01 23 45 67 89 AB CD EF FE DC BA 98 76 54 32 10", "01234567-89ab-cdef-fedc-ba9876543210",
     "0123456789abcdeffedcba9876543210"},
    {"00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01", "00000000-0000-0000-0000-000000000001",
     "00000000000000000000000000000001"},
};

class UuidTextTest : public ::testing::TestWithParam<TextForms> {};

TEST_P(UuidTextTest, FormatsInTextOrder) {
  Uuid const u = uuid_of(GetParam().binary);
  EXPECT_EQ(u.as_string(), GetParam().hyphenated);
  EXPECT_EQ(u.as_string(Uuid::kHyphenated), GetParam().hyphenated);
  EXPECT_EQ(u.as_string(Uuid::kCompact), GetParam().compact);
  EXPECT_EQ(zotest::hex(binary_of(u)), GetParam().binary);
}

TEST_P(UuidTextTest, ParsesBothFormsInEitherCase) {
  Uuid const expected = uuid_of(GetParam().binary);
  std::string const lower[] = {GetParam().hyphenated, GetParam().compact};
  for (std::string const& text : lower) {
    std::string upper = text;
    std::transform(upper.begin(), upper.end(), upper.begin(),
                   [](char c) { return static_cast<char>(std::toupper(c)); });
    std::string mixed = text;
    for (std::size_t i = 0; i < mixed.size(); i += 2) {
      mixed[i] = static_cast<char>(std::toupper(mixed[i]));
    }
    for (std::string const& variant : {text, upper, mixed}) {
      EXPECT_EQ(Uuid::from_string(variant.data(), static_cast<unsigned>(variant.size())), expected)
          << variant;
      Uuid out;
      ASSERT_TRUE(
          Uuid::from_string_nothrow(variant.data(), static_cast<unsigned>(variant.size()), &out))
          << variant;
      EXPECT_EQ(out, expected) << variant;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Table, UuidTextTest, ::testing::ValuesIn(kTextForms));

constexpr std::string_view kRejectedTexts[] = {
    "",
    "123e4567-e89b-12d3-a456-42661417400",
    "123e4567-e89b-12d3-a456-4266141740000",
    "123e4567e89b12d3a45642661417400",
    "123e4567e89b12d3a4564266141740000",
    "123e4567-e89b-12d3-a456-42661417400g",
    "123e4567e89b12d3a45642661417400g",
    "123e4567-e89b-12d3-a4564-26614174000",
    "123e456-7e89b-12d3-a456-426614174000",
    "123e4567_e89b_12d3_a456_426614174000",
    "123e4567-e89b-12d3-a456-4266-1417400",
    "123e4567e89b12d3a456426614174000----",
    "-123e4567e89b12d3a45642661417400-",
    "{123e4567-e89b-12d3-a456-4266141740}",
    " 23e4567-e89b-12d3-a456-426614174000",
    "123e4567-e89b-12d3-a456-426614174000 ",
    "123e4567 e89b 12d3 a456 426614174000",
    "0x3e4567e89b12d3a456426614174000",
    "+23e4567e89b12d3a456426614174000",
    std::string_view("123e4567e89b12d3a45642661417400\0", 32),
    std::string_view("123e4567-e89b-12d3-\0"
                     "456-426614174000",
                     36),
};

class UuidRejectedTextTest : public ::testing::TestWithParam<std::string_view> {};

TEST_P(UuidRejectedTextTest, ThrowsFormatErrorWithTheText) {
  std::string const text(GetParam());
  auto const size = static_cast<unsigned>(text.size());
  auto const info = ZO_EXPECT_ERROR(Uuid::from_string(text.data(), size),
                                    zocore::error::zocore_format, "Invalid UUID text: \"{@text}\"");
  ASSERT_TRUE(info);
  EXPECT_EQ(zotest::param(info, "text"), text);
  EXPECT_EQ(info->location().function().view(), "zocore::Uuid::from_string()");
}

TEST_P(UuidRejectedTextTest, NothrowFailsAndLeavesOutputAlone) {
  std::string const text(GetParam());
  Uuid const before = uuid_of("01 23 45 67 89 AB CD EF FE DC BA 98 76 54 32 10");
  Uuid out = before;
  EXPECT_FALSE(Uuid::from_string_nothrow(text.data(), static_cast<unsigned>(text.size()), &out));
  EXPECT_EQ(out, before);
}

INSTANTIATE_TEST_SUITE_P(Table, UuidRejectedTextTest, ::testing::ValuesIn(kRejectedTexts));

TEST(UuidTest, NullTextIsRejected) {
  Uuid out;
  EXPECT_FALSE(Uuid::from_string_nothrow(nullptr, 0, &out));
  auto const info = ZO_EXPECT_ERROR(Uuid::from_string(nullptr, 0), zocore::error::zocore_format,
                                    "Invalid UUID text: \"{@text}\"");
  EXPECT_EQ(zotest::param(info, "text"), "");
}

TEST(UuidTest, OnlyAllZeroBytesAreNull) {
  EXPECT_TRUE(Uuid().is_null());
  EXPECT_TRUE(uuid_of(std::string(32, '0')).is_null());
  for (unsigned i = 0; i < Uuid::kBinarySize; ++i) {
    std::array<unsigned char, 16> bytes{};
    bytes[i] = 0x01;
    EXPECT_FALSE(Uuid(bytes).is_null()) << "byte " << i;
  }
}

TEST(UuidTest, OrdersByBytesInTextOrder) {
  Uuid const low = uuid_of("00 FF FF FF FF FF FF FF FF FF FF FF FF FF FF FF");
  Uuid const high = uuid_of("01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
  EXPECT_LT(low, high);
  EXPECT_LT(low.as_string(), high.as_string());
}

TEST(UuidTest, RandomUuidsCarryVersionAndVariant) {
  std::set<Uuid> seen;
  for (int i = 0; i < 2000; ++i) {
    Uuid const u = Uuid::create_random();
    EXPECT_EQ(u.bytes()[6] >> 4, 4) << u.as_string();
    EXPECT_EQ(u.bytes()[8] >> 6, 2) << u.as_string();
    EXPECT_EQ(u.as_string()[14], '4');
    EXPECT_TRUE(seen.insert(u).second) << "repeated " << u.as_string();
  }
}

TEST(UuidTest, HashDependsOnEveryByte) {
  zocore::UuidHash const hash;
  Uuid const base = uuid_of("12 3E 45 67 E8 9B 12 D3 A4 56 42 66 14 17 40 00");
  EXPECT_EQ(hash(base), hash(uuid_of("12 3E 45 67 E8 9B 12 D3 A4 56 42 66 14 17 40 00")));
  std::set<std::size_t> hashes{hash(base)};
  for (unsigned i = 0; i < Uuid::kBinarySize; ++i) {
    for (unsigned bit = 0; bit < 8; ++bit) {
      std::array<unsigned char, 16> bytes = base.bytes();
      bytes[i] = static_cast<unsigned char>(bytes[i] ^ (1u << bit));
      EXPECT_TRUE(hashes.insert(hash(Uuid(bytes))).second) << "byte " << i << " bit " << bit;
    }
  }
}

// Each thread has its own generator; seeding them all alike would repeat sequences.
TEST(UuidThreadsTest, ThreadsDrawDistinctUuids) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 2000;
  std::vector<std::vector<Uuid>> drawn(kThreads);
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&drawn, t] {
      for (int i = 0; i < kPerThread; ++i)
        drawn[t].push_back(Uuid::create_random());
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  std::set<Uuid> all;
  for (auto const& list : drawn)
    all.insert(list.begin(), list.end());
  EXPECT_EQ(all.size(), static_cast<std::size_t>(kThreads * kPerThread));
}

}  // namespace
