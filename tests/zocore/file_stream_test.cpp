#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <support/error_matchers.h>
#include <zocore/core_errors.h>
#include <zocore/file_stream.h>

namespace {

using zocore::FileReadStream;
using zocore::FileWriteStream;
using zocore::IReadStream;

constexpr char kSystemError[] = "System error {@errno}: {@description}";

std::string pattern(std::size_t size) {
  std::string data(size, '\0');
  for (std::size_t i = 0; i < size; ++i)
    data[i] = static_cast<char>((i * 131 + i / 251) & 0xFF);
  return data;
}

bool fd_is_open(int fd) {
  return ::fcntl(fd, F_GETFD) != -1;
}

class FileStreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string tmpl = (std::filesystem::temp_directory_path() / "zocore_file_stream_XXXXXX");
    ASSERT_NE(::mkdtemp(tmpl.data()), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }

  std::string path(char const* name) const { return (dir_ / name).string(); }

  std::string write_file(char const* name, std::string const& data) {
    std::string p = path(name);
    FileWriteStream stream(p.c_str());
    stream.write(data.data(), static_cast<unsigned>(data.size()));
    return p;
  }

  std::filesystem::path dir_;
};

TEST_F(FileStreamTest, WritesInPiecesAndReadsBack) {
  std::string const data = pattern(100000);
  std::string const p = path("data.bin");
  {
    FileWriteStream stream(p.c_str());
    std::size_t pos = 0;
    for (unsigned piece = 1; pos < data.size(); piece = piece * 3 + 1) {
      unsigned const n = static_cast<unsigned>(std::min<std::size_t>(piece, data.size() - pos));
      stream.write(data.data() + pos, n);
      pos += n;
    }
    stream.write(nullptr, 0);
  }
  FileReadStream stream(p.c_str());
  EXPECT_EQ(stream.bytes_remaining(), 100000u);
  std::string got(100000, '\0');
  EXPECT_EQ(stream.read(got.data(), 1), 1u);
  EXPECT_EQ(stream.read(got.data() + 1, 65536), 65536u);
  EXPECT_EQ(stream.bytes_remaining(), 100000u - 65537u);
  // A read spanning the end returns what is left, and the end stays the end.
  std::string tail(50000, '#');
  EXPECT_EQ(stream.read(tail.data(), 50000), 100000u - 65537u);
  got.replace(65537, std::string::npos, tail.substr(0, 100000 - 65537));
  EXPECT_EQ(got, data);
  EXPECT_EQ(tail.substr(100000 - 65537), std::string(50000 - (100000 - 65537), '#'));
  EXPECT_EQ(stream.read(tail.data(), 1), 0u);
  EXPECT_EQ(stream.skip(1), 0u);
  EXPECT_EQ(stream.bytes_remaining(), 0u);
}

TEST_F(FileStreamTest, SkipOnRegularFileSeeks) {
  std::string const data = pattern(1000);
  std::string const p = write_file("skip.bin", data);
  FileReadStream stream(p.c_str());
  EXPECT_EQ(stream.skip(0), 0u);
  EXPECT_EQ(stream.skip(10), 10u);
  char buf[5];
  ASSERT_EQ(stream.read(buf, 5), 5u);
  EXPECT_EQ(std::string(buf, 5), data.substr(10, 5));
  EXPECT_EQ(stream.bytes_remaining(), 985u);
  EXPECT_EQ(stream.skip(0xFFFFFFFFu), 985u);
  EXPECT_EQ(stream.bytes_remaining(), 0u);
  EXPECT_EQ(stream.skip(5), 0u);
  EXPECT_EQ(stream.read(buf, 5), 0u);
}

// A borrowed descriptor is read from where it stands, and is left open.
TEST_F(FileStreamTest, BorrowedDescriptorStartsAtItsPosition) {
  std::string const data = pattern(64);
  std::string const p = write_file("borrowed.bin", data);
  int const fd = ::open(p.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::lseek(fd, 60, SEEK_SET), 60);
  {
    FileReadStream stream(fd);
    EXPECT_EQ(stream.bytes_remaining(), 4u);
    char buf[8];
    EXPECT_EQ(stream.read(buf, 8), 4u);
    EXPECT_EQ(std::string(buf, 4), data.substr(60));
  }
  EXPECT_TRUE(fd_is_open(fd));
  // Positioned beyond the end: nothing left, nothing to skip.
  ASSERT_EQ(::lseek(fd, 100, SEEK_SET), 100);
  {
    FileReadStream stream(fd, true);
    EXPECT_EQ(stream.bytes_remaining(), 0u);
    EXPECT_EQ(stream.skip(3), 0u);
  }
  EXPECT_FALSE(fd_is_open(fd));
}

TEST_F(FileStreamTest, WriteStreamOwnershipOfDescriptor) {
  int const fd = ::open(path("w.bin").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  { FileWriteStream stream(fd); }
  EXPECT_TRUE(fd_is_open(fd));
  {
    FileWriteStream stream(fd, true);
    stream.write("abc", 3);
  }
  EXPECT_FALSE(fd_is_open(fd));
  FileReadStream read_back(path("w.bin").c_str());
  EXPECT_EQ(read_back.bytes_remaining(), 3u);
}

TEST_F(FileStreamTest, WriteStreamTruncatesExistingFile) {
  std::string const p = write_file("t.bin", pattern(500));
  write_file("t.bin", "xy");
  FileReadStream stream(p.c_str());
  EXPECT_EQ(stream.bytes_remaining(), 2u);
}

// A sparse file larger than 4 GiB: the count does not fit and is reported as unknown until
// less than 0xFFFFFFFF bytes are left.
TEST_F(FileStreamTest, MoreThanFourGigabytesIsUnknownSize) {
  std::string const p = path("sparse.bin");
  int const fd = ::open(p.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(fd, 0);
  off_t const size = (off_t{1} << 32) + 6;
  if (::ftruncate(fd, size) != 0) {
    ::close(fd);
    GTEST_SKIP() << "no large sparse files here (errno " << errno << ")";
  }
  FileReadStream stream(fd, true);
  EXPECT_EQ(stream.bytes_remaining(), IReadStream::kUnknownSize);
  EXPECT_EQ(stream.skip(7), 7u);
  EXPECT_EQ(stream.bytes_remaining(), IReadStream::kUnknownSize);
  EXPECT_EQ(stream.skip(1), 1u);
  EXPECT_EQ(stream.bytes_remaining(), 0xFFFFFFFEu);
  EXPECT_EQ(stream.skip(0xFFFFFFFFu), 0xFFFFFFFEu);
  EXPECT_EQ(stream.bytes_remaining(), 0u);
}

// Pipes cannot seek: the size is unknown and skipping reads and discards, across several
// discard blocks.
TEST_F(FileStreamTest, PipeSkipsByReading) {
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  std::string const data = pattern(40000);
  {
    FileWriteStream writer(fds[1], true);
    writer.write(data.data(), static_cast<unsigned>(data.size()));
  }
  FileReadStream stream(fds[0], true);
  EXPECT_EQ(stream.bytes_remaining(), IReadStream::kUnknownSize);
  EXPECT_EQ(stream.skip(35000), 35000u);
  char buf[100];
  ASSERT_EQ(stream.read(buf, 100), 100u);
  EXPECT_EQ(std::string(buf, 100), data.substr(35000, 100));
  EXPECT_EQ(stream.skip(10000), 4900u);
  EXPECT_EQ(stream.read(buf, 1), 0u);
  EXPECT_EQ(stream.bytes_remaining(), IReadStream::kUnknownSize);
}

TEST_F(FileStreamTest, OpenFailuresNameThePath) {
  std::string const missing = path("missing.bin");
  auto info = ZO_EXPECT_ERROR(FileReadStream stream(missing.c_str()), zocore::error::zocore_errno,
                              "Cannot open file '{@path}' for reading");
  ASSERT_TRUE(info);
  EXPECT_EQ(zotest::param(info, "path"), missing);
  EXPECT_EQ(info->nested_errno(), ENOENT);
  EXPECT_EQ(info->location().function().view(), "zocore::FileReadStream::FileReadStream()");

  std::string const no_dir = path("no/such/dir.bin");
  info = ZO_EXPECT_ERROR(FileWriteStream stream(no_dir.c_str()), zocore::error::zocore_errno,
                         "Cannot open file '{@path}' for writing");
  ASSERT_TRUE(info);
  EXPECT_EQ(zotest::param(info, "path"), no_dir);
  EXPECT_EQ(info->nested_errno(), ENOENT);
  EXPECT_EQ(info->location().function().view(), "zocore::FileWriteStream::FileWriteStream()");
}

// A directory opens for reading but cannot be read; it is no regular file, so skip reads too.
TEST_F(FileStreamTest, ReadErrorsCarryErrno) {
  FileReadStream stream(dir_.c_str());
  EXPECT_EQ(stream.bytes_remaining(), IReadStream::kUnknownSize);
  char buf[4];
  auto info = ZO_EXPECT_ERROR(stream.read(buf, 4), zocore::error::zocore_errno, kSystemError);
  ASSERT_TRUE(info);
  EXPECT_EQ(info->nested_errno(), EISDIR);
  EXPECT_EQ(info->location().function().view(), "zocore::FileReadStream::read()");
  info = ZO_EXPECT_ERROR(stream.skip(4), zocore::error::zocore_errno, kSystemError);
  ASSERT_TRUE(info);
  EXPECT_EQ(info->nested_errno(), EISDIR);
  EXPECT_EQ(info->location().function().view(), "zocore::FileReadStream::skip()");
}

TEST_F(FileStreamTest, BadDescriptorErrors) {
  FileReadStream reader(-1);
  char buf[1];
  auto info = ZO_EXPECT_ERROR(reader.read(buf, 1), zocore::error::zocore_errno, kSystemError);
  EXPECT_EQ(info ? info->nested_errno() : 0, EBADF);
  info = ZO_EXPECT_ERROR(reader.skip(1), zocore::error::zocore_errno, kSystemError);
  EXPECT_EQ(info ? info->nested_errno() : 0, EBADF);
  info = ZO_EXPECT_ERROR(reader.bytes_remaining(), zocore::error::zocore_errno, kSystemError);
  ASSERT_TRUE(info);
  EXPECT_EQ(info->nested_errno(), EBADF);
  EXPECT_EQ(info->location().function().view(), "zocore::FileReadStream::bytes_remaining()");

  // Writing to a descriptor opened for reading.
  std::string const p = write_file("ro.bin", "abc");
  int const fd = ::open(p.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  FileWriteStream writer(fd, true);
  info = ZO_EXPECT_ERROR(writer.write("x", 1), zocore::error::zocore_errno, kSystemError);
  ASSERT_TRUE(info);
  EXPECT_EQ(info->nested_errno(), EBADF);
  EXPECT_EQ(info->location().function().view(), "zocore::FileWriteStream::write()");
}

TEST_F(FileStreamTest, FullDeviceReportsNoSpace) {
  if (::access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  FileWriteStream writer("/dev/full");
  auto const info =
      ZO_EXPECT_ERROR(writer.write("abc", 3), zocore::error::zocore_errno, kSystemError);
  EXPECT_EQ(info ? info->nested_errno() : 0, ENOSPC);
}

// The writer feeds a pipe in small pieces while the reader asks for large blocks, so reads come
// back short from the kernel and must be completed by the stream.
TEST(FileStreamThreadsTest, ShortPipeReadsAreCompleted) {
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  std::string const data = pattern(300000);
  std::thread producer([&data, fd = fds[1]] {
    FileWriteStream writer(fd, true);
    std::size_t pos = 0;
    for (unsigned piece = 1; pos < data.size(); piece = piece % 97 + 1) {
      unsigned const n = static_cast<unsigned>(std::min<std::size_t>(piece, data.size() - pos));
      writer.write(data.data() + pos, n);
      pos += n;
    }
  });
  FileReadStream reader(fds[0], true);
  std::string got;
  std::vector<char> block(70000);
  for (unsigned want : {1u, 5000u, 70000u, 3u, 70000u, 70000u, 70000u, 70000u}) {
    unsigned const n = reader.read(block.data(), want);
    got.append(block.data(), n);
    if (n < want) break;
  }
  producer.join();
  EXPECT_EQ(got.size(), data.size());
  EXPECT_TRUE(got == data);
  EXPECT_EQ(reader.read(block.data(), 1), 0u);
}

}  // namespace
