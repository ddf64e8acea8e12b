#include "progress.h"

#include <algorithm>
#include <string>

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
                    {std::uint64_t{10} << 20, "10.0 MiB"},
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
  // (No std::regex: GCC 12 warns inside it under the sanitizer build.)
  ASSERT_TRUE(r.err.starts_with("\r") && r.err.ends_with("\n")) << r.err;
  std::string const lines = r.err.substr(1, r.err.size() - 2);
  for (std::size_t at = 0, end = 0; at < lines.size(); at = end + 1) {
    end = std::min(lines.find('\r', at), lines.size());
    std::string const line = lines.substr(at, end - at);
    EXPECT_TRUE(line.starts_with("zoser: s.zob: ") && line.ends_with("B/s\x1b[K")) << line;
    EXPECT_NE(line.find(" of 5.7 MiB ("), std::string::npos) << line;
  }
  EXPECT_NE(r.err.find("5.7 MiB of 5.7 MiB (100%)"), std::string::npos);
}

}  // namespace
}  // namespace zoser
