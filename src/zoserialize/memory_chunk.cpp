#include <zoserialize/memory_chunk.h>
