#include <cstdint>

#include <zocore/relative_time.h>

namespace zocore {
namespace {

constexpr std::uint64_t kNanosPerSecond = 1'000'000'000;
// The largest whole-second part a finite count can have: 9223372036.854775807s.
constexpr std::uint64_t kMaxSeconds = static_cast<std::uint64_t>(INT64_MAX) / kNanosPerSecond;
constexpr std::uint64_t kMinCountMagnitude = static_cast<std::uint64_t>(INT64_MAX) + 1;

}  // namespace

std::string RelativeTime::as_string() const {
  if (is_infinite()) return "inf";
  // The magnitude is taken in unsigned arithmetic, where negating INT64_MIN is well defined.
  bool const negative = count_ < 0;
  std::uint64_t const magnitude =
      negative ? 0 - static_cast<std::uint64_t>(count_) : static_cast<std::uint64_t>(count_);
  std::uint64_t seconds = magnitude / kNanosPerSecond;
  auto fraction = static_cast<std::uint32_t>(magnitude % kNanosPerSecond);

  // "-9223372036.854775808s" is the longest text.
  char text[24];
  char* const end = text + sizeof text;
  char* p = end;
  *--p = 's';
  if (fraction != 0) {
    int digits = 9;
    while (fraction % 10 == 0) {
      fraction /= 10;
      --digits;
    }
    while (digits-- > 0) {
      *--p = static_cast<char>('0' + fraction % 10);
      fraction /= 10;
    }
    *--p = '.';
  }
  do {
    *--p = static_cast<char>('0' + seconds % 10);
    seconds /= 10;
  } while (seconds != 0);
  if (negative) *--p = '-';
  return {p, end};
}

bool RelativeTime::from_string_nothrow(std::string const& text, RelativeTime* out) noexcept {
  if (text == "inf") {
    *out = infinite();
    return true;
  }
  std::size_t i = 0;
  std::size_t const size = text.size();
  bool const negative = i < size && text[i] == '-';
  if (negative) ++i;

  std::size_t const seconds_start = i;
  std::uint64_t seconds = 0;
  while (i < size && text[i] >= '0' && text[i] <= '9') {
    seconds = seconds * 10 + static_cast<std::uint64_t>(text[i] - '0');
    // Stopping here keeps the accumulation from overflowing however many digits follow.
    if (seconds > kMaxSeconds) return false;
    ++i;
  }
  if (i == seconds_start) return false;

  std::uint64_t fraction = 0;
  if (i < size && text[i] == '.') {
    ++i;
    std::size_t const fraction_start = i;
    while (i < size && text[i] >= '0' && text[i] <= '9') {
      if (i - fraction_start == 9) return false;
      fraction = fraction * 10 + static_cast<std::uint64_t>(text[i] - '0');
      ++i;
    }
    std::size_t const digits = i - fraction_start;
    if (digits == 0) return false;
    for (std::size_t d = digits; d < 9; ++d)
      fraction *= 10;
  }
  if (i + 1 != size || text[i] != 's') return false;

  std::uint64_t const magnitude = seconds * kNanosPerSecond + fraction;
  if (magnitude > (negative ? kMinCountMagnitude : static_cast<std::uint64_t>(INT64_MAX))) {
    return false;
  }
  *out = RelativeTime(negative ? static_cast<std::int64_t>(0 - magnitude)
                               : static_cast<std::int64_t>(magnitude));
  return true;
}

}  // namespace zocore
