#include <support/hex_bytes.h>

#include <cstdio>
#include <cstdlib>

namespace zotest {
namespace {

int digit(char c) {
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
    int const d = digit(c);
    if (d < 0) {
      std::fprintf(stderr, "zotest::bytes: bad hex text \"%.*s\"\n", int(hex.size()), hex.data());
      std::abort();
    }
    if (high < 0) {
      high = d;
    } else {
      out.push_back(static_cast<char>(high * 16 + d));
      high = -1;
    }
  }
  if (high >= 0) {
    std::fprintf(stderr, "zotest::bytes: odd digit count in \"%.*s\"\n", int(hex.size()), hex.data());
    std::abort();
  }
  return out;
}

std::string hex(std::string_view bytes) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char const b : bytes) {
    if (!out.empty()) out.push_back(' ');
    out.push_back(kDigits[b >> 4]);
    out.push_back(kDigits[b & 15]);
  }
  return out;
}

}  // namespace zotest
