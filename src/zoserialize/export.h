// Symbol visibility for libzoserialize.so (built with hidden visibility; ZOSERIALIZE_API marks
// what it exports).
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#define ZOSERIALIZE_API __attribute__((visibility("default")))
#else
#define ZOSERIALIZE_API
#endif
