// Symbol visibility for libzomoduleregistry.so (built with hidden visibility;
// ZOMODULEREGISTRY_API marks what it exports).
#pragma once

#if defined(__GNUC__) || defined(__clang__)
#define ZOMODULEREGISTRY_API __attribute__((visibility("default")))
#else
#define ZOMODULEREGISTRY_API
#endif
