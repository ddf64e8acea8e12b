#include <zodigest/error_codes.h>

namespace zodigest::error {

constinit zocore::ErrorCode const zodigest("error.zodigest", true);
constinit zocore::ErrorCode const zodigest_algorithm("error.zodigest.algorithm", true);
constinit zocore::ErrorCode const zodigest_openssl("error.zodigest.openssl", true);

}  // namespace zodigest::error
