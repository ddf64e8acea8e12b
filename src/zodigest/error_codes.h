// Error codes raised by the digest sink.
#pragma once

#include <zocore/error_code.h>
#include <zodigest/export.h>

// Constant-initialised, so usable from any static initialiser.
namespace zodigest::error {

ZODIGEST_API extern zocore::ErrorCode const zodigest;  // "error.zodigest"
// "error.zodigest.algorithm": no digest of that name in OpenSSL
ZODIGEST_API extern zocore::ErrorCode const zodigest_algorithm;
// "error.zodigest.openssl": an OpenSSL digest call failed
ZODIGEST_API extern zocore::ErrorCode const zodigest_openssl;

}  // namespace zodigest::error
