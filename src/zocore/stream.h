// Byte stream interfaces of the framework.
#pragma once

#include <zocore/export.h>
#include <zocore/interface_ptr.h>

namespace zocore {

// An input stream of bytes.
//
// Contract: read() and skip() transfer up to `size` bytes and return how many they transferred. A
// result smaller than `size` means the stream has ended: no more bytes will come, and a later call
// returns 0. Implementations therefore loop internally until they have `size` bytes or the source
// is exhausted. Errors are thrown.
class ZOCORE_API IReadStream {
 public:
  virtual unsigned read(void* buffer, unsigned size) = 0;
  virtual unsigned skip(unsigned size) = 0;
  // Bytes still available, or kUnknownSize (all bits set) when the stream cannot tell.
  virtual unsigned bytes_remaining() const = 0;
  // Finishes the stream. The default does nothing; streams handed out by archives use it to
  // consume or finish their value.
  virtual void close() {}

  static constexpr unsigned kUnknownSize = 0xFFFFFFFFu;

 protected:
  IReadStream() = default;
  IReadStream(IReadStream const&) = default;
  IReadStream& operator=(IReadStream const&) = default;
  ~IReadStream() = default;
};

// An output stream of bytes: write() writes all `size` bytes or throws.
class ZOCORE_API IWriteStream {
 public:
  virtual void write(void const* data, unsigned size) = 0;
  // Finishes the stream. The default does nothing; value streams handed out by writers end
  // their value here.
  virtual void close() {}

 protected:
  IWriteStream() = default;
  IWriteStream(IWriteStream const&) = default;
  IWriteStream& operator=(IWriteStream const&) = default;
  ~IWriteStream() = default;
};

using ReadStreamPtr = InterfacePtr<IReadStream>;
using WriteStreamPtr = InterfacePtr<IWriteStream>;

}  // namespace zocore
