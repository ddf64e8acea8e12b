// Hierarchical error codes.
#pragma once

#include <iosfwd>
#include <string_view>

#include <zocore/export.h>
#include <zocore/source_string.h>

namespace zocore {

// An error code is a dotted name such as "error.zoserialize.reader.eof". Its parent is the name
// without the last dotted component ("error.zoserialize.reader"), so codes form a tree and a
// caller can catch a whole family with is_a(). Codes compare by name.
//
// The library's code globals are built with the constexpr constructor over a literal and are
// therefore constant-initialised: they are usable from any static initialiser.
class ZOCORE_API ErrorCode {
 public:
  constexpr ErrorCode() noexcept = default;
  // `is_static` true: `name` is a literal that outlives the code (the framework always passes
  // true for its globals); false: the name is copied.
  constexpr ErrorCode(char const* name, bool is_static) : name_(name, is_static) {}
  explicit ErrorCode(SourceString name) : name_(std::move(name)) {}

  SourceString const& name() const noexcept { return name_; }
  std::string_view view() const noexcept { return name_.view(); }
  char const* c_str() const noexcept { return name_.c_str(); }
  bool empty() const noexcept { return name_.empty(); }

  // The code one level up; the empty code for a name without a dot.
  ErrorCode parent() const;
  // True when this code is `ancestor` or lies below it in the tree.
  bool is_a(ErrorCode const& ancestor) const noexcept;

  void swap(ErrorCode& other) noexcept { name_.swap(other.name_); }

  friend bool operator==(ErrorCode const& a, ErrorCode const& b) noexcept {
    return a.view() == b.view();
  }
  friend auto operator<=>(ErrorCode const& a, ErrorCode const& b) noexcept {
    return a.view() <=> b.view();
  }

 private:
  SourceString name_;
};

ZOCORE_API std::ostream& operator<<(std::ostream& os, ErrorCode const& code);

}  // namespace zocore
