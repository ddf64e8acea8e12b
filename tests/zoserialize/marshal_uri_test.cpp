#include <string>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/formats.h>
#include <support/scripted_reader.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/marshal_uri.h>
#include <zouri/error_codes.h>

namespace {

using zoserialize::Reader;
using zoserialize::Writer;
using zouri::AbsoluteUri;
using zouri::RelativeUri;
using zouri::Uri;
using zouri::UriReference;

class MarshalUriTest : public ::testing::TestWithParam<zotest::Format> {};

// Each kind comes back as the kind and text it was written as; a plain string reads as a URI.
TEST_P(MarshalUriTest, KindsRoundTripEqual) {
  Uri const uri("//host/p?q");
  AbsoluteUri const absolute("http://example.org/a%20b?x=1");
  RelativeUri const relative("../a/b");
  UriReference const reference("tel:123#f");
  std::string const bytes = GetParam().write([&](Writer& w) {
    zoserialize::write_uri(w, uri);
    zoserialize::write_uri(w, absolute);
    zoserialize::write_uri(w, relative);
    zoserialize::write_uri(w, reference);
    w << absolute << reference << "/plain"
      << "";
  });
  auto const reader = GetParam().read(bytes);
  Uri uri_read;
  AbsoluteUri absolute_read;
  RelativeUri relative_read;
  *reader >> uri_read >> absolute_read >> relative_read;
  EXPECT_EQ(uri_read, uri);
  EXPECT_EQ(absolute_read, absolute);
  EXPECT_EQ(relative_read, relative);
  UriReference const reference_read = zoserialize::read_uri(*reader);
  EXPECT_EQ(reference_read, reference);
  EXPECT_TRUE(reference_read.has_fragment());
  *reader >> uri_read;
  EXPECT_EQ(uri_read, absolute);
  EXPECT_EQ(zoserialize::read_uri(*reader), reference);
  *reader >> relative_read;
  EXPECT_EQ(relative_read.text(), "/plain");
  *reader >> relative_read;
  EXPECT_TRUE(relative_read.empty());
  EXPECT_TRUE(reader->is_eof());
}

INSTANTIATE_TEST_SUITE_P(Formats, MarshalUriTest, ::testing::ValuesIn(zotest::formats()),
                         [](auto const& format) { return format.param.name; });

// The five kind failures, fragment first, each leaving the target as it was.
TEST(MarshalUriFailureTest, KindMismatchesNameTheirOperator) {
  struct Row {
    char const* text;
    char const* target;
    char const* message;
  };
  for (Row const& row : {
           Row{"tel:123#f", "Uri", "Attempt to unmarshal URI reference with fragment as URI"},
           Row{"tel:123#f", "AbsoluteUri",
               "Attempt to unmarshal URI reference with fragment as absolute URI"},
           Row{"/a#", "AbsoluteUri",
               "Attempt to unmarshal URI reference with fragment as absolute URI"},
           Row{"/a/b", "AbsoluteUri", "Attempt to unmarshal relative URI as absolute URI"},
           Row{"/a#f", "RelativeUri",
               "Attempt to unmarshal URI reference with fragment as relative URI"},
           Row{"x:y", "RelativeUri", "Attempt to unmarshal absolute URI as relative URI"},
       }) {
    SCOPED_TRACE(row.text);
    zotest::ScriptedReader reader(std::string("s") + row.text);
    Uri uri("/before");
    AbsoluteUri absolute("a:before");
    RelativeUri relative("before");
    std::string const target = row.target;
    auto const read = [&] {
      if (target == "Uri") {
        reader >> uri;
      } else if (target == "AbsoluteUri") {
        reader >> absolute;
      } else {
        reader >> relative;
      }
    };
    auto const info = ZO_EXPECT_ERROR(
        read(), zoserialize::error::zoserialize_reader_data_type_mismatch, row.message);
    if (info) {
      EXPECT_EQ(info->location().function().view(),
                "zoserialize::operator>>(zouri::" + target + "&)");
      EXPECT_EQ(info->location().file().view(), "$Id: src/zoserialize/marshal_uri.cpp $");
    }
    EXPECT_EQ(uri.text(), "/before");
    EXPECT_EQ(absolute.text(), "a:before");
    EXPECT_EQ(relative.text(), "before");
  }
  // The edge cases: what a kind refuses, read_uri or the other kind accepts.
  zotest::ScriptedReader reader("stel:123#f s/a/b");
  EXPECT_TRUE(zoserialize::read_uri(reader).has_fragment());
  RelativeUri relative;
  reader >> relative;
  EXPECT_EQ(relative.text(), "/a/b");
}

TEST(MarshalUriFailureTest, MalformedTextFailsInTheParser) {
  zotest::ScriptedReader reader("s%zz");
  AbsoluteUri uri;
  auto const info =
      ZO_EXPECT_ERROR(reader >> uri, zouri::error::zouri_syntax,
                      "Malformed URI reference at position {@position}.  Text={@text}");
  EXPECT_EQ(zotest::param(info, "position"), "1");
  EXPECT_EQ(zotest::param(info, "text"), "%zz");
}

}  // namespace
