#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <support/error_matchers.h>
#include <support/test_streams.h>
#include <zocore/core_errors.h>
#include <zocore/file_stream.h>
#include <zocore/memory_stream.h>

namespace {

using zocore::FileReadStream;
using zocore::FileWriteStream;
using zocore::IReadStream;
using zocore::MemoryReadStream;

// Reads ('r') and skips ('s') over "0123456789": a short result means the end was reached.
TEST(MemoryReadStreamTest, ReadsAndSkipsFollowTheEndRule) {
  // Operation, size, result, bytes read, bytes remaining afterwards.
  using Step = std::tuple<char, unsigned, unsigned, char const*, unsigned>;
  // clang-format off
  std::vector<Step> const sequences[] = {
      {{'r', 0, 0, "", 10}, {'s', 0, 0, "", 10}, {'r', 7, 7, "0123456", 3}, {'r', 5, 3, "789", 0},
       {'r', 1, 0, "", 0}, {'s', 5, 0, "", 0}},
      {{'s', 3, 3, "", 7}, {'r', 2, 2, "34", 5}, {'s', 8, 5, "", 0}},
      {{'r', 1, 1, "0", 9}, {'s', 0xFFFFFFFFu, 9, "", 0}},
  };
  // clang-format on
  for (std::vector<Step> const& steps : sequences) {
    MemoryReadStream stream(std::string_view("0123456789"));
    for (auto const& [op, size, result, bytes, remaining] : steps) {
      std::string buffer(op == 'r' ? size : 0, '#');
      EXPECT_EQ(op == 'r' ? stream.read(buffer.data(), size) : stream.skip(size), result);
      EXPECT_EQ(buffer, op == 'r' ? bytes + std::string(size - result, '#') : "");
      EXPECT_EQ(stream.bytes_remaining(), remaining);
    }
  }
  EXPECT_EQ(MemoryReadStream(nullptr, 0).read(nullptr, 1), 0u);
  zocore::StringWriteStream out;
  out.write("ab", 2);
  out.write(nullptr, 0);
  out.write("c\0d", 3);
  EXPECT_EQ(out.take(), std::string("abc\0d", 5));
  out.write("e", 1);
  EXPECT_EQ(out.str(), "e");  // taken and emptied
  out.clear();
  EXPECT_EQ(out.str(), "");
}

class FileStreamTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(::mkdtemp(dir_.data()), nullptr); }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::string path(char const* name) const { return dir_ + "/" + name; }

  std::string dir_ = ::testing::TempDir() + "zocore_file_stream_XXXXXX";
};

// A borrowed descriptor is used from where it stands and left open; an owned one is closed.
TEST_F(FileStreamTest, WritesReadsSkipsAndOwnsDescriptors) {
  auto const is_open = [](int fd) { return ::fcntl(fd, F_GETFD) != -1; };
  std::string const data = zotest::pattern_string(0, 100000);
  std::string const p = path("data.bin");
  FileWriteStream(p.c_str()).write("to be truncated", 15);
  FileWriteStream(p.c_str()).write(data.data(), 100000);
  FileReadStream stream(p.c_str());
  EXPECT_EQ(stream.bytes_remaining(), 100000u);
  std::string got(100000, '#');
  EXPECT_EQ(stream.skip(0), 0u);
  EXPECT_EQ(stream.skip(10), 10u);
  EXPECT_EQ(stream.read(got.data(), 65536), 65536u);
  EXPECT_EQ(stream.bytes_remaining(), 100000u - 65546u);
  EXPECT_EQ(stream.read(got.data() + 65536, 100000 - 65536), 100000u - 65546u);
  EXPECT_TRUE(got == data.substr(10) + std::string(10, '#'));
  EXPECT_EQ(stream.read(got.data(), 1) + stream.skip(1) + stream.bytes_remaining(), 0u);

  int const out = ::open(p.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  FileWriteStream(out).write("0123456789", 10);
  EXPECT_TRUE(is_open(out));
  { FileWriteStream const owner(out, true); }
  EXPECT_FALSE(is_open(out));
  int const in = ::open(p.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::lseek(in, 6, SEEK_SET), 6);
  EXPECT_EQ(FileReadStream(in).read(got.data(), 8), 4u);
  EXPECT_EQ(got.substr(0, 4), "6789");
  ASSERT_EQ(::lseek(in, 100, SEEK_SET), 100);  // beyond the end: nothing left, nothing to skip
  {
    FileReadStream owner(in, true);
    EXPECT_EQ(owner.bytes_remaining() + owner.skip(3), 0u);
  }
  EXPECT_FALSE(is_open(in));
}

// 0xFFFFFFFF bytes left still read as "unknown", one less does not. The memory is a reservation
// whose pages are never touched, and the file is sparse.
TEST_F(FileStreamTest, MoreThanFourGigabytesIsUnknownSize) {
  std::size_t const size = (std::size_t{1} << 32) + 10;
  void* const reserved =
      ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (reserved == MAP_FAILED) GTEST_SKIP() << "no 4 GiB address-space reservation here";
  struct Unmap {
    void* p;
    std::size_t n;
    ~Unmap() { ::munmap(p, n); }
  } const unmap{reserved, size};
  MemoryReadStream memory(reserved, size);
  int const fd = ::open(path("sparse.bin").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  FileReadStream file(fd, true);
  if (::ftruncate(fd, (off_t{1} << 32) + 10) != 0) GTEST_SKIP() << "no large sparse files here";
  for (IReadStream* stream :
       {static_cast<IReadStream*>(&memory), static_cast<IReadStream*>(&file)}) {
    EXPECT_EQ(stream->skip(11), 11u);
    EXPECT_EQ(stream->bytes_remaining(), IReadStream::kUnknownSize);
    EXPECT_EQ(stream->skip(1), 1u);
    EXPECT_EQ(stream->bytes_remaining(), 0xFFFFFFFEu);
    EXPECT_EQ(stream->skip(0xFFFFFFFFu), 0xFFFFFFFEu);
  }
}

TEST_F(FileStreamTest, FailuresCarryErrnoPathAndFunction) {
  // A directory opens for reading but cannot be read, and is no regular file, so skip reads too.
  FileReadStream directory(dir_.c_str());
  FileReadStream bad(-1);
  FileWriteStream not_writable(::open(dir_.c_str(), O_RDONLY | O_CLOEXEC), true);
  FileWriteStream full("/dev/full");
  std::string const missing = path("missing.bin");
  char buf[4];
  constexpr char kSystem[] = "System error {@errno}: {@description}";
  // Call, message, errno, function (of zocore::), path parameter.
  std::tuple<std::function<void()>, char const*, int, char const*, std::string> const cases[] = {
      {[&] { FileReadStream s(missing.c_str()); }, "Cannot open file '{@path}' for reading", ENOENT,
       "FileReadStream::FileReadStream()", missing},
      {[&] { FileWriteStream s(dir_.c_str()); }, "Cannot open file '{@path}' for writing", EISDIR,
       "FileWriteStream::FileWriteStream()", dir_},
      {[&] { directory.read(buf, 4); }, kSystem, EISDIR, "FileReadStream::read()", ""},
      {[&] { directory.skip(4); }, kSystem, EISDIR, "FileReadStream::skip()", ""},
      {[&] { bad.read(buf, 1); }, kSystem, EBADF, "FileReadStream::read()", ""},
      {[&] { bad.skip(1); }, kSystem, EBADF, "FileReadStream::skip()", ""},
      {[&] { bad.bytes_remaining(); }, kSystem, EBADF, "FileReadStream::bytes_remaining()", ""},
      {[&] { not_writable.write("x", 1); }, kSystem, EBADF, "FileWriteStream::write()", ""},
      {[&] { full.write("abc", 3); }, kSystem, ENOSPC, "FileWriteStream::write()", ""},
  };
  for (auto const& c : cases) {
    auto const& [call, message, err, function, file] = c;  // Clang 14 cannot capture bindings
    auto const info = ZO_EXPECT_ERROR(std::get<0>(c)(), zocore::error::zocore_errno, message);
    EXPECT_EQ(info ? info->nested_errno() : 0, err) << function;
    EXPECT_EQ(info ? info->location().function().str() : "", std::string("zocore::") + function);
    EXPECT_EQ(zotest::param(info, "path"), file.empty() ? "<missing>" : file) << function;
  }
}

// Small writes make the kernel return short reads, which the stream must complete; a pipe cannot
// seek, so skip reads and discards, across several discard blocks.
TEST(FileStreamThreadsTest, ShortPipeReadsAreCompletedAndSkipsRead) {
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  std::string const data = zotest::pattern_string(0, 300000);
  std::thread producer([&data, fd = fds[1]] {
    FileWriteStream writer(fd, true);
    for (std::size_t pos = 0, piece = 1; pos < data.size(); pos += piece, piece = piece % 97 + 1)
      writer.write(data.data() + pos, static_cast<unsigned>(std::min(piece, data.size() - pos)));
  });
  FileReadStream reader(fds[0], true);
  EXPECT_EQ(reader.bytes_remaining(), IReadStream::kUnknownSize);
  std::string got(300000, '#');
  EXPECT_EQ(reader.read(got.data(), 1), 1u);
  EXPECT_EQ(reader.read(got.data() + 1, 70000), 70000u);
  EXPECT_EQ(reader.skip(40000), 40000u);
  EXPECT_EQ(reader.read(got.data() + 110001, 189999), 189999u);
  EXPECT_EQ(reader.skip(1), 0u);
  producer.join();
  got.replace(70001, 40000, data, 70001, 40000);
  EXPECT_TRUE(got == data);
}

}  // namespace
