#include <zocore/numeric.h>
