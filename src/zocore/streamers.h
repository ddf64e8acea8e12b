// Formatters for diagnostic traces.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>

#include <zocore/export.h>

namespace zocore::streamers {

// Hex dump of `size` bytes, 16 per line:
//   <prefix><offset, 8 hex digits>  xx xx xx xx xx xx xx xx  xx xx xx xx xx xx xx xx  |ascii...|
// The offset column starts at `start_offset`; bytes outside 0x20..0x7E show as '.' in the ASCII
// column; a short last line is padded so the ASCII column stays aligned. Lines are separated by
// '\n'; there is no newline after the last line. Nothing is written for size 0. The offset takes
// more than 8 digits only when it needs them. `data` is borrowed for the call.
ZOCORE_API void render_hex_dump(std::ostream& os, void const* data, std::size_t size,
                                std::uint64_t start_offset = 0, char const* line_prefix = "");

// "0x" and 16 lowercase hex digits.
ZOCORE_API void render_pointer(std::ostream& os, void const* p);

// Writes "true" or "false".
struct Boolean {
  bool value;
};
ZOCORE_API std::ostream& operator<<(std::ostream& os, Boolean b);

struct ZOCORE_API String {
  // Writes `quote`, at most `limit` bytes of the text with `quote` and '\\' escaped by a
  // backslash, and `quote` again; when the text is longer than `limit`, "..." follows the
  // closing quote.
  static void write_string(std::ostream& os, char const* data, std::size_t size, char quote,
                           std::size_t limit);
};

}  // namespace zocore::streamers
