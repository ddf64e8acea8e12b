// A point in time together with the time-zone offset it was recorded in.
#pragma once

#include <iosfwd>

#include <zocore/absolute_time.h>
#include <zocore/export.h>

namespace zocore {

// An AbsoluteTime (UTC) and an integer component: the offset of the local time zone from UTC in
// minutes at the place the time was taken (120 for UTC+02:00, 0 for UTC). The offset is carried
// as given and never checked or applied, so any int round-trips unchanged. A plain value type.
class ZOCORE_API SimpleDateTime {
 public:
  constexpr SimpleDateTime() noexcept = default;
  constexpr SimpleDateTime(AbsoluteTime const& time, int offset_minutes) noexcept
      : time_(time), offset_minutes_(offset_minutes) {}

  void set(AbsoluteTime const& time, int offset_minutes) noexcept;

  constexpr AbsoluteTime const& time() const noexcept { return time_; }
  constexpr int offset_minutes() const noexcept { return offset_minutes_; }

  friend constexpr bool operator==(SimpleDateTime const&, SimpleDateTime const&) = default;

 private:
  AbsoluteTime time_;
  int offset_minutes_ = 0;
};

// "2023-05-01 12:30:00 UTC+120min": the UTC time and the offset, for logs and test output.
ZOCORE_API std::ostream& operator<<(std::ostream& os, SimpleDateTime const& value);

}  // namespace zocore
