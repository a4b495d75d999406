// Mount details: device, directory and type of each row of the file-system table as values of their
// own, whether it is read-only, and whether it answers.
#ifndef VEX_DETAIL_MOUNT_H
#define VEX_DETAIL_MOUNT_H

#include "common/group.h"

extern const group mount_group;

// Brings the table up to date with the rows of the file-system table, from what the last pass of
// that table has seen. Returns 0, or -1 when a row cannot be made; the others are refreshed all the
// same, and the next pass tries again.
int do_mount();

#endif
