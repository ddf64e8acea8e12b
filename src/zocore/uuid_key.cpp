#include <zocore/uuid_key.h>
