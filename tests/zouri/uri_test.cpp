#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zouri/error_codes.h>
#include <zouri/uri.h>

namespace {

using zouri::AbsoluteUri;
using zouri::RelativeUri;
using zouri::Uri;
using zouri::UriReference;

constexpr char kFragment[] = "URI reference with fragment is not a URI.  Text={@text}";
constexpr char kRelative[] = "Relative URI is not an absolute URI.  Text={@text}";
constexpr char kAbsolute[] = "Absolute URI is not a relative URI.  Text={@text}";

// Each kind accepts its references and refuses the others with its message; the fragment check
// comes first.
TEST(UriTest, KindsCheckFragmentThenScheme) {
  struct Row {
    char const* text;
    char const* as_uri;  // null: accepted
    char const* as_absolute;
    char const* as_relative;
  };
  for (Row const& row :
       {Row{"http://h/p", nullptr, nullptr, kAbsolute}, Row{"/a/b", nullptr, kRelative, nullptr},
        Row{"", nullptr, kRelative, nullptr}, Row{"tel:123#f", kFragment, kFragment, kFragment},
        Row{"a#", kFragment, kFragment, kFragment}}) {
    SCOPED_TRACE(row.text);
    UriReference const ref(row.text);
    auto check = [&](auto make, char const* message, char const* function) {
      if (!message) {
        EXPECT_EQ(make().text(), row.text);
        EXPECT_EQ(make().reference().text().data(), ref.text().data());  // shares the text
        return;
      }
      auto const info = ZO_EXPECT_ERROR(make(), zouri::error::zouri_kind, message);
      EXPECT_EQ(zotest::param(info, "text"), row.text);
      if (info) {
        EXPECT_EQ(info->location().function().view(), function);
      }
    };
    bool const fragment = ref.has_fragment();
    check([&] { return Uri(ref); }, row.as_uri, "zouri::Uri::Uri()");
    check([&] { return AbsoluteUri(ref); }, row.as_absolute,
          fragment ? "zouri::Uri::Uri()" : "zouri::AbsoluteUri::AbsoluteUri()");
    check([&] { return RelativeUri(ref); }, row.as_relative,
          fragment ? "zouri::Uri::Uri()" : "zouri::RelativeUri::RelativeUri()");
  }
}

TEST(UriTest, ParsingFormsAndConversions) {
  AbsoluteUri const absolute("mailto:a@b.c");
  EXPECT_TRUE(absolute.is_absolute());
  EXPECT_EQ(RelativeUri("../x?y", 4).text(), "../x");
  EXPECT_EQ(Uri("/p").c_str(), std::string("/p"));
  UriReference const& as_reference = absolute;
  EXPECT_EQ(as_reference.text().data(), absolute.text().data());
  Uri const base = absolute;
  EXPECT_EQ(base, absolute);
  EXPECT_FALSE(Uri("/p") == absolute);
  EXPECT_TRUE(AbsoluteUri().empty());
  EXPECT_FALSE(AbsoluteUri().is_absolute());
  ZO_EXPECT_ERROR(Uri("a b"), zouri::error::zouri_syntax,
                  "Malformed URI reference at position {@position}.  Text={@text}");
}

}  // namespace
