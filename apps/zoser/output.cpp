#include "output.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <streambuf>
#include <utility>

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <zocore/atomic_ref_count.h>
#include <zocore/ref_counted.h>
#include <zoserialize/error_codes.h>

#include "errors.h"

namespace zoser {

namespace {

// The temporary that a signal handler must remove: the path is written before the file is
// created (mkstemp fills in this very buffer) and `g_temporary_active` is set once it exists.
char g_temporary[PATH_MAX + 64];
volatile sig_atomic_t g_temporary_active = 0;

constexpr int kCleanupSignals[] = {SIGINT, SIGTERM, SIGHUP};

extern "C" void remove_temporary_and_die(int sig) {
  if (g_temporary_active != 0) ::unlink(g_temporary);
  ::signal(sig, SIG_DFL);
  ::raise(sig);
}

mode_t default_mode() {
  mode_t const mask = ::umask(0);
  ::umask(mask);
  return 0666 & ~mask;
}

}  // namespace

// One buffer behind both faces of the output. The counted base comes first: GCC 12 at -O3
// otherwise reports the delete of a devirtualised object at a base offset as freeing a non-heap
// pointer.
class Output::Buffer final : public zocore::RefCounted<zocore::AtomicRefCount>,
                             public zocore::IWriteStream,
                             public std::streambuf {
 public:
  Buffer(int fd, std::string name) : fd_(fd), name_(std::move(name)), data_(new char[kBufferSize]) {
    setp(data_.get(), data_.get() + kBufferSize);
  }

  void write(void const* data, unsigned size) override {
    put(static_cast<char const*>(data), size);
  }

  // Three ways: what fits is copied; a piece smaller than the buffer fills it, which is then
  // written, and the rest copied; a larger piece goes to the file after what was buffered.
  void put(char const* data, std::size_t size) {
    std::size_t const room = static_cast<std::size_t>(epptr() - pptr());
    if (size <= room) [[likely]] {
      std::memcpy(pptr(), data, size);
      pbump(static_cast<int>(size));
      return;
    }
    put_slow(data, size);
  }

  void drain() {
    auto const n = static_cast<unsigned>(pptr() - pbase());
    if (n == 0) return;
    setp(data_.get(), data_.get() + kBufferSize);  // emptied first: a failed write is not redone
    write_file(data_.get(), n);
  }

  std::uint64_t written() const noexcept {
    return written_ + static_cast<std::uint64_t>(pptr() - pbase());
  }

 protected:
  int_type overflow(int_type c) override {
    drain();
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    *pptr() = traits_type::to_char_type(c);
    pbump(1);
    return c;
  }
  std::streamsize xsputn(char_type const* s, std::streamsize n) override {
    put(s, static_cast<std::size_t>(n));
    return n;
  }
  int sync() override {
    drain();
    return 0;
  }

 private:
  void put_slow(char const* data, std::size_t size) {
    std::size_t const room = static_cast<std::size_t>(epptr() - pptr());
    if (size < kBufferSize) {
      std::memcpy(pptr(), data, room);
      pbump(static_cast<int>(room));
      drain();
      std::memcpy(pptr(), data + room, size - room);
      pbump(static_cast<int>(size - room));
      return;
    }
    drain();
    write_file(data, size);
  }

  void write_file(char const* data, std::size_t size) {
    written_ += size;
    while (size != 0) {
      ssize_t const n = ::write(fd_, data, std::min<std::size_t>(size, 1u << 30));
      if (n < 0) {
        if (errno == EINTR) continue;
        raise_errno(error::zoser_output, "Cannot write '{@path}'",
                    zocore::ErrorParams().set("path", name_), "zoser::Output::Buffer::write_file()",
                    errno);
      }
      data += n;
      size -= static_cast<std::size_t>(n);
    }
  }

  int fd_;
  std::string name_;
  std::unique_ptr<char[]> data_;
  std::uint64_t written_ = 0;
};

Output::Output(std::string name) : name_(std::move(name)) {
  char const* const function = "zoser::Output::Output()";
  if (is_stdout()) {
    fd_ = STDOUT_FILENO;
  } else {
    // A symbolic link is followed, so that the rename replaces the file and keeps the link.
    std::string target = name_;
    struct stat st {};
    if (::lstat(target.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
      char resolved[PATH_MAX];
      if (::realpath(target.c_str(), resolved) != nullptr) target = resolved;
    }
    bool const exists = ::stat(target.c_str(), &st) == 0;
    if (exists && !S_ISREG(st.st_mode)) {
      // Devices and FIFOs cannot be replaced by a rename: they are written directly.
      fd_ = ::open(target.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
      if (fd_ < 0) {
        raise_errno(error::zoser_output, "Cannot open '{@path}' for writing",
                    zocore::ErrorParams().set("path", name_), function, errno);
      }
      owns_fd_ = true;
    } else {
      std::string::size_type const slash = target.rfind('/');
      std::string const dir =
          slash == std::string::npos ? std::string() : target.substr(0, slash + 1);
      std::string const base = slash == std::string::npos ? target : target.substr(slash + 1);
      std::string const pattern = dir + "." + base + ".zoser-XXXXXX";
      if (pattern.size() >= sizeof g_temporary) {
        raise_errno(error::zoser_output, "Cannot create a temporary file beside '{@path}'",
                    zocore::ErrorParams().set("path", name_), function, ENAMETOOLONG);
      }
      std::memcpy(g_temporary, pattern.c_str(), pattern.size() + 1);
      fd_ = ::mkostemp(g_temporary, O_CLOEXEC);
      if (fd_ < 0) {
        raise_errno(error::zoser_output, "Cannot create a temporary file beside '{@path}'",
                    zocore::ErrorParams().set("path", name_), function, errno);
      }
      g_temporary_active = 1;
      owns_fd_ = true;
      final_path_ = target;
      ::fchmod(fd_, exists ? (st.st_mode & 07777) : default_mode());
    }
  }
  buffer_ = zocore::make_ref_counted<Buffer>(fd_, name_);
  ostream_ = std::make_unique<std::ostream>(buffer_.get());
  ostream_->exceptions(std::ios::badbit);
}

Output::~Output() {
  ostream_.reset();
  buffer_.reset();  // drops what is still buffered: only commit() writes it
  if (owns_fd_) ::close(fd_);
  if (!final_path_.empty() && !committed_) {
    ::unlink(g_temporary);
    g_temporary_active = 0;
  }
}

zocore::InterfacePtr<zocore::IWriteStream> Output::stream() {
  return zocore::InterfacePtr<zocore::IWriteStream>(buffer_);
}

std::uint64_t Output::bytes_written() const noexcept {
  return buffer_->written();
}

void Output::commit() {
  char const* const function = "zoser::Output::commit()";
  buffer_->drain();
  if (!owns_fd_) return;
  int const fd = std::exchange(fd_, -1);
  owns_fd_ = false;
  // close() reports delayed write errors (NFS, quotas); the descriptor is gone either way.
  if (::close(fd) != 0) {
    raise_errno(error::zoser_output, "Cannot write '{@path}'",
                zocore::ErrorParams().set("path", name_), function, errno);
  }
  if (final_path_.empty()) return;
  if (::rename(g_temporary, final_path_.c_str()) != 0) {
    raise_errno(error::zoser_output, "Cannot rename '{@temporary}' to '{@path}'",
                zocore::ErrorParams().set("temporary", g_temporary).set("path", name_), function,
                errno);
  }
  committed_ = true;
  g_temporary_active = 0;
}

bool is_output_failure(zocore::ErrorCode const& code) noexcept {
  return code.is_a(error::zoser_output) || code.is_a(zoserialize::error::zoserialize_writer);
}

void Output::install_signal_cleanup() {
  struct sigaction action {};
  action.sa_handler = remove_temporary_and_die;
  sigemptyset(&action.sa_mask);
  for (int sig : kCleanupSignals) {
    struct sigaction old {};
    // A signal the caller chose to ignore (nohup) stays ignored.
    if (::sigaction(sig, nullptr, &old) == 0 && old.sa_handler == SIG_IGN) continue;
    ::sigaction(sig, &action, nullptr);
  }
}

}  // namespace zoser
