#include <zocore/relative_time.h>
