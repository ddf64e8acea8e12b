// A signed time span with nanosecond resolution.
#pragma once

#include <compare>
#include <cstdint>
#include <string>

#include <zocore/export.h>

namespace zocore {

// A signed 64-bit count of nanoseconds. Count 0 is the zero span; the largest count
// (0x7FFFFFFFFFFFFFFF) is the infinite span.
class ZOCORE_API RelativeTime {
 public:
  static constexpr std::int64_t kInfiniteCount = INT64_MAX;

  constexpr RelativeTime() noexcept = default;
  constexpr explicit RelativeTime(std::int64_t count) noexcept : count_(count) {}

  static constexpr RelativeTime zero() noexcept { return RelativeTime(0); }
  static constexpr RelativeTime infinite() noexcept { return RelativeTime(kInfiniteCount); }

  constexpr std::int64_t count() const noexcept { return count_; }
  constexpr bool is_zero() const noexcept { return count_ == 0; }
  constexpr bool is_infinite() const noexcept { return count_ == kInfiniteCount; }

  // Signed seconds with up to nine decimals (trailing zeros removed) and an "s": "1.5s",
  // "-0.25s", "0s"; "inf" for the infinite span.
  std::string as_string() const;
  // Accepts the as_string forms: "inf", or an optional "-", one or more digits of seconds, an
  // optional "." with one to nine digits, and "s". False (leaving *out unchanged) for any other
  // text or a value outside the count's range.
  static bool from_string_nothrow(std::string const& text, RelativeTime* out) noexcept;

  friend constexpr auto operator<=>(RelativeTime, RelativeTime) = default;

 private:
  std::int64_t count_ = 0;
};

}  // namespace zocore
