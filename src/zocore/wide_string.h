// Conversions between wide strings and UTF-8.
#pragma once

#include <string>

#include <zocore/export.h>

namespace zocore {

// Wide text is UTF-16 where wchar_t has 16 bits and UTF-32 where it has 32 (Linux). Decoding
// accepts UTF-16 surrogate pairs in either case, so UTF-16 data held in wchar_t converts too.
// Unpaired surrogates and values above U+10FFFF throw error::zocore_utf8 ("Invalid UTF-16 text:
// unpaired surrogate or invalid code unit at index {@index}", index of the offending unit).
ZOCORE_API std::string to_string(wchar_t const* text, unsigned count);
inline std::string to_string(std::wstring const& text) {
  return to_string(text.data(), static_cast<unsigned>(text.size()));
}
ZOCORE_API std::string to_string(char16_t const* text, unsigned count);

// UTF-8 to the platform's wide form (one wchar_t per code point on Linux). Malformed UTF-8
// throws error::zocore_utf8 exactly as check_valid_utf8 does.
ZOCORE_API std::wstring to_wstring(char const* text, unsigned size);
inline std::wstring to_wstring(std::string const& text) {
  return to_wstring(text.data(), static_cast<unsigned>(text.size()));
}
ZOCORE_API std::u16string to_u16string(char const* text, unsigned size);

}  // namespace zocore
