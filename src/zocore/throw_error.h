// The throw forms of the error facility. None of them returns.
#pragma once

#include <zocore/error_code.h>
#include <zocore/error_info.h>
#include <zocore/error_params.h>
#include <zocore/export.h>
#include <zocore/source_location.h>

namespace zocore {

// `message` is a template with "{@name}" placeholders; it must have static storage duration
// (a literal), as it is kept without copying.
[[noreturn]] ZOCORE_API void throw_error(ErrorCode const& code, char const* message,
                                         SourceLocation const& location);
[[noreturn]] ZOCORE_API void throw_error(ErrorCode const& code, char const* message,
                                         ErrorParams params, SourceLocation const& location);
[[noreturn]] ZOCORE_API void throw_error(ErrorCode const& code, char const* message,
                                         ErrorParams params, SourceLocation const& location,
                                         RefCountPtr<ErrorInfo const> nested);
// A failure whose cause is the C errno value `err` (nested as an error::zocore_errno record).
[[noreturn]] ZOCORE_API void throw_with_nested_errno(ErrorCode const& code, char const* message,
                                                     SourceLocation const& location, int err);
// A bare errno failure: the record is the errno record itself.
[[noreturn]] ZOCORE_API void throw_errno(SourceLocation const& location, int err);

}  // namespace zocore
