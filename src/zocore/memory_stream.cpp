#include <zocore/memory_stream.h>
