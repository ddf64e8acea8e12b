// Builder for errors with named parameters.
#pragma once

#include <utility>

#include <zocore/error_code.h>
#include <zocore/error_info.h>
#include <zocore/error_params.h>
#include <zocore/export.h>
#include <zocore/source_location.h>

namespace zocore {

// ErrorComposer("Expected {@expected} bytes").add("expected", 4).throw_error(code, location);
// The message must be a literal (kept without copying); parameter names likewise.
class ZOCORE_API ErrorComposer {
 public:
  explicit ErrorComposer(char const* message) noexcept : message_(message) {}

  template <class T>
  ErrorComposer& add(char const* name, T&& value) {
    params_.set(name, std::forward<T>(value));
    return *this;
  }

  ErrorParams const& params() const noexcept { return params_; }

  [[noreturn]] void throw_error(ErrorCode const& code, SourceLocation const& location);
  [[noreturn]] void throw_error(ErrorCode const& code, SourceLocation const& location,
                                RefCountPtr<ErrorInfo const> nested);
  [[noreturn]] void throw_with_nested_errno(ErrorCode const& code, SourceLocation const& location,
                                            int err);

 private:
  char const* message_;
  ErrorParams params_;
};

}  // namespace zocore
