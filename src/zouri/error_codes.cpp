#include <zouri/error_codes.h>

namespace zouri::error {

constinit zocore::ErrorCode const zouri("error.zouri", true);
constinit zocore::ErrorCode const zouri_kind("error.zouri.kind", true);
constinit zocore::ErrorCode const zouri_syntax("error.zouri.syntax", true);

}  // namespace zouri::error
