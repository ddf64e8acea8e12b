#include <cstdio>
#include <cstdlib>

#include <support/hex_bytes.h>

namespace zotest {
namespace {

[[noreturn]] void malformed(std::string_view hex) {
  std::fprintf(stderr, "zotest::bytes: malformed hex text \"%.*s\"\n", int(hex.size()), hex.data());
  std::abort();
}

int digit_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string bytes(std::string_view hex) {
  std::string out;
  int high = -1;
  for (char const c : hex) {
    if (c == ' ') continue;
    int const d = digit_value(c);
    if (d < 0) malformed(hex);
    if (high < 0) {
      high = d;
    } else {
      out.push_back(static_cast<char>(high * 16 + d));
      high = -1;
    }
  }
  if (high >= 0) malformed(hex);
  return out;
}

std::string hex(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char const b : bytes) {
    if (!out.empty()) out += ' ';
    out += kDigits[b >> 4];
    out += kDigits[b & 15];
  }
  return out;
}

}  // namespace zotest
