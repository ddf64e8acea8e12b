// Hex notation for byte strings in tests: "24 7F" <-> bytes.
#pragma once

#include <string>
#include <string_view>

namespace zotest {

// Bytes from hex digit pairs; spaces are ignored. Aborts the test program on malformed text (a
// broken test table, not a test failure).
std::string bytes(std::string_view hex);

// Upper-case hex digit pairs separated by spaces: "24 7F".
std::string hex(std::string_view bytes);

// Appends the base64 of `bytes`, with or without '=' padding; encoded group by group, so that
// expected renderings do not come from the codecs under test.
void append_base64(std::string& out, std::string_view bytes, bool pad);

}  // namespace zotest
