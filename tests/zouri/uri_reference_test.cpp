#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zouri/error_codes.h>
#include <zouri/uri_reference.h>

namespace {

using zouri::UriReference;

TEST(UriReferenceTest, ClassifiesSchemeAndFragment) {
  for (auto [text, absolute, fragment] :
       {std::tuple{"tel:123#f", true, true}, std::tuple{"/a/b", false, false},
        std::tuple{"", false, false}, std::tuple{"a#", false, true},
        std::tuple{"//h", false, false}, std::tuple{"x:", true, false}}) {
    UriReference const ref(text);
    EXPECT_STREQ(ref.c_str(), text);
    EXPECT_EQ(ref.is_absolute(), absolute) << text;
    EXPECT_EQ(ref.has_fragment(), fragment) << text;
  }
  UriReference const original("http://a/b c", 10);  // taken by length
  UriReference copy = original;
  EXPECT_EQ(copy.text().data(), original.text().data());  // one shared text
  UriReference const moved = std::move(copy);
  EXPECT_EQ(moved, original);
  EXPECT_TRUE(copy.empty() && !copy.is_absolute());  // NOLINT(bugprone-use-after-move)
  EXPECT_TRUE(UriReference(nullptr, 0).empty());
}

// The position is where liburiparser stopped; a 0 byte inside the text is refused too.
TEST(UriReferenceTest, MalformedTextReportsParserPosition) {
  for (auto [text, position] :
       {std::pair{std::string_view("a b"), "1"}, std::pair{std::string_view("%zz"), "1"},
        std::pair{std::string_view("http://[::1"), "11"}, std::pair{std::string_view("a#b#c"), "3"},
        std::pair{std::string_view("\xC3\xA9"), "0"},
        std::pair{std::string_view("a\0b", 3), "1"}}) {
    std::string_view const bytes = text;  // a binding cannot be captured (Clang 14)
    auto const info = ZO_EXPECT_ERROR(
        UriReference(bytes.data(), static_cast<unsigned>(bytes.size())), zouri::error::zouri_syntax,
        "Malformed URI reference at position {@position}.  Text={@text}");
    EXPECT_EQ(zotest::param(info, "position"), position);
    EXPECT_EQ(zotest::param(info, "text"), text);
    EXPECT_EQ(info ? info->location().function().view() : "",
              "zouri::UriReference::UriReference()");
  }
  EXPECT_TRUE(zouri::error::zouri_syntax.is_a(zouri::error::zouri));
  EXPECT_EQ(zouri::error::zouri_kind.parent(), zouri::error::zouri);
  EXPECT_EQ(zouri::error::zouri.view(), "error.zouri");
}

}  // namespace
