// Base64 (RFC 4648, standard alphabet A-Z a-z 0-9 + /).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <zocore/export.h>

namespace zocore {

// Characters needed for `size` bytes: 4 per started group of 3 with padding; without padding a
// final group of 1 or 2 bytes takes 2 or 3 characters.
constexpr std::size_t base64_encoded_size(std::size_t size, bool pad = true) noexcept {
  return pad ? (size + 2) / 3 * 4 : size / 3 * 4 + (size % 3 ? size % 3 + 1 : 0);
}

// Writes base64_encoded_size(size, pad) characters to `out` and returns that count.
ZOCORE_API std::size_t base64_encode(void const* data, std::size_t size, char* out,
                                     bool pad = true) noexcept;
ZOCORE_API std::string base64_encode(void const* data, std::size_t size, bool pad = true);

// Decodes base64 text; padding is optional but, when present, must be correct. Whitespace is not
// accepted. Throws error::zocore_format ("Invalid base64 text at offset {@offset}") on anything
// else, including non-zero bits in the unused part of the last character. The offset is that of
// the first character that cannot stand where it is; when the text ends too early (a lone last
// character, incomplete padding) it is the text's length.
ZOCORE_API std::string base64_decode(std::string_view text);

}  // namespace zocore
