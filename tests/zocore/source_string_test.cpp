#include <stdexcept>

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <zocore/source_string.h>

namespace {

using zocore::SourceString;

// Constant-initialisable: the static form needs no allocation.
constexpr SourceString kConstant("constant", true);
static_assert(kConstant.size() == 8 && kConstant.view() == "constant" && kConstant.is_static());

TEST(SourceStringTest, StaticTextIsReferencedAndOwnedTextIsACopy) {
  static char const kText[] = "literal";
  SourceString const fixed(kText, true);
  EXPECT_EQ(fixed.data(), kText);
  EXPECT_EQ(SourceString(fixed).data(), kText);  // copies share static text
  EXPECT_EQ(SourceString(kText, 3, true).view(), "lit");
  std::string source = "dynamic";
  auto owned = std::make_unique<SourceString>(source.c_str(), false);
  SourceString const prefix(source.c_str(), 3, false);
  SourceString const with_nul{std::string_view("a\0b", 3)};
  source.assign("xxxxxxx");
  EXPECT_FALSE(owned->is_static() || prefix.is_static() || with_nul.is_static());
  EXPECT_STREQ(prefix.c_str(), "dyn");
  EXPECT_EQ(with_nul.view(), std::string_view("a\0b", 3));
  SourceString const copy(*owned);
  EXPECT_NE(copy.data(), owned->data());
  owned.reset();
  EXPECT_STREQ(copy.c_str(), "dynamic");
  for (SourceString const& s : {SourceString(), SourceString(nullptr, true),
                                SourceString(nullptr, false), SourceString(nullptr, 5, false)})
    EXPECT_TRUE(s.empty() && *s.c_str() == '\0');
}

TEST(SourceStringTest, MoveAssignmentClearAndSwap) {
  SourceString source("moved", false);
  char const* const buffer = source.data();
  SourceString s(std::move(source));
  EXPECT_EQ(s.data(), buffer);
  // NOLINTNEXTLINE(bugprone-use-after-move,clang-analyzer-cplusplus.Move): defined as empty
  EXPECT_TRUE(source.empty() && source.is_static() && *source.c_str() == '\0');
  s.assign("fourth!", 6, false);
  s.assign(s.data() + 2, 4, false);  // a part of itself, copied before the old buffer goes
  SourceString& alias = s;
  s = alias;
  s = std::move(alias);
  EXPECT_EQ(s.view(), "urth");
  SourceString b("beta", true);
  swap(s, b);
  EXPECT_TRUE(s.is_static() && s.view() == "beta" && !b.is_static() && b.view() == "urth");
  b = s;
  EXPECT_EQ(b.data(), s.data());  // a static copy
  b.clear();
  EXPECT_STREQ(b.c_str(), "");
}

// Sorted bytewise as unsigned: multi-byte UTF-8 after ASCII.
TEST(SourceStringTest, OrdersBytewiseAsUnsigned) {
  std::vector<SourceString> const sorted = {
      SourceString("", true),     SourceString("Z", false),  SourceString("ab", true),
      SourceString("abc", false), SourceString("abd", true), SourceString("\xC3\xA9", false)};
  for (std::size_t i = 1; i < sorted.size(); ++i) {
    EXPECT_EQ(sorted[i - 1] <=> sorted[i], std::strong_ordering::less) << sorted[i].view();
    EXPECT_EQ(sorted[i] <=> sorted[i - 1].view(), std::strong_ordering::greater);
    EXPECT_EQ(sorted[i] <=> SourceString(sorted[i].view()), std::strong_ordering::equal);
  }
}

// Refused before any byte is read: the bytes are reserved address space that faults on access.
TEST(SourceStringTest, TooLongViewIsRefusedBeforeReading) {
  std::size_t const size = std::size_t{1} << 32;
  void* const region =
      ::mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (region == MAP_FAILED) GTEST_SKIP() << "cannot reserve 4 GiB of address space";
  try {
    SourceString const s{std::string_view(static_cast<char const*>(region), size)};
    ADD_FAILURE() << "accepted " << s.size() << " bytes";
  } catch (std::length_error const& e) {
    EXPECT_STREQ(e.what(), "zocore::SourceString: text too long");
  }
  ::munmap(region, size);
}

}  // namespace
