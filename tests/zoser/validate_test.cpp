// zoser validate, end to end: OK lines and the first error of each input with its place.
#include <string>

#include <gtest/gtest.h>

#include "tool.h"

namespace zoser {
namespace {

TEST(ValidateTest, ReportsEachInput) {
  struct Row {
    std::vector<std::string> args;
    std::string input;
    int status;
    std::string out;
    std::string err;
  } const rows[] = {
      {{"validate"}, "{(2+5,\"a b\")}R3ff", 0, "-: OK (text, 5 elements, 17 B)\n", ""},
      {{"validate", "-q"}, "{(2+5,\"a b\")}R3ff", 0, "", ""},
      {{"validate", "-f", "binary"},
       std::string("\xB0\xA2\x24\x05\xAE\x53\x61\x20\x62\xAF\xBF\x41", 12),
       0,
       "-: OK (binary, 5 elements, 12 B)\n",
       ""},
      {{"validate"},
       "\xB0\xA2",
       2,
       "",
       "zoser: -: byte 2: End of data reached in sequence [error.zoserialize.reader.eof]\n"},
      {{"validate", "-f", "binary"},
       "{+1+2}",
       2,
       "",
       "zoser: -: byte 1: Tag has unexpected value.  Type=RelativeTime, Value=123 "
       "[error.zoserialize.reader.data.type]\n"},
      {{"validate", "-q", "-f", "text"},
       "{+1\n+2\n\"x",
       2,
       "",
       "zoser: -: line 3, column 3: Unexpected EOF while reading string. "
       "[error.zoserialize.reader.eof]\n"},
  };
  for (Row const& row : rows) {
    zotest::ToolResult const r = zotest::run_zoser(row.args, row.input);
    EXPECT_EQ(r.status, row.status) << row.input;
    EXPECT_EQ(r.out, row.out) << row.input;
    EXPECT_EQ(r.err, row.err) << row.input;
  }
}

}  // namespace
}  // namespace zoser
