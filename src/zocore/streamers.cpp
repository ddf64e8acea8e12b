#include <zocore/streamers.h>
