#include <zocore/core_errors.h>

namespace zocore::error {

constinit ErrorCode const zocore("error.zocore", true);
constinit ErrorCode const zocore_argument("error.zocore.argument", true);
constinit ErrorCode const zocore_errno("error.zocore.errno", true);
constinit ErrorCode const zocore_exception("error.zocore.exception", true);
constinit ErrorCode const zocore_format("error.zocore.format", true);
constinit ErrorCode const zocore_range("error.zocore.range", true);
constinit ErrorCode const zocore_utf8("error.zocore.utf8", true);

}  // namespace zocore::error
