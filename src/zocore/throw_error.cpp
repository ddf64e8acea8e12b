#include <zocore/error_exception.h>
#include <zocore/throw_error.h>

namespace zocore {

void throw_error(ErrorCode const& code, char const* message, SourceLocation const& location) {
  throw_error(code, message, ErrorParams(), location, {});
}

void throw_error(ErrorCode const& code, char const* message, ErrorParams params,
                 SourceLocation const& location) {
  throw_error(code, message, std::move(params), location, {});
}

void throw_error(ErrorCode const& code, char const* message, ErrorParams params,
                 SourceLocation const& location, RefCountPtr<ErrorInfo const> nested) {
  ErrorException::throw_error(ErrorInfo::create(code, SourceString(message, true),
                                                std::move(params), location, std::move(nested)));
}

void throw_with_nested_errno(ErrorCode const& code, char const* message,
                             SourceLocation const& location, int err) {
  throw_error(code, message, ErrorParams(), location, ErrorInfo::from_errno(err, location));
}

void throw_errno(SourceLocation const& location, int err) {
  ErrorException::throw_error(ErrorInfo::from_errno(err, location));
}

}  // namespace zocore
