// Memory details: what programs can still be given, and what holds contents of files.
#ifndef VEX_DETAIL_MEMDETAIL_H
#define VEX_DETAIL_MEMDETAIL_H

#include <stdint.h>

#include "common/group.h"

extern const group memdetail_group;

// Builds the group at the first call and refreshes it at later ones. Returns 0, or -1 when its
// object cannot be made or is gone.
int do_memdetail();

// The megabytes of a line of /proc/meminfo (proc(5): "Key:  NUMBER kB") when it is that of the key;
// else, and when it has no number, -1.
int32_t megabytes_of_line(const char *line, const char *key);

#endif
