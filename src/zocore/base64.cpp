#include <zocore/base64.h>
