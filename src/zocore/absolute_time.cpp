#include <zocore/absolute_time.h>
