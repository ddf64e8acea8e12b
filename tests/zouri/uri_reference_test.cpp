#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zouri/error_codes.h>
#include <zouri/uri_reference.h>

namespace {

using zouri::UriReference;

TEST(UriReferenceTest, ClassifiesSchemeAndFragment) {
  struct Row {
    char const* text;
    bool absolute;
    bool fragment;
  };
  for (Row const& row :
       {Row{"tel:123#f", true, true}, Row{"/a/b", false, false}, Row{"", false, false},
        Row{"a#", false, true}, Row{"http://h/p?q#", true, true}, Row{"//h", false, false},
        Row{"x:", true, false}, Row{"#f", false, true}, Row{"urn:isbn:0451450523", true, false}}) {
    UriReference const ref(row.text);
    EXPECT_EQ(ref.text(), row.text);
    EXPECT_STREQ(ref.c_str(), row.text);
    EXPECT_EQ(ref.is_absolute(), row.absolute) << row.text;
    EXPECT_EQ(ref.has_fragment(), row.fragment) << row.text;
  }
}

// The text is taken by length: bytes after it are not looked at, and a 0 byte inside is refused.
TEST(UriReferenceTest, MalformedTextReportsParserPosition) {
  struct Row {
    std::string_view text;
    unsigned position;
  };
  for (Row const& row :
       {Row{"a b", 1}, Row{"%zz", 1}, Row{"http://[::1", 11}, Row{"a#b#c", 3}, Row{"\xC3\xA9", 0},
        Row{"a%2", 3}, Row{"1a:b", 2}, Row{std::string_view("a\0b", 3), 1}}) {
    auto const info =
        ZO_EXPECT_ERROR(UriReference(row.text.data(), static_cast<unsigned>(row.text.size())),
                        zouri::error::zouri_syntax,
                        "Malformed URI reference at position {@position}.  Text={@text}");
    EXPECT_EQ(zotest::param(info, "position"), std::to_string(row.position)) << row.text;
    EXPECT_EQ(zotest::param(info, "text"), row.text);
    if (info) {
      EXPECT_EQ(info->location().function().view(), "zouri::UriReference::UriReference()");
    }
  }
  EXPECT_EQ(UriReference("http://a/b c", 10).text(), "http://a/b");
  EXPECT_TRUE(UriReference(nullptr, 0).empty());
}

TEST(UriReferenceTest, CopiesShareOneText) {
  UriReference const original("http://example.org/a?b");
  UriReference copy = original;
  EXPECT_EQ(copy.text().data(), original.text().data());
  EXPECT_EQ(copy, original);
  UriReference moved = std::move(copy);
  EXPECT_EQ(moved.text().data(), original.text().data());
  EXPECT_TRUE(moved.is_absolute());
  EXPECT_TRUE(copy.empty());  // NOLINT(bugprone-use-after-move): moved-from state is specified
  EXPECT_FALSE(copy.is_absolute());
  copy = moved;
  EXPECT_EQ(copy.text().data(), original.text().data());
  UriReference const empty;
  EXPECT_STREQ(empty.c_str(), "");
  EXPECT_FALSE(empty == original);
}

TEST(UriReferenceTest, ErrorCodesFormTheZouriFamily) {
  namespace error = zouri::error;
  EXPECT_EQ(error::zouri.view(), "error.zouri");
  EXPECT_EQ(error::zouri_kind.view(), "error.zouri.kind");
  EXPECT_EQ(error::zouri_syntax.view(), "error.zouri.syntax");
  EXPECT_TRUE(error::zouri_kind.is_a(error::zouri));
  EXPECT_TRUE(error::zouri_syntax.is_a(error::zouri));
}

}  // namespace
