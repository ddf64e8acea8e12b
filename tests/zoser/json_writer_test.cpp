#include "json_writer.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/test_streams.h>
#include <zocore/base64.h>
#include <zocore/memory_stream.h>
#include <zoserialize/error_codes.h>

namespace zoser {
namespace {

using zoserialize::Writer;
namespace zs = zoserialize;

std::string render(std::function<void(Writer&)> const& fn) {
  auto sink = zocore::make_ref_counted<zocore::StringWriteStream>();
  JsonWriter w{zocore::InterfacePtr<zocore::IWriteStream>(sink)};
  fn(w);
  w.close();
  return sink->str();
}

void bytes_of(Writer& w, bool is_signed, std::string const& image) {
  if (is_signed)
    w.write_int_big_endian(image.data(), static_cast<unsigned>(image.size()));
  else
    w.write_uint_big_endian(image.data(), static_cast<unsigned>(image.size()));
}

TEST(JsonWriterTest, EveryElementKind) {
  zocore::AbsoluteTime t;
  zocore::AbsoluteTime::from_components_nothrow({2018, 3, 5, 12, 0, 0, 500'000'000}, &t);
  struct Row {
    char const* name;
    std::function<void(Writer&)> write;
    char const* json;  // the array's content
  } const rows[] = {
      {"null", [](Writer& w) { w.write_null(); }, "null"},
      {"bools", [](Writer& w) { w << true << false; }, "true,false"},
      {"ints",
       [](Writer& w) { w << -1 << 0 << std::int64_t{INT64_MIN} << std::uint64_t{UINT64_MAX}; },
       "-1,0,-9223372036854775808,18446744073709551615"},
      {"wide ints",
       [](Writer& w) {
         bytes_of(w, true, std::string("\xff\x7f\xff\xff\xff\xff\xff\xff\xff", 9));
         bytes_of(w, false, std::string("\x01\0\0\0\0\0\0\0\x05", 9));
         bytes_of(w, true, std::string("\0\0\0\0\0\0\0\0\0\x07", 10));  // wide but small
       },
       "\"$int:-9223372036854775809\",\"$uint:18446744073709551621\",7"},
      {"doubles",
       [](Writer& w) {
         w << 1.5 << -0.0 << 0.1 << std::numeric_limits<double>::infinity()
           << -std::numeric_limits<double>::infinity() << std::nan("");
       },
       "1.5,-0.0,0.1,\"$double:inf\",\"$double:-inf\",\"$double:nan\""},
      {"strings",
       [](Writer& w) {
         w << ""
           << "a\"b\\c\n\x01"
           << "$x"
           << "x$"
           << "\xC3\xBC";
       },
       "\"\",\"a\\\"b\\\\c\\n\\u0001\",\"$$x\",\"x$\",\"\xC3\xBC\""},
      {"times",
       [&t](Writer& w) {
         w << t << zocore::AbsoluteTime::infinite() << zocore::RelativeTime(-250'000'000)
           << zocore::RelativeTime::infinite();
       },
       "\"$time:2018-03-05 12:00:00.5\",\"$time:inf\",\"$reltime:-0.25s\",\"$reltime:inf\""},
      {"uuids",
       [](Writer& w) {
         w << zocore::Uuid() << zocore::Uuid::from_string("123e4567e89b12d3a456426614174000", 32);
       },
       "\"$uuid:00000000-0000-0000-0000-000000000000\","
       "\"$uuid:123e4567-e89b-12d3-a456-426614174000\""},
      {"binaries",
       [](Writer& w) {
         w.write_binary("", 0);
         w.write_binary("hi", 2);
         w.write_binary("abc", 3);
       },
       "\"$binary:\",\"$binary:aGk=\",\"$binary:YWJj\""},
      {"sequences",
       [](Writer& w) {
         w.write_sequence_start(2);
         w << 1;
         w.write_sequence_separator();
         w << 2;
         w.write_sequence_end();
         w.write_sequence_start();
         w.write_sequence_end();
       },
       "[1,2],[]"},
      {"items of several values and of none",
       [](Writer& w) {
         w.write_sequence_start();
         w << 1 << 2 << 3;
         w.write_sequence_separator();
         w.write_sequence_separator();
         w.write_marker_start();
         w.write_marker_end();
         w.write_sequence_start();
         w.write_sequence_end();
         w.write_sequence_separator();
         w.write_sequence_end();
       },
       "[1,{\"also\":2},{\"also\":3},{\"item\":[]},{\"marker\":[]},{\"also\":[]},{\"item\":[]}]"},
      {"markers",
       [](Writer& w) {
         w.write_marker_start();
         w << 1;
         w.write_sequence_start();
         w.write_marker_start();
         w.write_marker_end();
         w.write_marker_end();  // closes the sequence: the innermost scope
         w.write_marker_end();
       },
       "{\"marker\":[1,[{\"marker\":[]}]]}"},
  };
  for (Row const& row : rows) {
    EXPECT_EQ(render(row.write), std::string("[") + row.json + "]\n") << row.name;
  }
  EXPECT_EQ(render([](Writer&) {}), "[]\n");
}

TEST(JsonWriterTest, StreamedPayloadsAreEscapedAsTheyCome) {
  // Long enough to cross the writer's escaping pieces and its output buffer several times.
  std::string text;
  for (int i = 0; i < 40000; ++i)
    text += i % 7 == 0 ? "\"\x01" : "ab";
  std::string const expected_text = [&text] {
    std::string e;
    for (char c : text)
      e += c == '"' ? "\\\"" : c == '\x01' ? "\\u0001" : std::string(1, c);
    return e;
  }();
  std::string const payload = zotest::pattern_string(0, 200'000);
  std::string const expected_binary = zocore::base64_encode(payload.data(), payload.size());
  std::string const expected = "[\"" + expected_text + "\",\"$$" + expected_text +
                               "\",\"$binary:" + expected_binary +
                               "\",\"$binary:" + expected_binary + "\",\"\"]\n";

  std::string const actual = render([&](Writer& w) {
    auto s = w.write_string_stream();
    for (std::size_t at = 0; at < text.size(); at += 999)
      s->write(text.data() + at,
               static_cast<unsigned>(std::min<std::size_t>(999, text.size() - at)));
    std::string const with_dollar = "$" + text;
    zocore::MemoryReadStream dollar(with_dollar);  // from a source, leading "$"
    w.write_string_stream(dollar);
    auto b = w.write_binary();
    for (std::size_t at = 0; at < payload.size(); at += 1000)
      b->write(payload.data() + at, 1000);
    zocore::MemoryReadStream source(payload);
    w.write_binary(source);
    w.write_string_stream()->close();  // empty
  });
  auto const [at, _] =
      std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end());
  EXPECT_EQ(actual.size(), expected.size());
  EXPECT_TRUE(actual == expected) << "first difference at " << at - actual.begin() << ": "
                                  << actual.substr(at - actual.begin(), 40);
}

TEST(JsonWriterTest, MisuseFailsLikeTheTextWriter) {
  auto sink = zocore::make_ref_counted<zocore::StringWriteStream>();
  JsonWriter w{zocore::InterfacePtr<zocore::IWriteStream>(sink)};
  ZO_EXPECT_ERROR(w.write_sequence_separator(), zs::error::zoserialize_writer_sequence_nesting,
                  "Attempt to add sequence separator and no sequence is open at top of stack");
  ZO_EXPECT_ERROR(w.write_sequence_end(), zs::error::zoserialize_writer_sequence_nesting,
                  "Attempt to close sequence and no sequence is open or on top of stack");
  ZO_EXPECT_ERROR(w.write_marker_end(), zs::error::zoserialize_writer_sequence_nesting,
                  "Attempt to close marker and no marker is open or on top of stack");
  w.write_sequence_start(2);
  w << 1;
  auto e =
      ZO_EXPECT_ERROR(w.write_sequence_end(), zs::error::zoserialize_writer_sequence_element_count,
                      "Number of elements added to sequence does not match count hint.  "
                      "CountHint={@countHint}, Added={@elementCount}");
  EXPECT_EQ(zotest::param(e, "countHint"), "2");
  w.write_marker_start();
  ZO_EXPECT_ERROR(w.close(), zs::error::zoserialize_writer_sequence_nesting,
                  "Attempt to close writer but there are sequences and/or markers that are still "
                  "open");
  w.write_marker_end();
  auto stream = w.write_string_stream();
  stream->write("x", 1);
  w.close();
  EXPECT_EQ(sink->str(), "[[1],{\"marker\":[]},\"x\"]\n");
  w.close();  // a second close does nothing
  ZO_EXPECT_ERROR(w.write_null(), zs::error::zoserialize_writer_closed,
                  "JsonWriter has already been closed");
  ZO_EXPECT_ERROR(w.flush(), zs::error::zoserialize_writer_closed,
                  "JsonWriter has already been closed");
  ZO_EXPECT_ERROR(stream->write("y", 1), zs::error::zoserialize_writer_state,
                  "Binary stream writer object has already been closed");
}

TEST(JsonWriterTest, FlushHandsTheTextToTheSink) {
  auto sink = zocore::make_ref_counted<zocore::StringWriteStream>();
  JsonWriter w{zocore::InterfacePtr<zocore::IWriteStream>(sink)};
  auto s = w.write_string_stream();
  s->write("ab", 2);
  EXPECT_EQ(sink->str(), "");
  w.flush();  // ends the open string too
  EXPECT_EQ(sink->str(), "[\"ab\"");
}

}  // namespace
}  // namespace zoser
