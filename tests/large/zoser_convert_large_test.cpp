// A multi-gigabyte archive through the zoser executable: generated, converted binary -> text ->
// binary on pipes (the last step detecting the format on standard input) and hashed, with the
// peak memory of every zoser process measured. Nothing touches the disk.
#include <cstdio>
#include <string>

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace {

#define ZOSER "\"" ZOSER_BINARY "\""
// A 1.5 GiB binary and a 1.5 GiB string after the catalogue: 3 GiB of binary archive.
#define SAMPLE ZOSER " sample -t binary --payload-size 1610612736 | "

std::string output_of(std::string const& command) {
  std::string out;
  FILE* const pipe = ::popen(("set -e; " + command).c_str(), "r");
  if (pipe == nullptr) return out;
  char buffer[256];
  while (std::fgets(buffer, sizeof buffer, pipe) != nullptr)
    out += buffer;
  EXPECT_EQ(::pclose(pipe), 0) << command;
  return out;
}

TEST(ZoserLargeTest, ConvertsGigabytesInConstantMemory) {
  std::string const direct = output_of(SAMPLE ZOSER " hash -q -f binary");
  std::string const converted = output_of(SAMPLE ZOSER " convert -q -f binary -t text | " ZOSER
                                                       " convert -q -t binary | " ZOSER " hash -q");
  ASSERT_EQ(direct.size(), 64u + 4u) << direct;  // digest, two spaces, "-", newline
  EXPECT_EQ(converted, direct);
  // The largest of the zoser processes (the shells wait for them, so they count as children).
  rusage usage{};
  ::getrusage(RUSAGE_CHILDREN, &usage);
  EXPECT_LT(usage.ru_maxrss, 64 * 1024) << "peak RSS in KiB";
}

}  // namespace
