// Error codes raised by the URI types.
#pragma once

#include <zocore/error_code.h>
#include <zouri/export.h>

// Constant-initialised, so usable from any static initialiser.
namespace zouri::error {

ZOURI_API extern zocore::ErrorCode const zouri;         // "error.zouri"
ZOURI_API extern zocore::ErrorCode const zouri_kind;    // "error.zouri.kind": wrong URI kind
ZOURI_API extern zocore::ErrorCode const zouri_syntax;  // "error.zouri.syntax": malformed text

}  // namespace zouri::error
