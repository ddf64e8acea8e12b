#include <zocore/error_composer.h>
#include <zocore/throw_error.h>

namespace zocore {

void ErrorComposer::throw_error(ErrorCode const& code, SourceLocation const& location) {
  zocore::throw_error(code, message_, std::move(params_), location, {});
}

void ErrorComposer::throw_error(ErrorCode const& code, SourceLocation const& location,
                                RefCountPtr<ErrorInfo const> nested) {
  zocore::throw_error(code, message_, std::move(params_), location, std::move(nested));
}

void ErrorComposer::throw_with_nested_errno(ErrorCode const& code, SourceLocation const& location,
                                            int err) {
  zocore::throw_error(code, message_, std::move(params_), location,
                      ErrorInfo::from_errno(err, location));
}

}  // namespace zocore
