#include "output.h"

#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <support/error_matchers.h>
#include <support/test_streams.h>
#include <zoserialize/error_codes.h>

#include "errors.h"
#include "tool.h"

namespace zoser {
namespace {

mode_t mode_of(std::string const& path) {
  struct stat st {};
  ::stat(path.c_str(), &st);
  return st.st_mode & 07777;
}

TEST(OutputTest, AppearsOnlyWhenCommitted) {
  zotest::TempDir dir;
  std::string const big = zotest::pattern_string(0, 3 * Output::kBufferSize + 5);
  {
    Output out(dir.file("o.zot"));
    out.stream()->write("ab", 2);
    out.ostream() << "cd";
    out.stream()->write(big.data(), static_cast<unsigned>(big.size()));  // past the buffer
    out.ostream().write("ef", 2);
    EXPECT_EQ(out.bytes_written(), big.size() + 6);
    ASSERT_EQ(dir.names().size(), 1u);
    EXPECT_TRUE(dir.names()[0].starts_with(".o.zot.zoser-"));
    EXPECT_FALSE(dir.exists("o.zot"));
    out.commit();
  }
  EXPECT_EQ(dir.names(), std::vector<std::string>{"o.zot"});
  EXPECT_EQ(dir.read("o.zot"), "abcd" + big + "ef");
  mode_t const mask = ::umask(0);
  ::umask(mask);
  EXPECT_EQ(mode_of(dir.file("o.zot")), 0666 & ~mask);

  {
    Output out(dir.file("o.zot"));
    out.stream()->write("partial", 7);
  }  // not committed: the old file stays, the temporary goes
  EXPECT_EQ(dir.names(), std::vector<std::string>{"o.zot"});
  EXPECT_EQ(dir.read("o.zot"), "abcd" + big + "ef");
}

TEST(OutputTest, ReplacesAFileKeepingItsModeAndLinks) {
  zotest::TempDir dir;
  dir.write("target", "old");
  ::chmod(dir.file("target").c_str(), 0640);
  ASSERT_EQ(::symlink("target", dir.file("link").c_str()), 0);
  {
    Output out(dir.file("link"));
    out.stream()->write("new", 3);
    out.commit();
  }
  struct stat st {};
  ASSERT_EQ(::lstat(dir.file("link").c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
  EXPECT_EQ(dir.read("target"), "new");
  EXPECT_EQ(mode_of(dir.file("target")), 0640u);
  EXPECT_EQ(dir.names(), (std::vector<std::string>{"link", "target"}));
}

TEST(OutputTest, DevicesAreWrittenInPlace) {
  Output out("/dev/null");
  out.stream()->write("x", 1);
  EXPECT_NO_THROW(out.commit());

  Output full("/dev/full");
  full.stream()->write("x", 1);
  auto const e = ZO_EXPECT_ERROR(full.commit(), error::zoser_output, "Cannot write '{@path}'");
  EXPECT_EQ(zotest::param(e, "path"), "/dev/full");
  ASSERT_TRUE(e && e->nested());
  EXPECT_EQ(e->nested_errno(), ENOSPC);
}

TEST(OutputTest, FailuresNameThePath) {
  auto const e = ZO_EXPECT_ERROR(Output("/nonexistent-dir/o.zob"), error::zoser_output,
                                 "Cannot create a temporary file beside '{@path}'");
  EXPECT_EQ(zotest::param(e, "path"), "/nonexistent-dir/o.zob");
  EXPECT_EQ(e ? e->nested_errno() : 0, ENOENT);

  zotest::TempDir dir;
  ASSERT_EQ(::mkdir(dir.file("d").c_str(), 0755), 0);
  auto const o = ZO_EXPECT_ERROR(Output(dir.file("d")), error::zoser_output,
                                 "Cannot open '{@path}' for writing");
  EXPECT_EQ(o ? o->nested_errno() : 0, EISDIR);

  Output out(dir.file("e"));
  ASSERT_EQ(::mkdir(dir.file("e").c_str(), 0755), 0);  // a directory took the name meanwhile
  dir.write("e/x", "x");
  auto const r = ZO_EXPECT_ERROR(out.commit(), error::zoser_output,
                                 "Cannot rename '{@temporary}' to '{@path}'");
  EXPECT_EQ(zotest::param(r, "path"), dir.file("e"));
  EXPECT_TRUE(zotest::param(r, "temporary").starts_with(dir.file(".e.zoser-")));
  ::unlink(dir.file("e/x").c_str());
  ::rmdir(dir.file("e").c_str());
}

TEST(OutputTest, FailuresOfTheOutputSide) {
  EXPECT_TRUE(is_output_failure(error::zoser_output));
  EXPECT_TRUE(is_output_failure(zoserialize::error::zoserialize_writer_state));
  EXPECT_FALSE(is_output_failure(zoserialize::error::zoserialize_reader_eof));
  EXPECT_FALSE(is_output_failure(error::zoser_format));
}

}  // namespace
}  // namespace zoser
