#include <charconv>

#include <zocore/error_params.h>

namespace zocore {
namespace {

template <class Int>
std::string decimal(Int value) {
  char buf[32];
  auto const r = std::to_chars(buf, buf + sizeof buf, value);
  return std::string(buf, r.ptr);
}

}  // namespace

ErrorParams& ErrorParams::set(SourceString name, std::string value) {
  map_.insert_or_assign(std::move(name), std::move(value));
  return *this;
}

ErrorParams& ErrorParams::set(char const* name, std::string_view value) {
  return set(SourceString(name, true), std::string(value));
}
ErrorParams& ErrorParams::set(char const* name, int value) {
  return set(name, decimal(value));
}
ErrorParams& ErrorParams::set(char const* name, unsigned value) {
  return set(name, decimal(value));
}
ErrorParams& ErrorParams::set(char const* name, long value) {
  return set(name, decimal(value));
}
ErrorParams& ErrorParams::set(char const* name, unsigned long value) {
  return set(name, decimal(value));
}
ErrorParams& ErrorParams::set(char const* name, long long value) {
  return set(name, decimal(value));
}
ErrorParams& ErrorParams::set(char const* name, unsigned long long value) {
  return set(name, decimal(value));
}

ErrorParams& ErrorParams::set(char const* name, double value) {
  return set(name, decimal(value));
}

std::string const* ErrorParams::find(std::string_view name) const {
  auto const it = map_.find(name);
  return it == map_.end() ? nullptr : &it->second;
}

}  // namespace zocore
