// A point in time with nanosecond resolution.
#pragma once

#include <compare>
#include <cstdint>
#include <string>

#include <zocore/export.h>

namespace zocore {

// Nanoseconds since 1970-01-01 00:00:00 UTC in the proleptic Gregorian calendar, as a signed
// 64-bit count: from 1677-09-21 00:12:43.145224192 to 2262-04-11 23:47:16.854775807. Count 0 is
// the zero value; the largest count (0x7FFFFFFFFFFFFFFF) is the infinite time.
class ZOCORE_API AbsoluteTime {
 public:
  static constexpr std::int64_t kInfiniteCount = INT64_MAX;

  // A broken-down date and time (UTC). nanosecond is the nine-digit fraction of the second.
  struct ZOCORE_API Components {
    int year = 1970;
    unsigned month = 1;   // 1..12
    unsigned day = 1;     // 1..31
    unsigned hour = 0;    // 0..23
    unsigned minute = 0;  // 0..59
    unsigned second = 0;  // 0..59
    unsigned nanosecond = 0;

    Components() = default;
    constexpr Components(int y, unsigned mo, unsigned d, unsigned h = 0, unsigned mi = 0,
                         unsigned s = 0, unsigned ns = 0) noexcept
        : year(y), month(mo), day(d), hour(h), minute(mi), second(s), nanosecond(ns) {}
    // Exact for every count, including the two limits.
    explicit Components(AbsoluteTime const& t) noexcept;
    friend bool operator==(Components const&, Components const&) = default;
  };

  constexpr AbsoluteTime() noexcept = default;
  constexpr explicit AbsoluteTime(std::int64_t count) noexcept : count_(count) {}

  static constexpr AbsoluteTime zero() noexcept { return AbsoluteTime(0); }
  static constexpr AbsoluteTime infinite() noexcept { return AbsoluteTime(kInfiniteCount); }
  // The current time of the system clock.
  static AbsoluteTime now() noexcept;

  constexpr std::int64_t count() const noexcept { return count_; }
  constexpr bool is_zero() const noexcept { return count_ == 0; }
  constexpr bool is_infinite() const noexcept { return count_ == kInfiniteCount; }

  // False (leaving *out unchanged) when a field is out of its range, the day does not exist in
  // that month, or the instant is outside the representable range.
  static bool from_components_nothrow(Components const& c, AbsoluteTime* out) noexcept;

  // "YYYY-MM-DD hh:mm:ss", then "." and up to nine digits (trailing zeros removed) when the
  // nanoseconds are not zero.
  std::string as_string() const;
  // Accepts exactly the as_string form, also with 'T' between date and time; the fraction may
  // keep trailing zeros but has one to nine digits. False (leaving *out unchanged) for any other
  // text, a date that does not exist, or an instant outside the representable range.
  static bool from_string_nothrow(std::string const& text, AbsoluteTime* out) noexcept;

  friend constexpr auto operator<=>(AbsoluteTime, AbsoluteTime) = default;

 private:
  std::int64_t count_ = 0;
};

}  // namespace zocore
