#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

#include <zocore/core_errors.h>
#include <zocore/error_composer.h>
#include <zocore/utf8.h>

namespace zocore {
namespace {

constexpr char kModuleId[] = "$Id: src/zocore/utf8.cpp $";
SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

constexpr std::uint64_t kHighBits = 0x8080808080808080ull;

// What a lead byte admits under RFC 3629: the sequence length (0 for bytes that never start a
// sequence) and the range of the second byte. The narrowed second-byte ranges are what exclude
// overlong forms (E0, F0), surrogates (ED) and code points above U+10FFFF (F4); every later
// byte is a plain continuation byte.
struct LeadClass {
  std::uint8_t length;
  std::uint8_t second_min;
  std::uint8_t second_max;
};

constexpr std::array<LeadClass, 256> make_lead_table() {
  std::array<LeadClass, 256> table{};
  for (unsigned c = 0; c < 0x80; ++c)
    table[c] = {1, 0, 0};
  // C0 and C1 could only encode U+0000..U+007F, which is overlong.
  for (unsigned c = 0xC2; c <= 0xDF; ++c)
    table[c] = {2, 0x80, 0xBF};
  table[0xE0] = {3, 0xA0, 0xBF};
  for (unsigned c = 0xE1; c <= 0xEC; ++c)
    table[c] = {3, 0x80, 0xBF};
  table[0xED] = {3, 0x80, 0x9F};
  table[0xEE] = {3, 0x80, 0xBF};
  table[0xEF] = {3, 0x80, 0xBF};
  table[0xF0] = {4, 0x90, 0xBF};
  table[0xF1] = {4, 0x80, 0xBF};
  table[0xF2] = {4, 0x80, 0xBF};
  table[0xF3] = {4, 0x80, 0xBF};
  table[0xF4] = {4, 0x80, 0x8F};
  return table;
}

constexpr std::array<LeadClass, 256> kLeadTable = make_lead_table();

// Index of the first byte with its high bit set within a word known to contain one.
inline unsigned first_high_byte(std::uint64_t high) noexcept {
  if constexpr (std::endian::native == std::endian::little) {
    return static_cast<unsigned>(std::countr_zero(high)) / 8;
  } else {
    return static_cast<unsigned>(std::countl_zero(high)) / 8;
  }
}

inline bool is_continuation(unsigned char c) noexcept {
  return (c & 0xC0) == 0x80;
}

[[noreturn, gnu::cold]] void throw_invalid_utf8(std::size_t offset) {
  ErrorComposer("Invalid UTF-8 sequence at offset {@offset}")
      .add("offset", static_cast<unsigned long long>(offset))
      .throw_error(error::zocore_utf8, here("zocore::check_valid_utf8()"));
}

}  // namespace

unsigned utf8_sequence_length(char lead) noexcept {
  auto const c = static_cast<unsigned char>(lead);
  if (c < 0x80) return 1;
  if (c < 0xC0) return 0;
  if (c < 0xE0) return 2;
  if (c < 0xF0) return 3;
  if (c < 0xF8) return 4;
  if (c < 0xFC) return 5;
  if (c < 0xFE) return 6;
  return 0;
}

std::size_t find_invalid_utf8(char const* data, std::size_t size) noexcept {
  auto const* const bytes = reinterpret_cast<unsigned char const*>(data);
  std::size_t i = 0;
  while (i < size) {
    // Most text is ASCII: move over it a word at a time and land on the first non-ASCII byte.
    while (size - i >= sizeof(std::uint64_t)) {
      std::uint64_t word;
      std::memcpy(&word, bytes + i, sizeof word);
      std::uint64_t const high = word & kHighBits;
      if (high != 0) {
        i += first_high_byte(high);
        break;
      }
      i += sizeof word;
    }
    if (i == size) break;

    unsigned char const c = bytes[i];
    if (c < 0x80) {
      ++i;
      continue;
    }
    LeadClass const lead = kLeadTable[c];
    // A stray continuation byte, C0/C1 or F5..FF, or a sequence cut off by the end of the text.
    if (lead.length == 0 || size - i < lead.length) return i;
    unsigned char const second = bytes[i + 1];
    if (second < lead.second_min || second > lead.second_max) return i;
    if (lead.length >= 3 && !is_continuation(bytes[i + 2])) return i;
    if (lead.length == 4 && !is_continuation(bytes[i + 3])) return i;
    i += lead.length;
  }
  return size;
}

void check_valid_utf8(char const* data, unsigned size) {
  std::size_t const bad = find_invalid_utf8(data, size);
  if (bad != size) throw_invalid_utf8(bad);
}

unsigned ucs4_char_to_utf8(unsigned ucs4, char* out, char* out_end) noexcept {
  unsigned length;
  if (ucs4 < 0x80) {
    length = 1;
  } else if (ucs4 < 0x800) {
    length = 2;
  } else if (ucs4 < 0x10000) {
    if (ucs4 >= 0xD800 && ucs4 <= 0xDFFF) return 0;
    length = 3;
  } else if (ucs4 <= 0x10FFFF) {
    length = 4;
  } else {
    return 0;
  }
  if (out == nullptr || out_end <= out || static_cast<std::size_t>(out_end - out) < length) {
    return 0;
  }
  switch (length) {
    case 1:
      out[0] = static_cast<char>(ucs4);
      break;
    case 2:
      out[0] = static_cast<char>(0xC0 | (ucs4 >> 6));
      out[1] = static_cast<char>(0x80 | (ucs4 & 0x3F));
      break;
    case 3:
      out[0] = static_cast<char>(0xE0 | (ucs4 >> 12));
      out[1] = static_cast<char>(0x80 | ((ucs4 >> 6) & 0x3F));
      out[2] = static_cast<char>(0x80 | (ucs4 & 0x3F));
      break;
    default:
      out[0] = static_cast<char>(0xF0 | (ucs4 >> 18));
      out[1] = static_cast<char>(0x80 | ((ucs4 >> 12) & 0x3F));
      out[2] = static_cast<char>(0x80 | ((ucs4 >> 6) & 0x3F));
      out[3] = static_cast<char>(0x80 | (ucs4 & 0x3F));
      break;
  }
  return length;
}

}  // namespace zocore
