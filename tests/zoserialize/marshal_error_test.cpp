#include <climits>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/formats.h>
#include <support/recording_writer.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/marshal_error.h>

namespace {

using zocore::AbsoluteTime;
using zocore::SourceLocation;
using zocore::SourceString;
using zoserialize::ErrorInfo;
using zoserialize::ErrorParams;
using zoserialize::SimpleDateTime;
using zoserialize::Writer;
using ErrorPtr = zoserialize::RefCountPtr<ErrorInfo const>;
using Calls = std::vector<std::string>;

ErrorPtr record(char const* code, ErrorParams params, SourceLocation location, ErrorPtr cause = {},
                char const* context = "") {
  return ErrorInfo::create(zocore::ErrorCode(code, true), SourceString("M {@what}", true),
                           std::move(params), std::move(location), std::move(cause),
                           SourceString(context, true));
}

// The elements of a record (checked against the layout below): equal calls, equal records.
Calls calls_of(ErrorInfo const* info) {
  zotest::RecordingWriter w;
  zoserialize::write_error_info(w, info);
  return w.calls();
}

class MarshalErrorTest : public ::testing::TestWithParam<zotest::Format> {};

// A three-deep chain, the exception forms, repeated parameters, dates, keys, locations and wide
// strings, through each format's writer and reader.
TEST_P(MarshalErrorTest, EverythingRoundTripsIntact) {
  ErrorParams inner, middle;
  inner.set("what", "disk").set("errno", 5).set("empty", "");
  middle.set("what", "write").set("path", "/tmp/\xC3\xA9");
  ErrorPtr const chain =
      record("e.one", {}, {"f1()", "F1", 1},
             record("e.two", middle, {"f2()", "F2", 2}, record("e.three", inner, {}), "ctx"));
  std::vector<SimpleDateTime> const dates = {{AbsoluteTime(1'700'000'000'123'456'789), 120},
                                             {AbsoluteTime::infinite(), INT_MIN},
                                             {AbsoluteTime(INT64_MIN), INT_MAX}};
  zocore::UuidKey const uuid(zocore::Uuid::from_string("123e4567e89b12d3a456426614174000", 32));
  SourceLocation const location("ns::g()", "$Id: g.cpp $", 0xFFFFFFFFu);
  auto const reader = GetParam().read(GetParam().write([&](Writer& w) {
    zoserialize::write_error_info(w, chain);
    zoserialize::write_error_info(w, static_cast<ErrorInfo const*>(nullptr));
    zoserialize::write_error_exception(w, zocore::ErrorException(chain->nested()));
    zoserialize::write_std_exception(w, std::runtime_error("plain"));
    zoserialize::write_std_exception(w, zocore::ErrorException(chain));  // keeps its record
    w.write_sequence_start();
    w << "b"
      << "1";
    w.write_sequence_separator();
    w << "b"
      << "3";
    w.write_sequence_end();
    for (SimpleDateTime const& date : dates)
      zoserialize::write_simple_date_time(w, date);
    w << zocore::StringKey::token_from_string("key") << zocore::StringKey() << uuid << location;
    w << L"w\u00e9\U0001F600";
  }));
  EXPECT_EQ(calls_of(zoserialize::read_error_info(*reader).get()), calls_of(chain.get()));
  EXPECT_FALSE(zoserialize::read_error_info(*reader));
  EXPECT_EQ(calls_of(zoserialize::read_error_info(*reader).get()), calls_of(chain->nested().get()));
  ErrorPtr const plain = zoserialize::read_error_info(*reader);
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->code().view(), "error.zocore.exception");
  EXPECT_EQ(plain->message().view(), "plain");
  EXPECT_EQ(plain->location().function().view(), "zoserialize::write_std_exception()");
  EXPECT_EQ(plain->location().file().view(), "$Id: src/zoserialize/marshal_error.cpp $");
  EXPECT_FALSE(plain->nested());
  EXPECT_EQ(calls_of(zoserialize::read_error_info(*reader).get()), calls_of(chain.get()));
  ErrorParams params, expected;
  zoserialize::read_error_params(*reader, params.set("a", "kept"));
  EXPECT_EQ(params, expected.set("a", "kept").set("b", "3"));
  for (SimpleDateTime const& date : dates)
    EXPECT_EQ(zoserialize::read_simple_date_time(*reader), date);
  EXPECT_EQ(reader->read_string_key(), zocore::StringKey::token_from_string("key"));
  EXPECT_EQ(reader->read_string_key(), zocore::StringKey());
  EXPECT_EQ(reader->read_uuid_key(), uuid);
  SourceLocation read_location;
  std::wstring wide;
  *reader >> read_location >> wide;
  EXPECT_EQ(read_location, location);
  EXPECT_EQ(wide, L"w\u00e9\U0001F600");
  EXPECT_TRUE(reader->is_eof());
}

// A chain deeper than the limit is refused; one at the limit reads.
TEST_P(MarshalErrorTest, ChainDepthIsLimited) {
  auto const nested = [](unsigned depth) {
    ErrorPtr chain;
    for (unsigned i = 0; i < depth; ++i)
      chain = record("e", {}, {}, chain);
    return GetParam().read(GetParam().write([&](Writer& w) { write_error_info(w, chain); }));
  };
  EXPECT_TRUE(zoserialize::read_error_info(*nested(zoserialize::kMaxErrorDepth)));
  auto const info =
      ZO_EXPECT_ERROR(zoserialize::read_error_info(*nested(zoserialize::kMaxErrorDepth + 1)),
                      zoserialize::error::zoserialize_reader_marker_nesting,
                      "Chain of error causes is nested too deeply.  MaxDepth={@maxDepth}");
  EXPECT_EQ(zotest::param(info, "maxDepth"), "1000");
  EXPECT_EQ(info ? info->location().function().view() : "", "zoserialize::read_error_info()");
}

INSTANTIATE_TEST_SUITE_P(Formats, MarshalErrorTest, ::testing::ValuesIn(zotest::formats()),
                         [](auto const& format) { return format.param.name; });

// The layout: parameters in name order with separators between them, the context text after the
// location, an empty parameter sequence, Null where the chain ends; then a date.
TEST(MarshalErrorLayoutTest, ElementsInOrder) {
  ErrorParams params;
  params.set("z", "26").set("a", "1");
  ErrorPtr const info = record("e.out", params, {"f()", "F", 7}, record("e.in", {}, {}), "ctx");
  zotest::RecordingWriter w;
  zoserialize::write_error_info(w, *info);
  zoserialize::write_simple_date_time(w, SimpleDateTime(AbsoluteTime(5), -1));
  std::string calls;
  for (std::string const& call : w.calls())
    calls += call + "|";
  EXPECT_EQ(calls,
            "marker_start|string e.out|string M {@what}|sequence_start|string a|string 1|"
            "sequence_separator|string z|string 26|sequence_end|marker_start|string f()|string F|"
            "uint 00 00 00 07|marker_end|string ctx|marker_start|string e.in|string M {@what}|"
            "sequence_start|sequence_end|marker_start|string |string |uint 00 00 00 00|marker_end|"
            "string |null|marker_end|marker_end|marker_start|absolute_time 5|int FF FF FF FF|"
            "marker_end|");
}

}  // namespace
