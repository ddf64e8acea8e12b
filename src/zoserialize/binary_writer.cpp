#include <zoserialize/binary_writer.h>
