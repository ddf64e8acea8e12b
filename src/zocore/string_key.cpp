#include <zocore/string_key.h>
