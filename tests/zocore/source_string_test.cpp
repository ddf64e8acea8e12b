#include <compare>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <zocore/source_string.h>

namespace {

using zocore::SourceString;

// Constant-initialisable: the static form needs no allocation.
constexpr SourceString kConstant("constant", true);
static_assert(kConstant.size() == 8);
static_assert(kConstant.view() == "constant");
static_assert(kConstant.is_static());

TEST(SourceStringTest, StaticTextIsReferencedNotCopied) {
  static char const kText[] = "literal";
  SourceString const s(kText, true);
  EXPECT_EQ(s.data(), kText);
  EXPECT_TRUE(s.is_static());
  EXPECT_EQ(s.size(), 7u);
  EXPECT_EQ(s.view(), "literal");
}

TEST(SourceStringTest, OwnedTextIsACopyThatOutlivesItsSource) {
  std::string source = "dynamic";
  SourceString const s(source.c_str(), false);
  source.assign("xxxxxxx");
  source.shrink_to_fit();
  EXPECT_FALSE(s.is_static());
  EXPECT_NE(s.data(), source.data());
  EXPECT_EQ(s.view(), "dynamic");
  EXPECT_EQ(s.c_str()[s.size()], '\0');
}

TEST(SourceStringTest, ExplicitSizeTakesAPrefix) {
  SourceString const owned("abcdef", 3, false);
  EXPECT_EQ(owned.view(), "abc");
  EXPECT_STREQ(owned.c_str(), "abc");
  SourceString const referenced("abcdef", 3, true);
  EXPECT_EQ(referenced.view(), "abc");
  EXPECT_EQ(referenced.size(), 3u);
}

TEST(SourceStringTest, StringViewKeepsEmbeddedZeroBytes) {
  std::string const text("a\0b", 3);
  SourceString const s{std::string_view(text)};
  EXPECT_EQ(s.size(), 3u);
  EXPECT_EQ(s.view(), text);
  EXPECT_FALSE(s.is_static());
}

TEST(SourceStringTest, NullAndDefaultAreEmptyWithAValidCString) {
  for (SourceString const& s : {SourceString(), SourceString(nullptr, true),
                                SourceString(nullptr, false), SourceString(nullptr, 5, false)}) {
    EXPECT_TRUE(s.empty());
    EXPECT_EQ(s.size(), 0u);
    ASSERT_NE(s.c_str(), nullptr);
    EXPECT_STREQ(s.c_str(), "");
  }
}

TEST(SourceStringTest, CopyingSharesStaticTextAndDuplicatesOwnedText) {
  SourceString const fixed("fixed", true);
  SourceString const fixed_copy(fixed);  // NOLINT(performance-unnecessary-copy-initialization)
  EXPECT_EQ(fixed_copy.data(), fixed.data());
  EXPECT_TRUE(fixed_copy.is_static());

  auto owned = std::make_unique<SourceString>("owned", false);
  SourceString const owned_copy(*owned);
  EXPECT_NE(owned_copy.data(), owned->data());
  EXPECT_FALSE(owned_copy.is_static());
  owned.reset();
  EXPECT_EQ(owned_copy.view(), "owned");
}

TEST(SourceStringTest, MovingTransfersTheBufferAndEmptiesTheSource) {
  SourceString source("moved", false);
  char const* const buffer = source.data();
  SourceString const target(std::move(source));
  EXPECT_EQ(target.data(), buffer);
  EXPECT_FALSE(target.is_static());
  // The moved-from state is defined: empty and static.
  // NOLINTBEGIN(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
  EXPECT_TRUE(source.empty());
  EXPECT_STREQ(source.c_str(), "");
  EXPECT_TRUE(source.is_static());
  // NOLINTEND(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
}

TEST(SourceStringTest, AssignmentFormsReplaceTheText) {
  SourceString s("first", false);
  SourceString const other("second", false);
  s = other;
  EXPECT_EQ(s.view(), "second");
  EXPECT_NE(s.data(), other.data());

  s = SourceString("third", true);
  EXPECT_EQ(s.view(), "third");
  EXPECT_TRUE(s.is_static());

  s.assign("fourth!", 6, false);
  EXPECT_EQ(s.view(), "fourth");
  EXPECT_FALSE(s.is_static());

  static char const kFifth[] = "fifth";
  s.assign(kFifth, 5, true);
  EXPECT_EQ(s.data(), kFifth);

  // Assigning a part of itself must copy before the old buffer goes.
  s.assign("self-overlap", 12, false);
  s.assign(s.data() + 5, 7, false);
  EXPECT_EQ(s.view(), "overlap");
}

TEST(SourceStringTest, SelfAssignmentKeepsTheText) {
  SourceString s("kept", false);
  SourceString& alias = s;
  s = alias;
  EXPECT_EQ(s.view(), "kept");
  s = std::move(alias);
  EXPECT_EQ(s.view(), "kept");
}

TEST(SourceStringTest, ClearAndSwap) {
  SourceString a("alpha", false);
  SourceString b("beta", true);
  a.swap(b);
  EXPECT_EQ(a.view(), "beta");
  EXPECT_TRUE(a.is_static());
  EXPECT_EQ(b.view(), "alpha");
  EXPECT_FALSE(b.is_static());
  swap(a, b);
  EXPECT_EQ(a.view(), "alpha");
  a.clear();
  EXPECT_TRUE(a.empty());
  EXPECT_STREQ(a.c_str(), "");
}

struct OrderCase {
  char const* a;
  char const* b;
  std::strong_ordering expected;
};

TEST(SourceStringTest, OrdersBytewiseAsUnsigned) {
  OrderCase const cases[] = {
      {"", "", std::strong_ordering::equal},
      {"", "a", std::strong_ordering::less},
      {"abc", "abd", std::strong_ordering::less},
      {"abc", "ab", std::strong_ordering::greater},
      {"Z", "a", std::strong_ordering::less},
      // Bytes of multi-byte UTF-8 sort after ASCII.
      {"\xC3\xA9", "z", std::strong_ordering::greater},
      {"same", "same", std::strong_ordering::equal},
  };
  for (OrderCase const& c : cases) {
    SCOPED_TRACE(std::string(c.a) + " <=> " + c.b);
    SourceString const a(c.a, false);
    SourceString const b(c.b, true);
    EXPECT_EQ(a <=> b, c.expected);
    EXPECT_EQ(a <=> std::string_view(c.b), c.expected);
    EXPECT_EQ(a == b, c.expected == std::strong_ordering::equal);
    EXPECT_EQ(a < b, c.expected == std::strong_ordering::less);
    EXPECT_EQ(std::string_view(c.b) < a, c.expected == std::strong_ordering::greater);
  }
}

TEST(SourceStringTest, WorksAsAnOrderedKeyWithHeterogeneousLookup) {
  std::map<SourceString, int, std::less<>> map;
  map.emplace(SourceString("beta", true), 2);
  map.emplace(SourceString("alpha", false), 1);
  map.emplace(SourceString("gamma", true), 3);

  std::vector<std::string> order;
  order.reserve(map.size());
  for (auto const& [key, value] : map)
    order.push_back(key.str());
  EXPECT_EQ(order, (std::vector<std::string>{"alpha", "beta", "gamma"}));

  // A view that is not 0-terminated at the key's end.
  std::string_view const probe = std::string_view("betamax").substr(0, 4);
  auto const it = map.find(probe);
  ASSERT_NE(it, map.end());
  EXPECT_EQ(it->second, 2);
  EXPECT_EQ(map.find(std::string_view("bet")), map.end());

  std::set<SourceString> set{SourceString("b", true), SourceString("a", false),
                             SourceString("b", false)};
  EXPECT_EQ(set.size(), 2u);
}

// A string_view whose size cannot be held must be refused before any byte is read: the bytes
// behind the view are reserved address space that faults on access.
TEST(SourceStringTest, TooLongViewIsRefusedBeforeReading) {
  std::size_t const size = std::size_t{1} << 32;
  void* const region =
      ::mmap(nullptr, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (region == MAP_FAILED) GTEST_SKIP() << "cannot reserve 4 GiB of address space";
  std::string_view const huge(static_cast<char const*>(region), size);
  EXPECT_THROW(SourceString{huge}, std::length_error);
  ::munmap(region, size);
}

}  // namespace
