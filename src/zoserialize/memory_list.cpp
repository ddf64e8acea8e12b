#include <zoserialize/memory_list.h>
