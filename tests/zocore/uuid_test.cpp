#include <array>
#include <cctype>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/hex_bytes.h>
#include <zocore/core_errors.h>
#include <zocore/uuid.h>

namespace {

using zocore::Uuid;

Uuid uuid_of(std::string const& hex) {
  return Uuid::from_binary(reinterpret_cast<unsigned char const*>(zotest::bytes(hex).data()));
}

// What from_string_nothrow makes of `text` (nullopt when it fails, leaving the output alone);
// from_string must agree, or throw the format error when the other fails.
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
        std::pair{"0123456789abcdeffedcba9876543210", "01234567-89ab-cdef-fedc-ba9876543210"},
        std::pair{"ffffffffffffffffffffffffffffffff", "ffffffff-ffff-ffff-ffff-ffffffffffff"}}) {
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
      "123e4567-e89b-12d3-a4564-26614174000", "123e456-7e89b-12d3-a456-426614174000",
      "123e4567_e89b_12d3_a456_426614174000", "123e4567e89b12d3a456426614174000----",
      "{123e4567-e89b-12d3-a456-4266141740}", " 23e4567-e89b-12d3-a456-426614174000",
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
  for (unsigned i = 0; i < 16; ++i) {
    std::array<unsigned char, 16> bytes{};
    bytes[i] = 0x01;
    EXPECT_FALSE(Uuid(bytes).is_null()) << i;
    EXPECT_LT(Uuid(), Uuid(bytes));
  }
  EXPECT_LT(uuid_of("00ffffffffffffffffffffffffffffff"),
            uuid_of("01000000000000000000000000000000"));
}

// Random UUIDs are version 4, variant 1, and each thread has its own generator: seeding them all
// alike would repeat sequences.
TEST(UuidThreadsTest, ThreadsDrawDistinctRandomUuids) {
  std::vector<std::vector<Uuid>> drawn(4);
  std::vector<std::thread> threads;
  for (std::vector<Uuid>& list : drawn) {
    threads.emplace_back([&list] {
      for (int i = 0; i < 2000; ++i)
        list.push_back(Uuid::create_random());
    });
  }
  for (std::thread& thread : threads)
    thread.join();
  std::set<Uuid> all;
  for (auto const& list : drawn) {
    for (Uuid const& u : list) {
      EXPECT_EQ(u.as_string()[14], '4');
      EXPECT_EQ(u.bytes()[8] >> 6, 2) << u.as_string();
      all.insert(u);
    }
  }
  EXPECT_EQ(all.size(), 8000u);
}

}  // namespace
