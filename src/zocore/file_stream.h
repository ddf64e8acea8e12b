// Streams over POSIX file descriptors.
#pragma once

#include <zocore/atomic_ref_count.h>
#include <zocore/export.h>
#include <zocore/ref_counted.h>
#include <zocore/stream.h>

namespace zocore {

// Reads from a file descriptor, retrying on EINTR and looping until the request is satisfied or
// the file ends, as the stream contract requires. Failures throw error::zocore_errno records.
// With `owns` the descriptor is closed by the destructor.
class ZOCORE_API FileReadStream : public IReadStream, public RefCounted<AtomicRefCount> {
 public:
  explicit FileReadStream(int fd, bool owns = false) noexcept : fd_(fd), owns_(owns) {}
  // Opens `path` for reading; throws on failure.
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

// Writes to a file descriptor, retrying short writes and EINTR.
class ZOCORE_API FileWriteStream : public IWriteStream, public RefCounted<AtomicRefCount> {
 public:
  explicit FileWriteStream(int fd, bool owns = false) noexcept : fd_(fd), owns_(owns) {}
  // Creates or truncates `path`; throws on failure.
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
