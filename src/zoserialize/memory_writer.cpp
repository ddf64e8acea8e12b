#include <zoserialize/memory_writer.h>
