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

// Each kind accepts its references, sharing their text, and refuses the others; the fragment
// check comes first.
TEST(UriTest, KindsCheckFragmentThenScheme) {
  for (auto [text, as_uri, as_absolute, as_relative] :
       {std::tuple{"http://h/p", "", "", kAbsolute}, std::tuple{"/a/b", "", kRelative, ""},
        std::tuple{"", "", kRelative, ""},
        std::tuple{"tel:123#f", kFragment, kFragment, kFragment}}) {
    UriReference const ref(text);
    char const* const shown = text;  // a binding cannot be captured (Clang 14)
    auto const check = [&](auto make, std::string_view message, char const* function) {
      if (message.empty()) {
        EXPECT_EQ(make().text().data(), ref.text().data()) << shown;
        return;
      }
      auto const info = ZO_EXPECT_ERROR(make(), zouri::error::zouri_kind, message);
      EXPECT_EQ(zotest::param(info, "text"), shown);
      EXPECT_EQ(info ? info->location().function().view() : "",
                ref.has_fragment() ? "zouri::Uri::Uri()" : function);
    };
    check([&] { return Uri(ref); }, as_uri, "");
    check([&] { return AbsoluteUri(ref); }, as_absolute, "zouri::AbsoluteUri::AbsoluteUri()");
    check([&] { return RelativeUri(ref); }, as_relative, "zouri::RelativeUri::RelativeUri()");
  }
  AbsoluteUri const absolute("mailto:a@b.c");
  UriReference const& reference = absolute;
  Uri const base = absolute;
  EXPECT_EQ(reference.text().data(), base.c_str());
  EXPECT_FALSE(Uri("/p") == absolute);
  EXPECT_EQ(RelativeUri("../x?y", 4).text(), "../x");
  EXPECT_FALSE(AbsoluteUri().is_absolute());
}

}  // namespace
