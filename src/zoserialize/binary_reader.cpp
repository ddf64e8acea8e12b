#include <zoserialize/binary_reader.h>
