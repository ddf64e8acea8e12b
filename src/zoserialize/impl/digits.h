// Number formatting shared by the text and XML writers, and the scan of string bytes eight at a
// time that they and the text reader use: one way to print integers, times and hex in text forms.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace zoserialize::impl {

inline constexpr char kHexDigits[] = "0123456789abcdef";

constexpr std::array<char, 200> make_digit_pairs() {
  std::array<char, 200> t{};
  for (unsigned i = 0; i < 100; ++i) {
    t[std::size_t{2} * i] = static_cast<char>('0' + i / 10);
    t[std::size_t{2} * i + 1] = static_cast<char>('0' + i % 10);
  }
  return t;
}
inline constexpr std::array<char, 200> kDigitPairs = make_digit_pairs();

constexpr std::array<char, 512> make_hex_pairs() {
  std::array<char, 512> t{};
  for (unsigned i = 0; i < 256; ++i) {
    t[std::size_t{2} * i] = kHexDigits[i >> 4];
    t[std::size_t{2} * i + 1] = kHexDigits[i & 15];
  }
  return t;
}
inline constexpr std::array<char, 512> kHexPairs = make_hex_pairs();

// Decimal digits of `v` at `out`, two at a time; returns the end.
inline char* format_decimal(char* out, std::uint64_t v) noexcept {
  char digits[20];
  char* p = digits + sizeof digits;
  while (v >= 100) {
    p -= 2;
    std::memcpy(p, &kDigitPairs[2 * (v % 100)], 2);
    v /= 100;
  }
  if (v >= 10) {
    p -= 2;
    std::memcpy(p, &kDigitPairs[2 * v], 2);
  } else {
    *--p = static_cast<char>('0' + v);
  }
  auto const n = static_cast<std::size_t>(digits + sizeof digits - p);
  std::memcpy(out, p, n);
  return out + n;
}

// The low `bytes` bytes of `v`, most significant first, as two hex digits each.
inline char* format_hex_bytes(char* out, std::uint64_t v, unsigned bytes) noexcept {
  for (unsigned i = bytes; i-- > 0; out += 2)
    std::memcpy(out, &kHexPairs[2 * ((v >> (8 * i)) & 0xFF)], 2);
  return out;
}

// Exactly `width` digits of `v` (which fits them), zero-padded.
inline char* format_digits(char* out, std::uint32_t v, unsigned width) noexcept {
  for (unsigned i = width; i-- > 0;) {
    out[i] = static_cast<char>('0' + v % 10);
    v /= 10;
  }
  return out + width;
}

// The nine-digit fraction of a second `ns` (not 0) without its trailing zeros.
inline char* format_fraction(char* out, unsigned ns) noexcept {
  unsigned width = 9;
  while (ns % 10 == 0) {
    ns /= 10;
    --width;
  }
  return format_digits(out, ns, width);
}

// ---- Eight string bytes at a time ----
// Each returns a set high bit in the bytes of `word` that match: exact for the first match in
// memory order, which is all a scan needs (a borrow can only mark bytes after a true one).
inline constexpr std::uint64_t kOnes = 0x0101010101010101ull;
inline constexpr std::uint64_t kHighs = 0x8080808080808080ull;

constexpr std::uint64_t bytes_below(std::uint64_t word, unsigned char limit) noexcept {
  return (word - kOnes * limit) & ~word & kHighs;
}
constexpr std::uint64_t bytes_equal(std::uint64_t word, unsigned char c) noexcept {
  return bytes_below(word ^ (kOnes * c), 1);
}

}  // namespace zoserialize::impl
