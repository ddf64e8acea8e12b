// zoser hash, end to end: one digest per data whatever its format, a new one for any change.
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "formats.h"
#include "tool.h"

namespace zoser {
namespace {

using zotest::run_zoser;

constexpr char kBase[] =
    "{\"t\"T20240517P1.5K0123456789abcdef0123456789abcdef[AAE]}(2+1,U2)ZYR3ff8I1000000000000000000";

std::string digest_of(zotest::ToolResult const& r) {
  return r.out.substr(0, r.out.find(' '));
}

TEST(HashTest, SameDataSameDigestInEveryFormat) {
  zotest::TempDir dir;
  ASSERT_EQ(run_zoser({"sample", "--payload-size", "70000", dir.file("s.zob")}).status, 0);
  zotest::ToolResult const base = run_zoser({"hash", dir.file("s.zob")});
  ASSERT_EQ(base.status, 0) << base.err;
  std::string const digest = digest_of(base);
  std::vector<std::string> args{"hash"};
  for (Format const& f : formats()) {
    if (!f.readable || !f.missing.empty()) continue;
    std::string const name = dir.file("c" + std::string(f.extension));
    ASSERT_EQ(run_zoser({"convert", dir.file("s.zob"), name}).status, 0) << f.name;
    args.push_back(name);
  }
  args.emplace_back("-");  // standard input, detected
  zotest::ToolResult const all = run_zoser(args, dir.read("s.zob"));
  ASSERT_EQ(all.status, 0) << all.err;
  std::string expected;
  for (std::size_t i = 1; i < args.size(); ++i)
    expected += digest + "  " + args[i] + "\n";
  EXPECT_EQ(all.out, expected);
}

TEST(HashTest, AnySingleElementChangeChangesTheDigest) {
  std::string const base = kBase;
  // Each row changes one element of kBase, or its nesting: `from` replaced by `to`.
  struct Row {
    char const* from;
    char const* to;
  } const rows[] = {
      {"\"t\"", "\"u\""},
      {"0517", "0518"},
      {"P1.5", "P2.5"},
      {"K0", "K1"},
      {"[AAE]", "[AAI]"},
      {"+1,", "+2,"},
      {"U2", "+2"},
      {")Z", ")N"},
      {"ZY", "ZN"},
      {"3ff8", "3ff0"},
      {"000000000000000000", "000000000000000001"},
      {",U2)", ",(U2))"},
      {"[AAE]}", "}[AAE]"},
      {"R3ff8I1000000000000000000", "R3ff8"},
  };
  std::vector<std::string> changed;
  for (Row const& row : rows) {
    std::string doc = base;
    ASSERT_NE(doc.find(row.from), std::string::npos) << row.from;
    changed.push_back(doc.replace(doc.find(row.from), std::string(row.from).size(), row.to));
  }
  std::set<std::string> seen{digest_of(run_zoser({"hash", "-f", "text"}, base))};
  EXPECT_EQ(seen.begin()->size(), 64u);
  for (std::string const& doc : changed) {
    zotest::ToolResult const r = run_zoser({"hash", "-f", "text"}, doc);
    ASSERT_EQ(r.status, 0) << doc << ": " << r.err;
    EXPECT_TRUE(seen.insert(digest_of(r)).second) << doc;
  }
  // The hint of a sequence's count is not data.
  std::string unhinted = base;
  unhinted.replace(unhinted.find("(2+1"), 4, "(+1");
  EXPECT_EQ(seen.count(digest_of(run_zoser({"hash", "-f", "text"}, unhinted))), 1u);
}

TEST(HashTest, AlgorithmsAndFailures) {
  zotest::TempDir dir;
  dir.write("a.zot", kBase);
  zotest::ToolResult const sha512 = run_zoser({"hash", "-a", "SHA-512", dir.file("a.zot")});
  EXPECT_EQ(sha512.status, 0);
  EXPECT_EQ(digest_of(sha512).size(), 128u);
  zotest::ToolResult const unknown = run_zoser({"hash", "-a", "nope", dir.file("a.zot")});
  EXPECT_EQ(unknown.status, 2);
  EXPECT_EQ(unknown.out, "");  // refused before any input is read
  EXPECT_EQ(unknown.err,
            "zoser: Unknown digest algorithm.  Name=nope [error.zodigest.algorithm]\n");

  // A failing input does not stop the others; the status tells.
  dir.write("bad.zot", "{+1");
  zotest::ToolResult const mixed = run_zoser(
      {"hash", "-f", "text", dir.file("missing.zot"), dir.file("bad.zot"), dir.file("a.zot")});
  EXPECT_EQ(mixed.status, 2);
  EXPECT_EQ(mixed.out, run_zoser({"hash", dir.file("a.zot")}).out);
  EXPECT_EQ(mixed.err, "zoser: " + dir.file("missing.zot") + ": Cannot open file '" +
                           dir.file("missing.zot") +
                           "' for reading [error.zocore.errno]; caused by: System error 2: No "
                           "such file or directory [error.zocore.errno]\nzoser: " +
                           dir.file("bad.zot") +
                           ": line 1, column 4: Unexpected end of data, expecting token "
                           "[error.zoserialize.reader.eof]\n");
}

}  // namespace
}  // namespace zoser
