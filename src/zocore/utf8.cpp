#include <zocore/utf8.h>
