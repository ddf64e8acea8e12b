#include <zocore/file_stream.h>
