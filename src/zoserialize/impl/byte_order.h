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

// The first and the last `Width` bytes of `n` (Width <= n <= 2 * Width), both read before either
// is stored.
template <unsigned Width>
inline void copy_head_and_tail(unsigned char* d, unsigned char const* s, unsigned n) noexcept {
  unsigned char head[Width];
  unsigned char tail[Width];
  std::memcpy(head, s, Width);
  std::memcpy(tail, s + n - Width, Width);
  std::memcpy(d, head, Width);
  std::memcpy(d + n - Width, tail, Width);
}

// Copies `n` bytes without a call for short runs. Lengths vary from value to value, so the common
// range of 4 to 16 bytes takes no branch at all: four 4-byte moves at offsets spread evenly over
// the run (about 0, 1/3, 2/3 and all of n - 4, never more than 4 apart) cover it. Neither range
// reaches beyond its n bytes.
inline void copy_short(void* dest, void const* source, unsigned n) noexcept {
  auto* d = static_cast<unsigned char*>(dest);
  auto const* s = static_cast<unsigned char const*>(source);
  if (n - 4 <= 12) {
    unsigned const last = n - 4;
    unsigned const third = (last * 86) >> 8;           // last / 3, rounded down, for last <= 12
    unsigned const two_thirds = (last * 2 * 86) >> 8;  // 2 * last / 3, likewise
    std::uint32_t a;
    std::uint32_t b;
    std::uint32_t c;
    std::uint32_t e;
    std::memcpy(&a, s, 4);
    std::memcpy(&b, s + third, 4);
    std::memcpy(&c, s + two_thirds, 4);
    std::memcpy(&e, s + last, 4);
    std::memcpy(d, &a, 4);
    std::memcpy(d + third, &b, 4);
    std::memcpy(d + two_thirds, &c, 4);
    std::memcpy(d + last, &e, 4);
  } else if (n > 16) {
    std::memcpy(d, s, n);
  } else if (n != 0) {
    d[0] = s[0];
    d[n / 2] = s[n / 2];
    d[n - 1] = s[n - 1];
  }
}

}  // namespace zoserialize::impl
