#include <cerrno>
#include <cstdint>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <zocore/core_errors.h>
#include <zocore/error_composer.h>
#include <zocore/file_stream.h>
#include <zocore/throw_error.h>

namespace zocore {
namespace {

constexpr char kModuleId[] = "$Id: src/zocore/file_stream.cpp $";
SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

constexpr unsigned kDiscardBlock = 16 * 1024;

[[noreturn, gnu::cold]] void throw_open_failed(char const* message, char const* function,
                                               char const* path, int err) {
  ErrorComposer(message)
      .add("path", path ? path : "")
      .throw_with_nested_errno(error::zocore_errno, here(function), err);
}

// Reads until `size` bytes have arrived or the descriptor reports its end.
unsigned read_fully(int fd, char* buffer, unsigned size, char const* function) {
  unsigned total = 0;
  while (total < size) {
    ssize_t const n = ::read(fd, buffer + total, size - total);
    if (n > 0) {
      total += static_cast<unsigned>(n);
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      throw_errno(here(function), errno);
    }
  }
  return total;
}

// The position and size of a regular file, or false for anything that cannot seek.
bool regular_file_extent(int fd, off_t* position, off_t* size, char const* function) {
  struct stat st {};
  if (::fstat(fd, &st) != 0) throw_errno(here(function), errno);
  if (!S_ISREG(st.st_mode)) return false;
  off_t const pos = ::lseek(fd, 0, SEEK_CUR);
  if (pos < 0) throw_errno(here(function), errno);
  *position = pos;
  *size = st.st_size;
  return true;
}

}  // namespace

FileReadStream::FileReadStream(char const* path)
    : fd_(::open(path, O_RDONLY | O_CLOEXEC)), owns_(true) {
  if (fd_ < 0) {
    throw_open_failed("Cannot open file '{@path}' for reading",
                      "zocore::FileReadStream::FileReadStream()", path, errno);
  }
}

FileReadStream::~FileReadStream() {
  // Linux releases the descriptor even when close reports an error, so it is not retried.
  if (owns_) ::close(fd_);
}

unsigned FileReadStream::read(void* buffer, unsigned size) {
  return read_fully(fd_, static_cast<char*>(buffer), size, "zocore::FileReadStream::read()");
}

unsigned FileReadStream::skip(unsigned size) {
  char const* const function = "zocore::FileReadStream::skip()";
  if (size == 0) return 0;
  off_t position = 0;
  off_t end = 0;
  if (regular_file_extent(fd_, &position, &end, function)) {
    off_t const left = end > position ? end - position : 0;
    off_t const n = left < off_t(size) ? left : off_t(size);
    if (::lseek(fd_, position + n, SEEK_SET) < 0) throw_errno(here(function), errno);
    return static_cast<unsigned>(n);
  }
  char block[kDiscardBlock];
  unsigned total = 0;
  while (total < size) {
    unsigned const want = size - total < kDiscardBlock ? size - total : kDiscardBlock;
    unsigned const got = read_fully(fd_, block, want, function);
    total += got;
    if (got < want) break;
  }
  return total;
}

unsigned FileReadStream::bytes_remaining() const {
  off_t position = 0;
  off_t end = 0;
  if (!regular_file_extent(fd_, &position, &end, "zocore::FileReadStream::bytes_remaining()")) {
    return kUnknownSize;
  }
  if (end <= position) return 0;
  auto const left = static_cast<std::uint64_t>(end - position);
  return left >= kUnknownSize ? kUnknownSize : static_cast<unsigned>(left);
}

FileWriteStream::FileWriteStream(char const* path)
    : fd_(::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666)), owns_(true) {
  if (fd_ < 0) {
    throw_open_failed("Cannot open file '{@path}' for writing",
                      "zocore::FileWriteStream::FileWriteStream()", path, errno);
  }
}

FileWriteStream::~FileWriteStream() {
  if (owns_) ::close(fd_);
}

void FileWriteStream::write(void const* data, unsigned size) {
  auto const* bytes = static_cast<char const*>(data);
  unsigned total = 0;
  while (total < size) {
    ssize_t const n = ::write(fd_, bytes + total, size - total);
    if (n < 0 && errno == EINTR) continue;
    // A write that makes no progress without an error is reported rather than retried forever.
    if (n <= 0) throw_errno(here("zocore::FileWriteStream::write()"), n == 0 ? EIO : errno);
    total += static_cast<unsigned>(n);
  }
}

}  // namespace zocore
