#include <charconv>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <system_error>

#include <zocore/core_errors.h>
#include <zocore/error_composer.h>
#include <zocore/numeric.h>

#if __has_include(<cxxabi.h>)
#include <cxxabi.h>
#define ZOCORE_HAVE_CXXABI 1
#endif

namespace zocore {
namespace {

constexpr char kModuleId[] = "$Id: src/zocore/numeric.cpp $";
SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

template <class Int>
std::string decimal(Int value) {
  char buf[24];
  auto const r = std::to_chars(buf, buf + sizeof buf, value);
  return std::string(buf, r.ptr);
}

// The readable name of a type: "unsigned short" rather than "t".
std::string type_name(std::type_info const& type) {
#ifdef ZOCORE_HAVE_CXXABI
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> const demangled(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
  if (status == 0 && demangled) return demangled.get();
#endif
  return type.name();
}

[[gnu::cold]] double parse_failure(char const* message, char const* text, unsigned size,
                                   RefCountPtr<ErrorInfo const>* error) {
  if (error) {
    ErrorParams params;
    params.set("text", std::string_view(text, size));
    *error = ErrorInfo::create(error::zocore_format, SourceString(message, true), std::move(params),
                               here("zocore::impl::string_to_double()"));
  }
  return 0.0;
}

}  // namespace

std::string to_string(int value) {
  return decimal(value);
}
std::string to_string(unsigned value) {
  return decimal(value);
}
std::string to_string(long long value) {
  return decimal(value);
}
std::string to_string(unsigned long long value) {
  return decimal(value);
}

namespace impl {

double string_to_double(char const* text, unsigned size, RefCountPtr<ErrorInfo const>* error) {
  char const* first = text;
  char const* const last = text + size;
  // std::from_chars takes a '-' but no '+'; the sign it does take must not follow ours.
  if (first != last && *first == '+') {
    ++first;
    if (first != last && *first == '-') first = last;
  }
  double value = 0.0;
  auto const [end, ec] = first == last
                             ? std::from_chars_result{first, std::errc::invalid_argument}
                             : std::from_chars(first, last, value, std::chars_format::general);
  if (ec == std::errc::result_out_of_range && end == last) {
    return parse_failure("Floating point text out of range: \"{@text}\"", text, size, error);
  }
  if (ec != std::errc() || end != last) {
    return parse_failure("Invalid floating point text: \"{@text}\"", text, size, error);
  }
  return value;
}

void safe_cast_throw_value_truncated(std::type_info const& type, unsigned long long value) {
  ErrorComposer("Value {@value} does not fit into type '{@type}'")
      .add("value", value)
      .add("type", type_name(type))
      .throw_error(error::zocore_range, here("zocore::impl::safe_cast_throw_value_truncated()"));
}

}  // namespace impl
}  // namespace zocore
