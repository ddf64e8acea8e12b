#include <array>
#include <cstdint>

#include <zocore/base64.h>
#include <zocore/core_errors.h>
#include <zocore/error_composer.h>

namespace zocore {
namespace {

constexpr char kModuleId[] = "$Id: src/zocore/base64.cpp $";
SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t kInvalid = 0xFF;

constexpr std::array<std::uint8_t, 256> make_decode_table() {
  std::array<std::uint8_t, 256> table{};
  table.fill(kInvalid);
  for (unsigned i = 0; i < 64; ++i) {
    table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::uint8_t>(i);
  }
  return table;
}

constexpr std::array<std::uint8_t, 256> kDecodeTable = make_decode_table();

[[noreturn, gnu::cold]] void throw_invalid(std::size_t offset) {
  ErrorComposer("Invalid base64 text at offset {@offset}")
      .add("offset", static_cast<unsigned long long>(offset))
      .throw_error(error::zocore_format, here("zocore::base64_decode()"));
}

inline std::uint32_t sextet(std::string_view text, std::size_t pos) {
  std::uint8_t const v = kDecodeTable[static_cast<unsigned char>(text[pos])];
  if (v == kInvalid) throw_invalid(pos);
  return v;
}

// Checks the padding that starts at `pad`, the first '=' of the text, after a final group of
// two or three data characters: it must fill that group, and the group must end the text.
void check_padding(std::string_view text, std::size_t pad) {
  std::size_t const group_end = pad - pad % 4 + 4;
  for (std::size_t i = pad + 1; i < group_end; ++i) {
    if (i == text.size() || text[i] != '=') throw_invalid(i);
  }
  if (text.size() > group_end) throw_invalid(group_end);
}

}  // namespace

std::size_t base64_encode(void const* data, std::size_t size, char* out, bool pad) noexcept {
  auto const* in = static_cast<unsigned char const*>(data);
  char* const start = out;
  std::size_t i = 0;
  for (; size - i >= 3; i += 3) {
    std::uint32_t const v =
        (std::uint32_t(in[i]) << 16) | (std::uint32_t(in[i + 1]) << 8) | std::uint32_t(in[i + 2]);
    out[0] = kAlphabet[(v >> 18) & 0x3F];
    out[1] = kAlphabet[(v >> 12) & 0x3F];
    out[2] = kAlphabet[(v >> 6) & 0x3F];
    out[3] = kAlphabet[v & 0x3F];
    out += 4;
  }
  std::size_t const rest = size - i;
  if (rest != 0) {
    std::uint32_t v = std::uint32_t(in[i]) << 16;
    if (rest == 2) v |= std::uint32_t(in[i + 1]) << 8;
    *out++ = kAlphabet[(v >> 18) & 0x3F];
    *out++ = kAlphabet[(v >> 12) & 0x3F];
    if (rest == 2) {
      *out++ = kAlphabet[(v >> 6) & 0x3F];
    } else if (pad) {
      *out++ = '=';
    }
    if (pad) *out++ = '=';
  }
  return static_cast<std::size_t>(out - start);
}

std::string base64_encode(void const* data, std::size_t size, bool pad) {
  std::string out(base64_encoded_size(size, pad), '\0');
  base64_encode(data, size, out.data(), pad);
  return out;
}

std::string base64_decode(std::string_view text) {
  std::size_t const pad = text.find('=');
  std::size_t const data_size = pad == std::string_view::npos ? text.size() : pad;
  std::size_t const tail = data_size % 4;
  std::size_t const full_end = data_size - tail;

  std::string out;
  out.reserve(data_size / 4 * 3 + 2);
  for (std::size_t i = 0; i < full_end; i += 4) {
    // One statement per character, so that the first bad one is the one reported.
    std::uint32_t v = sextet(text, i) << 18;
    v |= sextet(text, i + 1) << 12;
    v |= sextet(text, i + 2) << 6;
    v |= sextet(text, i + 3);
    out.push_back(static_cast<char>(v >> 16));
    out.push_back(static_cast<char>(v >> 8));
    out.push_back(static_cast<char>(v));
  }
  if (tail != 0) {
    std::uint32_t const a = sextet(text, full_end);
    // One character carries six bits, not even a byte: a second one is needed where the text
    // ends or the padding starts.
    if (tail == 1) throw_invalid(data_size);
    std::uint32_t const b = sextet(text, full_end + 1);
    // The bits of the last character beyond the final byte must be zero, so that every byte
    // string has exactly one encoding.
    if (tail == 2) {
      if ((b & 0x0F) != 0) throw_invalid(full_end + 1);
      out.push_back(static_cast<char>((a << 2) | (b >> 4)));
    } else {
      std::uint32_t const c = sextet(text, full_end + 2);
      if ((c & 0x03) != 0) throw_invalid(full_end + 2);
      out.push_back(static_cast<char>((a << 2) | (b >> 4)));
      out.push_back(static_cast<char>(((b & 0x0F) << 4) | (c >> 2)));
    }
  }
  // Padding is only ever needed after a final group of two or three characters.
  if (pad != std::string_view::npos) {
    if (tail == 0) throw_invalid(pad);
    check_padding(text, pad);
  }
  return out;
}

}  // namespace zocore
