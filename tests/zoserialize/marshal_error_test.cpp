#include <climits>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/formats.h>
#include <support/recording_writer.h>
#include <zocore/core_errors.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/marshal_error.h>

namespace {

using zocore::AbsoluteTime;
using zocore::SourceLocation;
using zocore::SourceString;
using zocore::StringKey;
using zocore::Uuid;
using zocore::UuidKey;
using zoserialize::ErrorInfo;
using zoserialize::ErrorParams;
using zoserialize::Reader;
using zoserialize::RefCountPtr;
using zoserialize::SimpleDateTime;
using zoserialize::Writer;
using ErrorPtr = RefCountPtr<ErrorInfo const>;

// code.N, parameters, location, context, caused by the chain `cause`.
ErrorPtr record(int n, ErrorParams params, ErrorPtr cause) {
  std::string const suffix = std::to_string(n);
  return ErrorInfo::create(zocore::ErrorCode(SourceString("error.test.level" + suffix)),
                           SourceString("Level " + suffix + " failed: {@what}"), std::move(params),
                           SourceLocation(SourceString("ns::f" + suffix + "()"),
                                          SourceString("$Id: f" + suffix + ".cpp $"), 100u + n),
                           std::move(cause), SourceString("context " + suffix));
}

ErrorPtr three_deep_chain() {
  ErrorParams inner;
  inner.set("what", "disk").set("errno", 5).set("empty", "");
  ErrorParams middle;
  middle.set("what", "write").set("path", "/tmp/x \xC3\xA9");
  return record(1, {}, record(2, std::move(middle), record(3, std::move(inner), nullptr)));
}

void expect_same_chain(ErrorInfo const* actual, ErrorInfo const* expected) {
  for (int level = 0; actual || expected; ++level) {
    SCOPED_TRACE("level " + std::to_string(level));
    ASSERT_TRUE(actual && expected) << "chains differ in length";
    EXPECT_EQ(actual->code(), expected->code());
    EXPECT_EQ(actual->message(), expected->message());
    EXPECT_EQ(actual->params(), expected->params());
    EXPECT_EQ(actual->location(), expected->location());
    EXPECT_EQ(actual->context(), expected->context());
    EXPECT_EQ(actual->rendered(), expected->rendered());
    actual = actual->nested().get();
    expected = expected->nested().get();
  }
}

class MarshalErrorTest : public ::testing::TestWithParam<zotest::Format> {};

// Every value of this module, and the core-type members of Writer and Reader, through each
// format's writer and reader.
TEST_P(MarshalErrorTest, EverythingRoundTripsIntact) {
  ErrorPtr const chain = three_deep_chain();
  std::runtime_error const foreign("plain failure");
  zocore::ErrorException const thrown(chain->nested());
  std::vector<SimpleDateTime> const dates = {{},
                                             {AbsoluteTime(1'700'000'000'123'456'789), 120},
                                             {AbsoluteTime::infinite(), INT_MIN},
                                             {AbsoluteTime(INT64_MIN), INT_MAX},
                                             {AbsoluteTime(-1), -90}};
  Uuid const uuid = Uuid::from_string("123e4567-e89b-12d3-a456-426614174000", 36);
  SourceLocation const location("ns::g()", "$Id: g.cpp $", 0xFFFFFFFFu);
  std::wstring const wide = L"w\u00e9\U0001F600";

  std::string const bytes = GetParam().write([&](Writer& w) {
    zoserialize::write_error_info(w, chain);
    zoserialize::write_error_info(w, *chain->nested()->nested());
    zoserialize::write_error_info(w, static_cast<ErrorInfo const*>(nullptr));
    zoserialize::write_error_exception(w, thrown);
    zoserialize::write_std_exception(w, foreign);
    zoserialize::write_std_exception(w, thrown);  // an ErrorException keeps its own record
    zoserialize::write_error_code(w, zoserialize::error::zoserialize_reader_data_invalid);
    for (SimpleDateTime const& date : dates)
      zoserialize::write_simple_date_time(w, date);
    w << StringKey::token_from_string("key") << StringKey() << UuidKey(uuid) << UuidKey();
    w << location << SourceLocation() << wide << L"" << L"x\u00fc";
    w.write_string(L"abc", 2);
  });

  auto const reader = GetParam().read(bytes);
  Reader& r = *reader;
  expect_same_chain(zoserialize::read_error_info(r).get(), chain.get());
  expect_same_chain(zoserialize::read_error_info(r).get(), chain->nested()->nested().get());
  EXPECT_FALSE(zoserialize::read_error_info(r));
  expect_same_chain(zoserialize::read_error_info(r).get(), chain->nested().get());
  ErrorPtr const from_std = zoserialize::read_error_info(r);
  ASSERT_TRUE(from_std);
  EXPECT_EQ(from_std->code(), zocore::error::zocore_exception);
  EXPECT_EQ(from_std->message().view(), "plain failure");
  EXPECT_EQ(from_std->location().function().view(), "zoserialize::write_std_exception()");
  EXPECT_EQ(from_std->location().file().view(), "$Id: src/zoserialize/marshal_error.cpp $");
  EXPECT_FALSE(from_std->nested());
  expect_same_chain(zoserialize::read_error_info(r).get(), chain->nested().get());
  zocore::ErrorCode code("error.previous", true);
  zoserialize::read_error_code(r, code);
  EXPECT_EQ(code.view(), "error.zoserialize.reader.data.unexpected");
  for (SimpleDateTime const& date : dates)
    EXPECT_EQ(zoserialize::read_simple_date_time(r), date);
  StringKey key;
  UuidKey uuid_key;
  r >> key;
  EXPECT_EQ(key, StringKey::token_from_string("key"));
  EXPECT_EQ(r.read_string_key(), StringKey());
  r >> uuid_key;
  EXPECT_EQ(uuid_key.uuid(), uuid);
  EXPECT_EQ(r.read_uuid_key(), UuidKey());
  SourceLocation read_location;
  r >> read_location;
  EXPECT_EQ(read_location, location);
  r >> read_location;
  EXPECT_EQ(read_location, SourceLocation());
  std::wstring text;
  r >> text;
  EXPECT_EQ(text, wide);
  r >> text;
  EXPECT_EQ(text, L"");
  r >> text;
  EXPECT_EQ(text, L"x\u00fc");
  r >> text;
  EXPECT_EQ(text, L"ab");
  EXPECT_TRUE(r.is_eof());
}

// Parameters are read into a map: a name that comes again takes the later value.
TEST_P(MarshalErrorTest, RepeatedParameterKeepsLaterValue) {
  std::string const bytes = GetParam().write([](Writer& w) {
    w.write_sequence_start();
    w << "b"
      << "1";
    w.write_sequence_separator();
    w << "a"
      << "2";
    w.write_sequence_separator();
    w << "b"
      << "3";
    w.write_sequence_end();
  });
  ErrorParams params;
  params.set("a", "old").set("c", "kept");
  zoserialize::read_error_params(*GetParam().read(bytes), params);
  ErrorParams expected;
  expected.set("a", "2").set("b", "3").set("c", "kept");
  EXPECT_EQ(params, expected);
}

// A chain deeper than the limit is refused before any record is built; one at the limit reads.
TEST_P(MarshalErrorTest, ChainDepthIsLimited) {
  auto nest = [](unsigned depth) {
    return [depth](Writer& w) {
      for (unsigned i = 0; i < depth; ++i) {
        w.write_marker_start();
        w << "error.x"
          << "m";
        w.write_sequence_start();
        w.write_sequence_end();
        w << SourceLocation() << "";
      }
      w.write_null();
      for (unsigned i = 0; i < depth; ++i)
        w.write_marker_end();
    };
  };
  ErrorPtr const deepest =
      zoserialize::read_error_info(*GetParam().read(GetParam().write(nest(1000))));
  unsigned depth = 0;
  for (ErrorInfo const* info = deepest.get(); info; info = info->nested().get())
    ++depth;
  EXPECT_EQ(depth, zoserialize::kMaxErrorDepth);
  auto const reader = GetParam().read(GetParam().write(nest(1001)));
  auto const info = ZO_EXPECT_ERROR(
      zoserialize::read_error_info(*reader), zoserialize::error::zoserialize_reader_marker_nesting,
      "Chain of error causes is nested too deeply.  MaxDepth={@maxDepth}");
  EXPECT_EQ(zotest::param(info, "maxDepth"), "1000");
  if (info) {
    EXPECT_EQ(info->location().function().view(), "zoserialize::read_error_info()");
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, MarshalErrorTest, ::testing::ValuesIn(zotest::formats()),
                         [](auto const& format) { return format.param.name; });

// The element layout, format-neutral: parameters in name order with separators between them,
// the context text after the location, Null where the chain ends.
TEST(MarshalErrorLayoutTest, ElementsInOrder) {
  zotest::RecordingWriter w;
  ErrorParams params;
  params.set("z", "26").set("a", "1");
  zoserialize::write_error_info(
      w, ErrorInfo::create(zocore::ErrorCode("e.outer", true), SourceString("M", true), params,
                           SourceLocation("f()", "F", 7),
                           ErrorInfo::create(zocore::ErrorCode("e.inner", true),
                                             SourceString("m", true), {}, SourceLocation()),
                           SourceString("ctx", true)));
  zoserialize::write_simple_date_time(w, SimpleDateTime(AbsoluteTime(5), -1));
  std::vector<std::string> const expected = {"marker_start",
                                             "string e.outer",
                                             "string M",
                                             "sequence_start",
                                             "string a",
                                             "string 1",
                                             "sequence_separator",
                                             "string z",
                                             "string 26",
                                             "sequence_end",
                                             "marker_start",
                                             "string f()",
                                             "string F",
                                             "uint 00 00 00 07",
                                             "marker_end",
                                             "string ctx",
                                             "marker_start",
                                             "string e.inner",
                                             "string m",
                                             "sequence_start",
                                             "sequence_end",
                                             "marker_start",
                                             "string ",
                                             "string ",
                                             "uint 00 00 00 00",
                                             "marker_end",
                                             "string ",
                                             "null",
                                             "marker_end",
                                             "marker_end",
                                             "marker_start",
                                             "absolute_time 5",
                                             "int FF FF FF FF",
                                             "marker_end"};
  EXPECT_EQ(w.calls(), expected);
}

}  // namespace
