// The sibling agents by name: presence, condition and revision in words, one row for each MIB
// group.
#ifndef VEX_DETAIL_SIBLING_H
#define VEX_DETAIL_SIBLING_H

#include "common/group.h"

extern const group sibling_group;

// Builds the table at the first call and refreshes it at later ones, from what the last pass of the
// status arrays has seen. Returns 0, or -1 when a row cannot be made or is gone; the others are
// refreshed all the same.
int do_sibling();

// The name of the group that has this place in the status array; "" when no group has it.
const char *sibling_name(int32_t index);

#endif
