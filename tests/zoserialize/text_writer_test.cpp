#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/script.h>
#include <support/test_streams.h>
#include <support/text_golden.h>
#include <zocore/memory_stream.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/impl/text_targets.h>
#include <zoserialize/text_reader.h>
#include <zoserialize/text_writer.h>

namespace {

namespace error = zoserialize::error;
using zocore::make_ref_counted;
using zoserialize::InterfacePtr;
using zoserialize::IWriteStream;
using zoserialize::TextReader;
using zoserialize::TextWriter;
using zoserialize::Writer;
using Options = TextWriter::Options;
using WriteFn = std::function<void(Writer&)>;

// A caller's target that keeps every call ("c" for put, "w:<text>" for write) and can fail.
class RecordingTarget final : public zocore::RefCounted<zocore::AtomicRefCount>,
                              public TextWriter::ITextTarget {
 public:
  void put(char c) override {
    check();
    calls.emplace_back(1, c);
    text += c;
  }
  void write(char const* data, unsigned length) override {
    check();
    calls.push_back("w:" + std::string(data, length));
    text.append(data, length);
  }

  std::string text;
  std::vector<std::string> calls;
  std::size_t fail_at = SIZE_MAX;  // index of the call that throws

 private:
  void check() {
    if (calls.size() == fail_at) {
      fail_at = SIZE_MAX;
      throw std::runtime_error("target failed");
    }
  }
};

enum class ETarget { kString, kOstream, kWriteStream, kCaller };

// The text `fn` writes through a writer over the given kind of target.
std::string write_via(ETarget kind, WriteFn const& fn, Options const& options = Options()) {
  std::string out;
  std::ostringstream os;
  auto sink = make_ref_counted<zocore::StringWriteStream>();
  auto target = make_ref_counted<RecordingTarget>();
  {
    std::unique_ptr<TextWriter> const w =
        kind == ETarget::kString    ? std::make_unique<TextWriter>(out, options)
        : kind == ETarget::kOstream ? std::make_unique<TextWriter>(os, options)
        : kind == ETarget::kWriteStream
            ? std::make_unique<TextWriter>(InterfacePtr<IWriteStream>(sink), options)
            : std::make_unique<TextWriter>(InterfacePtr<TextWriter::ITextTarget>(target), options);
    fn(*w);
    w->close();
  }
  std::string const texts[] = {out, os.str(), sink->str(), target->text};
  return texts[static_cast<int>(kind)];
}

constexpr ETarget kTargets[] = {ETarget::kString, ETarget::kOstream, ETarget::kWriteStream,
                                ETarget::kCaller};

// The edges of the grammar, through every target: the text column's forms that the writer
// produces (the golden suite writes the shared rows through the writers of the text format).
TEST(TextWriterTest, WritesTheGrammarEdgesThroughEveryTarget) {
  zotest::GoldenColumn const& column = zotest::text_column();
  for (zotest::GoldenRow const& row : column.read_only()) {
    zotest::GoldenRendering const* rendering = column.find(row.name);
    if (rendering->copy != zotest::ECopy::kIdentical) continue;
    for (ETarget const kind : kTargets) {
      EXPECT_EQ(write_via(kind, [&](Writer& w) { zotest::write_script(w, row.script); }),
                rendering->bytes)
          << row.name << " through target " << static_cast<int>(kind);
    }
  }
}

// The writer keeps its own copy of the options (their effect: OptionsShapeTheText).
TEST(TextWriterTest, OptionsAreCopiedIntoTheWriter) {
  Options set =
      Options().ascii_only(true).escape_spaces(true).line_separator_crlf(true).line_width(76);
  std::string out;
  TextWriter const w(out, set);
  set.ascii_only(false).escape_spaces(false).line_separator_crlf(false).line_width(5);
  Options const& kept = w.options();
  EXPECT_TRUE(kept.ascii_only() && kept.escape_spaces() && kept.line_separator_crlf());
  EXPECT_EQ(kept.line_width(), 76u);
}

struct OptionsCase {
  Options options;
  WriteFn write;
  char const* text;
};

TEST(TextWriterTest, OptionsShapeTheText) {
  zotest::Script const worked_example = zotest::parse_script(
      "{ [3 i5 , s%612062 , T ] } d1 a1520251200000000000 r1500000000 w%6869 g0 u305419896");
  WriteFn const example = [&](Writer& w) { zotest::write_script(w, worked_example); };
  WriteFn const high = [](Writer& w) { w << "\xC3\xA9~ \x7F"; };
  OptionsCase const cases[] = {
      {Options(), example, "{(3+5,\"a b\",Y)}R3ffT2018030512P1.5[aGk]KX12345678"},
      {Options().escape_spaces(true), example,
       "{(3+5,\"a~20b\",Y)}R3ffT2018030512P1.5[aGk]KX12345678"},
      {Options().line_width(8), example,
       "{(3+5,\"a\n~20b\",Y)\n}R3ffT20\n18030512\nP1.5[aGk\n]KX12345\n678"},
      {Options().line_width(8).line_separator_crlf(true), example,
       "{(3+5,\"a\r\n~20b\",Y)\r\n}R3ffT20\r\n18030512\r\nP1.5[aGk\r\n]KX12345\r\n678"},
      // The separator option alone changes nothing: only wrapping inserts line breaks.
      {Options().line_separator_crlf(true), example,
       "{(3+5,\"a b\",Y)}R3ffT2018030512P1.5[aGk]KX12345678"},
      {Options(), high, "\"\xC3\xA9~7e ~7f\""},
      {Options().ascii_only(true), high, "\"~c3~a9~7e ~7f\""},
      {Options().ascii_only(true).escape_spaces(true), high, "\"~c3~a9~7e~20~7f\""},
      // Widths below 4 count as 4.
      {Options().line_width(3), example,
       "{(3+\n5,\"a\n~20b\n\",Y)\n}R3f\nfT20\n1803\n0512\nP1.5\n[aGk\n]KX1\n2345\n678"},
      // A space on the last column: `~` ends the line, `20` starts the next.
      {Options().line_width(4), [](Writer& w) { w << "ab c"; }, "\"ab~\n20c\"\n"},
      {Options().line_width(4).escape_spaces(true), [](Writer& w) { w << "ab c"; },
       "\"ab~\n20c\"\n"},
      {Options().line_width(5), [](Writer& w) { w << "abc  d"; }, "\"abc~\n20 d\"\n"},
  };
  for (OptionsCase const& c : cases) {
    for (ETarget const kind : kTargets)
      EXPECT_EQ(write_via(kind, c.write, c.options), c.text) << static_cast<int>(kind);
  }
}

// Wrapped text has lines of exactly the width, none starting or ending with a space, and reads
// back to the same elements, whatever the width and however the text reaches the adapter.
TEST(TextWriterTest, WrappedLinesKeepTheirShape) {
  std::mt19937 rng(7);
  std::string const alphabet = "ab  ~\"(Z";
  for (int round = 0; round < 40; ++round) {
    std::string value(rng() % 60, ' ');
    for (char& c : value)
      c = alphabet[rng() % alphabet.size()];
    unsigned const width = 1 + rng() % 13;
    unsigned const w = width < 4 ? 4 : width;
    WriteFn const fn = [&](Writer& out) { out << value << 7 << value; };
    std::string const flat = write_via(ETarget::kString, fn);
    std::string const wrapped = write_via(ETarget::kCaller, fn, Options().line_width(width));
    std::size_t start = 0;
    for (std::size_t end; (end = wrapped.find('\n', start)) != std::string::npos; start = end + 1) {
      EXPECT_EQ(end - start, w) << wrapped;
      EXPECT_NE(wrapped[start], ' ') << wrapped;
      EXPECT_NE(wrapped[end - 1], ' ') << wrapped;
    }
    EXPECT_LE(wrapped.size() - start, w);
    if (start < wrapped.size()) {
      EXPECT_NE(wrapped[start], ' ') << wrapped;
    }

    // The same text through the adapter one character at a time, and in random runs.
    for (bool by_char : {true, false}) {
      auto target = make_ref_counted<RecordingTarget>();
      zoserialize::impl::LineWidthAdapter adapter(InterfacePtr<TextWriter::ITextTarget>(target),
                                                  width, false);
      for (std::size_t at = 0; at < flat.size();) {
        std::size_t const n = by_char ? 1 : std::min<std::size_t>(1 + rng() % 9, flat.size() - at);
        if (n == 1) {
          adapter.put(flat[at]);
        } else {
          adapter.write(flat.data() + at, static_cast<unsigned>(n));
        }
        at += n;
      }
      EXPECT_EQ(target->text, wrapped);
    }

    TextReader reader(&wrapped);
    EXPECT_EQ(reader.read_string(), value);
    EXPECT_EQ(reader.read_int32(), 7);
    EXPECT_EQ(reader.read_string(), value);
    EXPECT_TRUE(reader.is_eof());
  }
}

// The text reaches the target from the writer's buffer when it is full, at flush() and at
// close(); an unescaped run too large for what is left of the buffer goes to the target whole.
TEST(TextWriterTest, BufferedTextReachesTheTargetInFewCalls) {
  std::string const run(5000, 'x');
  auto target = make_ref_counted<RecordingTarget>();
  TextWriter w{InterfacePtr<TextWriter::ITextTarget>(target)};
  w << "a~b";
  EXPECT_TRUE(target->calls.empty());
  w.flush();
  w << run + "\x01" + run;
  w.close();
  EXPECT_EQ(target->calls, (std::vector<std::string>{"w:\"a~7eb\"", "w:\"", "w:" + run, "w:~01",
                                                     "w:" + run, "w:\""}));
}

// A string stream renders escapes across its 4096-byte blocks as the whole string would (the
// golden rows check value streams in pieces of every size).
TEST(TextWriterTest, StringStreamsEscapeAcrossBlocks) {
  std::string chars(9000, 'x');
  for (std::size_t i = 0; i < chars.size(); i += 7)
    chars[i] = "~\" \x01"[i % 4];
  std::string const whole = write_via(ETarget::kString, [&](Writer& w) { w << chars; });
  EXPECT_EQ(write_via(ETarget::kCaller,
                      [&](Writer& w) {
                        InterfacePtr<IWriteStream> const s = w.write_string_stream();
                        for (std::size_t at = 0; at < chars.size(); at += 1000)
                          s->write(chars.data() + at, 1000);
                      }),
            whole);
}

TEST(TextWriterTest, ValueStreamsEndWithTheNextOperation) {
  std::string out;
  TextWriter w(out);
  InterfacePtr<IWriteStream> const binary = w.write_binary();
  binary->write("hi", 2);
  w.flush();
  EXPECT_EQ(out, "[aGk]");
  InterfacePtr<IWriteStream> const string = w.write_string_stream();
  string->write("x", 1);
  string->close();
  InterfacePtr<IWriteStream> const next = w.write_string_stream();
  w.write_null();
  w.flush();
  EXPECT_EQ(out, "[aGk]\"x\"SZ");
  for (auto const* stream : {&binary, &string, &next}) {
    auto const info = ZO_EXPECT_ERROR((*stream)->write("y", 1), error::zoserialize_writer_state,
                                      "Binary stream writer object has already been closed");
    if (info) {
      EXPECT_EQ(info->location().function().view(),
                stream == &binary ? "zoserialize::TextWriter::BinaryStreamImpl::write()"
                                  : "zoserialize::TextWriter::StringStreamImpl::write()");
    }
  }
  (*&string)->close();  // closing an ended stream does nothing
}

struct FailureCase {
  WriteFn run;
  zocore::ErrorCode const* code;
  char const* message;
  char const* function;
  std::vector<std::pair<char const*, char const*>> params = {};
};

TEST(TextWriterTest, FailuresReportCodeMessageAndParameters) {
  constexpr char kClosed[] = "TextWriter has already been closed";
  auto const script = [](char const* text) {
    return [text](Writer& w) { zotest::write_script(w, zotest::parse_script(text)); };
  };
  auto const closed = [](WriteFn const& then) {
    return [then](Writer& w) {
      w.close();
      then(w);
    };
  };
  std::vector<FailureCase> const cases = {
      {closed([](Writer& w) { w.write_null(); }), &error::zoserialize_writer_closed, kClosed,
       "write_null"},
      {closed([](Writer& w) { w.flush(); }), &error::zoserialize_writer_closed, kClosed, "flush"},
      {closed([](Writer& w) { w << 1; }), &error::zoserialize_writer_closed, kClosed,
       "write_int_big_endian"},
      {closed([](Writer& w) { w.write_binary(); }), &error::zoserialize_writer_closed, kClosed,
       "write_binary"},
      // A marker end looks at the scopes first: a closed writer has none open.
      {closed([](Writer& w) { w.write_marker_end(); }), &error::zoserialize_writer_sequence_nesting,
       "Attempt to close marker and no marker is open or on top of stack", "write_marker_end"},
      {script(","), &error::zoserialize_writer_sequence_nesting,
       "Attempt to add sequence separator and no sequence is open at top of stack",
       "write_sequence_separator"},
      {script("[ { ,"), &error::zoserialize_writer_sequence_nesting,
       "Attempt to add sequence separator and no sequence is open at top of stack",
       "write_sequence_separator"},
      {script("[2 i1 , i2 ,"),
       &error::zoserialize_writer_sequence_element_count,
       "Attempt to add more sequence elements than the count hint indicated.  "
       "CountHint={@countHint}",
       "write_sequence_separator",
       {{"countHint", "2"}}},
      {script("{ ]"), &error::zoserialize_writer_sequence_nesting,
       "Attempt to close sequence and no sequence is open or on top of stack",
       "write_sequence_end"},
      {script("[3 i1 ]"),
       &error::zoserialize_writer_sequence_element_count,
       "Number of elements added to sequence does not match count hint.  "
       "CountHint={@countHint}, Added={@elementCount}",
       "write_sequence_end",
       {{"countHint", "3"}, {"elementCount", "1"}}},
      {script("}"), &error::zoserialize_writer_sequence_nesting,
       "Attempt to close marker and no marker is open or on top of stack", "write_marker_end"},
      {script("["), &error::zoserialize_writer_sequence_nesting,
       "Attempt to close writer but there are sequences and/or markers that are still open",
       "close"},
  };
  for (FailureCase const& c : cases) {
    std::string out;
    TextWriter w(out);
    auto const info = ZO_EXPECT_ERROR(
        {
          c.run(w);
          w.close();
        },
        *c.code, c.message);
    if (!info) continue;
    EXPECT_EQ(info->location().function().view(),
              "zoserialize::TextWriter::" + std::string(c.function) + "()");
    EXPECT_EQ(info->params().size(), c.params.size());
    for (auto const& [name, value] : c.params)
      EXPECT_EQ(zotest::param(info, name), value) << name;
  }
}

TEST(TextWriterTest, OwnFailuresLeaveTheWriterUsable) {
  std::string out;
  {
    TextWriter w(out);
    w.write_marker_start();
    w.write_sequence_start(2);
    w << 1;
    EXPECT_THROW(w.write_sequence_end(), zocore::ErrorException);  // popped, `)` not written
    EXPECT_THROW(w.close(), zocore::ErrorException);               // the marker is still open
    w.write_sequence_start();
    w.write_marker_end();  // closes the sequence on top without complaint
    w.write_marker_end();
    w.close();
    w.close();
  }
  EXPECT_EQ(out, "{(2+1(}}");
  {
    TextWriter w(out);
    w.write_marker_start();
  }  // the destructor's close fails and is swallowed; the text stays as written
  EXPECT_EQ(out, "{(2+1(}}{");
  std::string never;
  TextWriter null_target{InterfacePtr<TextWriter::ITextTarget>()};
  ZO_EXPECT_ERROR(null_target.write_null(), error::zoserialize_writer_closed,
                  "TextWriter has already been closed");
}

// A hint too large to be written is still checked.
TEST(TextWriterTest, UnwrittenHintIsChecked) {
  class Discard final : public zocore::RefCounted<zocore::AtomicRefCount>,
                        public TextWriter::ITextTarget {
   public:
    void put(char) override { ++count; }
    void write(char const*, unsigned length) override { count += length; }
    std::size_t count = 0;
  };
  auto target = make_ref_counted<Discard>();
  TextWriter w{InterfacePtr<TextWriter::ITextTarget>(target)};
  w.write_sequence_start(10000000);
  w.write_null();
  for (int i = 1; i < 10000000; ++i)
    w.write_sequence_separator();
  w.flush();
  EXPECT_EQ(target->count, 1u + 1u + 9999999u);
  ZO_EXPECT_ERROR(w.write_sequence_separator(), error::zoserialize_writer_sequence_element_count,
                  "Attempt to add more sequence elements than the count hint indicated.  "
                  "CountHint={@countHint}");
}

// Once the target or a source has failed, the text cannot be read back: every later operation is
// refused, close() included. A source that fails before anything of its element was written
// leaves no trace.
TEST(TextWriterTest, ForeignFailureLeavesTheWriterFailed) {
  constexpr char kIncomplete[] =
      "Writer output is incomplete: its output stream or a source failed in the middle of an "
      "element, so nothing more can be written";
  // Each way text reaches the target: flush(), close(), a full buffer, a run too large for it.
  std::string const big(5000, 'a');
  std::vector<WriteFn> const failing = {
      [](Writer& w) { w.flush(); },
      [](Writer& w) { w.close(); },
      [&](Writer& w) { w << big; },
      [&](Writer& w) { w.write_binary()->write(big.data(), 5000); },
      [&](Writer& w) { w.write_string_stream()->write(big.data(), 5000); },
  };
  for (WriteFn const& fn : failing) {
    auto target = make_ref_counted<RecordingTarget>();
    target->fail_at = 0;
    TextWriter w{InterfacePtr<TextWriter::ITextTarget>(target)};
    w.write_null();
    try {
      fn(w);
      ADD_FAILURE() << "the target did not fail";
    } catch (std::runtime_error const&) {
    }
    ZO_EXPECT_ERROR(w.write_null(), error::zoserialize_writer_state, kIncomplete);
    ZO_EXPECT_ERROR(w.close(), error::zoserialize_writer_state, kIncomplete);
  }
  for (std::size_t fail_at : {0u, 1u}) {
    std::string out;
    TextWriter w(out);
    std::string const data(5000, 'x');
    auto source = make_ref_counted<zotest::ByteSource>(data);
    source->fail_at_call(fail_at);
    EXPECT_THROW(w.write_binary(*source), zocore::ErrorException);
    if (fail_at == 0) {
      w.write_null();
      w.close();
      EXPECT_EQ(out, "Z");
    } else {
      ZO_EXPECT_ERROR(w.write_null(), error::zoserialize_writer_state, kIncomplete);
    }
  }
}

}  // namespace
