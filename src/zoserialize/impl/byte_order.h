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

// Copies `n` bytes; up to 16 with two overlapping moves instead of a call. Neither range reaches
// beyond its n bytes.
inline void copy_short(void* dest, void const* source, unsigned n) noexcept {
  auto* d = static_cast<unsigned char*>(dest);
  auto const* s = static_cast<unsigned char const*>(source);
  if (n >= 8) {
    if (n > 16) {
      std::memcpy(d, s, n);
      return;
    }
    std::uint64_t head;
    std::uint64_t tail;
    std::memcpy(&head, s, 8);
    std::memcpy(&tail, s + n - 8, 8);
    std::memcpy(d, &head, 8);
    std::memcpy(d + n - 8, &tail, 8);
  } else if (n >= 4) {
    std::uint32_t head;
    std::uint32_t tail;
    std::memcpy(&head, s, 4);
    std::memcpy(&tail, s + n - 4, 4);
    std::memcpy(d, &head, 4);
    std::memcpy(d + n - 4, &tail, 4);
  } else if (n != 0) {
    d[0] = s[0];
    d[n / 2] = s[n / 2];
    d[n - 1] = s[n - 1];
  }
}

}  // namespace zoserialize::impl
