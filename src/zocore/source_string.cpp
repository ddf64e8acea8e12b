#include <limits>
#include <stdexcept>

#include <zocore/source_string.h>

namespace zocore {

unsigned SourceString::checked_size(std::size_t n) {
  if (n >= std::numeric_limits<unsigned>::max())
    throw std::length_error("zocore::SourceString: text too long");
  return static_cast<unsigned>(n);
}

}  // namespace zocore
