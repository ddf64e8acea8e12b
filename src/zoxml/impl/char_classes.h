// Byte classes of the tokenizer (one 256-entry table, one bit per question a scanning loop asks)
// and the code-point rules of XML 1.0 (fifth edition) for the characters beyond ASCII.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zoxml::impl {

enum ECharClass : std::uint16_t {
  kSpace = 1 << 0,      // S: space, tab, line feed, carriage return
  kNameStart = 1 << 1,  // ASCII NameStartChar except ':'
  kNameChar = 1 << 2,   // ASCII NameChar except ':'
  kTextStop = 1 << 3,   // ends the fast run of character data
  kAttrStop = 1 << 4,   // ends the fast run of an attribute value
  kCommentStop = 1 << 5,
  kPIStop = 1 << 6,
  kCDataStop = 1 << 7,
  kNameEnd = 1 << 8,  // ends the run of bytes taken as one name
  kControl = 1 << 9,  // ASCII that is not an XML Char (the end sentinel 0 included)
  kAlnum = 1 << 10,   // [0-9A-Za-z]: the body of a character reference
  kPubid = 1 << 11,   // PubidChar
};

constexpr std::array<std::uint16_t, 256> make_char_classes() {
  std::array<std::uint16_t, 256> t{};
  auto add = [&t](unsigned c, std::uint16_t bits) {
    t[c] = static_cast<std::uint16_t>(t[c] | bits);
  };
  auto add_all = [&add](std::string_view chars, std::uint16_t bits) {
    for (char const c : chars)
      add(static_cast<unsigned char>(c), bits);
  };
  for (unsigned c = 0; c < 0x20; ++c) {
    if (c != '\t' && c != '\n' && c != '\r') add(c, kControl);
  }
  add_all(" \t\n\r", kSpace);
  for (unsigned c = 'a'; c <= 'z'; ++c)
    add(c, kNameStart | kNameChar | kAlnum | kPubid);
  for (unsigned c = 'A'; c <= 'Z'; ++c)
    add(c, kNameStart | kNameChar | kAlnum | kPubid);
  for (unsigned c = '0'; c <= '9'; ++c)
    add(c, kNameChar | kAlnum | kPubid);
  add('_', kNameStart | kNameChar);
  add('-', kNameChar);
  add('.', kNameChar);
  add_all(" \r\n-'()+,./:=?;!*#@$_%", kPubid);
  std::uint16_t const all_stops = kTextStop | kAttrStop | kCommentStop | kPIStop | kCDataStop;
  for (unsigned c = 0; c < 0x20; ++c) {
    if (t[c] & kControl) add(c, all_stops);
  }
  for (unsigned c = 0x80; c < 0x100; ++c)
    add(c, all_stops);
  add_all("\n\r", all_stops);
  add_all("<&]", kTextStop);
  add_all("<&\"'\t", kAttrStop);
  add('-', kCommentStop);
  add('?', kPIStop);
  add(']', kCDataStop);
  add_all(std::string_view(" \t\n\r/>=<\"'?[];()|,*+%\0", 22), kNameEnd);
  return t;
}

inline constexpr std::array<std::uint16_t, 256> kCharClasses = make_char_classes();

inline bool has_class(char c, std::uint16_t bits) noexcept {
  return (kCharClasses[static_cast<unsigned char>(c)] & bits) != 0;
}

// NameStartChar and NameChar of XML 1.0 (fifth edition) for code points from 0x80 up.
constexpr bool is_name_start_code_point(std::uint32_t c) noexcept {
  return (c >= 0xC0 && c <= 0xD6) || (c >= 0xD8 && c <= 0xF6) || (c >= 0xF8 && c <= 0x2FF) ||
         (c >= 0x370 && c <= 0x37D) || (c >= 0x37F && c <= 0x1FFF) ||
         (c >= 0x200C && c <= 0x200D) || (c >= 0x2070 && c <= 0x218F) ||
         (c >= 0x2C00 && c <= 0x2FEF) || (c >= 0x3001 && c <= 0xD7FF) ||
         (c >= 0xF900 && c <= 0xFDCF) || (c >= 0xFDF0 && c <= 0xFFFD) ||
         (c >= 0x10000 && c <= 0xEFFFF);
}
constexpr bool is_name_code_point(std::uint32_t c) noexcept {
  return is_name_start_code_point(c) || c == 0xB7 || (c >= 0x300 && c <= 0x36F) ||
         (c >= 0x203F && c <= 0x2040);
}

// Decodes the UTF-8 sequence at p, of which `available` bytes can be read. Returns its length
// (2 to 4) and the code point; 0 when the bytes are not well-formed UTF-8 (RFC 3629: no
// overlong forms, no surrogates, nothing above U+10FFFF) or encode U+FFFE or U+FFFF, which are
// not XML characters; -1 when the bytes so far are a valid beginning that `available` cuts off.
inline int decode_utf8(char const* p, std::size_t available, std::uint32_t& code_point) noexcept {
  auto const* u = reinterpret_cast<unsigned char const*>(p);
  unsigned const lead = u[0];
  int length;
  unsigned lo = 0x80;
  unsigned hi = 0xBF;
  std::uint32_t cp;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    cp = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    cp = lead & 0x0F;
    if (lead == 0xE0) lo = 0xA0;
    if (lead == 0xED) hi = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    cp = lead & 0x07;
    if (lead == 0xF0) lo = 0x90;
    if (lead == 0xF4) hi = 0x8F;
  } else {
    return 0;
  }
  for (int i = 1; i < length; ++i) {
    if (static_cast<std::size_t>(i) >= available) return -1;
    unsigned const b = u[i];
    if (b < (i == 1 ? lo : 0x80u) || b > (i == 1 ? hi : 0xBFu)) return 0;
    cp = (cp << 6) | (b & 0x3F);
  }
  if (cp == 0xFFFE || cp == 0xFFFF) return 0;
  code_point = cp;
  return length;
}

}  // namespace zoxml::impl
