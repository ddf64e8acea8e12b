#include <zoserialize/memory_reader.h>
