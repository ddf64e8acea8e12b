// Minimal forms of big-endian integer images, shared by every archive that shortens integers
// (binary, text, XML, trace, hashing): they must all strip the same bytes.
#pragma once

#include <cstdint>

#include <zoserialize/impl/byte_order.h>

namespace zoserialize::impl {

// The significant bytes of a big-endian two's-complement image: image[offset, offset + length).
// Leading bytes that only repeat the sign are dropped, but one is kept when the next byte's top
// bit differs from the sign, so the bytes still carry the sign. length 0 means the value is 0
// (sign 0x00) or -1 (sign 0xFF).
struct SignedForm {
  unsigned char sign;
  unsigned offset;
  unsigned length;
};

inline SignedForm minimal_signed_form(unsigned char const* image, unsigned size) noexcept {
  if (size == 0) return {0x00, 0, 0};
  unsigned char const sign = (image[0] & 0x80) ? 0xFF : 0x00;
  unsigned i = 0;
  while (i < size && image[i] == sign)
    ++i;
  if (i == size) return {sign, size, 0};
  // A byte was dropped only if it equalled the sign, so image[i - 1] is that sign byte.
  if (i > 0 && ((image[i] ^ sign) & 0x80) != 0) --i;
  return {sign, i, size - i};
}

// The significant bytes of a big-endian unsigned image: leading zero bytes dropped. length 0
// means the value is 0.
struct UnsignedForm {
  unsigned offset;
  unsigned length;
};

inline UnsignedForm minimal_unsigned_form(unsigned char const* image, unsigned size) noexcept {
  unsigned i = 0;
  while (i < size && image[i] == 0)
    ++i;
  return {i, size - i};
}

// Loads an image of at most 8 bytes as a sign-extended 64-bit value.
inline std::int64_t load_signed(unsigned char const* image, unsigned size) noexcept {
  switch (size) {
    case 1:
      return static_cast<std::int8_t>(image[0]);
    case 2:
      return load_big_endian<std::int16_t>(image);
    case 4:
      return load_big_endian<std::int32_t>(image);
    case 8:
      return load_big_endian<std::int64_t>(image);
    default:
      break;
  }
  std::uint64_t u = (size != 0 && (image[0] & 0x80)) ? ~std::uint64_t{0} : 0;
  for (unsigned i = 0; i < size; ++i)
    u = (u << 8) | image[i];
  return static_cast<std::int64_t>(u);
}

inline std::uint64_t load_unsigned(unsigned char const* image, unsigned size) noexcept {
  switch (size) {
    case 1:
      return image[0];
    case 2:
      return load_big_endian<std::uint16_t>(image);
    case 4:
      return load_big_endian<std::uint32_t>(image);
    case 8:
      return load_big_endian<std::uint64_t>(image);
    default:
      break;
  }
  std::uint64_t u = 0;
  for (unsigned i = 0; i < size; ++i)
    u = (u << 8) | image[i];
  return u;
}

}  // namespace zoserialize::impl
