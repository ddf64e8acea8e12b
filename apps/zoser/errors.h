// The tool's own error codes, and how every failure is shown on standard error.
#pragma once

#include <string>
#include <string_view>

#include <zocore/error_code.h>
#include <zocore/error_info.h>
#include <zocore/error_params.h>

namespace zoser {

namespace error {

// Failures of the tool itself live under "error.zoser"; the library's and the core's keep
// their own codes when they pass through.
extern zocore::ErrorCode const zoser;                     // "error.zoser"
extern zocore::ErrorCode const zoser_usage;               // "error.zoser.usage"
extern zocore::ErrorCode const zoser_format;              // "error.zoser.format"
extern zocore::ErrorCode const zoser_format_unknown;      // "error.zoser.format.unknown"
extern zocore::ErrorCode const zoser_format_ambiguous;    // "error.zoser.format.ambiguous"
extern zocore::ErrorCode const zoser_format_unavailable;  // "error.zoser.format.unavailable"
extern zocore::ErrorCode const zoser_format_direction;    // "error.zoser.format.direction"
extern zocore::ErrorCode const zoser_output;              // "error.zoser.output"

}  // namespace error

// Raises `code` with `message` (a literal template) and `params`; `function` names the raising
// operation in the record's location. Out of line and cold: callers only get here on failure.
[[noreturn]] void raise(zocore::ErrorCode const& code, char const* message,
                        zocore::ErrorParams params, char const* function);
// The same with the C errno value `err` nested as the cause.
[[noreturn]] void raise_errno(zocore::ErrorCode const& code, char const* message,
                              zocore::ErrorParams params, char const* function, int err);

// The line the tool prints for a failure, without the trailing newline:
//   zoser: FILE: PLACE: MESSAGE [code]; caused by: MESSAGE [code]
// FILE and PLACE are left out when empty; each nested cause adds one "; caused by:" part.
std::string format_error(std::string_view file, std::string_view place,
                         zocore::ErrorInfo const& info);

// Writes format_error(...) and a newline to standard error.
void print_error(std::string_view file, std::string_view place, zocore::ErrorInfo const& info);

// Writes "zoser: FILE: TEXT" and a newline to standard error, for notes that are not failures.
void print_note(std::string_view file, std::string_view text);

}  // namespace zoser
