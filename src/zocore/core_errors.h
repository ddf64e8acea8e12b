// Error codes raised by the core library itself.
#pragma once

#include <zocore/error_code.h>
#include <zocore/export.h>

namespace zocore::error {

ZOCORE_API extern ErrorCode const zocore;           // "error.zocore"
ZOCORE_API extern ErrorCode const zocore_argument;  // "error.zocore.argument": invalid argument
ZOCORE_API extern ErrorCode const zocore_errno;     // "error.zocore.errno": a C errno value
ZOCORE_API extern ErrorCode const
    zocore_exception;                             // "error.zocore.exception": a foreign exception
ZOCORE_API extern ErrorCode const zocore_format;  // "error.zocore.format": unparsable text
ZOCORE_API extern ErrorCode const zocore_range;   // "error.zocore.range": value out of range
ZOCORE_API extern ErrorCode const zocore_utf8;    // "error.zocore.utf8": malformed UTF-8/UTF-16

}  // namespace zocore::error
