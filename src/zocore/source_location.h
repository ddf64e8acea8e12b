// Where an error was raised: function, source module and line.
#pragma once

#include <zocore/source_string.h>

namespace zocore {

// The function field is the qualified function name followed by "()"; the file field is the
// source module's identification line (for example "$Id: src/zocore/uuid.cpp $"). Both refer
// to static text when built from literals; a location read back from an archive owns copies.
class SourceLocation {
 public:
  SourceLocation() = default;
  constexpr SourceLocation(char const* function, char const* file, unsigned line)
      : function_(function, true), file_(file, true), line_(line) {}
  SourceLocation(SourceString function, SourceString file, unsigned line)
      : function_(std::move(function)), file_(std::move(file)), line_(line) {}

  SourceString const& function() const noexcept { return function_; }
  SourceString const& file() const noexcept { return file_; }
  unsigned line() const noexcept { return line_; }

  friend bool operator==(SourceLocation const&, SourceLocation const&) = default;

 private:
  SourceString function_;
  SourceString file_;
  unsigned line_ = 0;
};

}  // namespace zocore
