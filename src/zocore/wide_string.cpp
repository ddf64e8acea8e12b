#include <cstdint>
#include <type_traits>

#include <zocore/core_errors.h>
#include <zocore/error_composer.h>
#include <zocore/utf8.h>
#include <zocore/wide_string.h>

namespace zocore {
namespace {

constexpr char kModuleId[] = "$Id: src/zocore/wide_string.cpp $";
SourceLocation here(char const* function, unsigned line = __builtin_LINE()) {
  return {function, kModuleId, line};
}

constexpr std::uint32_t kHighSurrogateFirst = 0xD800;
constexpr std::uint32_t kLowSurrogateFirst = 0xDC00;
constexpr std::uint32_t kLowSurrogateLast = 0xDFFF;
constexpr std::uint32_t kMaxCodePoint = 0x10FFFF;

[[noreturn, gnu::cold]] void throw_invalid_code_unit(unsigned index) {
  ErrorComposer("Invalid UTF-16 text: unpaired surrogate or invalid code unit at index {@index}")
      .add("index", index)
      .throw_error(error::zocore_utf8, here("zocore::to_string()"));
}

[[noreturn, gnu::cold]] void throw_invalid_utf8(char const* function, std::size_t offset) {
  ErrorComposer("Invalid UTF-8 sequence at offset {@offset}")
      .add("offset", static_cast<unsigned long long>(offset))
      .throw_error(error::zocore_utf8, here(function));
}

// Code units are read as unsigned values, so a negative wchar_t is simply too large.
template <class Unit>
std::uint32_t unit_value(Unit unit) noexcept {
  return static_cast<std::make_unsigned_t<Unit>>(unit);
}

template <class Unit>
std::string units_to_utf8(Unit const* text, unsigned count) {
  std::string out;
  out.reserve(count);
  for (unsigned i = 0; i < count; ++i) {
    std::uint32_t unit = unit_value(text[i]);
    if (unit < 0x80) {
      out.push_back(static_cast<char>(unit));
      continue;
    }
    if (unit >= kHighSurrogateFirst && unit <= kLowSurrogateLast) {
      std::uint32_t const next = i + 1 < count ? unit_value(text[i + 1]) : 0;
      bool const paired =
          unit < kLowSurrogateFirst && next >= kLowSurrogateFirst && next <= kLowSurrogateLast;
      if (!paired) throw_invalid_code_unit(i);
      ++i;
      unit = 0x10000 + ((unit - kHighSurrogateFirst) << 10) + (next - kLowSurrogateFirst);
    } else if (unit > kMaxCodePoint) {
      throw_invalid_code_unit(i);
    }
    char buf[4];
    unsigned const n = ucs4_char_to_utf8(unit, buf, buf + sizeof buf);
    out.append(buf, n);
  }
  return out;
}

// Decodes text that find_invalid_utf8 has accepted; `emit` receives each code point.
template <class Emit>
void decode_valid_utf8(char const* text, unsigned size, Emit emit) {
  auto const* bytes = reinterpret_cast<unsigned char const*>(text);
  unsigned i = 0;
  while (i < size) {
    std::uint32_t c = bytes[i];
    if (c < 0x80) {
      ++i;
    } else if (c < 0xE0) {
      c = ((c & 0x1F) << 6) | (bytes[i + 1] & 0x3Fu);
      i += 2;
    } else if (c < 0xF0) {
      c = ((c & 0x0F) << 12) | ((bytes[i + 1] & 0x3Fu) << 6) | (bytes[i + 2] & 0x3Fu);
      i += 3;
    } else {
      c = ((c & 0x07) << 18) | ((bytes[i + 1] & 0x3Fu) << 12) | ((bytes[i + 2] & 0x3Fu) << 6) |
          (bytes[i + 3] & 0x3Fu);
      i += 4;
    }
    emit(c);
  }
}

template <class String>
void append_utf16(String& out, std::uint32_t c) {
  using Unit = typename String::value_type;
  if (c < 0x10000) {
    out.push_back(static_cast<Unit>(c));
  } else {
    c -= 0x10000;
    out.push_back(static_cast<Unit>(kHighSurrogateFirst + (c >> 10)));
    out.push_back(static_cast<Unit>(kLowSurrogateFirst + (c & 0x3FF)));
  }
}

}  // namespace

std::string to_string(wchar_t const* text, unsigned count) {
  return units_to_utf8(text, count);
}

std::string to_string(char16_t const* text, unsigned count) {
  return units_to_utf8(text, count);
}

std::wstring to_wstring(char const* text, unsigned size) {
  std::size_t const bad = find_invalid_utf8(text, size);
  if (bad != size) throw_invalid_utf8("zocore::to_wstring()", bad);
  std::wstring out;
  // Never fewer bytes than code points, so this covers the result.
  out.reserve(size);
  decode_valid_utf8(text, size, [&out](std::uint32_t c) {
    if constexpr (sizeof(wchar_t) >= 4) {
      out.push_back(static_cast<wchar_t>(c));
    } else {
      append_utf16(out, c);
    }
  });
  return out;
}

std::u16string to_u16string(char const* text, unsigned size) {
  std::size_t const bad = find_invalid_utf8(text, size);
  if (bad != size) throw_invalid_utf8("zocore::to_u16string()", bad);
  std::u16string out;
  // A 4-byte sequence becomes two units, so the byte count bounds the unit count.
  out.reserve(size);
  decode_valid_utf8(text, size, [&out](std::uint32_t c) { append_utf16(out, c); });
  return out;
}

}  // namespace zocore
