// Kinds of firmware: for each row of the firmware table what it belongs to and what device it is,
// as enumerations in which each value has one meaning.
#ifndef VEX_DETAIL_FWKIND_H
#define VEX_DETAIL_FWKIND_H

#include <stdint.h>

#include "common/group.h"

extern const group fwkind_group;

// Brings the table up to date with the rows of the firmware table. Returns 0, or -1 when a row
// cannot be made; the others are refreshed all the same, and the next pass tries again.
int do_fwkind();

// The kind of device (tlxHoFwKindDevice) of a firmware record's category and device type; other(1)
// of a pair that no collector gives.
int32_t firmware_device(int32_t category, int32_t device_type);

#endif
