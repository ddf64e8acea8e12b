#include "detect.h"

#include <string>

#include <gtest/gtest.h>

#include <zocore/memory_stream.h>
#include <zoserialize/binary_writer.h>
#include <zoserialize/text_writer.h>

#include "sample.h"
#include "tool.h"

namespace zoser {
namespace {

using EBasis = Detection::EBasis;

std::string sample_in(char const* format, std::uint64_t payload) {
  SampleOptions options;
  options.payload_size = payload;
  std::string text;
  if (std::string(format) == "text") {
    zoserialize::TextWriter w(text);
    write_sample(w, options);
    w.close();
    return text;
  }
  auto sink = zocore::make_ref_counted<zocore::StringWriteStream>();
  zoserialize::BinaryWriter w{zocore::InterfacePtr<zocore::IWriteStream>(sink)};
  write_sample(w, options);
  w.close();
  return sink->str();
}

TEST(DetectTest, ContentThenExtensionThenBinary) {
  std::string const text = sample_in("text", 100);
  std::string const binary = sample_in("binary", 100);
  struct Row {
    std::string block;
    char const* path;
    char const* format;  // "" when ambiguous
    EBasis basis;
  } const rows[] = {
      {binary, "", "binary", EBasis::kContent},
      {binary, "x.zot", "binary", EBasis::kContent},  // content outranks the name
      {text, "", "text", EBasis::kContent},
      {"\n\r\n" + text, "", "text", EBasis::kContent},
      {"<Serialized/>", "", "xml", EBasis::kContent},
      {" \t\r\n<x", "", "xml", EBasis::kContent},
      {"\xEF\xBB\xBF<x", "x.zob", "xml", EBasis::kContent},
      {"PPP", "", "", EBasis::kAmbiguous},  // three infinite times, or three empty strings
      {"PPP", "a.zot", "text", EBasis::kExtension},
      {"PPP", "a.zob", "binary", EBasis::kExtension},
      {"PPP", "a.json", "", EBasis::kAmbiguous},
      {"Z", "", "text", EBasis::kContent},  // 0x5A needs a 4-byte length
      {std::string(1, '\0'), "", "binary", EBasis::kContent},
      {"", "", "binary", EBasis::kContent},           // nothing is text; empty is binary
      {"\xC3\x01", "", "binary", EBasis::kFallback},  // damaged: fits nothing
      {"\xC3\x01", "d.zot", "text", EBasis::kExtension},
      {"\xC3\x01", "d.json", "binary", EBasis::kFallback},  // json cannot be read
      {",Z", "", "binary", EBasis::kFallback},              // a separator starts no element
  };
  for (Row const& row : rows) {
    SCOPED_TRACE(row.block.substr(0, 20) + " " + row.path);
    Detection const d = detect_format(row.block, true, row.path);
    EXPECT_EQ(d.format ? std::string(d.format->name) : "", row.format);
    EXPECT_EQ(d.basis, row.basis);
  }
}

TEST(DetectTest, ACutBlockIsNotHeldAgainstItsFormat) {
  std::string const text = sample_in("text", 0);
  std::string const binary = sample_in("binary", 0);
  // Every cut of the text parses as text while more is to come, and none as a whole input
  // unless it ends at an element boundary; binary cuts likewise.
  for (std::size_t cut = 1; cut < text.size(); cut += 7) {
    SCOPED_TRACE(cut);
    EXPECT_TRUE(probe_text(std::string_view(text).substr(0, cut), false));
  }
  for (std::size_t cut = 1; cut < binary.size(); cut += 5) {
    SCOPED_TRACE(cut);
    EXPECT_TRUE(probe_binary(std::string_view(binary).substr(0, cut), false));
  }
  std::string const long_text = sample_in("text", 100);
  std::string const long_binary = sample_in("binary", 100);  // ends inside a 100-byte string
  EXPECT_FALSE(probe_text(std::string_view(long_text).substr(0, long_text.size() - 1), true));
  EXPECT_FALSE(probe_binary(std::string_view(long_binary).substr(0, long_binary.size() - 1), true));
  using namespace std::string_view_literals;
  EXPECT_FALSE(probe_text("Z\x01Z"sv, false));  // an error before the end still counts
  EXPECT_FALSE(probe_binary("\x00\xC3\x00"sv, false));
}

TEST(DetectTest, ToolAsksForAFormatWhenAmbiguous) {
  zotest::TempDir dir;
  dir.write("amb", "PPP");
  zotest::ToolResult r = zotest::run_zoser({"validate", dir.file("amb")});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "zoser: " + dir.file("amb") +
                       ": Cannot tell the format of the input: it reads as binary or text; give "
                       "-f FORMAT [error.zoser.format.ambiguous]\n");
  r = zotest::run_zoser({"validate", "-f", "binary", "-"}, "PPP");
  EXPECT_EQ(r.out, "-: OK (binary, 3 elements, 3 B)\n");
}

TEST(DetectTest, DetectionConsumesNothingOfAPipe) {
  zotest::TempDir dir;
  dir.write("s.zot", sample_in("text", 200'000));  // more than the 64 KiB looked at
  zotest::ToolResult const r = zotest::run_shell(
      "cat s.zot | \"$ZOSER\" convert -t binary | \"$ZOSER\" compare - s.zot", dir.path());
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "- and s.zot are equal\n");
}

}  // namespace
}  // namespace zoser
