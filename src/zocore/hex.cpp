#include <zocore/hex.h>
