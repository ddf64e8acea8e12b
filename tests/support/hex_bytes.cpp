#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include <support/hex_bytes.h>

namespace zotest {
namespace {

[[noreturn]] void malformed(std::string_view hex) {
  std::fprintf(stderr, "zotest::bytes: malformed hex text \"%.*s\"\n", int(hex.size()), hex.data());
  std::abort();
}

}  // namespace

std::string bytes(std::string_view hex) {
  std::string out;
  std::string pair;
  for (char const c : hex) {
    if (c == ' ') continue;
    if (!std::isxdigit(static_cast<unsigned char>(c))) malformed(hex);
    pair += c;
    if (pair.size() == 2) out += static_cast<char>(std::stoi(std::exchange(pair, {}), nullptr, 16));
  }
  if (!pair.empty()) malformed(hex);
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
