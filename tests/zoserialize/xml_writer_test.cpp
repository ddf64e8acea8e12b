#include <bit>
#include <functional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <support/golden.h>
#include <support/script.h>
#include <support/test_streams.h>
#include <support/xml_golden.h>
#include <zocore/memory_stream.h>
#include <zocore/ref_count_ptr.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/xml_reader.h>
#include <zoserialize/xml_writer.h>

namespace {

namespace error = zoserialize::error;
using zocore::make_ref_counted;
using zoserialize::InterfacePtr;
using zoserialize::IReadStream;
using zoserialize::IWriteStream;
using zoserialize::Writer;
using zoserialize::XmlReader;
using zoserialize::XmlWriter;
using WriteFn = std::function<void(Writer&)>;

struct Layout {
  char const* unit;
  char const* prefix;
};

std::string xml_of(WriteFn const& fn, Layout layout = {"", ""}) {
  std::ostringstream os;
  {
    XmlWriter w(os, layout.unit, layout.prefix);
    fn(w);
    w.close();
  }
  return os.str();
}

// The document without the white space between its tags (CDATA sections kept as they are): what
// the writer makes with both layout strings empty. No value of the writer's is white space only.
std::string without_layout(std::string const& doc) {
  std::string out;
  for (std::size_t i = 0; i < doc.size();) {
    if (doc.compare(i, 9, "<![CDATA[") == 0) {
      std::size_t const end = doc.find("]]>", i) + 3;
      out.append(doc, i, end - i);
      i = end;
      continue;
    }
    std::size_t const run = doc.find_first_not_of(" \t\r\n", i);
    if (run != i && !out.empty() && out.back() == '>' && run < doc.size() && doc[run] == '<') {
      i = run;
      continue;
    }
    out += doc[i++];
  }
  return out;
}

// The worked example: a sequence of an int and a string, then a boolean.
void worked_example(Writer& w) {
  w.write_sequence_start(2);
  w.write_int(5);
  w.write_sequence_separator();
  w.write_string("a<b");
  w.write_sequence_end();
  w.write_bool(true);
}

// Without layout the worked example is the golden row Xml_WorkedExample.
TEST(XmlWriterTest, WorkedExampleUnderEveryLayout) {
  std::string const root = zotest::kXmlRoot;
  struct Case {
    Layout layout;
    std::string doc;
  };
  Case const cases[] = {
      {{"  ", "\n"},
       root + "\n  <Sequence count=\"2\">\n    <Item>\n      <Int>5</Int>\n    </Item>\n    <Item>"
              "\n      <String>a&lt;b</String>\n    </Item>\n  </Sequence>\n  <Bool>true</Bool>"
              "\n</Serialized>"},
      {{nullptr, nullptr},
       root + "<Sequence count=\"2\"><Item><Int>5</Int></Item><Item><String>a&lt;b</String></Item>"
              "</Sequence><Bool>true</Bool></Serialized>"},
      {{". ", "\r\n//"},
       root + "\r\n//. <Sequence count=\"2\">\r\n//. . <Item>\r\n//. . . <Int>5</Int>\r\n//. . "
              "</Item>\r\n//. . <Item>\r\n//. . . <String>a&lt;b</String>\r\n//. . </Item>\r\n//. "
              "</Sequence>\r\n//. <Bool>true</Bool>\r\n//</Serialized>"},
      // A prefix alone starts every line without indentation; a unit alone indents one line.
      {{"", "\n"},
       root + "\n<Sequence count=\"2\">\n<Item>\n<Int>5</Int>\n</Item>\n<Item>\n<String>a&lt;b"
              "</String>\n</Item>\n</Sequence>\n<Bool>true</Bool>\n</Serialized>"},
      {{" ", ""},
       root + " <Sequence count=\"2\">  <Item>   <Int>5</Int>  </Item>  <Item>   <String>a&lt;b"
              "</String>  </Item> </Sequence> <Bool>true</Bool></Serialized>"},
  };
  for (Case const& c : cases) {
    EXPECT_EQ(xml_of(worked_example, c.layout), c.doc);
  }
}

// Sequences and markers nested far deeper than the layout text is long at first; empty scopes
// and elements that wrote nothing.
TEST(XmlWriterTest, LayoutFollowsTheDepth) {
  auto const line = [](int depth, std::string const& tag) {
    return "\n>" + std::string(2 * static_cast<std::size_t>(depth), ' ') + tag;
  };
  std::string want = zotest::kXmlRoot;
  std::string const doc = xml_of(
      [](Writer& w) {
        for (int i = 0; i < 12; ++i)
          w.write_marker_start();
        w.write_sequence_start();
        w.write_sequence_end();
        w.write_sequence_start(3);
        w.write_sequence_separator();
        w.write_null();
        w.write_sequence_separator();
        w.write_sequence_end();
        for (int i = 0; i < 12; ++i)
          w.write_marker_end();
      },
      {"  ", "\n>"});
  for (int i = 0; i < 12; ++i)
    want += line(i + 1, "<Marker>");
  want += line(13, "<Sequence>") + line(13, "</Sequence>") + line(13, "<Sequence count=\"3\">") +
          line(14, "<Item/>") + line(14, "<Item>") + line(15, "<Null/>") + line(14, "</Item>") +
          line(14, "<Item/>") + line(13, "</Sequence>");
  for (int i = 12; i > 0; --i)
    want += line(i, "</Marker>");
  want += line(0, "</Serialized>");
  EXPECT_EQ(doc, want);
}

// Every golden row under other layouts: only white space between tags differs from the column's
// document, and the reader reads it back.
TEST(XmlWriterTest, GoldenRowsUnderEveryLayout) {
  constexpr Layout kLayouts[] = {{"  ", "\n"}, {"\t", "\n"}, {"  ", "\r\n "}, {" ", ""}};
  for (zotest::GoldenRow const& row : zotest::golden_rows()) {
    auto const* rendering = zotest::xml_column().find(row.name);
    if (rendering == nullptr || rendering->bytes.size() > 200000) continue;
    SCOPED_TRACE(row.name);
    for (Layout const& layout : kLayouts) {
      std::string const doc =
          xml_of([&](Writer& w) { zotest::write_script(w, row.script); }, layout);
      EXPECT_EQ(without_layout(doc), rendering->bytes);
      XmlReader reader(InterfacePtr<IReadStream>(make_ref_counted<zocore::MemoryReadStream>(doc)),
                       7);
      zotest::read_script(reader, row.script);
      EXPECT_TRUE(reader.is_eof());
    }
  }
}

// printf's "%.18E" shortened, for doubles of every magnitude; and they read back exactly.
TEST(XmlWriterTest, DoublesMatchPrintfAndReadBack) {
  std::mt19937_64 rng(7);
  std::vector<double> values = {
      0.0, -0.0, 1.0, 0.001, 123.5, 1e300, -1e-300, 5e-324, 1.7976931348623157e308};
  for (int i = 0; i < 20000; ++i) {
    double const v = std::bit_cast<double>(rng());
    if (v == v && v - v == 0) values.push_back(v);
    values.push_back(static_cast<double>(rng() >> 11) * 0x1p-53 * 2000.0 - 1000.0);
  }
  std::string const doc = xml_of([&](Writer& w) {
    for (double v : values)
      w << v;
  });
  std::string want;
  for (double v : values)
    want += "<Double>" + zotest::xml_double_text(v) + "</Double>";
  EXPECT_EQ(doc, zotest::xml_document(want));
  XmlReader reader(InterfacePtr<IReadStream>(make_ref_counted<zocore::MemoryReadStream>(doc)));
  for (double v : values)
    ASSERT_EQ(std::bit_cast<std::uint64_t>(reader.read_double()), std::bit_cast<std::uint64_t>(v));
}

// What a value stream gathers decides the form: fewer than 4095 bytes take the string rule.
TEST(XmlWriterTest, StreamedStringsTakeBase64OnlyWhenTheyFillTheBuffer) {
  for (std::size_t n : {4094u, 4095u}) {
    std::string const text(n, 'a');
    std::string const doc = xml_of([&](Writer& w) {
      InterfacePtr<IWriteStream> const s = w.write_string_stream();
      s->write(text.data(), static_cast<unsigned>(n));
    });
    EXPECT_EQ(doc.find(n == 4094 ? "<String><![CDATA[" : "<String encoding=\"base64\">"),
              std::string(zotest::kXmlRoot).size());
  }
  // A stream that is not released is finished by close(), before the root's end tag.
  std::string const doc = xml_of([](Writer& w) { w.write_binary()->write("hi", 2); });
  EXPECT_EQ(doc, zotest::xml_document("<Binary encoding=\"base64\">aGk=</Binary>"));
}

TEST(XmlWriterTest, ValueStreamsEndWithTheNextOperation) {
  std::ostringstream os;
  XmlWriter w(os);
  InterfacePtr<IWriteStream> const binary = w.write_binary();
  binary->write("hi", 2);
  EXPECT_EQ(os.str(), std::string(zotest::kXmlRoot) + "<Binary encoding=\"base64\">");
  w.flush();
  InterfacePtr<IWriteStream> const string = w.write_string_stream();
  string->write("x", 1);
  string->close();
  InterfacePtr<IWriteStream> const next = w.write_string_stream();
  w.write_null();
  EXPECT_EQ(os.str(), std::string(zotest::kXmlRoot) +
                          "<Binary encoding=\"base64\">aGk=</Binary><String>x</String><String/>"
                          "<Null/>");
  for (auto const* stream : {&binary, &string, &next}) {
    auto const info = ZO_EXPECT_ERROR((*stream)->write("y", 1), error::zoserialize_writer_state,
                                      "Binary stream writer object has already been closed");
    if (info) {
      EXPECT_EQ(info->location().function().view(),
                stream == &binary ? "zoserialize::XmlWriter::BinaryStreamImpl::write()"
                                  : "zoserialize::XmlWriter::StringStreamImpl::write()");
    }
  }
}

struct FailureCase {
  WriteFn run;
  zocore::ErrorCode const* code;
  char const* message;
  char const* function;
  std::vector<std::pair<char const*, char const*>> params = {};
  char const* written = "";  // what the document holds after the root start tag
};

TEST(XmlWriterTest, FailuresReportCodeMessageAndParameters) {
  auto const script = [](char const* text) {
    return [text](Writer& w) { zotest::write_script(w, zotest::parse_script(text)); };
  };
  std::vector<FailureCase> const cases = {
      {script("["),
       &error::zoserialize_writer_sequence_nesting,
       "Attempt to close writer but there are sequences and/or markers that are still open",
       "close",
       {},
       "<Sequence>"},
      {script("{ ,"),
       &error::zoserialize_writer_sequence_nesting,
       "Attempt to add sequence separator and no sequence is open at top of stack",
       "write_sequence_separator",
       {},
       "<Marker>"},
      {script("[ { ]"),
       &error::zoserialize_writer_sequence_nesting,
       "Attempt to close sequence and no sequence is open or on top of stack",
       "write_sequence_end",
       {},
       "<Sequence><Item><Marker>"},
      {script("}"), &error::zoserialize_writer_sequence_nesting,
       "Attempt to close marker and no marker is open or on top of stack", "write_marker_end"},
      // The second separator fails before anything is written.
      {script("[2 n , n ,"),
       &error::zoserialize_writer_sequence_element_count,
       "Attempt to add more sequence elements than the count hint indicated.  "
       "CountHint={@countHint}",
       "write_sequence_separator",
       {{"countHint", "2"}},
       "<Sequence count=\"2\"><Item><Null/></Item><Item><Null/>"},
      {script("[3 n , ]"),
       &error::zoserialize_writer_sequence_element_count,
       "Number of elements added to sequence does not match count hint.  "
       "CountHint={@countHint}, Added={@elementCount}",
       "write_sequence_end",
       {{"countHint", "3"}, {"elementCount", "2"}},
       "<Sequence count=\"3\"><Item><Null/></Item>"},
  };
  for (FailureCase const& c : cases) {
    std::ostringstream os;
    XmlWriter w(os);
    auto const info = ZO_EXPECT_ERROR(
        {
          c.run(w);
          w.close();
        },
        *c.code, c.message);
    EXPECT_EQ(os.str(), zotest::kXmlRoot + std::string(c.written));
    if (!info) continue;
    EXPECT_EQ(info->location().function().view(),
              "zoserialize::XmlWriter::" + std::string(c.function) + "()");
    EXPECT_EQ(info->params().size(), c.params.size());
    for (auto const& [name, value] : c.params)
      EXPECT_EQ(zotest::param(info, name), value) << name;
  }
}

// A hint of 2 with one separator closes fine; a marker end closes a sequence on top, with the
// marker's end tag (kept so on purpose); writing after close() is not refused.
TEST(XmlWriterTest, OwnFailuresLeaveTheWriterUsable) {
  std::ostringstream os;
  {
    XmlWriter w(os);
    w.write_sequence_start(2);
    w.write_null();
    w.write_sequence_separator();
    w.write_null();
    w.write_sequence_end();
    w.write_marker_start();
    w.write_sequence_start(2);
    EXPECT_THROW(w.write_sequence_end(), zocore::ErrorException);  // popped, nothing written
    EXPECT_THROW(w.close(), zocore::ErrorException);               // the marker is still open
    w.write_sequence_start();
    w.write_marker_end();
    w.write_marker_end();
    w.close();
    w.close();
    w.write_null();
  }
  EXPECT_EQ(os.str(), zotest::xml_document("<Sequence count=\"2\"><Item><Null/></Item><Item><Null/>"
                                           "</Item></Sequence><Marker><Sequence count=\"2\">"
                                           "<Sequence></Marker></Marker>") +
                          "<Null/>");
  std::ostringstream left_open;
  {
    XmlWriter w(left_open);
    w.write_marker_start();
  }  // the destructor's close fails and is swallowed
  EXPECT_EQ(left_open.str(), zotest::kXmlRoot + std::string("<Marker>"));
}

// A stream buffer that takes `room` characters, then takes fewer than offered or throws.
class FailingBuf final : public std::streambuf {
 public:
  FailingBuf(std::size_t room, bool throws) : room_(room), throws_(throws) {}
  std::string text;

 protected:
  std::streamsize xsputn(char const* s, std::streamsize n) override {
    auto const take = std::min<std::size_t>(room_, static_cast<std::size_t>(n));
    text.append(s, take);
    room_ -= take;
    if (take < static_cast<std::size_t>(n) && throws_) throw std::runtime_error("disk full");
    return static_cast<std::streamsize>(take);
  }
  int_type overflow(int_type) override { return traits_type::eof(); }

 private:
  std::size_t room_;
  bool throws_;
};

constexpr char kIncomplete[] =
    "Writer output is incomplete: its output stream or a source failed in the middle of an "
    "element, so nothing more can be written";

// The output is handled as std::ostream::write handles it. An exception that reaches the caller
// leaves the writer failed; a stream that does not throw just goes bad.
TEST(XmlWriterTest, OutputFailuresFollowTheStreamsExceptionMask) {
  std::string const big(5000, 'a');
  std::vector<WriteFn> const failing = {
      [](Writer& w) { w.write_null(); },
      [](Writer& w) { w.close(); },
      [&](Writer& w) { w << big; },
      [&](Writer& w) { w.write_binary()->write(big.data(), 5000); },
      [&](Writer& w) { w.write_string_stream()->write(big.data(), 5000); },
  };
  std::size_t const room = std::string(zotest::kXmlRoot).size() + 3;
  for (bool throws : {false, true}) {
    for (WriteFn const& fn : failing) {
      SCOPED_TRACE(throws);
      FailingBuf buf(room, throws);
      std::ostream os(&buf);
      os.exceptions(std::ios::badbit);
      XmlWriter w(os);
      if (throws) {
        EXPECT_THROW(fn(w), std::runtime_error);
      } else {
        EXPECT_THROW(fn(w), std::ios_base::failure);
      }
      EXPECT_TRUE(os.bad());
      ZO_EXPECT_ERROR(w.write_null(), error::zoserialize_writer_state, kIncomplete);
      auto const info = ZO_EXPECT_ERROR(w.close(), error::zoserialize_writer_state, kIncomplete);
      if (info) {
        EXPECT_EQ(info->location().function().view(), "zoserialize::XmlWriter::close()");
      }
    }
  }
  // Without exceptions the ostream goes bad and later text is dropped, as ostream::write drops it.
  FailingBuf buf(room, true);
  std::ostream os(&buf);
  XmlWriter w(os);
  w.write_null();
  EXPECT_TRUE(os.bad());
  w.write_null();
  w.close();
  EXPECT_EQ(buf.text, zotest::kXmlRoot + std::string("<Nu"));
}

// A source that fails before anything of its element was written leaves no trace; one that
// fails later leaves the writer failed.
TEST(XmlWriterTest, SourceFailures) {
  for (bool binary : {true, false}) {
    for (std::size_t fail_at : {0u, 1u}) {
      std::ostringstream os;
      XmlWriter w(os);
      w.write_sequence_start();
      auto source = make_ref_counted<zotest::ByteSource>(std::string(10000, 'x'));
      source->fail_at_call(fail_at);
      EXPECT_THROW(binary ? w.write_binary(*source) : w.write_string_stream(*source),
                   zocore::ErrorException);
      if (fail_at == 0) {
        w.write_null();
        w.write_sequence_end();
        w.close();
        EXPECT_EQ(os.str(), zotest::xml_document("<Sequence><Item><Null/></Item></Sequence>"));
      } else {
        ZO_EXPECT_ERROR(w.write_null(), error::zoserialize_writer_state, kIncomplete);
      }
    }
  }
}

}  // namespace
