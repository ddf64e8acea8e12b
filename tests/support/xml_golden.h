// The XML format's column of the golden rows (support/golden.h): the document XmlWriter makes of
// every row with both layout strings empty (no white space at all), and the edges of the
// document format as rows of the column's own.
#pragma once

#include <string>
#include <string_view>

#include <support/golden.h>

namespace zotest {

GoldenColumn const& xml_column();

// The root start tag, and a whole document around `body`.
extern char const kXmlRoot[];
std::string xml_document(std::string_view body);

// The text of a Double element: printf's "%.18E", then trailing zeros (and a bare point) off the
// mantissa, leading zeros and a '+' off the exponent, and no exponent at all when it is 0.
std::string xml_double_text(double v);

}  // namespace zotest
