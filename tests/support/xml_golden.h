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

}  // namespace zotest
