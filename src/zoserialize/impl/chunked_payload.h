// A chunked String or Binary payload as a payload stream walks it, shared by the stream and
// memory readers' chunked streams.
#pragma once

#include <zoserialize/impl/binary_encoding.h>

namespace zoserialize::impl {

// For the tag that follows a chunk: the size of the continuation's length field (1 or 2), or 0
// for the end tag. Fails with "Invalid tag in chunked element" (a tag of another type) or
// "Unexpected tag.  Expecting chunk continuation or end tag" located at `function`.
unsigned chunk_continuation_field(unsigned char tag, int prefix, char const* function);

// The stream's place in the value: the bytes left in the current chunk, or the end. The bytes
// come from a Source whose read(void*, n) and skip(n) move exactly n bytes of the encoding or
// throw.
class ChunkedPayload {
 public:
  ChunkedPayload(unsigned first_chunk, int prefix) noexcept
      : remaining_(first_chunk), prefix_(prefix) {}

  bool ended() const noexcept { return ended_; }
  // The stream was closed: it delivers nothing more.
  void close() noexcept { ended_ = true; }

  // Reads `size` payload bytes into `dest` (skips them when it is null), crossing chunks; a
  // chunk used up is followed at once by the next header, so a bad one fails the transfer that
  // reached it. Returns the bytes moved, fewer than asked only at the end of the value.
  template <class Source>
  unsigned transfer(Source& source, unsigned char* dest, unsigned size, char const* function) {
    unsigned total = 0;
    while (size != 0 && !ended_) {
      unsigned const m = size < remaining_ ? size : remaining_;
      if (dest != nullptr) {
        source.read(dest + total, m);
      } else {
        source.skip(m);
      }
      remaining_ -= m;
      size -= m;
      total += m;
      if (remaining_ == 0) next_chunk(source, function);
    }
    return total;
  }

 private:
  // Opens the next chunk with bytes (empty chunks are passed), or notes the end of the value.
  template <class Source>
  void next_chunk(Source& source, char const* function) {
    while (remaining_ == 0 && !ended_) {
      unsigned char header[3];
      source.read(header, 1);
      unsigned const field = chunk_continuation_field(header[0], prefix_, function);
      if (field == 0) {
        ended_ = true;
        return;
      }
      source.read(header + 1, field);
      remaining_ = field == 1 ? header[1] : (unsigned{header[1]} << 8) | header[2];
    }
  }

  unsigned remaining_;
  int prefix_;
  bool ended_ = false;
};

}  // namespace zoserialize::impl
