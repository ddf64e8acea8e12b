#include <string>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/formats.h>
#include <support/scripted_reader.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/marshal_uri.h>

namespace {

using zouri::AbsoluteUri;
using zouri::RelativeUri;
using zouri::Uri;

class MarshalUriTest : public ::testing::TestWithParam<zotest::Format> {};

// Each kind comes back equal to what was written; read_uri takes what Uri refuses (a fragment),
// and a plain string reads as a URI.
TEST_P(MarshalUriTest, KindsRoundTripEqual) {
  Uri const uri("//host/p?q");
  zouri::UriReference const reference("tel:123#f");
  AbsoluteUri const absolute("http://example.org/a%20b?x=1");
  RelativeUri const relative("/a/b");
  auto const reader = GetParam().read(GetParam().write([&](zoserialize::Writer& w) {
    zoserialize::write_uri(w, uri);
    zoserialize::write_uri(w, reference);
    w << absolute << relative << "../plain";
  }));
  Uri uri_read;
  AbsoluteUri absolute_read;
  RelativeUri relative_read, plain;
  *reader >> uri_read;
  EXPECT_EQ(zoserialize::read_uri(*reader), reference);
  *reader >> absolute_read >> relative_read >> plain;
  EXPECT_EQ(uri_read, uri);
  EXPECT_EQ(absolute_read, absolute);
  EXPECT_EQ(relative_read, relative);
  EXPECT_EQ(plain.text(), "../plain");
}

INSTANTIATE_TEST_SUITE_P(Formats, MarshalUriTest, ::testing::ValuesIn(zotest::formats()),
                         [](auto const& format) { return format.param.name; });

// The five kind failures, fragment first, each leaving the target as it was.
TEST(MarshalUriFailureTest, KindMismatchesNameTheirOperator) {
  for (auto [text, target, message] :
       {std::tuple{"tel:123#f", "Uri", "Attempt to unmarshal URI reference with fragment as URI"},
        std::tuple{"/a#", "AbsoluteUri",
                   "Attempt to unmarshal URI reference with fragment as absolute URI"},
        std::tuple{"/a/b", "AbsoluteUri", "Attempt to unmarshal relative URI as absolute URI"},
        std::tuple{"x:y#f", "RelativeUri",
                   "Attempt to unmarshal URI reference with fragment as relative URI"},
        std::tuple{"x:y", "RelativeUri", "Attempt to unmarshal absolute URI as relative URI"}}) {
    zotest::ScriptedReader reader(std::string("s") + text);
    Uri uri("/u");
    AbsoluteUri absolute("a:b");
    RelativeUri relative("r");
    std::string const kind = target;
    auto const info =
        ZO_EXPECT_ERROR(kind == "Uri"           ? reader >> uri
                        : kind == "AbsoluteUri" ? reader >> absolute
                                                : reader >> relative,
                        zoserialize::error::zoserialize_reader_data_type_mismatch, message);
    EXPECT_EQ(info ? info->location().function().str() : "",
              "zoserialize::operator>>(zouri::" + kind + "&)");
    EXPECT_EQ(std::string(uri.text()) + absolute.c_str() + relative.c_str(), "/ua:br");
  }
}

}  // namespace
