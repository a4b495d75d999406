// Kinds of software: for each row of the software table its name and type as the agent judges them.
// The table's own can be set by managers.
#ifndef VEX_DETAIL_SWKIND_H
#define VEX_DETAIL_SWKIND_H

#include "common/group.h"

extern const group swkind_group;

// Brings the table up to date with the rows of the software table. Returns 0, or -1 when a row
// cannot be made; the others are refreshed all the same, and the next pass tries again.
int do_swkind();

#endif
