#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/script.h>
#include <support/test_streams.h>
#include <zocore/memory_stream.h>
#include <zocore/streamers.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/trace_writer.h>

namespace zoserialize {
namespace {

using zocore::make_ref_counted;
using zotest::ByteSource;

std::string function_of(zotest::ErrorPtr const& info) {
  return info ? std::string(info->location().function().view()) : "<nothing raised>";
}

// The dump lines of `bytes`, as zocore lays them out, each after `prefix`, ending with a newline.
std::string dump(std::string const& bytes, char const* prefix) {
  std::ostringstream os;
  zocore::streamers::render_hex_dump(os, bytes.data(), bytes.size(), 0, prefix);
  return os.str() + "\n";
}

// Runs a script of support/script.h in which "c" closes the writer.
void run(Writer& w, std::string_view script) {
  std::string elements;
  std::istringstream in{std::string(script) + " c"};
  for (std::string t; in >> t;) {
    if (t != "c") {
      elements += " " + t;
      continue;
    }
    zotest::write_script(w, zotest::parse_script(elements));
    elements.clear();
    if (in >> std::ws, !in.eof()) w.close();
  }
}

struct TraceRow {
  char const* name;
  std::function<void(Writer&)> script;
  std::string expected;
  char const* prefix = "";
  char const* indent = "  ";
  unsigned max_elements = 0;
  unsigned max_depth = 0;
};

void PrintTo(TraceRow const& row, std::ostream* os) {
  *os << row.name;
}

std::string const k300 = zotest::pattern_string(0, 300);

std::vector<TraceRow> trace_rows() {
  auto image = [](Writer& w, bool is_signed, std::string const& bytes) {
    is_signed ? w.write_int_big_endian(bytes.data(), unsigned(bytes.size()))
              : w.write_uint_big_endian(bytes.data(), unsigned(bytes.size()));
  };
  std::string const x255(255, 'x');
  return {
      {"Scalars",
       [](Writer& w) {
         w.write_null();
         w << true << false << 1.5 << 0.1f << std::numeric_limits<double>::quiet_NaN()
           << AbsoluteTime(1'500'000'000) << RelativeTime(-250'000'000)
           << Uuid::from_string("123E4567-E89B-12D3-A456-426614174000", 36);
       },
       "Null\nBool: true\nBool: false\nDouble: 1.5\nDouble: 0.1\nDouble: nan\n"
       "AbsTime: 1970-01-01 00:00:01.5\nRelTime: -0.25s\n"
       "Uuid: 123e4567-e89b-12d3-a456-426614174000\n"},
      // Signed: decimal up to a 4-byte minimal form, then the minimal bytes in hex.
      {"Ints",
       [=](Writer& w) {
         w << 0 << -1LL << char(-128) << 8388608 << 2147483647LL << -2147483648LL << 2147483648LL
           << -2147483649LL;
         image(w, true, "");
         image(w, true, std::string(9, '\xFF') + "\x80");
       },
       "Int: 0\nInt: -1\nInt: -128\nInt: 8388608\nInt: 2147483647\nInt: -2147483648\n"
       "Int: 0x0080000000\nInt: 0xff7fffffff\nInt: 0\nInt: -128\n"},
      // Unsigned: decimal up to 3 bytes, so a 4-byte value is hex even when it is short.
      {"UInts",
       [=](Writer& w) {
         w << 0u << 16777215u << 16777216u << ~0ULL;
         image(w, false, "");
       },
       "UInt: 0\nUInt: 16777215\nUInt: 0x01000000\nUInt: 0xffffffffffffffff\nUInt: 0\n"},
      // Strings: quoted by zocore (quote and backslash escaped); control characters as C escapes,
      // whose backslashes are not doubled.
      {"Strings",
       [](Writer& w) {
         w << "a b"
           << ""
           << "a\"b\\"
           << "a\tb"
           << "\t\"\\";
         w.write_string("\n\r\x01\x1f\x7f", 5);
       },
       "String[3]: \"a b\"\nString[0]: \"\"\nString[4]: \"a\\\"b\\\\\"\nString[3]: \"a\\tb\"\n"
       "String[3]: \"\\t\\\"\\\\\"\nString[5]: \"\\n\\r\\x01\\x1f\x7f\"\n"},
      // Long strings: 255 characters shown; the escaped copy of the first 256 bytes is cut at 255
      // characters too; a control character after the first 256 bytes is not looked at.
      {"LongStrings",
       [=](Writer& w) {
         w << x255 << std::string(300, 'x') << "\x01" + std::string(299, 'x') << x255 + "x\t";
       },
       "String[255]: \"" + x255 + "\"\nString[300]: \"" + x255 + "\"...\nString[300]: \"\\x01" +
           std::string(251, 'x') + "\"...\nString[257]: \"" + x255 + "\"...\n"},
      // Binaries: a head line, the dump indented by two more spaces, "  ..." when cut.
      {"Binaries",
       [](Writer& w) {
         w.write_binary("abc", 3);
         w.write_binary("", 0);
         w.write_binary(k300.data(), 256);
         w.write_binary(k300.data(), 300);
       },
       "Binary[3]: \n  00000000  61 62 63" + std::string(40, ' ') + "  |abc|\nBinary[0]: \n" +
           "Binary[256]: \n" + dump(k300.substr(0, 256), "  ") + "Binary[300]: \n" +
           dump(k300.substr(0, 256), "  ") + "  ...\n"},
      {"BinaryNested",
       [](Writer& w) { run(w, "{"), w.write_binary(k300.data(), 300), run(w, "}"); },
       "Marker{\n  Binary[300]: \n" + dump(k300.substr(0, 256), "    ") + "    ...\n}\n"},
      // Scopes.
      {"WorkedExample", [](Writer& w) { run(w, "{ [2 i5 , s%612062 ] }"), w << 1.5; },
       "Marker{\n  Sequence[2]{\n    Int: 5\n  }{\n    String[3]: \"a b\"\n  }\n}\nDouble: 1.5\n"},
      {"SequenceWithoutHint", [](Writer& w) { run(w, "[ ] [0 ]"); },
       "Sequence[]{\n}\nSequence[]{\n}\n"},
      {"MarkerEndPopsSequence", [](Writer& w) { run(w, "[5 n } n"); },
       "Sequence[5]{\n  Null\n}\nNull\n"},
      {"PrefixAndDefaultIndent", [](Writer& w) { run(w, "{ { n } }"); },
       "> Marker{\n>  Marker{\n>   Null\n>  }\n> }\n", "> ", nullptr},
      {"NullPrefixEmptyIndent", [](Writer& w) { run(w, "[2 n , n ]"); },
       "Sequence[2]{\nNull\n}{\nNull\n}\n", nullptr, ""},
      {"DeepIndentGrows", [](Writer& w) { run(w, "{ { { { n } } } }"); },
       "#Marker{\n#-=Marker{\n#-=-=Marker{\n#-=-=-=Marker{\n#-=-=-=-=Null\n#-=-=-=}\n#-=-=}\n"
       "#-=}\n#}\n",
       "#", "-="},
      // Limits: the N-th element is the ellipsis; each run too deep is one ellipsis line, and a
      // sequence's separators count at its elements' depth.
      {"MaxElements1", [](Writer& w) { run(w, "n { n }"); }, "...\n", "", "  ", 1},
      {"MaxElements3", [](Writer& w) { run(w, "i0 i1 i2 i3 i4"); }, "Int: 0\nInt: 1\n...\n", "",
       "  ", 3},
      {"MaxDepth1", [](Writer& w) { run(w, "[3 n , n , n ] n"); }, "Sequence[3]{\n  ...\n}\nNull\n",
       "", "  ", 0, 1},
      {"MaxDepth2OneEllipsisPerRun", [](Writer& w) { run(w, "{ { n n } n { n } }"); },
       "Marker{\n  Marker{\n    ...\n  }\n  Null\n  Marker{\n    ...\n  }\n}\n", "", "  ", 0, 2},
      {"WriteAfterClose", [](Writer& w) { run(w, "n c { }"); }, "Null\nMarker{\n}\n"},
  };
}

class TraceWriterRows : public ::testing::TestWithParam<TraceRow> {};

TEST_P(TraceWriterRows, Prints) {
  TraceRow const& row = GetParam();
  std::ostringstream out;
  TraceWriter writer(out, row.prefix, row.indent, row.max_elements, row.max_depth);
  row.script(writer);
  writer.close();
  EXPECT_EQ(out.str(), row.expected);
}

INSTANTIATE_TEST_SUITE_P(TraceWriter, TraceWriterRows, ::testing::ValuesIn(trace_rows()),
                         [](auto const& row) { return std::string(row.param.name); });

// ---- Value streams and streams of input --------------------------------------------------------

// Value streams keep 256 bytes and count all; the value prints when the stream is closed or the
// writer's next operation starts, and counts against the budget then.
TEST(TraceWriter, ValueStreams) {
  std::string const q(70000, 'q');
  std::string const cut = "\"" + std::string(255, 'q') + "\"...\n";
  struct Row {
    bool is_string;
    std::vector<unsigned> pieces;  // sizes written
    char const* finish;            // a script, or null to close the stream
    std::string expected;
  };
  std::vector<Row> const rows = {
      {true, {}, nullptr, "String[0]: \"\"\n"},
      {true, {0}, "n", "String[0]: \"\"\nNull\n"},
      {true, {1, 2, 3}, "c", "String[6]: \"qqqqqq\"\n"},
      {true, {200, 100, 1}, "[", "String[301]: " + cut + "Sequence[]{\n"},
      {true, {70000}, nullptr, "String[70000]: " + cut},
      {false, {255, 1}, "c", "Binary[256]: \n" + dump(q.substr(0, 256), "  ")},
      {false,
       {100, 5000, 20},
       "n",
       "Binary[5120]: \n" + dump(q.substr(0, 256), "  ") + "  ...\nNull\n"},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.expected);
    std::ostringstream out;
    TraceWriter writer(out, "", "  ");
    InterfacePtr<IWriteStream> const stream =
        row.is_string ? writer.write_string_stream() : writer.write_binary();
    for (std::size_t i = 0, at = 0; i < row.pieces.size(); at += row.pieces[i++])
      stream->write(q.data() + at, row.pieces[i]);
    EXPECT_EQ(out.str(), "");  // nothing before the value ends
    row.finish ? run(writer, row.finish) : stream->close();
    stream->close();  // harmless once the value ended
    EXPECT_EQ(out.str(), row.expected);
    zotest::ErrorPtr const info =
        ZO_EXPECT_ERROR(stream->write("x", 1), error::zoserialize_writer_state,
                        "Binary stream writer object has already been closed");
    EXPECT_EQ(function_of(info), "zoserialize::TraceWriter:StreamImplBase::write()");
  }
  // The budget: the binary is the first element and prints, the null is the second.
  std::ostringstream out;
  InterfacePtr<IWriteStream> abandoned;
  {
    TraceWriter writer(out, "", "  ", 2, 0);
    writer.write_binary()->write("ab", 2);
    writer.write_null();
    abandoned = writer.write_binary();
  }
  EXPECT_EQ(out.str(), "Binary[2]: \n" + dump("ab", "  ") + "...\n");
  // A stream left open when its writer goes away prints nothing and refuses writes.
  ZO_EXPECT_ERROR(abandoned->write("x", 1), error::zoserialize_writer_state,
                  "Binary stream writer object has already been closed");
}

// Sources: up to 256 bytes are read, the rest skipped (once when the size is known, in 16 MiB
// steps when not); a short first read ended the source.
TEST(TraceWriter, FromSourceKeeps256AndSkipsTheRest) {
  struct Row {
    std::size_t size;
    bool unknown_size;
    std::vector<ByteSource::Call> calls;
  };
  std::vector<Row> const rows = {
      {5, false, {{false, 256, 5}}},
      {256, false, {{false, 256, 256}}},
      {300, false, {{false, 256, 256}, {true, 44, 44}}},
      {300, true, {{false, 256, 256}, {true, 0x1000000, 44}}},
  };
  for (Row const& row : rows) {
    for (bool is_string : {false, true}) {
      SCOPED_TRACE(std::to_string(row.size) + (is_string ? " string" : " binary"));
      std::string const bytes(row.size, 'z');
      auto source = make_ref_counted<ByteSource>(bytes);
      if (row.unknown_size) source->unknown_size();
      std::ostringstream out;
      TraceWriter writer(out, "", "  ");
      is_string ? writer.write_string_stream(*source) : writer.write_binary(*source);
      EXPECT_EQ(source->calls(), row.calls);
      std::string const size = std::to_string(row.size);
      std::string const expected = is_string ? "String[" + size + "]: \"" + bytes.substr(0, 255) +
                                                   "\"" + (row.size > 255 ? "..." : "") + "\n"
                                             : "Binary[" + size + "]: \n" +
                                                   dump(bytes.substr(0, 256), "  ") +
                                                   (row.size > 256 ? "  ...\n" : "");
      EXPECT_EQ(out.str(), expected);
    }
  }
  // Not printed: not read at all.
  auto source = make_ref_counted<ByteSource>("abc");
  std::ostringstream out;
  TraceWriter writer(out, "", "  ", 1, 0);
  writer.write_binary(*source);
  writer.write_string_stream(*source);
  EXPECT_TRUE(source->calls().empty());
  EXPECT_EQ(out.str(), "...\n");
}

// A source of unknown size beyond 4 GiB is skipped in 16 MiB steps and counted exactly, without
// being held.
TEST(TraceWriter, FromLargeSourceOfUnknownSize) {
  std::uint64_t const total = (std::uint64_t{1} << 32) + 12345;
  auto source = make_ref_counted<zotest::PatternSource>(total);
  std::ostringstream out;
  TraceWriter writer(out, "", "  ");
  writer.write_binary(*source);
  EXPECT_EQ(source->position(), total);
  EXPECT_EQ(out.str(),
            "Binary[4294979641]: \n" + dump(zotest::pattern_string(0, 256), "  ") + "  ...\n");
}

// ---- Scope checks ------------------------------------------------------------------------------

// The checks run for elements that are printed and for those that are not.
TEST(TraceWriter, ScopeFailures) {
  auto const& nesting = error::zoserialize_writer_sequence_nesting;
  auto const& count = error::zoserialize_writer_sequence_element_count;
  char const* const no_sequence =
      "Attempt to add sequence separator and no sequence is open at top of stack";
  struct Row {
    char const* setup;
    char const* failing;
    zocore::ErrorCode const& code;
    char const* message;
    char const* function;  // in zoserialize::TraceWriter
    char const* params;    // countHint and elementCount, if any
  };
  // clang-format off
  std::vector<Row> const rows = {
      {"", ",", nesting, no_sequence, "write_sequence_separator", ""},
      {"[ {", ",", nesting, no_sequence, "write_sequence_separator", ""},
      {"[1", ",", count, "Attempt to add more sequence elements than the count hint indicated.  "
       "CountHint={@countHint}", "write_sequence_separator", "1 <missing>"},
      {"{", "]", nesting, "Attempt to close sequence and no sequence is open or on top of stack",
       "write_sequence_end", ""},
      {"[3 n ,", "]", count, "Number of elements added to sequence does not match count hint.  "
       "CountHint={@countHint}, Added={@elementCount}", "write_sequence_end", "3 2"},
      {"", "}", nesting, "Attempt to close marker and no marker is open or on top of stack",
       "write_marker_end", ""},
      {"{", "c", nesting, "Attempt to close writer but there are sequences and/or markers that "
       "are still open", "close", ""},
  };
  // clang-format on
  for (Row const& row : rows) {
    for (unsigned max_elements : {0u, 1u}) {
      SCOPED_TRACE(std::string(row.setup) + " " + row.failing + (max_elements ? " untraced" : ""));
      std::ostringstream out;
      TraceWriter writer(out, "", "  ", max_elements, 0);
      run(writer, row.setup);
      zotest::ErrorPtr const info =
          ZO_EXPECT_ERROR(run(writer, row.failing), row.code, row.message);
      EXPECT_EQ(function_of(info), std::string("zoserialize::TraceWriter::") + row.function + "()");
      std::string params =
          zotest::param(info, "countHint") + " " + zotest::param(info, "elementCount");
      EXPECT_EQ(params, *row.params ? row.params : "<missing> <missing>");
    }
  }
}

// A failed count check still closes the sequence, and the indent follows it. Closing with open
// scopes fails and leaves the writer usable.
TEST(TraceWriter, FailedChecksLeaveTheWriterUsable) {
  std::ostringstream out;
  TraceWriter writer(out, nullptr, "  ");
  run(writer, "{ [2 n");
  EXPECT_THROW(run(writer, "]"), zocore::ErrorException);
  EXPECT_THROW(writer.close(), zocore::ErrorException);
  run(writer, "n } c c");
  EXPECT_EQ(out.str(), "Marker{\n  Sequence[2]{\n    Null\n  Null\n}\n");
}

// A marker end on an empty stack is refused before the open value is finished: the value stays
// open and prints later.
TEST(TraceWriter, MarkerEndRefusedBeforeFinishingTheStream) {
  std::ostringstream out;
  TraceWriter writer(out, "", "  ");
  InterfacePtr<IWriteStream> const stream = writer.write_string_stream();
  stream->write("x", 1);
  EXPECT_THROW(writer.write_marker_end(), zocore::ErrorException);
  EXPECT_EQ(out.str(), "");
  stream->write("y", 1);
  stream->close();
  EXPECT_EQ(out.str(), "String[2]: \"xy\"\n");
}

}  // namespace
}  // namespace zoserialize
