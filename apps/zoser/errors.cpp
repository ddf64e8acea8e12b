#include "errors.h"

#include <cerrno>
#include <utility>

#include <unistd.h>

#include <zocore/error_exception.h>
#include <zocore/source_location.h>
#include <zocore/throw_error.h>

namespace zoser {

namespace error {

constinit zocore::ErrorCode const zoser("error.zoser", true);
constinit zocore::ErrorCode const zoser_usage("error.zoser.usage", true);
constinit zocore::ErrorCode const zoser_format("error.zoser.format", true);
constinit zocore::ErrorCode const zoser_format_unknown("error.zoser.format.unknown", true);
constinit zocore::ErrorCode const zoser_format_ambiguous("error.zoser.format.ambiguous", true);
constinit zocore::ErrorCode const zoser_format_unavailable("error.zoser.format.unavailable", true);
constinit zocore::ErrorCode const zoser_format_direction("error.zoser.format.direction", true);
constinit zocore::ErrorCode const zoser_output("error.zoser.output", true);

}  // namespace error

namespace {

constexpr char kModuleId[] = "$Id: apps/zoser/errors.cpp $";

// Standard error is unbuffered and shared with the progress line: one write per line keeps
// lines whole.
void write_stderr(std::string const& line) {
  char const* p = line.data();
  std::size_t left = line.size();
  while (left != 0) {
    ssize_t const n = ::write(STDERR_FILENO, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;  // nowhere left to complain to
    p += n;
    left -= static_cast<std::size_t>(n);
  }
}

}  // namespace

void raise(zocore::ErrorCode const& code, char const* message, zocore::ErrorParams params,
           char const* function) {
  zocore::throw_error(code, message, std::move(params),
                      zocore::SourceLocation(function, kModuleId, __LINE__));
}

void raise_errno(zocore::ErrorCode const& code, char const* message, zocore::ErrorParams params,
                 char const* function, int err) {
  zocore::SourceLocation const location(function, kModuleId, __LINE__);
  zocore::throw_error(code, message, std::move(params), location,
                      zocore::ErrorInfo::from_errno(err, location));
}

std::string format_error(std::string_view file, std::string_view place,
                         zocore::ErrorInfo const& info) {
  std::string line = "zoser: ";
  if (!file.empty()) line.append(file).append(": ");
  if (!place.empty()) line.append(place).append(": ");
  zocore::ErrorInfo const* e = &info;
  for (bool first = true; e != nullptr; first = false, e = e->nested().get()) {
    if (!first) line += "; caused by: ";
    line.append(e->rendered()).append(" [").append(e->code().view()).append("]");
  }
  return line;
}

void print_error(std::string_view file, std::string_view place, zocore::ErrorInfo const& info) {
  write_stderr(format_error(file, place, info) + '\n');
}

void print_note(std::string_view file, std::string_view text) {
  std::string line = "zoser: ";
  if (!file.empty()) line.append(file).append(": ");
  line.append(text).append("\n");
  write_stderr(line);
}

}  // namespace zoser
