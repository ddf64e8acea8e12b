// Streams over memory.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include <zocore/atomic_ref_count.h>
#include <zocore/export.h>
#include <zocore/ref_counted.h>
#include <zocore/stream.h>

namespace zocore {

// Reads from bytes it borrows (they must outlive the stream). Usable on the stack for the
// IReadStream& arguments of writers, or through a RefCountPtr as an archive's source.
class ZOCORE_API MemoryReadStream : public IReadStream, public RefCounted<AtomicRefCount> {
 public:
  MemoryReadStream(void const* data, std::size_t size) noexcept
      : cur_(static_cast<char const*>(data)), end_(cur_ + size) {}
  explicit MemoryReadStream(std::string_view bytes) noexcept
      : MemoryReadStream(bytes.data(), bytes.size()) {}

  unsigned read(void* buffer, unsigned size) override;
  unsigned skip(unsigned size) override;
  // Remaining bytes; kUnknownSize when 0xFFFFFFFF or more remain.
  unsigned bytes_remaining() const override;

  std::size_t remaining() const noexcept { return static_cast<std::size_t>(end_ - cur_); }

 private:
  char const* cur_;
  char const* end_;
};

// Appends everything written to a string it owns.
class ZOCORE_API StringWriteStream : public IWriteStream, public RefCounted<AtomicRefCount> {
 public:
  StringWriteStream() = default;

  void write(void const* data, unsigned size) override;

  std::string const& str() const noexcept { return data_; }
  // Hands over what was written and leaves the stream empty for further writes.
  std::string take() noexcept {
    std::string out = std::move(data_);
    data_.clear();
    return out;
  }
  void clear() noexcept { data_.clear(); }
  void reserve(std::size_t n) { data_.reserve(n); }

 private:
  std::string data_;
};

}  // namespace zocore
