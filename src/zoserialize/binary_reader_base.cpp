#include <zoserialize/binary_reader_base.h>
