// Hexadecimal transforms.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <zocore/export.h>

namespace zocore {

// Two lowercase digits per byte into `out` (2 * size characters).
ZOCORE_API void hex_encode(void const* data, std::size_t size, char* out) noexcept;
ZOCORE_API std::string hex_encode(void const* data, std::size_t size);
inline std::string hex_encode(std::string_view bytes) {
  return hex_encode(bytes.data(), bytes.size());
}

// The value of a hex digit in either case, or -1.
ZOCORE_API int hex_digit_value(char c) noexcept;

// Decodes an even number of hex digits (either case). Throws error::zocore_format ("Invalid
// hexadecimal text at offset {@offset}") otherwise; the offset is that of the first character
// that is not a digit, or the text's length when the last digit has no partner.
ZOCORE_API std::string hex_decode(std::string_view text);

}  // namespace zocore
