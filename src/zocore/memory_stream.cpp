#include <cstring>

#include <zocore/memory_stream.h>

namespace zocore {

unsigned MemoryReadStream::read(void* buffer, unsigned size) {
  std::size_t const n = remaining() < size ? remaining() : size;
  if (n != 0) std::memcpy(buffer, cur_, n);
  cur_ += n;
  return static_cast<unsigned>(n);
}

unsigned MemoryReadStream::skip(unsigned size) {
  std::size_t const n = remaining() < size ? remaining() : size;
  cur_ += n;
  return static_cast<unsigned>(n);
}

unsigned MemoryReadStream::bytes_remaining() const {
  std::size_t const n = remaining();
  return n >= kUnknownSize ? kUnknownSize : static_cast<unsigned>(n);
}

void StringWriteStream::write(void const* data, unsigned size) {
  if (size != 0) data_.append(static_cast<char const*>(data), size);
}

}  // namespace zocore
