// Where a command writes: standard output, or a file that appears only when complete.
#pragma once

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>

#include <zocore/error_code.h>
#include <zocore/ref_count_ptr.h>
#include <zocore/stream.h>

namespace zoser {

// Output writes to standard output (name "-") or to a file. A file is first written under a
// temporary name in the same directory (".NAME.zoser-XXXXXX") and renamed over NAME by commit(),
// so NAME never holds a partial result: an Output destroyed without commit() (a failed command)
// removes the temporary, and so does SIGINT, SIGTERM or SIGHUP once install_signal_cleanup()
// has run. A name that is a symbolic link is resolved first, so the link survives. A name that
// exists and is not a regular file (a device, a FIFO) is written in place. The file gets the
// mode of the file it replaces, or 0666 less the umask.
//
// Writers reach the output either as an IWriteStream or as a std::ostream; both write into one
// buffer of kBufferSize bytes, and a write at least that large goes straight to the file.
// Errors are thrown as zocore::ErrorException, also through the ostream (its exception mask
// includes badbit). One Output at a time per process holds a temporary; one thread at a time.
class Output {
 public:
  static constexpr unsigned kBufferSize = 64 * 1024;

  // Failures: "Cannot create a temporary file beside '{@path}'" (error::zoser_output, errno
  // nested), the core's "Cannot open file '{@path}' for writing".
  explicit Output(std::string name);
  Output(Output const&) = delete;
  Output& operator=(Output const&) = delete;
  // Removes the temporary unless committed; never throws.
  ~Output();

  std::string const& name() const noexcept { return name_; }
  bool is_stdout() const noexcept { return name_ == "-"; }

  zocore::InterfacePtr<zocore::IWriteStream> stream();
  std::ostream& ostream() noexcept { return *ostream_; }
  // Bytes written so far (buffered ones included).
  std::uint64_t bytes_written() const noexcept;

  // Writes out what is buffered and puts the file in place: "Cannot rename '{@temporary}' to
  // '{@path}'" (error::zoser_output, errno nested) when that fails, and errno failures of the
  // final write or close.
  void commit();

  // Installs the handlers that remove an uncommitted temporary when the process is interrupted,
  // then let the signal end the process as it would have. Call once, early.
  static void install_signal_cleanup();

  class Buffer;

 private:
  std::string name_;
  std::string final_path_;  // the renaming target; empty when written in place
  int fd_ = -1;
  bool owns_fd_ = false;
  bool committed_ = false;
  zocore::RefCountPtr<Buffer> buffer_;
  std::unique_ptr<std::ostream> ostream_;
};

// Whether a failure belongs to the output side of a conversion (the file, or the writer), so
// that it is reported with the output's name rather than a place in the input.
bool is_output_failure(zocore::ErrorCode const& code) noexcept;

}  // namespace zoser
