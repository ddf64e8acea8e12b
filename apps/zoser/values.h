// Text forms of element values shared by the JSON writer, compare and stats.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace zoser {

// A big-endian integer image of `size` bytes (two's complement when `is_signed`), as handed to
// Writer::write_int_big_endian / write_uint_big_endian, of any width.

// True and *out set when the value fits 64 bits of its kind.
bool image_to_int64(unsigned char const* image, std::size_t size, std::int64_t* out) noexcept;
bool image_to_uint64(unsigned char const* image, std::size_t size, std::uint64_t* out) noexcept;
// The value in decimal, whatever its width ("-170141183460469231731687303715884105728").
std::string image_to_decimal(unsigned char const* image, std::size_t size, bool is_signed);

// The shortest decimal text that reads back as the same double ("1.5", "1e+300", "-0"), or
// "inf", "-inf", "nan".
std::string double_text(double value);

// `bytes` quoted for a message: at most `limit` bytes, `"` and `\` escaped with a backslash,
// control characters and 0x7F as \xhh; "..." after the closing quote when cut.
std::string quoted(std::string_view bytes, std::size_t limit);

}  // namespace zoser
