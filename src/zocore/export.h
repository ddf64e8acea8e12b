// Symbol visibility for libzocore.so. The library is built with hidden visibility; ZOCORE_API
// marks what it exports. Inside the library ZOCORE_BUILDING is defined, but on ELF the export and
// import forms are the same attribute.
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#define ZOCORE_API __attribute__((visibility("default")))
#else
#define ZOCORE_API
#endif
