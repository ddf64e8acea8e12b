#include <zocore/wide_string.h>
