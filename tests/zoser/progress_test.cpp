#include "progress.h"

#include <regex>

#include <gtest/gtest.h>

#include "tool.h"

namespace zoser {
namespace {

TEST(ProgressTest, SizesReadLikeLs) {
  struct Row {
    std::uint64_t bytes;
    char const* text;
  } const rows[] = {{0, "0 B"},
                    {1023, "1023 B"},
                    {1024, "1.0 KiB"},
                    {1536, "1.5 KiB"},
                    {10 * 1024 * 1024, "10.0 MiB"},
                    {std::uint64_t{3} << 30, "3.0 GiB"},
                    {std::uint64_t{5} << 50, "5.0 PiB"},
                    {std::uint64_t{5} << 60, "5120.0 PiB"}};
  for (Row const& row : rows)
    EXPECT_EQ(format_size(row.bytes), row.text);
}

TEST(ProgressTest, ForcedLineOnStandardError) {
  zotest::TempDir dir;
  zotest::ToolResult const r = zotest::run_shell(
      "\"$ZOSER\" sample --records 10 --payload-size 3000000 s.zob && "
      "\"$ZOSER\" validate --progress s.zob && \"$ZOSER\" validate -q --progress s.zob",
      dir.path());
  EXPECT_EQ(r.status, 0);
  // Rewritten in place while reading (the first line at the first read), then shown once more,
  // complete, and ended; the quiet run adds nothing.
  std::regex const line(
      "(\\rzoser: s\\.zob: [0-9.]+ [KMG]?i?B of 5\\.7 MiB \\([0-9]+%\\), [0-9.]+ "
      "[KMGT]?i?B/s\\x1b\\[K)+\\n");
  EXPECT_TRUE(std::regex_match(r.err, line)) << r.err;
  EXPECT_NE(r.err.find("5.7 MiB of 5.7 MiB (100%)"), std::string::npos);
}

}  // namespace
}  // namespace zoser
