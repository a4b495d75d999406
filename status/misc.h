// The misc group: the MIB's revision, an overall condition, the poll frequency, the generic text
// that triggers a test trap, two dates, the status arrays (mib_status.h) and the host GUID
// (guid.h).
#ifndef VEX_STATUS_MISC_H
#define VEX_STATUS_MISC_H

#include "common/group.h"

extern const group misc_group;

// Builds the group at the first call and refreshes it at the later ones. Returns 0, or -1 when the
// object cannot be created or is gone.
int do_misc();

#endif
