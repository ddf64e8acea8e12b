// zoser convert, end to end: formats, options, pipes, errors and the atomic-output rule.
#include <chrono>
#include <sstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <rapidjson/document.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <zoserialize/text_writer.h>
#include <zoserialize/xml_writer.h>

#include "tool.h"

namespace zoser {
namespace {

using zotest::run_shell;
using zotest::run_zoser;
using zotest::TempDir;

TEST(ConvertTest, EveryWriterFromEveryReader) {
  TempDir dir;
  ASSERT_EQ(run_zoser({"sample", "--payload-size", "70000", dir.file("s.zob")}).status, 0);
  for (char const* from : {"zob", "zot", "xml"}) {
    for (char const* to : {"zob", "zot", "xml"}) {
      std::string const in = dir.file(std::string("s.") + from);
      std::string const out = dir.file(std::string("c.") + to);
      zotest::ToolResult const r = run_zoser({"convert", in, out});
      ASSERT_EQ(r.status, 0) << r.err;
      EXPECT_EQ(r.out + r.err, "");
      zotest::ToolResult const same = run_zoser({"compare", dir.file("s.zob"), out});
      EXPECT_EQ(same.status, 0) << from << " -> " << to << ": " << same.out;
      if (std::string(to) != "zob") {  // the input of the next rounds
        ASSERT_EQ(run_zoser({"convert", out, dir.file(std::string("s.") + to)}).status, 0);
      }
    }
  }
  // Write-only renderings.
  zotest::ToolResult const json = run_zoser({"convert", dir.file("s.zot"), dir.file("s.json")});
  ASSERT_EQ(json.status, 0) << json.err;
  rapidjson::Document doc;
  doc.Parse(dir.read("s.json").c_str());
  ASSERT_FALSE(doc.HasParseError());
  ASSERT_TRUE(doc.IsArray());
  EXPECT_EQ(doc.Size(), 4u);  // header, records, binary, string
  EXPECT_EQ(std::string(doc[0]["marker"][0].GetString()), "zoser sample catalogue");
  EXPECT_EQ(doc[3].GetStringLength(), 70000u);
  zotest::ToolResult const trace = run_zoser({"convert", "-t", "trace", dir.file("s.zob")});
  EXPECT_EQ(trace.status, 0);
  EXPECT_TRUE(trace.out.starts_with("Marker{\n  String[22]: \"zoser sample catalogue\"\n"));
}

TEST(ConvertTest, StandardStreamsAndPipes) {
  TempDir dir;
  std::string const doc = "{(2+5,\"a b\")}R3ff";
  zotest::ToolResult r = run_zoser({"convert", "-t", "binary"}, doc);
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, std::string("\xB0\xA2\x24\x05\xAE\x53\x61\x20\x62\xAF\xBF\x41", 12));
  r = run_zoser({"convert", "-", "-", "-f", "binary"}, r.out);  // standard output gets text
  EXPECT_EQ(r.out, doc + "\n");
  r = run_shell("printf '" + doc +
                    "' | \"$ZOSER\" convert -t binary | \"$ZOSER\" convert - x.zot"
                    " && cat x.zot",
                dir.path());
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, doc + "\n");
}

TEST(ConvertTest, TextOptionsReachTheWriter) {
  std::string const doc = "{\"  spaced ~7e \xC3\xA9 text that wraps \"+123456}";
  struct Row {
    std::vector<std::string> options;
    zoserialize::TextWriter::Options text;
  } const rows[] = {
      {{}, {}},
      {{"--ascii-only"}, zoserialize::TextWriter::Options().ascii_only(true)},
      {{"--escape-spaces"}, zoserialize::TextWriter::Options().escape_spaces(true)},
      {{"--line-width", "8"}, zoserialize::TextWriter::Options().line_width(8)},
      {{"--line-width=8", "--crlf", "--escape-spaces"},
       zoserialize::TextWriter::Options().line_width(8).line_separator_crlf(true).escape_spaces(
           true)},
  };
  for (Row const& row : rows) {
    std::string expected;
    {
      zoserialize::TextWriter w(expected, row.text);
      w.write_marker_start();
      w << "  spaced ~ \xC3\xA9 text that wraps " << 123456;
      w.write_marker_end();
      w.close();
    }
    std::vector<std::string> args{"convert", "-f", "text", "-t", "text"};
    args.insert(args.end(), row.options.begin(), row.options.end());
    zotest::ToolResult const r = run_zoser(args, doc);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, expected + "\n");
  }
}

TEST(ConvertTest, XmlOptionsReachTheWriter) {
  struct Row {
    std::vector<std::string> options;
    char const* indent;
    char const* line_prefix;
  } const rows[] = {
      {{}, "  ", "\n"},
      {{"--indent=4"}, "    ", "\n"},
      {{"--one-line"}, "", ""},
  };
  for (Row const& row : rows) {
    std::ostringstream expected;
    {
      zoserialize::XmlWriter w(expected, row.indent, row.line_prefix);
      w.write_marker_start();
      w << 5 << "a b";
      w.write_marker_end();
      w.close();
    }
    std::vector<std::string> args{"convert", "-f", "text", "-t", "xml"};
    args.insert(args.end(), row.options.begin(), row.options.end());
    zotest::ToolResult const r = run_zoser(args, "{+5\"a b\"}");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, expected.str() + "\n");
  }
}

TEST(ConvertTest, OptionsAndFormatsThatDoNotApply) {
  TempDir dir;
  struct Row {
    std::vector<std::string> args;
    std::string err;
  } const rows[] = {
      {{"convert", "-t", "binary", "--line-width", "8"},
       "zoser: Option '--line-width' does not apply to binary output [error.zoser.usage]\n"},
      {{"convert", "-t", "json", "--indent", "4"},
       "zoser: Option '--indent' does not apply to json output [error.zoser.usage]\n"},
      {{"convert", "-t", "text", "--one-line"},
       "zoser: Option '--one-line' does not apply to text output [error.zoser.usage]\n"},
      {{"convert", "-", dir.file("out.dat")},
       "zoser: Cannot tell the output format from the name '" + dir.file("out.dat") +
           "'; give -t FORMAT [error.zoser.format]\n"},
      {{"convert", "-t", "xml", "--one-line", "--indent", "2"},
       "zoser: Option '--indent' does not apply to --one-line [error.zoser.usage]\n"},
      {{"convert", "-t", "text", "--line-width", "x"},
       "zoser: Invalid value 'x' for option '--line-width': expected a whole number from 0 to "
       "1000000 [error.zoser.usage]\n"},
  };
  for (Row const& row : rows) {
    zotest::ToolResult const r = run_zoser(row.args, "Z");
    EXPECT_EQ(r.status, 2);
    EXPECT_TRUE(r.err.starts_with(row.err)) << r.err;
  }
  EXPECT_TRUE(dir.names().empty());  // nothing was created for the refused outputs
}

TEST(ConvertTest, FailuresNameTheirSideAndPlace) {
  TempDir dir;
  dir.write("bad.zot", "{+1\n\"ok\"\nT2018x}");
  zotest::ToolResult const r = run_zoser({"convert", dir.file("bad.zot"), dir.file("out.zob")});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "zoser: " + dir.file("bad.zot") +
                       ": line 3, column 6: Invalid absolute time.  Expected: "
                       "8digit[2digit[2digit[2digit[\".\"1*9digit]]]] "
                       "[error.zoserialize.reader.data.size]\n");
  EXPECT_EQ(dir.names(), std::vector<std::string>{"bad.zot"});
}

TEST(ConvertTest, AFailedConversionLeavesNoOutput) {
  TempDir dir;
  ASSERT_EQ(run_zoser({"sample", "--payload-size", "4000000", dir.file("s.zob")}).status, 0);
  std::string const whole = dir.read("s.zob");
  dir.write("cut.zob", whole.substr(0, whole.size() - 10));  // fails at the very end
  dir.write("out.zot", "previous");
  zotest::ToolResult const r = run_zoser({"convert", dir.file("cut.zob"), dir.file("out.zot")});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find(": byte " + std::to_string(whole.size() - 10) + ": "), std::string::npos)
      << r.err;
  EXPECT_EQ(dir.read("out.zot"), "previous");
  EXPECT_EQ(dir.names(), (std::vector<std::string>{"cut.zob", "out.zot", "s.zob"}));
}

// Starts a conversion in `dir` from a pipe, feeds it half of `input`, waits until the temporary
// output has grown, and stops the tool with `sig`; returns its status.
int interrupt_half_way(TempDir const& dir, std::string const& input, int sig) {
  zotest::Process p({"convert", "-f", "binary", "-", "out.zot"}, dir.path());
  EXPECT_TRUE(p.feed(input.substr(0, input.size() / 2)));
  for (int i = 0; i < 1000; ++i) {
    std::vector<std::string> const names = dir.names();
    struct stat st {};
    if (names.size() == 1 && ::stat(dir.file(names[0]).c_str(), &st) == 0 && st.st_size > 65536)
      break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::vector<std::string> const before = dir.names();
  EXPECT_EQ(before.size(), 1u);
  EXPECT_TRUE(!before.empty() && before[0].starts_with(".out.zot.zoser-"));
  p.signal(sig);
  return p.wait();
}

TEST(ConvertTest, AnInterruptedConversionLeavesNoOutput) {
  TempDir source;
  ASSERT_EQ(run_zoser({"sample", "--payload-size", "8000000", source.file("s.zob")}).status, 0);
  std::string const input = source.read("s.zob");
  for (int sig : {SIGTERM, SIGINT, SIGHUP}) {
    TempDir dir;
    EXPECT_EQ(interrupt_half_way(dir, input, sig), 128 + sig);
    EXPECT_TRUE(dir.names().empty());  // the temporary is removed too
  }
  // SIGKILL cannot be caught: the temporary stays, but nothing appears under the final name.
  TempDir dir;
  EXPECT_EQ(interrupt_half_way(dir, input, SIGKILL), 128 + SIGKILL);
  std::vector<std::string> const left = dir.names();
  ASSERT_EQ(left.size(), 1u);
  EXPECT_TRUE(left[0].starts_with(".out.zot.zoser-"));
}

}  // namespace
}  // namespace zoser
