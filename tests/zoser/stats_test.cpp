// zoser stats, end to end.
#include <string>

#include <gtest/gtest.h>

#include "tool.h"

namespace zoser {
namespace {

TEST(StatsTest, CountsEveryKind) {
  zotest::ToolResult const r = zotest::run_zoser(
      {"stats", "-q"},
      "{\"abc\"T20240517P1.5K0123456789abcdef0123456789abcdef[AAEC]}(2+1,U2)ZY(+1,(+2))R3ff8"
      "I1000000000000000000");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "file:               -\n"
            "format:             text\n"
            "bytes:              103\n"
            "elements:           17\n"
            "  null:             1\n"
            "  boolean:          1\n"
            "  signed integer:   4\n"
            "  unsigned integer: 1\n"
            "  double:           1\n"
            "  string:           1\n"
            "  absolute time:    1\n"
            "  relative time:    1\n"
            "  uuid:             1\n"
            "  binary:           1\n"
            "  sequence:         3\n"
            "  marker:           1\n"
            "maximum depth:      2\n"
            "largest string:     3\n"
            "largest binary:     3\n"
            "string bytes:       3\n"
            "binary bytes:       3\n");
}

}  // namespace
}  // namespace zoser
