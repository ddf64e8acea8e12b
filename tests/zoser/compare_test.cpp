#include "compare.h"

#include <string>

#include <gtest/gtest.h>

#include <support/error_matchers.h>
#include <zoserialize/error_codes.h>
#include <zoserialize/text_reader.h>

#include "tool.h"

namespace zoser {
namespace {

std::string compare_texts(std::string const& a, std::string const& b) {
  zoserialize::TextReader ra(&a);
  zoserialize::TextReader rb(&b);
  return Comparison(ra, rb).run().value_or("equal");
}

TEST(CompareTest, FindsTheFirstDifferenceAndItsPath) {
  std::string const long_a(70'000, 'a');
  std::string const long_b = long_a.substr(0, 65'600) + "b" + long_a.substr(65'601);
  struct Row {
    std::string a;
    std::string b;
    std::string result;
  } const rows[] = {
      {"", "", "equal"},
      {"{+1(2+1,+2)}R8", "{+1(+1,+2)}R8", "equal"},  // count hints are not compared
      {"R7ff8", "R7ff1", "equal"},                   // every NaN alike
      {"ZZ{+1+2+3+5}", "ZZ{+1+2+3+6}", "/2/marker/3: SignedInteger 5 != SignedInteger 6"},
      {"(+1,(+2,+3))", "(+1,(+2,+4))",
       "/0/sequence/1/sequence/1: SignedInteger 3 != SignedInteger 4"},
      {"(+1+2,+3)", "(+1+7,+3)", "/0/sequence/0.1: SignedInteger 2 != SignedInteger 7"},
      {"(+1+2)", "(+1)", "/0/sequence/0.1: SignedInteger 2 != SequenceEnd"},
      {"(+1,+2)", "(+1)", "/0/sequence/1: SignedInteger 2 != SequenceEnd"},
      {"{+1}", "{+1+2}", "/0/marker/1: MarkerEnd != SignedInteger 2"},
      {"+1", "+1Z", "/1: EOF != Null"},
      {"U5", "+5", "/0: UnsignedInteger 5 != SignedInteger 5"},
      {"R", "R8", "/0: Double 0 != Double -0"},
      {"Y", "N", "/0: Boolean true != Boolean false"},
      {"I1000000000000000000", "I1000000000000000001",
       "/0: SignedInteger 4722366482869645213696 != SignedInteger 4722366482869645213697"},
      {"\"ab\"", "\"a~22\"", "/0: String \"ab\" != String \"a\\\"\""},
      {"\"ab\"", "[YWI]", "/0: String \"ab\" != Binary 6162"},
      {"[YWI]", "[YWM]", "/0: Binary 6162 != Binary 6163"},
      {"\"" + long_a + "\"", "\"" + long_b + "\"",
       "/0: String (70000 bytes) != String (70000 bytes), first difference at byte 65600"},
      {"\"" + long_a + "\"", "\"" + long_a + "a\"",
       "/0: String (70000 bytes) != String (70001 bytes), first difference at byte 70000"},
      {"\"ab\"", "\"" + long_a + "\"",
       "/0: String \"ab\" != String (70000 bytes), first difference at byte 1"},
      {"T20180305", "T2018030512",
       "/0: AbsoluteTime 2018-03-05 00:00:00 != AbsoluteTime "
       "2018-03-05 12:00:00"},
      {"T", "P", "/0: AbsoluteTime inf != RelativeTime inf"},
      {"P1.5", "Q1.5", "/0: RelativeTime 1.5s != RelativeTime -1.5s"},
      {"K", "K00000000000000000000000000000001",
       "/0: Uuid 00000000-0000-0000-0000-000000000000 != Uuid "
       "00000000-0000-0000-0000-000000000001"},
      {"{Z}", "(Z)", "/0: MarkerStart != SequenceStart"},
  };
  for (Row const& row : rows) {
    EXPECT_EQ(compare_texts(row.a, row.b), row.result) << row.a.substr(0, 30);
  }
}

TEST(CompareTest, ReaderFailuresSayWhichSide) {
  std::string const a = "{+1}";
  std::string const b = "{+1";
  zoserialize::TextReader ra(&a);
  zoserialize::TextReader rb(&b);
  Comparison c(ra, rb);
  ZO_EXPECT_ERROR(c.run(), zoserialize::error::zoserialize_reader_eof,
                  "Unexpected end of data, expecting token");
  EXPECT_EQ(c.failing_side(), 1);
  std::string const stray = ")";
  zoserialize::TextReader rs(&stray);
  zoserialize::TextReader rs2(&stray);
  ZO_EXPECT_ERROR(Comparison(rs, rs2).run(),
                  zoserialize::error::zoserialize_reader_sequence_nesting,
                  "Dangling sequence that was not opened in this method");
}

TEST(CompareTest, ToolAcrossFormatsAndExitStatus) {
  zotest::TempDir dir;
  dir.write("a.zot", "ZZ{+1+2+3+5}");
  dir.write("b.zot", "ZZ{+1+2+3+6}");
  dir.write("c.zot", "ZZ{+1+2+3");
  ASSERT_EQ(zotest::run_zoser({"convert", dir.file("a.zot"), dir.file("a.zob")}).status, 0);
  zotest::ToolResult r = zotest::run_zoser({"compare", dir.file("a.zob"), dir.file("a.zot")});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, dir.file("a.zob") + " and " + dir.file("a.zot") + " are equal\n");
  r = zotest::run_zoser({"compare", dir.file("a.zob"), "-"}, "ZZ{+1+2+3+6}");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "/2/marker/3: SignedInteger 5 != SignedInteger 6\n");
  r = zotest::run_zoser({"compare", "-q", dir.file("a.zot"), dir.file("b.zot")});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  r = zotest::run_zoser({"compare", dir.file("a.zot"), dir.file("c.zot")});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "zoser: " + dir.file("c.zot") +
                       ": line 1, column 10: Unexpected end of data, expecting token "
                       "[error.zoserialize.reader.eof]\n");
  r = zotest::run_zoser({"compare", dir.file("a.zot"), dir.file("missing.zot")});
  EXPECT_EQ(r.status, 2);
  EXPECT_TRUE(r.err.starts_with("zoser: " + dir.file("missing.zot") + ": Cannot open file"));
}

}  // namespace
}  // namespace zoser
