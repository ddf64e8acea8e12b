#include "values.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <vector>

namespace zoser {

namespace {

// Whether every byte before the last 8 only repeats the sign (`fill`) and the 64-bit value's own
// sign agrees with it.
bool fits_64(unsigned char const* image, std::size_t size, unsigned char fill) noexcept {
  if (size <= 8) return true;
  for (std::size_t i = 0; i + 8 < size; ++i)
    if (image[i] != fill) return false;
  return true;
}

std::uint64_t low_64(unsigned char const* image, std::size_t size, unsigned char fill) noexcept {
  std::uint64_t v = 0;
  for (std::size_t i = 8; i > size; --i)
    v = (v << 8) | fill;
  for (std::size_t i = size > 8 ? size - 8 : 0; i < size; ++i)
    v = (v << 8) | image[i];
  return v;
}

}  // namespace

bool image_to_int64(unsigned char const* image, std::size_t size, std::int64_t* out) noexcept {
  unsigned char const fill = size != 0 && (image[0] & 0x80) ? 0xFF : 0x00;
  if (!fits_64(image, size, fill)) return false;
  std::uint64_t const v = low_64(image, size, fill);
  // The top bit of the low 64 bits must repeat the sign, or the value needs 65 bits.
  if (size > 8 && ((v >> 63) != 0) != (fill == 0xFF)) return false;
  *out = static_cast<std::int64_t>(v);
  return true;
}

bool image_to_uint64(unsigned char const* image, std::size_t size, std::uint64_t* out) noexcept {
  if (!fits_64(image, size, 0x00)) return false;
  *out = low_64(image, size, 0x00);
  return true;
}

std::string image_to_decimal(unsigned char const* image, std::size_t size, bool is_signed) {
  bool const negative = is_signed && size != 0 && (image[0] & 0x80) != 0;
  // The magnitude, most significant byte first: the two's complement negated when negative.
  std::vector<unsigned char> magnitude(image, image + size);
  if (negative) {
    unsigned carry = 1;
    for (std::size_t i = size; i-- > 0;) {
      unsigned const b = static_cast<unsigned char>(~magnitude[i]) + carry;
      magnitude[i] = static_cast<unsigned char>(b);
      carry = b >> 8;
    }
  }
  std::string digits;
  std::size_t start = 0;
  for (;;) {
    while (start < magnitude.size() && magnitude[start] == 0)
      ++start;
    if (start == magnitude.size()) break;
    unsigned remainder = 0;
    for (std::size_t i = start; i < magnitude.size(); ++i) {
      unsigned const cur = (remainder << 8) | magnitude[i];
      magnitude[i] = static_cast<unsigned char>(cur / 10);
      remainder = cur % 10;
    }
    digits.push_back(static_cast<char>('0' + remainder));
  }
  if (digits.empty()) digits.push_back('0');
  if (negative) digits.push_back('-');
  std::reverse(digits.begin(), digits.end());
  return digits;
}

std::string double_text(double value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
  char text[40];
  auto const [end, ec] = std::to_chars(text, text + sizeof text, value);
  return std::string(text, ec == std::errc() ? end : text);
}

std::string quoted(std::string_view bytes, std::size_t limit) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out = "\"";
  std::size_t const n = std::min(bytes.size(), limit);
  for (std::size_t i = 0; i < n; ++i) {
    auto const c = static_cast<unsigned char>(bytes[i]);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c == 0x7F) {
      out += "\\x";
      out += kHex[c >> 4];
      out += kHex[c & 15];
    } else {
      out += static_cast<char>(c);
    }
  }
  out += '"';
  if (n < bytes.size()) out += "...";
  return out;
}

}  // namespace zoser
