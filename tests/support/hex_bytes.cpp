#include <cctype>
#include <cstdint>
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

void append_base64(std::string& out, std::string_view bytes, bool pad) {
  char const* const data = bytes.data();
  std::size_t const size = bytes.size();
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (std::size_t i = 0; i < size; i += 3) {
    std::size_t const left = size - i;
    std::uint32_t v = std::uint32_t{static_cast<unsigned char>(data[i])} << 16;
    if (left > 1) v |= std::uint32_t{static_cast<unsigned char>(data[i + 1])} << 8;
    if (left > 2) v |= static_cast<unsigned char>(data[i + 2]);
    out += kAlphabet[v >> 18];
    out += kAlphabet[(v >> 12) & 63];
    if (left > 1 || pad) out += left > 1 ? kAlphabet[(v >> 6) & 63] : '=';
    if (left > 2 || pad) out += left > 2 ? kAlphabet[v & 63] : '=';
  }
}

}  // namespace zotest
