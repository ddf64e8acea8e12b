// Big-endian images of integers, and short copies, for the binary archives' inline front ends.
// Installed only because those front ends are compiled into their callers; not part of the
// library's contract.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace zoserialize::impl {

template <class U>
constexpr U byte_swap(U u) noexcept {
  if constexpr (sizeof(U) == 1) {
    return u;
  } else if constexpr (sizeof(U) == 2) {
    return static_cast<U>(__builtin_bswap16(static_cast<std::uint16_t>(u)));
  } else if constexpr (sizeof(U) == 4) {
    return static_cast<U>(__builtin_bswap32(static_cast<std::uint32_t>(u)));
  } else {
    static_assert(sizeof(U) == 8);
    return static_cast<U>(__builtin_bswap64(static_cast<std::uint64_t>(u)));
  }
}

// The big-endian image of `value`, most significant byte first, at `out`.
template <class T>
inline void store_big_endian(T value, unsigned char* out) noexcept {
  using U = std::make_unsigned_t<T>;
  U const be = byte_swap(static_cast<U>(value));
  std::memcpy(out, &be, sizeof be);
}

template <class T>
inline T load_big_endian(unsigned char const* in) noexcept {
  using U = std::make_unsigned_t<T>;
  U be;
  std::memcpy(&be, in, sizeof be);
  return static_cast<T>(byte_swap(be));
}

// Copies `n` bytes (Width <= n <= 4 * Width) with four moves of `Width` bytes at offsets spread
// evenly over the run (about 0, 1/3, 2/3 and all of n - Width, never more than Width apart), all
// read before any is stored. Neither range reaches beyond its n bytes.
template <unsigned Width>
inline void copy_spread(unsigned char* d, unsigned char const* s, unsigned n) noexcept {
  unsigned const last = n - Width;
  unsigned const third = (last * 86) >> 8;        // last / 3 rounded down, for last <= 3 * Width
  unsigned const two_thirds = (last * 172) >> 8;  // 2 * last / 3, likewise
  unsigned char first[Width];
  unsigned char second[Width];
  unsigned char third_part[Width];
  unsigned char fourth[Width];
  std::memcpy(first, s, Width);
  std::memcpy(second, s + third, Width);
  std::memcpy(third_part, s + two_thirds, Width);
  std::memcpy(fourth, s + last, Width);
  std::memcpy(d, first, Width);
  std::memcpy(d + third, second, Width);
  std::memcpy(d + two_thirds, third_part, Width);
  std::memcpy(d + last, fourth, Width);
}

// Copies `n` bytes (more than 16): up to 64 in four 16-byte moves rather than through memcpy,
// whose own dispatch on the size would branch again. Out of line, so that copy_short stays small
// enough for the compiler to inline it at every call site.
[[gnu::noinline]] inline void copy_long(unsigned char* d, unsigned char const* s,
                                        unsigned n) noexcept {
  if (n <= 64) {
    copy_spread<16>(d, s, n);
  } else {
    std::memcpy(d, s, n);
  }
}

// Copies `n` bytes. Lengths vary from value to value, so each common range takes no branch of
// its own: 4 to 16 bytes inline in four 4-byte moves, 17 to 64 in copy_long's four 16-byte moves.
// Neither range reaches beyond its n bytes.
inline void copy_short(void* dest, void const* source, unsigned n) noexcept {
  auto* d = static_cast<unsigned char*>(dest);
  auto const* s = static_cast<unsigned char const*>(source);
  if (n - 4 <= 12) {
    copy_spread<4>(d, s, n);
  } else if (n > 16) {
    copy_long(d, s, n);
  } else if (n != 0) {
    d[0] = s[0];
    d[n / 2] = s[n / 2];
    d[n - 1] = s[n - 1];
  }
}

}  // namespace zoserialize::impl
