// Symbol visibility for libzouri.so (built with hidden visibility; ZOURI_API marks what it
// exports).
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#define ZOURI_API __attribute__((visibility("default")))
#else
#define ZOURI_API
#endif
