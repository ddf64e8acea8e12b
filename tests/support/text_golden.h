// The text format's column of the golden rows (support/golden.h): the text TextWriter makes of
// every row, and the edges of the text grammar as rows of the column's own (read back, and
// copied to the very same text).
#pragma once

#include <support/golden.h>

namespace zotest {

GoldenColumn const& text_column();

}  // namespace zotest
