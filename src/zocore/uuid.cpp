#include <zocore/uuid.h>
