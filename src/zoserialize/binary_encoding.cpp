#include <zoserialize/binary_encoding.h>
