#include <cstring>
#include <ostream>

#include <zocore/streamers.h>

namespace zocore::streamers {
namespace {

constexpr char kDigits[] = "0123456789abcdef";
constexpr std::size_t kBytesPerLine = 16;
constexpr std::size_t kBytesPerHalf = 8;

// The longest line: a 16-digit offset, " " and " xx" per byte plus one extra space in the
// middle, "  |", the ASCII column and "|".
constexpr std::size_t kMaxLineSize = 16 + 1 + kBytesPerLine * 3 + 1 + 3 + kBytesPerLine + 1;

char* put_hex(char* out, std::uint64_t value, int digits) {
  for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4) {
    *out++ = kDigits[(value >> shift) & 0x0F];
  }
  return out;
}

// At least eight digits, more only when the offset needs them.
char* put_offset(char* out, std::uint64_t offset) {
  int digits = 8;
  while (digits < 16 && (offset >> (digits * 4)) != 0)
    ++digits;
  return put_hex(out, offset, digits);
}

}  // namespace

void render_hex_dump(std::ostream& os, void const* data, std::size_t size,
                     std::uint64_t start_offset, char const* line_prefix) {
  auto const* bytes = static_cast<unsigned char const*>(data);
  if (line_prefix == nullptr) line_prefix = "";
  // Each line is built in one buffer and written with a single call.
  char line[kMaxLineSize];
  for (std::size_t pos = 0; pos < size; pos += kBytesPerLine) {
    std::size_t const n = size - pos < kBytesPerLine ? size - pos : kBytesPerLine;
    char* out = put_offset(line, start_offset + pos);
    *out++ = ' ';
    for (std::size_t i = 0; i < kBytesPerLine; ++i) {
      *out++ = ' ';
      if (i == kBytesPerHalf) *out++ = ' ';
      if (i < n) {
        out = put_hex(out, bytes[pos + i], 2);
      } else {
        *out++ = ' ';
        *out++ = ' ';
      }
    }
    *out++ = ' ';
    *out++ = ' ';
    *out++ = '|';
    for (std::size_t i = 0; i < n; ++i) {
      unsigned char const c = bytes[pos + i];
      *out++ = c >= 0x20 && c <= 0x7E ? static_cast<char>(c) : '.';
    }
    *out++ = '|';
    if (pos != 0) os.put('\n');
    os << line_prefix;
    os.write(line, out - line);
  }
}

void render_pointer(std::ostream& os, void const* p) {
  char text[2 + 16];
  text[0] = '0';
  text[1] = 'x';
  put_hex(text + 2, reinterpret_cast<std::uintptr_t>(p), 16);
  os.write(text, sizeof text);
}

std::ostream& operator<<(std::ostream& os, Boolean b) {
  return os << (b.value ? "true" : "false");
}

void String::write_string(std::ostream& os, char const* data, std::size_t size, char quote,
                          std::size_t limit) {
  std::size_t const shown = size < limit ? size : limit;
  os.put(quote);
  // Runs without anything to escape go out in one write.
  std::size_t run = 0;
  for (std::size_t i = 0; i < shown; ++i) {
    if (data[i] == quote || data[i] == '\\') {
      os.write(data + run, static_cast<std::streamsize>(i - run));
      os.put('\\');
      run = i;
    }
  }
  os.write(data + run, static_cast<std::streamsize>(shown - run));
  os.put(quote);
  if (size > limit) os.write("...", 3);
}

}  // namespace zocore::streamers
