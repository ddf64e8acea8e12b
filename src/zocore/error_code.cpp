#include <ostream>

#include <zocore/error_code.h>

namespace zocore {

ErrorCode ErrorCode::parent() const {
  std::string_view const name = view();
  auto const dot = name.rfind('.');
  if (dot == std::string_view::npos) return ErrorCode();
  return ErrorCode(SourceString(name.substr(0, dot)));
}

bool ErrorCode::is_a(ErrorCode const& ancestor) const noexcept {
  std::string_view const name = view();
  std::string_view const root = ancestor.view();
  if (root.empty() || name.size() < root.size() || name.substr(0, root.size()) != root)
    return false;
  return name.size() == root.size() || name[root.size()] == '.';
}

std::ostream& operator<<(std::ostream& os, ErrorCode const& code) {
  return os << code.view();
}

}  // namespace zocore
