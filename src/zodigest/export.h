// Symbol visibility for libzodigest.so (built with hidden visibility; ZODIGEST_API marks what it
// exports).
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#define ZODIGEST_API __attribute__((visibility("default")))
#else
#define ZODIGEST_API
#endif
