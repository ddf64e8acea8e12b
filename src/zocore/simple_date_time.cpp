#include <ostream>

#include <zocore/simple_date_time.h>

namespace zocore {

void SimpleDateTime::set(AbsoluteTime const& time, int offset_minutes) noexcept {
  time_ = time;
  offset_minutes_ = offset_minutes;
}

std::ostream& operator<<(std::ostream& os, SimpleDateTime const& value) {
  os << value.time().as_string() << " UTC" << (value.offset_minutes() < 0 ? "" : "+")
     << value.offset_minutes() << "min";
  return os;
}

}  // namespace zocore
