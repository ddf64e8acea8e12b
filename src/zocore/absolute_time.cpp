#include <chrono>
#include <cstdint>

#include <zocore/absolute_time.h>

namespace zocore {
namespace {

constexpr std::int64_t kNanosPerSecond = 1'000'000'000;
constexpr std::int64_t kNanosPerDay = 86'400 * kNanosPerSecond;

struct CivilDate {
  std::int64_t year;
  unsigned month;
  unsigned day;
};

// Days since 1970-01-01 of a proleptic Gregorian date (H. Hinnant's days_from_civil). The
// calendar repeats every 400 years (146097 days), so the date is reduced to an era and a year of
// the era, with years starting in March so that the leap day is the last day of a year. Exact for
// every `int` year; the result always fits in 64 bits.
constexpr std::int64_t days_from_civil(std::int64_t year, unsigned month, unsigned day) noexcept {
  year -= month <= 2 ? 1 : 0;
  std::int64_t const era = (year >= 0 ? year : year - 399) / 400;
  auto const year_of_era = static_cast<unsigned>(year - era * 400);  // [0, 399]
  unsigned const day_of_year = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  unsigned const day_of_era =
      year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;  // [0, 146096]
  return era * 146097 + static_cast<std::int64_t>(day_of_era) - 719468;
}

// The inverse of days_from_civil.
constexpr CivilDate civil_from_days(std::int64_t days) noexcept {
  days += 719468;
  std::int64_t const era = (days >= 0 ? days : days - 146096) / 146097;
  auto const day_of_era = static_cast<unsigned>(days - era * 146097);  // [0, 146096]
  unsigned const year_of_era =
      (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
  unsigned const day_of_year =
      day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);  // [0, 365]
  unsigned const month_from_march = (5 * day_of_year + 2) / 153;               // [0, 11]
  unsigned const day = day_of_year - (153 * month_from_march + 2) / 5 + 1;
  unsigned const month = month_from_march < 10 ? month_from_march + 3 : month_from_march - 9;
  std::int64_t const year = static_cast<std::int64_t>(year_of_era) + era * 400 + (month <= 2);
  return {year, month, day};
}

static_assert(days_from_civil(1970, 1, 1) == 0);
static_assert(days_from_civil(2000, 3, 1) == 11017);
static_assert(civil_from_days(-1).year == 1969 && civil_from_days(-1).day == 31);

constexpr bool is_leap_year(std::int64_t year) noexcept {
  return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

constexpr unsigned days_in_month(std::int64_t year, unsigned month) noexcept {
  constexpr unsigned char kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && is_leap_year(year) ? 29 : kDays[month - 1];
}

// Writes `value` as exactly `width` decimal digits ending just before `end`; returns the start.
char* put_digits(char* end, std::uint32_t value, int width) noexcept {
  for (int i = 0; i < width; ++i) {
    *--end = static_cast<char>('0' + value % 10);
    value /= 10;
  }
  return end;
}

// Reads exactly `width` decimal digits at `p`; false when any of them is not a digit.
bool get_digits(char const* p, int width, unsigned* out) noexcept {
  unsigned value = 0;
  for (int i = 0; i < width; ++i) {
    if (p[i] < '0' || p[i] > '9') return false;
    value = value * 10 + static_cast<unsigned>(p[i] - '0');
  }
  *out = value;
  return true;
}

}  // namespace

AbsoluteTime::Components::Components(AbsoluteTime const& t) noexcept {
  // Floor division, so that instants before 1970 fall into the day they belong to. Neither the
  // quotient nor the adjusted remainder can overflow, even at the limits of the count.
  std::int64_t days = t.count() / kNanosPerDay;
  std::int64_t nanos_of_day = t.count() % kNanosPerDay;
  if (nanos_of_day < 0) {
    nanos_of_day += kNanosPerDay;
    --days;
  }
  CivilDate const date = civil_from_days(days);
  // The count's range spans years 1677 to 2262, well within `int`.
  year = static_cast<int>(date.year);
  month = date.month;
  day = date.day;
  auto const seconds_of_day = static_cast<unsigned>(nanos_of_day / kNanosPerSecond);
  nanosecond = static_cast<unsigned>(nanos_of_day % kNanosPerSecond);
  hour = seconds_of_day / 3600;
  minute = seconds_of_day / 60 % 60;
  second = seconds_of_day % 60;
}

AbsoluteTime AbsoluteTime::now() noexcept {
  auto const since_epoch = std::chrono::system_clock::now().time_since_epoch();
  return AbsoluteTime(std::chrono::duration_cast<std::chrono::nanoseconds>(since_epoch).count());
}

bool AbsoluteTime::from_components_nothrow(Components const& c, AbsoluteTime* out) noexcept {
  if (c.month < 1 || c.month > 12 || c.day < 1 || c.day > days_in_month(c.year, c.month) ||
      c.hour > 23 || c.minute > 59 || c.second > 59 ||
      c.nanosecond >= static_cast<unsigned>(kNanosPerSecond)) {
    return false;
  }
  std::int64_t const days = days_from_civil(c.year, c.month, c.day);
  std::int64_t const seconds_of_day =
      std::int64_t{c.hour} * 3600 + std::int64_t{c.minute} * 60 + std::int64_t{c.second};
  std::int64_t const nanos_of_day = seconds_of_day * kNanosPerSecond + c.nanosecond;
  // The midnight that starts the first day of the range lies before the smallest count, so a
  // day before 1970 is taken from the end of the day back instead: the partial product then
  // always lies between zero and the result, and overflows only when the result does.
  std::int64_t count = 0;
  bool const overflow = days < 0
                            ? __builtin_mul_overflow(days + 1, kNanosPerDay, &count) ||
                                  __builtin_add_overflow(count, nanos_of_day - kNanosPerDay, &count)
                            : __builtin_mul_overflow(days, kNanosPerDay, &count) ||
                                  __builtin_add_overflow(count, nanos_of_day, &count);
  if (overflow) return false;
  *out = AbsoluteTime(count);
  return true;
}

std::string AbsoluteTime::as_string() const {
  Components const c(*this);
  // "YYYY-MM-DD hh:mm:ss.nnnnnnnnn"
  char text[29];
  put_digits(text + 4, static_cast<std::uint32_t>(c.year), 4);
  text[4] = '-';
  put_digits(text + 7, c.month, 2);
  text[7] = '-';
  put_digits(text + 10, c.day, 2);
  text[10] = ' ';
  put_digits(text + 13, c.hour, 2);
  text[13] = ':';
  put_digits(text + 16, c.minute, 2);
  text[16] = ':';
  put_digits(text + 19, c.second, 2);
  std::size_t size = 19;
  if (c.nanosecond != 0) {
    text[19] = '.';
    put_digits(text + 29, c.nanosecond, 9);
    size = 29;
    while (text[size - 1] == '0')
      --size;
  }
  return {text, size};
}

bool AbsoluteTime::from_string_nothrow(std::string const& text, AbsoluteTime* out) noexcept {
  constexpr std::size_t kFractionStart = 20;
  constexpr std::size_t kMaxSize = kFractionStart + 9;
  if (text.size() < 19 || text.size() > kMaxSize) return false;
  char const* p = text.data();
  unsigned year = 0;
  Components c;
  if (!get_digits(p, 4, &year) || p[4] != '-' || !get_digits(p + 5, 2, &c.month) || p[7] != '-' ||
      !get_digits(p + 8, 2, &c.day) || (p[10] != ' ' && p[10] != 'T') ||
      !get_digits(p + 11, 2, &c.hour) || p[13] != ':' || !get_digits(p + 14, 2, &c.minute) ||
      p[16] != ':' || !get_digits(p + 17, 2, &c.second)) {
    return false;
  }
  c.year = static_cast<int>(year);
  if (text.size() > 19) {
    std::size_t const digits = text.size() - kFractionStart;
    if (p[19] != '.' || digits == 0 ||
        !get_digits(p + kFractionStart, static_cast<int>(digits), &c.nanosecond)) {
      return false;
    }
    for (std::size_t i = digits; i < 9; ++i)
      c.nanosecond *= 10;
  }
  return from_components_nothrow(c, out);
}

}  // namespace zocore
