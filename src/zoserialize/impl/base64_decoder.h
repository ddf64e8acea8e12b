// Incremental base64 decoding for payloads that arrive in pieces (the XML reader's streams).
#pragma once

#include <cstddef>
#include <cstdint>

#include <zoserialize/export.h>

namespace zoserialize::impl {

// Decodes base64 (standard alphabet) fed in pieces of any size, cut anywhere, in constant memory.
// It accepts what zocore::base64_decode accepts: padding optional but correct when present, and
// the unused bits of a last partial group zero, so that every byte string has one text. White
// space (space, tab, line feed, carriage return) is skipped anywhere, as XML tools that wrap
// long base64 lines put it there.
//
// A wrong character or a text that ends too early makes feed() or finish() return false;
// error_offset() is then the offset, counted in characters fed (white space included), of the
// first character that cannot stand where it is, or of the end when the text ended too early.
class ZOSERIALIZE_API Base64Decoder {
 public:
  // The most bytes one feed() of `chars` characters writes.
  static constexpr std::size_t max_output(std::size_t chars) noexcept { return chars / 4 * 3 + 3; }

  // Decodes [text, text + size) into `out`, which has room for max_output(size) bytes, and sets
  // `produced` to the bytes written (a partial group is kept for the next piece).
  bool feed(char const* text, std::size_t size, unsigned char* out, std::size_t& produced) noexcept;
  // The text has ended: writes the last partial group (at most 2 bytes) to `out`.
  bool finish(unsigned char* out, std::size_t& produced) noexcept;

  std::uint64_t error_offset() const noexcept { return error_offset_; }
  // Starts a new text.
  void reset() noexcept { *this = Base64Decoder(); }

 private:
  bool fail(std::uint64_t offset) noexcept {
    error_offset_ = offset;
    return false;
  }
  // Writes the bytes of a group of `sextets` (2 or 3) characters that ends the data, after
  // checking that the unused bits of its last character are zero.
  bool put_last_group(unsigned char*& out) noexcept;

  std::uint32_t group_ = 0;         // the sextets of the current group, first in the high bits
  unsigned sextets_ = 0;            // characters in group_ (0 to 3)
  unsigned padding_ = 0;            // '=' seen; then only '=' completing the group, white space
  std::uint64_t offset_ = 0;        // characters fed so far
  std::uint64_t last_offset_ = 0;   // offset of the last data character
  std::uint64_t error_offset_ = 0;  // where the text went wrong
  bool done_ = false;               // the padded group is complete: nothing but white space
};

}  // namespace zoserialize::impl
