// The next free index that the software and the firmware table share, since managers know it so: a
// variable of one group's object, which that group says where to find.
#ifndef VEX_COMMON_NEXT_INDEX_H
#define VEX_COMMON_NEXT_INDEX_H

#include <stddef.h>
#include <stdint.h>

#include "platform/framework.h"

// Has the next index kept in the object from now on, at that offset of its data block; null while
// the object does not exist. Agent thread, as what follows.
void keep_next_index_in(registry_object *object, size_t offset);

// Stores the next index and publishes the object. Returns log_data()'s result, or -1 while the
// object does not exist.
int set_next_index(int32_t index);

// What is stored; 0 while the object does not exist.
int32_t next_index();

#endif
