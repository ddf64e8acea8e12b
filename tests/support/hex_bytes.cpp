#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include <support/hex_bytes.h>

namespace zotest {

std::string bytes(std::string_view hex) {
  std::string out;
  std::string pair;
  bool malformed = false;
  for (char const c : hex) {
    if (c == ' ') continue;
    malformed = malformed || !std::isxdigit(static_cast<unsigned char>(c));
    pair += c;
    if (pair.size() == 2 && !malformed)
      out += static_cast<char>(std::stoi(std::exchange(pair, {}), nullptr, 16));
  }
  if (!malformed && pair.empty()) return out;
  std::fprintf(stderr, "zotest::bytes: malformed hex text \"%.*s\"\n", int(hex.size()), hex.data());
  std::abort();
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
