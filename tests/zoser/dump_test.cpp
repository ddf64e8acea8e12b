// zoser dump, end to end.
#include <string>

#include <gtest/gtest.h>

#include "tool.h"

namespace zoser {
namespace {

TEST(DumpTest, TraceWithLimits) {
  std::string const doc = "{(2+5,\"a b\")}R3ff";
  struct Row {
    std::vector<std::string> args;
    char const* out;
  } const rows[] = {
      {{"dump"},
       "Marker{\n  Sequence[2]{\n    Int: 5\n  }{\n    String[3]: \"a b\"\n  }\n}\nDouble: 1\n"},
      {{"dump", "--max-depth", "1"}, "Marker{\n  ...\n}\nDouble: 1\n"},
      {{"dump", "--max-elements", "3"}, "Marker{\n  Sequence[2]{\n    ...\n"},
  };
  for (auto const& row : rows) {
    zotest::ToolResult const r = zotest::run_zoser(row.args, doc);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, row.out);
  }
  zotest::ToolResult const bad = zotest::run_zoser({"dump", "-f", "text"}, "{+1");
  EXPECT_EQ(bad.status, 2);
  EXPECT_EQ(bad.err,
            "zoser: -: line 1, column 4: Unexpected end of data, expecting token "
            "[error.zoserialize.reader.eof]\n");
}

}  // namespace
}  // namespace zoser
