#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
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
  auto int_image = [](std::string bytes) {
    return [bytes](Writer& w) { w.write_int_big_endian(bytes.data(), unsigned(bytes.size())); };
  };
  auto uint_image = [](std::string bytes) {
    return [bytes](Writer& w) { w.write_uint_big_endian(bytes.data(), unsigned(bytes.size())); };
  };
  return {
      {"Null", [](Writer& w) { w.write_null(); }, "Null\n"},
      {"BoolTrue", [](Writer& w) { w << true; }, "Bool: true\n"},
      {"BoolFalse", [](Writer& w) { w << false; }, "Bool: false\n"},
      // Signed: decimal up to a 4-byte minimal form, then the minimal bytes in hex.
      {"IntZero", [](Writer& w) { w << 0; }, "Int: 0\n"},
      {"IntEmptyImage", int_image(""), "Int: 0\n"},
      {"IntMinusOne", [](Writer& w) { w << -1LL; }, "Int: -1\n"},
      {"IntMinus128", [](Writer& w) { w << char(-128); }, "Int: -128\n"},
      {"Int8388608", [](Writer& w) { w << 8388608; }, "Int: 8388608\n"},
      {"IntMax32", [](Writer& w) { w << 2147483647LL; }, "Int: 2147483647\n"},
      {"IntMin32", [](Writer& w) { w << -2147483648LL; }, "Int: -2147483648\n"},
      {"Int2Pow31", [](Writer& w) { w << 2147483648LL; }, "Int: 0x0080000000\n"},
      {"IntMin32Minus1", [](Writer& w) { w << -2147483649LL; }, "Int: 0xff7fffffff\n"},
      {"IntWideImage", int_image(std::string(9, '\xFF') + "\x80"), "Int: -128\n"},
      // Unsigned: decimal up to 3 bytes, so a 4-byte value is hex even when it is short.
      {"UIntZero", [](Writer& w) { w << 0u; }, "UInt: 0\n"},
      {"UIntEmptyImage", uint_image(""), "UInt: 0\n"},
      {"UInt16777215", [](Writer& w) { w << 16777215u; }, "UInt: 16777215\n"},
      {"UInt16777216", [](Writer& w) { w << 16777216u; }, "UInt: 0x01000000\n"},
      {"UIntMax64", [](Writer& w) { w << ~0ULL; }, "UInt: 0xffffffffffffffff\n"},
      {"Double", [](Writer& w) { w << 1.5; }, "Double: 1.5\n"},
      {"DoubleDefaultPrecision", [](Writer& w) { w << 0.1f; }, "Double: 0.1\n"},
      {"DoubleNaN", [](Writer& w) { w << std::numeric_limits<double>::quiet_NaN(); },
       "Double: nan\n"},
      {"AbsTime", [](Writer& w) { w << AbsoluteTime(1'500'000'000); },
       "AbsTime: 1970-01-01 00:00:01.5\n"},
      {"RelTime", [](Writer& w) { w << RelativeTime(-250'000'000); }, "RelTime: -0.25s\n"},
      {"Uuid",
       [](Writer& w) { w << Uuid::from_string("123E4567-E89B-12D3-A456-426614174000", 36); },
       "Uuid: 123e4567-e89b-12d3-a456-426614174000\n"},
      // Strings: quoted by zocore (quote and backslash escaped), control characters as C escapes.
      {"String", [](Writer& w) { w << "a b"; }, "String[3]: \"a b\"\n"},
      {"StringEmpty", [](Writer& w) { w << ""; }, "String[0]: \"\"\n"},
      {"StringQuoteBackslash", [](Writer& w) { w << "a\"b\\"; }, "String[4]: \"a\\\"b\\\\\"\n"},
      {"StringTab", [](Writer& w) { w << "a\tb"; }, "String[3]: \"a\\tb\"\n"},
      {"StringControls", [](Writer& w) { w.write_string("\n\r\x01\x1f\x7f", 5); },
       "String[5]: \"\\n\\r\\x01\\x1f\x7f\"\n"},
      // Quote and backslash of the data are still escaped; the escapes' backslashes are not.
      {"StringControlQuoteBackslash", [](Writer& w) { w << "\t\"\\"; },
       "String[3]: \"\\t\\\"\\\\\"\n"},
      {"String255", [](Writer& w) { w << std::string(255, 'x'); },
       "String[255]: \"" + std::string(255, 'x') + "\"\n"},
      {"String300", [](Writer& w) { w << std::string(300, 'x'); },
       "String[300]: \"" + std::string(255, 'x') + "\"...\n"},
      // The escaped copy of the first 256 bytes is cut at 255 characters too.
      {"String300WithControl", [](Writer& w) { w << "\x01" + std::string(299, 'x'); },
       "String[300]: \"\\x01" + std::string(251, 'x') + "\"...\n"},
      // A control character after the first 256 bytes is not looked at.
      {"StringControlPast256", [](Writer& w) { w << std::string(256, 'x') + "\t"; },
       "String[257]: \"" + std::string(255, 'x') + "\"...\n"},
      // Binaries: a head line, the dump indented by two more spaces, "  ..." when cut.
      {"Binary", [](Writer& w) { w.write_binary("abc", 3); },
       "Binary[3]: \n  00000000  61 62 63" + std::string(40, ' ') + "  |abc|\n"},
      {"BinaryEmpty", [](Writer& w) { w.write_binary("", 0); }, "Binary[0]: \n"},
      {"Binary256", [](Writer& w) { w.write_binary(k300.data(), 256); },
       "Binary[256]: \n" + dump(k300.substr(0, 256), "  ")},
      {"Binary300", [](Writer& w) { w.write_binary(k300.data(), 300); },
       "Binary[300]: \n" + dump(k300.substr(0, 256), "  ") + "  ...\n"},
      {"BinaryNested",
       [](Writer& w) {
         w.write_marker_start();
         w.write_binary(k300.data(), 300);
         w.write_marker_end();
       },
       "Marker{\n  Binary[300]: \n" + dump(k300.substr(0, 256), "    ") + "    ...\n}\n"},
      // Scopes.
      {"WorkedExample",
       [](Writer& w) {
         w.write_marker_start();
         w.write_sequence_start(2);
         w << 5;
         w.write_sequence_separator();
         w << "a b";
         w.write_sequence_end();
         w.write_marker_end();
         w << 1.5;
       },
       "Marker{\n  Sequence[2]{\n    Int: 5\n  }{\n    String[3]: \"a b\"\n  }\n}\nDouble: 1.5\n"},
      {"SequenceWithoutHint",
       [](Writer& w) {
         w.write_sequence_start();
         w.write_sequence_end();
         w.write_sequence_start(0);
         w.write_sequence_end();
       },
       "Sequence[]{\n}\nSequence[]{\n}\n"},
      {"MarkerEndPopsSequence",
       [](Writer& w) {
         w.write_sequence_start(5);
         w.write_null();
         w.write_marker_end();
         w.write_null();
       },
       "Sequence[5]{\n  Null\n}\nNull\n"},
      {"PrefixAndDefaultIndent",
       [](Writer& w) {
         w.write_marker_start();
         w.write_marker_start();
         w.write_null();
         w.write_marker_end();
         w.write_marker_end();
       },
       "> Marker{\n>  Marker{\n>   Null\n>  }\n> }\n", "> ", nullptr},
      {"NullPrefixEmptyIndent",
       [](Writer& w) {
         w.write_sequence_start(2);
         w.write_null();
         w.write_sequence_separator();
         w.write_null();
         w.write_sequence_end();
       },
       "Sequence[2]{\nNull\n}{\nNull\n}\n", nullptr, ""},
      {"DeepIndentGrows",
       [](Writer& w) {
         for (int i = 0; i < 4; ++i)
           w.write_marker_start();
         w.write_null();
         for (int i = 0; i < 4; ++i)
           w.write_marker_end();
       },
       "#Marker{\n#-=Marker{\n#-=-=Marker{\n#-=-=-=Marker{\n#-=-=-=-=Null\n#-=-=-=}\n#-=-=}\n"
       "#-=}\n#}\n",
       "#", "-="},
      // Limits.
      {"MaxElements1",
       [](Writer& w) {
         w.write_null();
         w.write_marker_start();
         w.write_null();
         w.write_marker_end();
       },
       "...\n", "", "  ", 1},
      {"MaxElements3",
       [](Writer& w) {
         for (int i = 0; i < 5; ++i)
           w << i;
       },
       "Int: 0\nInt: 1\n...\n", "", "  ", 3},
      {"MaxDepth1",
       [](Writer& w) {
         w.write_sequence_start(3);
         w.write_null();
         w.write_sequence_separator();
         w.write_null();
         w.write_sequence_separator();
         w.write_null();
         w.write_sequence_end();
         w.write_null();
       },
       "Sequence[3]{\n  ...\n}\nNull\n", "", "  ", 0, 1},
      {"MaxDepth2OneEllipsisPerRun",
       [](Writer& w) {
         w.write_marker_start();
         w.write_marker_start();
         w.write_null();
         w.write_null();
         w.write_marker_end();
         w.write_null();
         w.write_marker_start();
         w.write_null();
         w.write_marker_end();
         w.write_marker_end();
       },
       "Marker{\n  Marker{\n    ...\n  }\n  Null\n  Marker{\n    ...\n  }\n}\n", "", "  ", 0, 2},
      {"WriteAfterClose",
       [](Writer& w) {
         w.write_null();
         w.close();
         w.write_marker_start();
         w.write_marker_end();
       },
       "Null\nMarker{\n}\n"},
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

// The three-argument constructor has no limits.
TEST(TraceWriter, UnlimitedConstructor) {
  std::ostringstream out;
  TraceWriter writer(out, nullptr, nullptr);
  for (int i = 0; i < 40; ++i)
    writer.write_marker_start();
  writer.write_null();
  EXPECT_EQ(out.str().substr(out.str().size() - 46), "\n" + std::string(40, ' ') + "Null\n");
}

// ---- Value streams and streams of input --------------------------------------------------------

struct StreamRow {
  char const* name;
  bool is_string;
  std::vector<unsigned> pieces;  // sizes written, from the pattern
  bool close_stream;             // else the writer's next operation finishes the value
  std::string expected;
};

TEST(TraceWriter, ValueStreamsKeep256BytesAndCountAll) {
  // Pattern bytes below 0x20 would be escaped: the string rows use text.
  std::string const text(70000, 'q');
  std::vector<StreamRow> const rows = {
      {"EmptyString", true, {}, true, "String[0]: \"\"\n"},
      {"EmptyWrite", true, {0}, false, "String[0]: \"\"\n"},
      {"SmallPieces", true, {1, 2, 3}, true, "String[6]: \"qqqqqq\"\n"},
      {"AcrossTheBuffer",
       true,
       {200, 100, 1},
       false,
       "String[301]: \"" + std::string(255, 'q') + "\"...\n"},
      {"LargeWrite", true, {70000}, true, "String[70000]: \"" + std::string(255, 'q') + "\"...\n"},
      {"Binary", false, {255, 1}, true, "Binary[256]: \n" + dump(text.substr(0, 256), "  ")},
      {"BinaryCut",
       false,
       {100, 5000, 20},
       false,
       "Binary[5120]: \n" + dump(text.substr(0, 256), "  ") + "  ...\n"},
  };
  for (StreamRow const& row : rows) {
    SCOPED_TRACE(row.name);
    std::ostringstream out;
    TraceWriter writer(out, "", "  ");
    InterfacePtr<IWriteStream> const stream =
        row.is_string ? writer.write_string_stream() : writer.write_binary();
    std::size_t at = 0;
    for (unsigned n : row.pieces) {
      stream->write(text.data() + at, n);
      at += n;
    }
    EXPECT_EQ(out.str(), "");  // nothing before the value ends
    if (row.close_stream) {
      stream->close();
      stream->close();  // harmless
    } else {
      writer.write_null();
    }
    std::string const tail = row.close_stream ? "" : "Null\n";
    EXPECT_EQ(out.str(), row.expected + tail);
  }
}

TEST(TraceWriter, ValueStreamFinishedByEveryOperation) {
  std::vector<std::pair<char const*, std::function<void(TraceWriter&)>>> const finishers = {
      {"flush", [](TraceWriter& w) { w.flush(); }},
      {"close", [](TraceWriter& w) { w.close(); }},
      {"another stream", [](TraceWriter& w) { w.write_binary(); }},
      {"sequence start", [](TraceWriter& w) { w.write_sequence_start(); }},
  };
  for (auto const& [name, finish] : finishers) {
    SCOPED_TRACE(name);
    std::ostringstream out;
    TraceWriter writer(out, "", "  ");
    InterfacePtr<IWriteStream> const stream = writer.write_string_stream();
    stream->write("hi", 2);
    finish(writer);
    EXPECT_EQ(out.str().substr(0, 14), "String[2]: \"hi");
    zotest::ErrorPtr const info =
        ZO_EXPECT_ERROR(stream->write("x", 1), error::zoserialize_writer_state,
                        "Binary stream writer object has already been closed");
    EXPECT_EQ(function_of(info), "zoserialize::TraceWriter:StreamImplBase::write()");
  }
}

// The element budget and the depth limit apply when the value ends.
TEST(TraceWriter, ValueStreamCountsAgainstTheBudgetWhenFinished) {
  std::ostringstream out;
  TraceWriter writer(out, "", "  ", 2, 0);
  InterfacePtr<IWriteStream> const stream = writer.write_binary();
  stream->write("ab", 2);
  writer.write_null();  // the binary is the first element: printed; the null is the second
  EXPECT_EQ(out.str(), "Binary[2]: \n" + dump("ab", "  ") + "...\n");
}

TEST(TraceWriter, DestroyedWriterAbandonsItsStream) {
  std::ostringstream out;
  InterfacePtr<IWriteStream> stream;
  {
    TraceWriter writer(out, "", "  ");
    stream = writer.write_binary();
    stream->write("ab", 2);
  }
  EXPECT_EQ(out.str(), "");
  ZO_EXPECT_ERROR(stream->write("x", 1), error::zoserialize_writer_state,
                  "Binary stream writer object has already been closed");
}

TEST(TraceWriter, FromSourceKeeps256AndSkipsTheRest) {
  struct Row {
    char const* name;
    std::size_t size;
    bool unknown_size;
    std::vector<ByteSource::Call> calls;
  };
  std::vector<Row> const rows = {
      // A short first read ended the source: nothing more is asked.
      {"Short", 5, false, {{false, 256, 5}}},
      {"Exactly256Known", 256, false, {{false, 256, 256}}},
      {"KnownSize", 300, false, {{false, 256, 256}, {true, 44, 44}}},
      {"UnknownSize", 300, true, {{false, 256, 256}, {true, 0x1000000, 44}}},
  };
  for (Row const& row : rows) {
    for (bool is_string : {false, true}) {
      SCOPED_TRACE(std::string(row.name) + (is_string ? " string" : " binary"));
      std::string const bytes(row.size, 'z');
      auto source = make_ref_counted<ByteSource>(bytes);
      if (row.unknown_size) source->unknown_size();
      std::ostringstream out;
      TraceWriter writer(out, "", "  ");
      if (is_string) {
        writer.write_string_stream(*source);
      } else {
        writer.write_binary(*source);
      }
      EXPECT_EQ(source->calls(), row.calls);
      std::string const head = (is_string ? "String[" : "Binary[") + std::to_string(row.size);
      EXPECT_EQ(out.str().substr(0, head.size()), head);
      std::string const expected =
          is_string ? "String[" + std::to_string(row.size) + "]: \"" +
                          std::string(std::min<std::size_t>(row.size, 255), 'z') + "\"" +
                          (row.size > 255 ? "..." : "") + "\n"
                    : "Binary[" + std::to_string(row.size) + "]: \n" +
                          dump(bytes.substr(0, std::min<std::size_t>(row.size, 256)), "  ") +
                          (row.size > 256 ? "  ...\n" : "");
      EXPECT_EQ(out.str(), expected);
    }
  }
}

// An unknown-size source is skipped in 16 MiB steps and counted exactly, without being held.
TEST(TraceWriter, FromLargeSourceOfUnknownSize) {
  struct Zeros final : zocore::RefCounted<zocore::AtomicRefCount>, IReadStream {
    std::uint64_t left = 3 * 0x1000000ull + 12345;
    std::vector<unsigned> skips;
    unsigned read(void* buffer, unsigned size) override {
      unsigned const n = static_cast<unsigned>(std::min<std::uint64_t>(size, left));
      std::memset(buffer, 0, n);
      left -= n;
      return n;
    }
    unsigned skip(unsigned size) override {
      skips.push_back(size);
      unsigned const n = static_cast<unsigned>(std::min<std::uint64_t>(size, left));
      left -= n;
      return n;
    }
    unsigned bytes_remaining() const override { return kUnknownSize; }
  };
  auto source = make_ref_counted<Zeros>();
  std::ostringstream out;
  TraceWriter writer(out, "", "  ");
  writer.write_binary(*source);
  EXPECT_EQ(source->left, 0u);
  EXPECT_EQ(source->skips, std::vector<unsigned>(4, 0x1000000));
  EXPECT_EQ(out.str(), "Binary[50343993]: \n" + dump(std::string(256, '\0'), "  ") + "  ...\n");
}

TEST(TraceWriter, SourceUntouchedWhenNotTraced) {
  auto source = make_ref_counted<ByteSource>("abc");
  std::ostringstream out;
  TraceWriter writer(out, "", "  ", 1, 0);
  writer.write_binary(*source);  // the ellipsis line
  writer.write_string_stream(*source);
  EXPECT_TRUE(source->calls().empty());
  EXPECT_EQ(out.str(), "...\n");
}

// ---- Scope checks ------------------------------------------------------------------------------

TEST(TraceWriter, ScopeFailures) {
  struct Row {
    char const* name;
    std::function<void(TraceWriter&)> setup;
    std::function<void(TraceWriter&)> failing;
    zocore::ErrorCode const& code;
    char const* message;
    char const* function;
    std::vector<std::pair<char const*, char const*>> params;
  };
  auto none = [](TraceWriter&) {};
  std::vector<Row> const rows = {
      {"SeparatorWithoutSequence",
       none,
       [](TraceWriter& w) { w.write_sequence_separator(); },
       error::zoserialize_writer_sequence_nesting,
       "Attempt to add sequence separator and no sequence is open at top of stack",
       "zoserialize::TraceWriter::write_sequence_separator()",
       {}},
      {"SeparatorInMarker",
       [](TraceWriter& w) {
         w.write_sequence_start();
         w.write_marker_start();
       },
       [](TraceWriter& w) { w.write_sequence_separator(); },
       error::zoserialize_writer_sequence_nesting,
       "Attempt to add sequence separator and no sequence is open at top of stack",
       "zoserialize::TraceWriter::write_sequence_separator()",
       {}},
      {"SeparatorBeyondHint",
       [](TraceWriter& w) { w.write_sequence_start(1); },
       [](TraceWriter& w) { w.write_sequence_separator(); },
       error::zoserialize_writer_sequence_element_count,
       "Attempt to add more sequence elements than the count hint indicated.  "
       "CountHint={@countHint}",
       "zoserialize::TraceWriter::write_sequence_separator()",
       {{"countHint", "1"}}},
      {"EndWithoutSequence",
       [](TraceWriter& w) { w.write_marker_start(); },
       [](TraceWriter& w) { w.write_sequence_end(); },
       error::zoserialize_writer_sequence_nesting,
       "Attempt to close sequence and no sequence is open or on top of stack",
       "zoserialize::TraceWriter::write_sequence_end()",
       {}},
      {"EndCountMismatch",
       [](TraceWriter& w) {
         w.write_sequence_start(3);
         w.write_null();
         w.write_sequence_separator();
       },
       [](TraceWriter& w) { w.write_sequence_end(); },
       error::zoserialize_writer_sequence_element_count,
       "Number of elements added to sequence does not match count hint.  "
       "CountHint={@countHint}, Added={@elementCount}",
       "zoserialize::TraceWriter::write_sequence_end()",
       {{"countHint", "3"}, {"elementCount", "2"}}},
      {"MarkerEndEmpty",
       none,
       [](TraceWriter& w) { w.write_marker_end(); },
       error::zoserialize_writer_sequence_nesting,
       "Attempt to close marker and no marker is open or on top of stack",
       "zoserialize::TraceWriter::write_marker_end()",
       {}},
      {"CloseWithOpenScopes",
       [](TraceWriter& w) { w.write_marker_start(); },
       [](TraceWriter& w) { w.close(); },
       error::zoserialize_writer_sequence_nesting,
       "Attempt to close writer but there are sequences and/or markers that are still open",
       "zoserialize::TraceWriter::close()",
       {}},
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.name);
    std::ostringstream out;
    TraceWriter writer(out, "", "  ");
    row.setup(writer);
    zotest::ErrorPtr const info = ZO_EXPECT_ERROR(row.failing(writer), row.code, row.message);
    EXPECT_EQ(function_of(info), row.function);
    for (auto const& [name, value] : row.params)
      EXPECT_EQ(zotest::param(info, name), value) << name;
  }
}

// The checks run for elements that are not printed too.
TEST(TraceWriter, ScopeChecksRunWhenNotTraced) {
  std::ostringstream out;
  TraceWriter writer(out, "", "  ", 1, 0);
  writer.write_sequence_start(1);
  ZO_EXPECT_ERROR(writer.write_sequence_separator(),
                  error::zoserialize_writer_sequence_element_count,
                  "Attempt to add more sequence elements than the count hint indicated.  "
                  "CountHint={@countHint}");
  EXPECT_EQ(out.str(), "...\n");
}

// A failed count check still closes the sequence, and the indent follows it.
TEST(TraceWriter, CountMismatchClosesTheSequence) {
  std::ostringstream out;
  TraceWriter writer(out, "", "  ");
  writer.write_marker_start();
  writer.write_sequence_start(2);
  writer.write_null();
  EXPECT_THROW(writer.write_sequence_end(), zocore::ErrorException);
  writer.write_null();
  writer.write_marker_end();
  writer.close();
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

// Closing with open scopes leaves the writer usable; closing again after the scopes are closed
// succeeds.
TEST(TraceWriter, CloseFailsUntilScopesAreClosed) {
  std::ostringstream out;
  TraceWriter writer(out, "", "  ");
  writer.write_marker_start();
  EXPECT_THROW(writer.close(), zocore::ErrorException);
  writer.write_marker_end();
  writer.close();
  writer.close();
  EXPECT_EQ(out.str(), "Marker{\n}\n");
}

}  // namespace
}  // namespace zoserialize
