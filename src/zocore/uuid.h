// 128-bit universally unique identifier.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <string>

#include <zocore/export.h>

namespace zocore {

// Sixteen bytes, kept in the order in which they appear in the text form, which is also the
// order of the binary form (write_binary / from_binary).
class ZOCORE_API Uuid {
 public:
  enum EFormat {
    kHyphenated = 0,  // "123e4567-e89b-12d3-a456-426614174000" (8-4-4-4-12, lowercase)
    kCompact = 1,     // "123e4567e89b12d3a456426614174000" (32 lowercase hex digits)
  };
  static constexpr unsigned kBinarySize = 16;

  constexpr Uuid() noexcept = default;  // the null UUID
  constexpr explicit Uuid(std::array<unsigned char, 16> const& bytes) noexcept : bytes_(bytes) {}

  // The 16 bytes at `data`.
  static Uuid from_binary(unsigned char const* data) noexcept;
  // Parses either text form, in either case: exactly 36 characters with hyphens at offsets 8, 13,
  // 18 and 23, or exactly 32 hex digits. Throws error::zocore_format ("Invalid UUID text", with
  // the text as parameter "text") on anything else. `text` may be null when `size` is 0.
  static Uuid from_string(char const* text, unsigned size);
  // As from_string, but returns false (leaving *out unchanged) instead of throwing.
  static bool from_string_nothrow(char const* text, unsigned size, Uuid* out) noexcept;
  // A random (version 4, variant 1) UUID from a per-thread generator seeded by
  // std::random_device; not for cryptographic use. Throws only when the entropy source fails.
  static Uuid create_random();

  bool is_null() const noexcept;
  // Writes the 16 bytes of the binary form to `out` and returns 16.
  unsigned write_binary(unsigned char* out) const noexcept;
  std::string as_string(EFormat format = kHyphenated) const;
  std::array<unsigned char, 16> const& bytes() const noexcept { return bytes_; }

  friend bool operator==(Uuid const&, Uuid const&) = default;
  friend auto operator<=>(Uuid const&, Uuid const&) = default;

 private:
  std::array<unsigned char, 16> bytes_{};
};

// Mixes all sixteen bytes, so UUIDs that differ in any byte spread over the buckets.
struct ZOCORE_API UuidHash {
  std::size_t operator()(Uuid const& u) const noexcept;
};

}  // namespace zocore
