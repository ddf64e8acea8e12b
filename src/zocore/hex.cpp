#include <array>
#include <cstdint>

#include <zocore/core_errors.h>
#include <zocore/error_composer.h>
#include <zocore/hex.h>

namespace zocore {
namespace {

constexpr char kModuleId[] = "$Id: src/zocore/hex.cpp $";
SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

constexpr char kDigits[] = "0123456789abcdef";

constexpr std::array<std::int8_t, 256> make_digit_table() {
  std::array<std::int8_t, 256> table{};
  table.fill(-1);
  for (int i = 0; i < 10; ++i)
    table['0' + i] = std::int8_t(i);
  for (int i = 0; i < 6; ++i) {
    table['a' + i] = std::int8_t(10 + i);
    table['A' + i] = std::int8_t(10 + i);
  }
  return table;
}

constexpr std::array<std::int8_t, 256> kDigitTable = make_digit_table();

[[noreturn, gnu::cold]] void throw_invalid(std::size_t offset) {
  ErrorComposer("Invalid hexadecimal text at offset {@offset}")
      .add("offset", static_cast<unsigned long long>(offset))
      .throw_error(error::zocore_format, here("zocore::hex_decode()"));
}

}  // namespace

void hex_encode(void const* data, std::size_t size, char* out) noexcept {
  auto const* in = static_cast<unsigned char const*>(data);
  for (std::size_t i = 0; i < size; ++i) {
    *out++ = kDigits[in[i] >> 4];
    *out++ = kDigits[in[i] & 0x0F];
  }
}

std::string hex_encode(void const* data, std::size_t size) {
  std::string out(2 * size, '\0');
  hex_encode(data, size, out.data());
  return out;
}

int hex_digit_value(char c) noexcept {
  return kDigitTable[static_cast<unsigned char>(c)];
}

std::string hex_decode(std::string_view text) {
  std::string out;
  out.reserve(text.size() / 2);
  std::size_t i = 0;
  for (; text.size() - i >= 2; i += 2) {
    int const high = hex_digit_value(text[i]);
    if (high < 0) throw_invalid(i);
    int const low = hex_digit_value(text[i + 1]);
    if (low < 0) throw_invalid(i + 1);
    out.push_back(static_cast<char>((high << 4) | low));
  }
  // A lone last digit is half a byte; the missing digit is reported where it should be.
  if (i != text.size()) {
    if (hex_digit_value(text[i]) < 0) throw_invalid(i);
    throw_invalid(text.size());
  }
  return out;
}

}  // namespace zocore
