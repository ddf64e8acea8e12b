// Number <-> text helpers.
#pragma once

#include <string>
#include <typeinfo>

#include <zocore/error_info.h>
#include <zocore/export.h>
#include <zocore/ref_count_ptr.h>

namespace zocore {

ZOCORE_API std::string to_string(int value);
ZOCORE_API std::string to_string(unsigned value);
ZOCORE_API std::string to_string(long long value);
ZOCORE_API std::string to_string(unsigned long long value);

namespace impl {

// Parses a whole decimal floating-point text (optional sign, digits, fraction, exponent; also
// "inf", "infinity", "nan" in any case). On failure returns 0.0 and, when `error` is not null,
// stores a record with code error::zocore_format: "Invalid floating point text: \"{@text}\"", or
// "Floating point text out of range: \"{@text}\"" for a finite text beyond the double range
// (too large, or so small that it would round to zero; subnormal results are accepted).
// A leading '+' is accepted like '-', but not both; "nan(chars)" is accepted as NaN. No
// whitespace, no hexadecimal form, and the whole text must be consumed.
ZOCORE_API double string_to_double(char const* text, unsigned size,
                                   RefCountPtr<ErrorInfo const>* error);

// Raises error::zocore_range: "Value {@value} does not fit into type '{@type}'", with the
// demangled type name ("unsigned short") where the ABI library can provide it.
[[noreturn]] ZOCORE_API void safe_cast_throw_value_truncated(std::type_info const& type,
                                                             unsigned long long value);

}  // namespace impl
}  // namespace zocore
