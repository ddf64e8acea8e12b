#include <zoserialize/binary_writer_base.h>
