// Assertions on thrown framework errors.
#pragma once

#include <functional>
#include <string_view>

#include <zocore/error_code.h>
#include <zocore/error_exception.h>
#include <zocore/error_info.h>

namespace zotest {

using ErrorPtr = zocore::RefCountPtr<zocore::ErrorInfo const>;

// Runs `fn` and records a test failure unless it throws a zocore::ErrorException with exactly
// `code` and exactly the message template `message` (placeholders not substituted). Returns the
// thrown record, or null when the expectation failed, so a test can go on to check parameters,
// errno and location.
ErrorPtr expect_error(std::function<void()> const& fn, zocore::ErrorCode const& code,
                      std::string_view message, char const* file = __builtin_FILE(),
                      int line = __builtin_LINE());

// The value of parameter `name` of `info`, or "<missing>".
std::string param(ErrorPtr const& info, std::string_view name);

// Checks every "name=value" entry of `entries`, separated by '|' (values may hold spaces).
void expect_params(ErrorPtr const& info, std::string_view entries);

}  // namespace zotest

// ZO_EXPECT_ERROR(reader.read_bool(), error::zoserialize_reader_eof, "...") evaluates to the
// thrown record (null on failure).
#define ZO_EXPECT_ERROR(statement, code, message) \
  ::zotest::expect_error([&] { statement; }, code, message, __FILE__, __LINE__)
