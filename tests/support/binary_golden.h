// The binary encoding's column of the golden rows (support/golden.h), shared by the binary
// stream and memory archives, which write and read the same bytes.
#pragma once

#include <support/golden.h>

namespace zotest {

// The expected bytes of every golden row, and the forms that binary readers accept although no
// writer produces them (sized markers, longer forms than the shortest, chunks of any size).
GoldenColumn const& binary_column();

}  // namespace zotest
