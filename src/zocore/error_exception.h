// The exception type every framework error is thrown as.
#pragma once

#include <exception>

#include <zocore/error_info.h>
#include <zocore/export.h>

namespace zocore {

// Carries one ErrorInfo. what() is the rendered message. Copying shares the record, so copies
// are cheap and never throw.
class ZOCORE_API ErrorException : public std::exception {
 public:
  explicit ErrorException(RefCountPtr<ErrorInfo const> info) noexcept;

  char const* what() const noexcept override;

  RefCountPtr<ErrorInfo const> const& info() const noexcept { return info_; }
  ErrorCode const& code() const noexcept;

  // Throws an ErrorException carrying `info` (rethrowing a stored error).
  [[noreturn]] static void throw_error(RefCountPtr<ErrorInfo const> const& info);

 private:
  RefCountPtr<ErrorInfo const> info_;
};

}  // namespace zocore
