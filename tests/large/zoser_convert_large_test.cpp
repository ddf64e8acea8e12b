// A multi-gigabyte archive through the zoser executable: generated, converted binary -> text ->
// binary on pipes (the last step detecting the format on standard input) and hashed, with the
// peak memory of every zoser process measured. Nothing touches the disk.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

namespace {

// Every zoser process runs under /usr/bin/time, which appends its peak RSS in KiB to a file. The
// test process's own children would not do: a child forked from it counts the pages it shares
// with this process (other large tests in it hold hundreds of megabytes) until it executes zoser.
#define ZOSER "/usr/bin/time -a -o \"$RSS_LOG\" -f %M \"" ZOSER_BINARY "\""
// A 1.5 GiB binary and a 1.5 GiB string after the catalogue: 3 GiB of binary archive.
#define SAMPLE ZOSER " sample -t binary --payload-size 1610612736 | "

std::string const& rss_log() {
  static std::string const path = ::testing::TempDir() + "zoser_large_rss.log";
  return path;
}

std::string output_of(std::string const& command) {
  std::string out;
  FILE* const pipe = ::popen(("set -e; RSS_LOG='" + rss_log() + "'; " + command).c_str(), "r");
  if (pipe == nullptr) return out;
  char buffer[256];
  while (std::fgets(buffer, sizeof buffer, pipe) != nullptr)
    out += buffer;
  EXPECT_EQ(::pclose(pipe), 0) << command;
  return out;
}

TEST(ZoserLargeTest, ConvertsGigabytesInConstantMemory) {
  std::remove(rss_log().c_str());
  std::string const direct = output_of(SAMPLE ZOSER " hash -q -f binary");
  std::string const converted = output_of(SAMPLE ZOSER " convert -q -f binary -t text | " ZOSER
                                                       " convert -q -t binary | " ZOSER " hash -q");
  ASSERT_EQ(direct.size(), 64u + 4u) << direct;  // digest, two spaces, "-", newline
  EXPECT_EQ(converted, direct);
  // The largest of the six zoser processes.
  std::ifstream log(rss_log());
  long peak = 0;
  int processes = 0;
  for (long kib = 0; log >> kib; ++processes)
    peak = std::max(peak, kib);
  EXPECT_EQ(processes, 6);
  EXPECT_LT(peak, 64 * 1024) << "peak RSS in KiB";
  std::remove(rss_log().c_str());
}

}  // namespace
