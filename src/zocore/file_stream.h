// Streams over POSIX file descriptors.
#pragma once

#include <zocore/atomic_ref_count.h>
#include <zocore/export.h>
#include <zocore/ref_counted.h>
#include <zocore/stream.h>

namespace zocore {

// Reads from a file descriptor, retrying on EINTR and looping until the request is satisfied or
// the file ends, as the stream contract requires. Failures throw error::zocore_errno records.
// With `owns` the descriptor is closed by the destructor. The descriptor is expected to block; a
// non-blocking one that has no data throws (EAGAIN). Regular files skip by seeking and know how
// much is left; other descriptors skip by reading and discarding. Not thread-safe.
class ZOCORE_API FileReadStream : public IReadStream, public RefCounted<AtomicRefCount> {
 public:
  explicit FileReadStream(int fd, bool owns = false) noexcept : fd_(fd), owns_(owns) {}
  // Opens `path` for reading and owns the descriptor. Throws error::zocore_errno ("Cannot open
  // file '{@path}' for reading") with the errno record nested.
  explicit FileReadStream(char const* path);
  FileReadStream(FileReadStream const&) = delete;
  FileReadStream& operator=(FileReadStream const&) = delete;
  ~FileReadStream() override;

  unsigned read(void* buffer, unsigned size) override;
  unsigned skip(unsigned size) override;
  // The bytes left before the end of a regular file; kUnknownSize for pipes and the like.
  unsigned bytes_remaining() const override;

 private:
  int fd_;
  bool owns_;
};

// Writes to a file descriptor, retrying short writes and EINTR; nothing is buffered. Failures
// throw error::zocore_errno records. With `owns` the descriptor is closed by the destructor.
class ZOCORE_API FileWriteStream : public IWriteStream, public RefCounted<AtomicRefCount> {
 public:
  explicit FileWriteStream(int fd, bool owns = false) noexcept : fd_(fd), owns_(owns) {}
  // Creates or truncates `path` (mode 0666 less the umask) and owns the descriptor. Throws
  // error::zocore_errno ("Cannot open file '{@path}' for writing") with the errno record nested.
  explicit FileWriteStream(char const* path);
  FileWriteStream(FileWriteStream const&) = delete;
  FileWriteStream& operator=(FileWriteStream const&) = delete;
  ~FileWriteStream() override;

  void write(void const* data, unsigned size) override;

 private:
  int fd_;
  bool owns_;
};

}  // namespace zocore
