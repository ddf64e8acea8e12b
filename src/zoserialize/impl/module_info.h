// The module-information block of this build of libzoserialize.so.
#pragma once

namespace zoserialize::impl {

// A marker line ("***VELD*MODULE*INFO*", 32 uppercase hex digits identifying the build, "***"),
// then the ModuleInfo XML, every line ending in a line feed. Generated at build time into the
// build tree (cmake/ZoModuleInfo.cmake), so that tools can find it by scanning the library file.
extern char const kModuleInfoBlock[];

}  // namespace zoserialize::impl
