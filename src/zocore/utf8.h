// UTF-8 helpers.
#pragma once

#include <cstddef>

#include <zocore/export.h>

namespace zocore {

// The length of the sequence that `lead` starts, by the lead byte alone: 1 for 0x00..0x7F, 2 for
// 0xC0..0xDF, 3 for 0xE0..0xEF, 4 for 0xF0..0xF7, 5 for 0xF8..0xFB, 6 for 0xFC..0xFD; 0 for a
// continuation byte (0x80..0xBF) and for 0xFE, 0xFF, which start nothing.
ZOCORE_API unsigned utf8_sequence_length(char lead) noexcept;

// Offset of the first byte of the first malformed sequence, or `size` when all of the text is
// well-formed UTF-8 (RFC 3629: no overlong forms, no surrogates, nothing above U+10FFFF, no
// truncated or stray sequences).
ZOCORE_API std::size_t find_invalid_utf8(char const* data, std::size_t size) noexcept;

inline bool is_valid_utf8(char const* data, std::size_t size) noexcept {
  return find_invalid_utf8(data, size) == size;
}

// Throws error::zocore_utf8 ("Invalid UTF-8 sequence at offset {@offset}") unless the text is
// well-formed.
ZOCORE_API void check_valid_utf8(char const* data, unsigned size);

// Encodes the code point `ucs4` into [out, out_end) and returns the number of bytes written; 0
// when the code point is not a Unicode scalar value (a surrogate or above U+10FFFF) or does not
// fit.
ZOCORE_API unsigned ucs4_char_to_utf8(unsigned ucs4, char* out, char* out_end) noexcept;

}  // namespace zocore
