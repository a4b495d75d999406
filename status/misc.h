// The misc group: the MIB's revision, an overall condition, the poll frequency, the generic text
// that triggers a test trap, two dates, the status arrays (mib_status.h) and the host GUID
// (guid.h).
#ifndef VEX_STATUS_MISC_H
#define VEX_STATUS_MISC_H

#include <stdint.h>

// Builds the group at the first call and refreshes it at the later ones. Returns 0, or -1 when the
// object cannot be created or is gone.
int do_misc(void);

// Stores the next free software index in tlxHoSwVerNextIndex and publishes the group. Returns
// log_data()'s result, or -1 while the group does not exist. The software and the firmware table
// both keep their next index there.
int set_next_index(int32_t index);

// What tlxHoSwVerNextIndex holds; 0 while the group does not exist.
int32_t next_index(void);

#endif
