// Memory group: physical and paging memory in megabytes, from proc(5) meminfo.
#ifndef VEX_MONITORS_MEMORY_H
#define VEX_MONITORS_MEMORY_H

#include "common/group.h"

extern const group memory_group;

// Builds the group at the first call and refreshes it at every call. Returns 0, or -1 when its
// object cannot be created or found; an unreadable /proc/meminfo leaves the values as they were.
int do_memory();

// The lines of /proc/meminfo that are used.
enum meminfo_key { MEM_TOTAL, MEM_FREE, SWAP_TOTAL, SWAP_FREE, MEMINFO_KEYS };

// Tells which key begins a line of /proc/meminfo, regardless of case, and stores its number
// (kilobytes; ULONG_MAX when it does not fit). Returns an enum meminfo_key, or -1 for other lines.
int parse_meminfo_line(const char *line, unsigned long *kilobytes);

// Where it reads.
inline constexpr char memory_sizes_path[] = "/proc/meminfo";

#endif
