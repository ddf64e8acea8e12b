#include <zocore/error_exception.h>

namespace zocore {

ErrorException::ErrorException(RefCountPtr<ErrorInfo const> info) noexcept
    : info_(std::move(info)) {}

char const* ErrorException::what() const noexcept {
  return info_ ? info_->rendered().c_str() : "zocore::ErrorException";
}

ErrorCode const& ErrorException::code() const noexcept {
  static constexpr ErrorCode kNone;
  return info_ ? info_->code() : kNone;
}

void ErrorException::throw_error(RefCountPtr<ErrorInfo const> const& info) {
  throw ErrorException(info);
}

}  // namespace zocore
